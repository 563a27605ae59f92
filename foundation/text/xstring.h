#ifndef MERVANE_FOUNDATION_TEXT_XSTRING_H
#define MERVANE_FOUNDATION_TEXT_XSTRING_H

#include <concepts>
#include <string>
#include <string_view>
#include <utility>

#include "secret.h"

namespace mervane {

/// The UTF-8 string of public arguments and properties. Any of them may hold a PIN, so the memory
/// is wiped whenever a value is replaced, cleared or destroyed.
class XString {
  public:
    XString() = default;
    /// Not explicit: a method that takes an XString takes a plain text, too.
    template <std::convertible_to<std::string_view> Text>
    XString(const Text& utf8) : m_text(static_cast<std::string_view>(utf8)) {}
    /// A copy; see swap() and takeUtf8() for ways without one.
    XString(const XString& other) = default;
    ~XString() { wipe(m_text); }

    /// Wipes the value it replaces.
    XString& operator=(const XString& other) {
        if (this != &other) setFromUtf8(other.view());
        return *this;
    }

    /// @{
    /// The text; valid until it changes. getUtf8() is NUL-terminated and never null.
    [[nodiscard]] const char* getUtf8() const noexcept { return m_text.c_str(); }
    [[nodiscard]] std::string_view view() const noexcept { return m_text; }
    /// @}
    /// Whether it has no bytes.
    [[nodiscard]] bool isEmpty() const noexcept { return m_text.empty(); }

    /// Wipes the value and makes it empty.
    void clear() noexcept { wipe(m_text); }
    /// Replaces the value by a copy of `utf8`, which may be part of it; NULs are kept.
    void setFromUtf8(std::string_view utf8) {
        std::string fresh(utf8);  // copied first: `utf8` may point into m_text
        m_text.swap(fresh);
        wipe(fresh);
    }
    /// Replaces the value by `utf8` itself, without a copy.
    void takeUtf8(std::string&& utf8) noexcept {
        m_text.swap(utf8);
        wipe(utf8);
    }
    /// Assignment, as the other accessors have it.
    void copyFromX(const XString& other) { *this = other; }
    /// Exchanges the values without a copy of either.
    void swap(XString& other) noexcept { m_text.swap(other.m_text); }

  private:
    std::string m_text;
};

}  // namespace mervane

#endif
