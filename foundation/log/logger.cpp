// All entries live in one buffer, oldest first. Each is a head of five bytes (its kind, then the
// lengths of name and text in 16 bits, little-endian) followed by those bytes. A context is a pair
// of entries, Enter and Leave, so nesting costs nothing to write and forEach() rebuilds the depths.
//
// m_calls holds where each public call begins. When the next one begins, whole calls are cut from
// the front; the current call is never cut, only bounded. A context that does not fit, or is nested
// too deeply, gets neither entry: m_stored remembers which of the open ones have an Enter.
//
// Texts are made printable, in one line of bounded length, as they are stored; readers need not.

#include "foundation/log/logger.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "foundation/text/jsonstring.h"
#include "foundation/text/utf8.h"

namespace mervane {
namespace {

constexpr std::size_t kKeptBytes = std::size_t{256} * 1024;   // of calls before the current one
constexpr std::size_t kCallBytes = std::size_t{1024} * 1024;  // of the current call
constexpr std::size_t kErrorBytes = std::size_t{64} * 1024;   // of its errors beyond that
constexpr std::size_t kMaxText = 4096;                        // bytes of one text, as given
constexpr int kMaxDepth = 64;  // bits of m_stored; deeper contexts are not stored
constexpr std::size_t kHeadSize = 5;

void setLength(std::string& bytes, std::size_t at, std::size_t length) noexcept {
    bytes[at] = static_cast<char>(length & 0xFF);
    bytes[at + 1] = static_cast<char>(length >> 8);
}

std::size_t lengthAt(std::string_view bytes, std::size_t at) noexcept {
    return static_cast<std::uint8_t>(bytes[at]) |
           static_cast<std::size_t>(static_cast<std::uint8_t>(bytes[at + 1])) << 8;
}

// The bit of m_stored for the context at `depth`.
std::uint64_t bitOf(int depth) noexcept {
    return std::uint64_t{1} << depth;
}

std::string_view cut(std::string_view text) noexcept {
    return text.substr(0, kMaxText);
}

}  // namespace

void _mvLogger::write(Kind kind, std::string_view name, std::string_view text) noexcept {
    try {
        const auto what = kind == Kind::Error  ? Entry::What::Error
                          : kind == Kind::Data ? Entry::What::Data
                                               : Entry::What::Info;
        store(what, name, text);
        if (kind == Kind::Error) {
            m_lastError.clear();
            appendOneLine(m_lastError, cut(text));
            if (m_firstError.empty()) m_firstError = m_lastError;
        } else if (kind == Kind::Hint) {
            m_lastHint.clear();
            appendOneLine(m_lastHint, cut(text));
        }
    } catch (const std::exception&) {
        ++m_numDropped;  // out of memory for the log; the call itself goes on
    }
}

void _mvLogger::enterContext(std::string_view name) noexcept {
    try {
        if (m_depth == 0) beginCall();
        if (m_depth < kMaxDepth && store(Entry::What::Enter, {}, name)) m_stored |= bitOf(m_depth);
    } catch (const std::exception&) {
        ++m_numDropped;
    }
    ++m_depth;
}

void _mvLogger::leaveContext() noexcept {
    --m_depth;
    try {
        if (m_depth == 0 && m_numDropped != 0) {
            const auto lost = std::to_string(std::exchange(m_numDropped, 0));
            append(Entry::What::Data, "entriesNotKept", lost);
        }
        if (m_depth < kMaxDepth && (m_stored & bitOf(m_depth)) != 0) {
            m_stored &= ~bitOf(m_depth);
            append(Entry::What::Leave, {}, {});
        }
    } catch (const std::exception&) {
        ++m_numDropped;
    }
}

void _mvLogger::beginCall() {
    m_firstError.clear();
    m_lastError.clear();
    m_lastHint.clear();
    m_numDropped = 0;
    m_stored = 0;
    if (m_bytes.size() > kKeptBytes) {
        // Down to half the bound, so that the buffer is not moved at every call.
        const auto first = std::ranges::lower_bound(m_calls, m_bytes.size() - kKeptBytes / 2);
        const std::size_t numBytes = first == m_calls.end() ? m_bytes.size() : *first;
        m_bytes.erase(0, numBytes);
        m_calls.erase(m_calls.begin(), first);
        for (std::size_t& start : m_calls) start -= numBytes;
        if (m_bytes.capacity() > 2 * kKeptBytes) m_bytes.shrink_to_fit();
    }
    m_calls.push_back(m_bytes.size());
}

bool _mvLogger::store(Entry::What what, std::string_view name, std::string_view text) {
    const std::size_t used = m_bytes.size() - (m_calls.empty() ? 0 : m_calls.back());
    const std::size_t room = kCallBytes + (what == Entry::What::Error ? kErrorBytes : 0);
    if (used > room) {
        ++m_numDropped;
        return false;
    }
    append(what, name, text);
    return true;
}

void _mvLogger::append(Entry::What what, std::string_view name, std::string_view text) {
    const std::size_t start = m_bytes.size();
    // If an append throws, half an entry must not stay: everything after it would be unreadable.
    struct Rollback {
        std::string& bytes;
        std::size_t size;
        ~Rollback() { bytes.resize(std::min(size, bytes.size())); }
    } rollback{m_bytes, start};
    m_bytes.push_back(static_cast<char>(what));
    m_bytes.append(kHeadSize - 1, '\0');
    appendOneLine(m_bytes, cut(name));
    const std::size_t nameSize = m_bytes.size() - start - kHeadSize;
    appendOneLine(m_bytes, cut(text));
    if (text.size() > kMaxText) m_bytes.append("...");
    const std::size_t textSize = m_bytes.size() - start - kHeadSize - nameSize;
    setLength(m_bytes, start + 1, nameSize);
    setLength(m_bytes, start + 3, textSize);
    rollback.size = m_bytes.size();
}

void _mvLogger::forEach(const std::function<void(const Entry&)>& visit) const {
    const std::string_view bytes = m_bytes;
    auto nextCall = m_calls.begin();
    int depth = 0;
    for (std::size_t at = 0; at < bytes.size();) {
        if (nextCall != m_calls.end() && *nextCall == at) {
            depth = 0;
            ++nextCall;
        }
        const auto what = static_cast<Entry::What>(bytes[at]);
        const std::size_t nameSize = lengthAt(bytes, at + 1);
        const std::size_t textSize = lengthAt(bytes, at + 3);
        at += kHeadSize;
        if (what == Entry::What::Leave) --depth;
        visit({what, depth, bytes.substr(at, nameSize), bytes.substr(at + nameSize, textSize)});
        if (what == Entry::What::Enter) ++depth;
        at += nameSize + textSize;
    }
}

std::string _mvLogger::text() const {
    std::string out;
    forEach([&out](const Entry& entry) {
        if (entry.what == Entry::What::Leave) return;
        out.append(static_cast<std::size_t>(entry.depth) * 2, ' ');
        if (entry.what == Entry::What::Error) out.append("error: ");
        if (entry.what == Entry::What::Data) out.append(entry.name).append(": ");
        out.append(entry.text).append(entry.what == Entry::What::Enter ? ":\n" : "\n");
    });
    return out;
}

std::string _mvLogger::json() const {
    std::string out = "[";
    bool first = true;  // of the array being written
    const auto member = [&out](std::string_view name, std::string_view text) {
        appendJsonString(out, name);
        out.push_back(':');
        appendJsonString(out, text);
    };
    forEach([&](const Entry& entry) {
        if (entry.what == Entry::What::Leave) {
            out.append("]}");
            first = false;
            return;
        }
        if (!std::exchange(first, false)) out.push_back(',');
        out.push_back('{');
        switch (entry.what) {
            case Entry::What::Error:
                member("error", entry.text);
                break;
            case Entry::What::Info:
                member("info", entry.text);
                break;
            case Entry::What::Data:
                member("name", entry.name);
                out.push_back(',');
                member("value", entry.text);
                break;
            default:
                member("context", entry.text);
                out.append(",\"entries\":[");
                first = true;
                return;
        }
        out.push_back('}');
    });
    for (int open = m_depth; open > 0; --open) out.append("]}");
    return out + "]";
}

void _mvLogger::abandon() noexcept {
    for (std::string* const text : {&m_bytes, &m_firstError, &m_lastError, &m_lastHint})
        std::construct_at(text);
    std::construct_at(&m_calls);
    m_numDropped = m_stored = 0;
    m_depth = 0;
    settleOptions();
}

void _mvLogger::clear() noexcept {
    m_bytes.clear();
    m_calls.clear();
    m_firstError.clear();
    m_lastError.clear();
    m_lastHint.clear();
}

}  // namespace mervane
