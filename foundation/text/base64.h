#ifndef MERVANE_FOUNDATION_TEXT_BASE64_H
#define MERVANE_FOUNDATION_TEXT_BASE64_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mervane {

/// RFC 4648 base64 with padding, in one line.
std::string toBase64(std::span<const std::uint8_t> bytes);

/// Appends the decoded bytes of base64 text, with or without padding. Decoding ends before the
/// first character that is not of the alphabet; false when that was not the padding or the end.
bool appendBase64(std::string_view text, std::vector<std::uint8_t>& out);

}  // namespace mervane

#endif
