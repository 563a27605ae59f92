#ifndef MERVANE_FOUNDATION_X509_SHA256_H
#define MERVANE_FOUNDATION_X509_SHA256_H

#include <array>
#include <cstdint>
#include <span>

namespace mervane {

/// SHA-256 (FIPS 180-4) of `data`.
std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> data) noexcept;

}  // namespace mervane

#endif
