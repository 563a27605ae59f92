#ifndef MERVANE_FOUNDATION_TEXT_XSTRING_H
#define MERVANE_FOUNDATION_TEXT_XSTRING_H

#include <string>
#include <string_view>

#include "secret.h"

namespace mervane {

/// The string of public arguments and properties, UTF-8. Since any of them may hold a PIN, the
/// memory is overwritten whenever a value is replaced, cleared or destroyed.
class XString {
  public:
    XString() = default;
    explicit XString(std::string_view utf8) : m_text(utf8) {}
    XString(const XString& other) = default;
    ~XString() { wipe(m_text); }

    XString& operator=(const XString& other) {
        if (this != &other) setFromUtf8(other.view());
        return *this;
    }

    /// Never null; valid until the string changes.
    [[nodiscard]] const char* getUtf8() const noexcept { return m_text.c_str(); }
    [[nodiscard]] std::string_view view() const noexcept { return m_text; }
    [[nodiscard]] bool isEmpty() const noexcept { return m_text.empty(); }

    void clear() noexcept { wipe(m_text); }
    void setFromUtf8(std::string_view utf8) {
        std::string fresh(utf8);  // `utf8` may lie within the old value
        m_text.swap(fresh);
        wipe(fresh);
    }
    void copyFromX(const XString& other) { *this = other; }
    void swap(XString& other) noexcept { m_text.swap(other.m_text); }

  private:
    std::string m_text;
};

}  // namespace mervane

#endif
