#ifndef MERVANE_FOUNDATION_DIGEST_PADDING_H
#define MERVANE_FOUNDATION_DIGEST_PADDING_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

namespace mervane {

/// The end of a message of `size` bytes in all (FIPS 180-4 5.1): what is left of it, a one bit,
/// zeros, and the length in bits in the last eighth of a block. One block of `blockSize` bytes, or
/// two.
class PaddedEnd {
  public:
    PaddedEnd(std::span<const std::uint8_t> rest, std::uint64_t size,
              std::size_t blockSize) noexcept {
        const std::size_t lengthSize = blockSize / 8;
        m_size = rest.size() + lengthSize < blockSize ? blockSize : 2 * blockSize;
        std::ranges::copy(rest, m_bytes.begin());
        m_bytes[rest.size()] = 0x80;
        const std::array<std::uint64_t, 2> numBits = {size << 3, size >> 61};
        for (std::size_t i = 0; i < lengthSize; ++i)
            m_bytes[m_size - 1 - i] = static_cast<std::uint8_t>(numBits[i / 8] >> (8 * (i % 8)));
    }

    [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept {
        return std::span(m_bytes).first(m_size);
    }

  private:
    std::array<std::uint8_t, 256> m_bytes{};  // two of the largest blocks
    std::size_t m_size = 0;
};

}  // namespace mervane

#endif
