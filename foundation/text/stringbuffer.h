#ifndef MERVANE_FOUNDATION_TEXT_STRINGBUFFER_H
#define MERVANE_FOUNDATION_TEXT_STRINGBUFFER_H

#include <algorithm>
#include <string>
#include <string_view>

#include "ascii.h"

namespace mervane {

/// An owned byte string, UTF-8 unless said otherwise. For everything that is not changed in
/// place, callers use view().
class StringBuffer {
  public:
    StringBuffer() = default;
    explicit StringBuffer(std::string_view text) : m_text(text) {}

    [[nodiscard]] std::string_view view() const noexcept { return m_text; }
    [[nodiscard]] const char* getString() const noexcept { return m_text.c_str(); }
    [[nodiscard]] bool isEmpty() const noexcept { return m_text.empty(); }

    void clear() noexcept { m_text.clear(); }
    void append(std::string_view text) { m_text.append(text); }
    void setString(std::string_view text) { m_text.assign(text); }

    /// Removes white space (blank, tab, line ends, vertical tab, form feed) from both ends.
    void trim2() { m_text = std::string(trimmed(m_text)); }
    void toLowerCase() noexcept { std::ranges::transform(m_text, m_text.begin(), toLowerAscii); }
    void toUpperCase() noexcept { std::ranges::transform(m_text, m_text.begin(), toUpperAscii); }

    [[nodiscard]] bool equals(std::string_view text) const noexcept { return m_text == text; }
    [[nodiscard]] bool beginsWith(std::string_view s) const noexcept {
        return m_text.starts_with(s);
    }
    [[nodiscard]] bool endsWith(std::string_view s) const noexcept { return m_text.ends_with(s); }
    [[nodiscard]] bool containsSubstring(std::string_view part) const noexcept {
        return m_text.find(part) != std::string::npos;
    }

    /// Cuts everything up to and including the last directory separator; true when that changed
    /// the string.
    bool stripDirectory() {
        const auto separator = m_text.rfind('/');
        if (separator == std::string::npos) return false;
        m_text.erase(0, separator + 1);
        return true;
    }

  private:
    std::string m_text;
};

}  // namespace mervane

#endif
