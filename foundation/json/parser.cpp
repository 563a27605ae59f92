// A recursive descent parser, one function per rule of RFC 8259. Depth is bounded by kMaxDepth, so
// the stack is too; the text may be hostile.
//
// Each function starts with m_at at the first character of its rule. On success m_at is just past
// the rule; on failure it stays where the fault is, and error() turns it into line and column,
// which therefore cost nothing unless needed.
//
// Memory is the other concern: every second byte of a text can become a value. Strings without
// escapes are taken as views of the text, and long lists are counted ahead and allocated once.

#include "foundation/json/parser.h"

#include <algorithm>
#include <array>
#include <string>

#include "foundation/text/codepoint.h"

namespace mervane {
namespace {

constexpr int kMaxDepth = 64;
// Lists beyond this have their remaining elements counted before parsing goes on: a growing block
// exists twice while it is copied, and is half empty afterwards.
constexpr std::size_t kFewItems = 256;

constexpr bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

// The one-byte characters that may appear unescaped in a string.
constexpr auto kPlain = [] {
    std::array<bool, 256> plain{};
    for (std::size_t c = 0x20; c < 0x80; ++c) plain[c] = c != '"' && c != '\\';
    return plain;
}();

class Parser {
  public:
    explicit Parser(std::string_view text) : m_text(text) {}

    bool parse(JsonValue& out) {
        if (m_text.starts_with("\xEF\xBB\xBF")) m_at = 3;
        skipWhiteSpace();
        if (!parseValue(out, 0)) return false;
        skipWhiteSpace();
        return m_at == m_text.size() || fail("text after the end of the document");
    }

    [[nodiscard]] JsonError error() const {
        const std::string_view before = m_text.substr(0, m_at);
        const auto lineStart = before.rfind('\n') + 1;  // npos + 1 is 0, the first line
        const auto numLines = std::ranges::count(before, '\n');
        return {static_cast<std::size_t>(numLines) + 1, m_at - lineStart + 1, m_reason};
    }

  private:
    bool fail(std::string_view reason) {
        m_reason = reason;
        return false;
    }

