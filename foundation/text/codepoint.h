#ifndef MERVANE_FOUNDATION_TEXT_CODEPOINT_H
#define MERVANE_FOUNDATION_TEXT_CODEPOINT_H

#include <cstdint>
#include <string>
#include <string_view>

namespace mervane {

/// U+FFFD, substituted for bytes that are not UTF-8.
inline constexpr std::uint32_t kReplacementChar = 0xFFFD;

/// Removes one code point from the front of `text`, which must not be empty, and returns it. If the
/// bytes are ill-formed (Unicode 15 table 3-7: overlong forms, surrogates, values above U+10FFFF),
/// removes one byte, returns the replacement character and sets `ok` to false.
std::uint32_t takeCodePoint(std::string_view& text, bool& ok) noexcept;

/// Appends a code point as UTF-8. Surrogates and values above U+10FFFF become U+FFFD.
void appendUtf8(std::string& out, std::uint32_t codePoint);

/// Whether a terminal would obey the character, reorder the line by it, or not show it at all.
bool isUnprintable(std::uint32_t codePoint) noexcept;

}  // namespace mervane

#endif
