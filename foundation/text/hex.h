#ifndef MERVANE_FOUNDATION_TEXT_HEX_H
#define MERVANE_FOUNDATION_TEXT_HEX_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mervane {

/// Upper-case hexadecimal, two digits per byte, without separators.
std::string toHex(std::span<const std::uint8_t> bytes);

/// `value` as "0x" and upper-case hexadecimal, zero-padded to at least `digits` digits.
std::string toHexNumber(std::uint64_t value, int digits = 8);

/// Decodes an even number of hexadecimal digits in either case; nullopt for any other text.
std::optional<std::vector<std::uint8_t>> fromHex(std::string_view text);

}  // namespace mervane

#endif