    // NUL at the end of the text; no token outside strings contains one.
    [[nodiscard]] char peek() const noexcept { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    bool accept(char c) {
        if (peek() != c || m_at == m_text.size()) return false;
        ++m_at;
        return true;
    }

    void skipWhiteSpace() {
        while (m_at < m_text.size() && (m_text[m_at] == ' ' || m_text[m_at] == '\n' ||
                                        m_text[m_at] == '\r' || m_text[m_at] == '\t')) {
            ++m_at;
        }
    }

    // value = false / null / true / object / array / number / string
    bool parseValue(JsonValue& out, int depth) {
        switch (peek()) {
            case '{':
                return parseObject(out, depth);
            case '[':
                return parseArray(out, depth);
            case '"': {
                std::string_view text;
                if (!parseString(text)) return false;
                out = JsonValue(text);
                return true;
            }
            case 't':
                return parseWord("true", out, JsonValue(true));
            case 'f':
                return parseWord("false", out, JsonValue(false));
            case 'n':
                return parseWord("null", out, JsonValue());
            default:
                return parseNumber(out);
        }
    }

    bool parseWord(std::string_view word, JsonValue& out, JsonValue value) {
        if (m_text.substr(m_at, word.size()) != word) return fail("a value is expected");
        m_at += word.size();
        out = std::move(value);
        return true;
    }

    // object = begin-object [ member *( value-separator member ) ] end-object
    bool parseObject(JsonValue& out, int depth) {
        if (depth == kMaxDepth) return fail("nested too deeply");
        ++m_at;
        JsonObject members;
        skipWhiteSpace();
        if (!accept('}')) {
            do {
                skipWhiteSpace();
                if (peek() != '"') return fail("a member name is expected");
                std::string_view name;
                if (!parseString(name)) return false;
                JsonMember& member = append(members);
                member.nameValue = JsonValue(name);
                skipWhiteSpace();
                if (!accept(':')) return fail("':' is expected after a member name");
                skipWhiteSpace();
                if (!parseValue(member.value, depth + 1)) return false;
                skipWhiteSpace();
            } while (accept(','));
            if (!accept('}')) return fail("',' or '}' is expected in an object");
        }
        out = JsonValue(std::move(members));
        return true;
    }

    // array = begin-array [ value *( value-separator value ) ] end-array
    bool parseArray(JsonValue& out, int depth) {
        if (depth == kMaxDepth) return fail("nested too deeply");
        ++m_at;
        JsonArray items;
        skipWhiteSpace();
        if (!accept(']')) {
            do {
                skipWhiteSpace();
                if (!parseValue(append(items), depth + 1)) return false;
                skipWhiteSpace();
            } while (accept(','));
            if (!accept(']')) return fail("',' or ']' is expected in an array");
        }
        out = JsonValue(std::move(items));
        return true;
    }

    // Adds the element that starts at m_at.
    template <class T>
    T& append(CompactList<T>& list) {
        if (list.size() == kFewItems) list.reserve(kFewItems + 1 + countItems());
        return list.emplace_back();
    }

    // Number of elements after the current one in the list around m_at. For malformed text this is
    // a guess, but never more than one element per two bytes.
    [[nodiscard]] std::size_t countItems() const noexcept {
        std::size_t numItems = 0;
        std::size_t depth = 0;
        for (std::size_t at = m_at; at < m_text.size(); ++at) {
            const char c = m_text[at];
            if (c == '"') {
                while (++at < m_text.size() && m_text[at] != '"') at += m_text[at] == '\\';
            } else if (c == '[' || c == '{') {
                ++depth;
            } else if (c == ']' || c == '}') {
                if (depth-- == 0) break;
            } else if (c == ',') {
                numItems += depth == 0 && m_text[at - 1] != ',';
            }
        }
        return numItems;
    }

    // number = [ minus ] int [ frac ] [ exp ]
    bool parseNumber(JsonValue& out) {
        const std::size_t start = m_at;
        accept('-');
        if (!isDigit(peek())) return fail("a value is expected");
        if (!accept('0')) skipDigits();
        if (isDigit(peek())) return fail("a number does not begin with 0");
        if (accept('.') && !skipDigits()) return fail("a digit is expected after the point");
        if (accept('e') || accept('E')) {
            if (!accept('+')) accept('-');
            if (!skipDigits()) return fail("a digit is expected in the exponent");
        }
        out = JsonValue::number(m_text.substr(start, m_at - start));
        return true;
    }

    bool skipDigits() {
        const std::size_t start = m_at;
        while (isDigit(peek())) ++m_at;
        return m_at != start;
    }

    // Without escapes `out` is a view of the text; otherwise of m_unescaped, valid until the next
    // string is parsed.
    bool parseString(std::string_view& out) {
        ++m_at;
        m_unescaped.clear();
        while (true) {
            const std::size_t start = m_at;
            if (!skipCharacters()) return false;
            const std::string_view piece = m_text.substr(start, m_at - start);
            const bool isLast = accept('"');
            if (!isLast || !m_unescaped.empty()) m_unescaped.append(piece);
            out = m_unescaped.empty() ? piece : m_unescaped;
            if (isLast) return true;
            if (!parseEscape(m_unescaped)) return false;
        }
    }

    // Skips unescaped characters, up to a quotation mark or a backslash.
    bool skipCharacters() {
        while (m_at < m_text.size()) {
            if (kPlain[static_cast<std::uint8_t>(m_text[m_at])]) {
                ++m_at;
            } else if (m_text[m_at] == '"' || m_text[m_at] == '\\') {
                return true;
            } else if (!skipOther()) {
                return false;
            }
        }
        return fail("a string is not closed");
    }

    // Skips one character beyond ASCII; refuses control characters.
    bool skipOther() {
        if (static_cast<std::uint8_t>(m_text[m_at]) < 0x20) {
            return fail("a control character stands in a string");
        }
        std::string_view rest = m_text.substr(m_at);
        bool ok = true;
        takeCodePoint(rest, ok);
        if (!ok) return fail("the text is not UTF-8");
        m_at = m_text.size() - rest.size();
        return true;
    }

    bool parseEscape(std::string& out) {
        ++m_at;
        constexpr std::string_view kNames = "\"\\/bfnrt";
        constexpr std::string_view kValues = "\"\\/\b\f\n\r\t";
        const auto simple = m_at < m_text.size() ? kNames.find(m_text[m_at]) : std::string::npos;
        if (simple != std::string::npos) {
            out.push_back(kValues[simple]);
            ++m_at;
            return true;
        }
        std::uint32_t c = 0;
        if (!accept('u')) return fail("an unknown escape stands in a string");
        if (!parseHex4(c)) return false;
        if (c >= 0xD800 && c <= 0xDBFF && m_text.substr(m_at, 2) == "\\u") {
            const std::size_t before = m_at;
            std::uint32_t low = 0;
            m_at += 2;
            if (!parseHex4(low)) return false;
            if (low >= 0xDC00 && low <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            } else {
                m_at = before;  // a lone high surrogate; the second escape is parsed on its own
            }
        }
        appendUtf8(out, c);
        return true;
    }

    bool parseHex4(std::uint32_t& out) {
        for (int i = 0; i < 4; ++i, ++m_at) {
            const char c = peek();
            const char lower = static_cast<char>(c | 0x20);
            if (isDigit(c)) {
                out = out << 4 | static_cast<std::uint32_t>(c - '0');
            } else if (lower >= 'a' && lower <= 'f') {
                out = out << 4 | static_cast<std::uint32_t>(lower - 'a' + 10);
            } else {
                return fail("four hexadecimal digits are expected after \\u");
            }
        }
        return true;
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    std::string m_unescaped;  // the latest string that had escapes
    std::string_view m_reason;
};

}  // namespace

bool parseJson(std::string_view text, JsonValue& value, JsonError& error) {
    Parser parser(text);
    JsonValue parsed;
    if (!parser.parse(parsed)) {
        error = parser.error();
        return false;
    }
    value = std::move(parsed);
    return true;
}

}  // namespace mervane
