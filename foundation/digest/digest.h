#ifndef MERVANE_FOUNDATION_DIGEST_DIGEST_H
#define MERVANE_FOUNDATION_DIGEST_DIGEST_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "foundation/digest/hash.h"

namespace mervane {

/// Bytes of a digest.
std::size_t digestSize(Hash hash) noexcept;

/// A digest of data that comes in pieces.
class Digest {
  public:
    explicit Digest(Hash hash) noexcept;

    void add(std::span<const std::uint8_t> data) noexcept;
    /// The digest of all that was added. The object is spent by it.
    [[nodiscard]] std::vector<std::uint8_t> finish();

  private:
    void addBlocks(const std::uint8_t* blocks, std::size_t number) noexcept;

    Hash m_hash;
    std::size_t m_blockSize;  // bytes
    // SHA-256 uses the lower halves.
    std::array<std::uint64_t, 8> m_state;
    std::array<std::uint8_t, 128> m_block{};  // what is left of a block
    std::size_t m_used = 0;                   // bytes of it
    std::uint64_t m_size = 0;                 // bytes added so far
};

/// The digest of `data`.
std::vector<std::uint8_t> digestOf(Hash hash, std::span<const std::uint8_t> data);

}  // namespace mervane

#endif
