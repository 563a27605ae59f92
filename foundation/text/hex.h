#ifndef MERVANE_FOUNDATION_TEXT_HEX_H
#define MERVANE_FOUNDATION_TEXT_HEX_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mervane {

/// Upper-case hexadecimal digits, two a byte, no separators.
std::string toHex(std::span<const std::uint8_t> bytes);

/// "0x" and at least `digits` upper-case hexadecimal digits.
std::string toHexNumber(std::uint64_t value, int digits = 8);

/// The bytes of an even number of hexadecimal digits in either case; nothing for other text.
std::optional<std::vector<std::uint8_t>> fromHex(std::string_view text);

}  // namespace mervane

#endif
