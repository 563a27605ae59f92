#ifndef MERVANE_FOUNDATION_TEXT_CODEPOINT_H
#define MERVANE_FOUNDATION_TEXT_CODEPOINT_H

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

}  // namespace mervane

#endif
