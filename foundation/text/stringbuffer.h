#ifndef MERVANE_FOUNDATION_TEXT_STRINGBUFFER_H
#define MERVANE_FOUNDATION_TEXT_STRINGBUFFER_H

#include <algorithm>
#include <string>
#include <string_view>

#include "ascii.h"

namespace mervane {

/// A byte string, UTF-8 unless noted otherwise. What does not change the string in place is done on
/// view().
class StringBuffer {
  public:
    StringBuffer() = default;
    /// A copy of the text.
    explicit StringBuffer(std::string_view text) : m_text(text) {}

    /// @{
    /// Valid until the string changes, as is getString(), which is NUL-terminated and never null.
    [[nodiscard]] std::string_view view() const noexcept { return m_text; }
    [[nodiscard]] const char* getString() const noexcept { return m_text.c_str(); }
    /// @}
    /// @{
    /// Same as std::string's empty(), clear(), append() and assign().
    [[nodiscard]] bool isEmpty() const noexcept { return m_text.empty(); }

    void clear() noexcept { m_text.clear(); }
    void append(std::string_view text) { m_text.append(text); }
    void setString(std::string_view text) { m_text.assign(text); }
    /// @}

    /// Removes ASCII whitespace from both ends.
    void trim2() { m_text = std::string(trimmed(m_text)); }
    /// @{
    /// Change ASCII letters only.
    void toLowerCase() noexcept { std::ranges::transform(m_text, m_text.begin(), toLowerAscii); }
    void toUpperCase() noexcept { std::ranges::transform(m_text, m_text.begin(), toUpperAscii); }
    /// @}

    /// @{
    /// Compare byte for byte.
    [[nodiscard]] bool equals(std::string_view text) const noexcept { return m_text == text; }
    [[nodiscard]] bool beginsWith(std::string_view s) const noexcept {
        return m_text.starts_with(s);
    }
    [[nodiscard]] bool endsWith(std::string_view s) const noexcept { return m_text.ends_with(s); }
    [[nodiscard]] bool containsSubstring(std::string_view part) const noexcept {
        return m_text.find(part) != std::string::npos;
    }
    /// @}

    /// Removes everything up to and including the last '/'. Returns whether there was one.
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
