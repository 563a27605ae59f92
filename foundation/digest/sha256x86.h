#ifndef MERVANE_FOUNDATION_DIGEST_SHA256X86_H
#define MERVANE_FOUNDATION_DIGEST_SHA256X86_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace mervane::sha256x86 {

/// Whether the processor has the SHA extensions; false on other architectures.
bool isAvailable() noexcept;

/// SHA-256's compression of `number` blocks of 64 bytes, where isAvailable().
void addBlocks(std::array<std::uint64_t, 8>& state, const std::uint8_t* blocks,
               std::size_t number) noexcept;

}  // namespace mervane::sha256x86

#endif
