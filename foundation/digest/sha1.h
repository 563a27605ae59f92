#ifndef MERVANE_FOUNDATION_DIGEST_SHA1_H
#define MERVANE_FOUNDATION_DIGEST_SHA1_H

#include <array>
#include <cstdint>
#include <span>

namespace mervane {

/// SHA-1 (FIPS 180-4), for thumbprints only: they name a certificate and prove nothing.
std::array<std::uint8_t, 20> sha1(std::span<const std::uint8_t> data) noexcept;

}  // namespace mervane

#endif
