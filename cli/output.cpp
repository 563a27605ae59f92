#include "output.h"

#include <algorithm>
#include <iostream>

#include <mervane/foundation/json/writer.h>
#include <mervane/foundation/text/utf8.h>

namespace mervane::cli {

namespace {

// Columns. A wider cell pushes the rest of its own row to the right instead of widening every row.
constexpr std::size_t kMaxWidth = 200;

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    appendOneLine(out, text);
    return out;
}

void Table::add(std::vector<std::string> cells) {
    for (std::string& cell : cells) cell = printable(cell);
    m_rows.push_back(std::move(cells));
}

void Table::print() const {
    std::vector<std::size_t> widths(m_rows.front().size(), 0);
    for (const auto& row : m_rows) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], std::min(displayWidth(row[i]), kMaxWidth));
    }
    std::string out;
    for (const auto& row : m_rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::size_t width = displayWidth(row[i]);
            line.append(row[i]).append(widths[i] - std::min(width, widths[i]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out.append(line).push_back('\n');
    }
    std::cout << out;
}

void printFields(const std::vector<std::pair<std::string, std::string>>& fields) {
    std::size_t width = 0;
    for (const auto& [name, value] : fields) width = std::max(width, name.size());
    for (const auto& [name, value] : fields) {
        std::cout << name << ':' << std::string(width - name.size() + 1, ' ') << printable(value)
                  << '\n';
    }
}

JsonList::JsonList(std::string_view name)
    : m_text("{\n  " + toJsonText(JsonValue(name), false) + ": [") {}

void JsonList::add(const JsonValue& record) {
    m_text.append(m_isEmpty ? "\n    " : ",\n    ");
    m_isEmpty = false;
    appendJsonText(m_text, record, true, 2);
}

void JsonList::print(int numLeftOut) {
    m_text.append(m_isEmpty ? "]" : "\n  ]");
    if (numLeftOut != 0) m_text.append(",\n  \"leftOut\": ").append(std::to_string(numLeftOut));
    std::cout << m_text << "\n}\n";
}

void sayLeftOut(int number) {
    if (number == 0) return;
    std::cerr << "mervane-p11: " << number << (number == 1 ? " object" : " objects")
              << " could not be read and " << (number == 1 ? "is" : "are")
              << " missing here; --log names them.\n";
}

void printJson(const JsonValue& value) {
    std::cout << toJsonText(value, true) << '\n';
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

}  // namespace mervane::cli
