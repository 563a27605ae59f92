#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <numeric>
#include <utility>

#include <mervane/foundation/json/writer.h>
#include <mervane/foundation/text/utf8.h>

namespace mervane::cli {

namespace {

// Columns. A wider cell pushes the rest of its own row to the right instead of widening every row.
constexpr std::size_t kMaxWidth = 200;
constexpr std::size_t kGap = 2;        // between two columns
constexpr std::size_t kMinWidth = 40;  // of a terminal; one that says less gets broken lines
constexpr std::size_t kUsualWidth = 80;
constexpr std::size_t kMinColumn = 6;

bool isSilent = false;  // see silenceRemarks()

using Rows = std::vector<std::vector<std::string>>;

// The width of each column; with a bound, the widest give way until all fit into it.
std::vector<std::size_t> columnWidths(const Rows& rows, std::size_t bound) {
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], std::min(displayWidth(row[i]), kMaxWidth));
    }
    if (bound == 0) return widths;
    const std::size_t gaps = kGap * (widths.size() - 1);
    for (;;) {
        const std::size_t used = std::accumulate(widths.begin(), widths.end(), gaps);
        const auto widest = std::ranges::max_element(widths);
        if (used <= bound || *widest <= kMinColumn) return widths;
        --*widest;
    }
}

// The front of a printable text, ended by an ellipsis if anything was cut.
std::string cutTo(const std::string& text, std::size_t width) {
    std::size_t used = 0;
    std::size_t end = 0;  // of what leaves a column for the ellipsis
    for (std::size_t at = 0; at < text.size();) {
        std::size_t next = at + 1;
        while (next < text.size() && (text[next] & 0xC0) == 0x80) ++next;
        used += displayWidth(std::string_view(text).substr(at, next - at));
        if (used > width) return text.substr(0, end) + "…";
        at = next;
        if (used < width) end = at;
    }
    return text;
}

// How much of a text is escaped at a time: no UTF-8 sequence is cut.
std::size_t pieceSize(std::string_view text) {
    constexpr std::size_t kPiece = 4096;
    constexpr std::size_t kLongest = 4;  // bytes of a sequence
    if (text.size() <= kPiece) return text.size();
    std::size_t size = kPiece;
    while (size > kPiece - kLongest && (text[size] & 0xC0) == 0x80) --size;
    return size;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    appendOneLine(out, text);
    return out;
}

void Table::add(std::vector<std::string> cells) {
    for (std::string& cell : cells) {
        const bool isLong = cell.size() > kMaxCell;
        if (isLong) cell.resize(kMaxCell);
        cell = printable(cell) + (isLong ? "…" : "");
    }
    m_rows.push_back(std::move(cells));
}

void Table::print(std::size_t width) const {
    const auto widths = columnWidths(m_rows, width);
    std::string out;
    for (const auto& row : m_rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string cell = width == 0 ? row[i] : cutTo(row[i], widths[i]);
            const std::size_t used = displayWidth(cell);
            line.append(cell).append(widths[i] - std::min(used, widths[i]) + kGap, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out.append(line).push_back('\n');
    }
    std::cout << out;
}

std::size_t terminalWidth() noexcept {
    winsize size{};
    const bool isTerminal = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0;
    // A serial line, and some containers, know no width.
    const std::size_t width = size.ws_col == 0 ? kUsualWidth : size.ws_col;
    return isTerminal ? std::max(width, kMinWidth) : 0;
}

void printFields(const std::vector<std::pair<std::string, std::string>>& fields) {
    std::size_t width = 0;
    for (const auto& [name, value] : fields) width = std::max(width, name.size());
    for (const auto& [name, value] : fields) {
        std::cout << name << ':' << std::string(width - name.size() + 1, ' ') << printable(value)
                  << '\n';
    }
}

void remark(const std::string& sentence) {
    if (!isSilent) std::cerr << "mervane-p11: " << sentence << '\n';
}

void silenceRemarks() noexcept {
    isSilent = true;
}

void sayLeftOut(int number) {
    if (number == 0) return;
    const bool isOne = number == 1;
    remark(std::to_string(number) + (isOne ? " object" : " objects") + " could not be read and " +
           (isOne ? "is" : "are") + " missing here; --log names them.");
}

void printJson(const JsonValue& object) {
    JsonPrinter document;
    for (const JsonMember& member : *object.asObject())
        document.member(member.name(), member.value);
    document.finish();
}

JsonPrinter::JsonPrinter() {
    s_wasBegun = true;
    std::cout << '{';
    member("schema", JsonValue(1));
}

void JsonPrinter::finish() {
    end('}');
    std::cout << '\n';
}

void JsonPrinter::member(std::string_view name, const JsonValue& value) {
    startValue(name);
    std::string text;
    appendJsonText(text, value, true, m_depth);
    std::cout << text;
}

void JsonPrinter::text(std::string_view name, std::string_view value) {
    startValue(name);
    std::cout << '"';
    std::string piece;
    while (!value.empty()) {
        const std::string_view next = value.substr(0, pieceSize(value));
        value.remove_prefix(next.size());
        piece.clear();
        appendJsonText(piece, JsonValue(next), false, 0);
        std::cout << std::string_view(piece).substr(1, piece.size() - 2);  // without its quotes
    }
    std::cout << '"';
}

void JsonPrinter::begin(std::string_view name, char bracket) {
    startValue(name);
    std::cout << bracket;
    ++m_depth;
    m_isFirst = true;
}

void JsonPrinter::end(char bracket) {
    --m_depth;
    if (!m_isFirst) std::cout << '\n' << std::string(m_depth * 2, ' ');
    std::cout << bracket;
    m_isFirst = false;
}

void JsonPrinter::startValue(std::string_view name) {
    std::cout << (std::exchange(m_isFirst, false) ? "\n" : ",\n") << std::string(m_depth * 2, ' ');
    if (!name.empty()) std::cout << toJsonText(JsonValue(name), false) << ": ";
}

std::string textOf(const JsonValue& object, std::string_view member) {
    const JsonValue* const value = object.find(member);
    if (value == nullptr || value->isNull()) return {};
    return value->asString() ? std::string(*value->asString()) : toJsonText(*value, false);
}

std::string joined(const JsonValue& object, std::string_view member) {
    const JsonValue* const value = object.find(member);
    std::string out;
    if (value == nullptr || value->asArray() == nullptr) return out;
    for (const JsonValue& item : *value->asArray()) {
        if (item.asString()) out.append(out.empty() ? "" : " ").append(*item.asString());
    }
    return out;
}

std::string joined(const std::vector<std::string>& words) {
    std::string out;
    for (const std::string& word : words) out.append(out.empty() ? "" : " ").append(word);
    return out;
}

}  // namespace mervane::cli
