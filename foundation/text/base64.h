#ifndef MERVANE_FOUNDATION_TEXT_BASE64_H
#define MERVANE_FOUNDATION_TEXT_BASE64_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mervane {

/// RFC 4648 base64 with padding, without line breaks.
std::string toBase64(std::span<const std::uint8_t> bytes);

/// Appends the bytes that RFC 4648 base64 text decodes to; padding is optional. Decoding stops at
/// the first character outside the alphabet. Returns false, with the bytes so far appended, if
/// anything but padding follows.
bool appendBase64(std::string_view text, std::vector<std::uint8_t>& out);

}  // namespace mervane

#endif
