#ifndef MERVANE_FOUNDATION_TEXT_ASCII_H
#define MERVANE_FOUNDATION_TEXT_ASCII_H

#include <algorithm>
#include <string_view>

namespace mervane {

// ASCII letter case and whitespace, independent of the process's locale.

/// `c` in lower case if it is an ASCII letter, else unchanged.
constexpr char toLowerAscii(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// `c` in upper case if it is an ASCII letter, else unchanged.
constexpr char toUpperAscii(char c) noexcept {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

constexpr std::string_view kWhiteSpace = " \t\r\n\v\f";

/// `text` without whitespace at either end; a view of the same memory.
constexpr std::string_view trimmed(std::string_view text) noexcept {
    const auto first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

/// Whether the two are equal apart from the case of ASCII letters.
constexpr bool equalsIgnoreCase(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return toLowerAscii(x) == toLowerAscii(y);
           });
}

/// Whether `part`, if not empty, occurs in `text`, apart from the case of ASCII letters.
constexpr bool containsIgnoreCase(std::string_view text, std::string_view part) noexcept {
    return std::search(text.begin(), text.end(), part.begin(), part.end(), [](char x, char y) {
               return toLowerAscii(x) == toLowerAscii(y);
           }) != text.end();
}

}  // namespace mervane

#endif
