#ifndef MERVANE_FOUNDATION_TEXT_UTF8_H
#define MERVANE_FOUNDATION_TEXT_UTF8_H

#include <cstdint>
#include <string>
#include <string_view>

namespace mervane {

/// U+FFFD, what stands in for bytes that are no UTF-8.
inline constexpr std::uint32_t kReplacementChar = 0xFFFD;

/// Takes one code point off the front of `text` (not empty). Ill-formed bytes (Unicode 15 table
/// 3-7: overlong forms, surrogates, values above U+10FFFF) give the replacement character and
/// take one byte; `ok` tells the two apart.
std::uint32_t takeCodePoint(std::string_view& text, bool& ok) noexcept;

/// Appends a code point; surrogates and values above U+10FFFF become the replacement character.
void appendUtf8(std::string& out, std::uint32_t codePoint);

bool isValidUtf8(std::string_view text) noexcept;

/// The text with every ill-formed byte replaced.
std::string toValidUtf8(std::string_view text);

/// One line fit for logs and terminals: ill-formed bytes replaced, control characters (C0, DEL,
/// C1, line and paragraph separators, direction overrides) written as \xNN or \u{N}.
void appendOneLine(std::string& out, std::string_view text);

/// Columns that `text` takes on a terminal: 2 for East Asian wide characters and emoji, 0 for
/// combining marks, 1 for the rest.
std::size_t displayWidth(std::string_view text) noexcept;

}  // namespace mervane

#endif
