#ifndef MERVANE_FOUNDATION_TEXT_BYTES_H
#define MERVANE_FOUNDATION_TEXT_BYTES_H

#include <cstdint>
#include <span>
#include <string_view>

namespace mervane {

// Views of the same memory as characters or as octets; the caller keeps the memory alive.

inline std::string_view asChars(std::span<const std::uint8_t> bytes) noexcept {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline std::span<const std::uint8_t> asBytes(std::string_view chars) noexcept {
    return {reinterpret_cast<const std::uint8_t*>(chars.data()), chars.size()};
}

}  // namespace mervane

#endif
