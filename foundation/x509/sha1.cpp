#include "foundation/x509/sha1.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace mervane {
namespace {

constexpr std::size_t kBlockSize = 64;

using State = std::array<std::uint32_t, 5>;

std::uint32_t bigEndian(const std::uint8_t* bytes) noexcept {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

// Twenty rounds with one function and constant (FIPS 180-4 4.1.1, 4.2.1). The schedule is a ring of
// sixteen words (6.1.3), each made when its round comes.
template <int First, class F>
void rounds(State& s, std::array<std::uint32_t, 16>& w, std::uint32_t k, F f) noexcept {
    for (unsigned t = First; t < First + 20; ++t) {
        if (t >= 16) {
            w[t & 15U] =
                std::rotl(w[(t + 13) & 15U] ^ w[(t + 8) & 15U] ^ w[(t + 2) & 15U] ^ w[t & 15U], 1);
        }
        const std::uint32_t next = std::rotl(s[0], 5) + f(s[1], s[2], s[3]) + s[4] + k + w[t & 15U];
        s = {next, s[0], std::rotl(s[1], 30), s[2], s[3]};
    }
}

void addBlock(State& state, const std::uint8_t* block) noexcept {
    std::array<std::uint32_t, 16> w{};
    for (std::size_t i = 0; i < w.size(); ++i) w[i] = bigEndian(block + i * 4);
    const auto parity = [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return x ^ y ^ z; };
    State s = state;
    rounds<0>(s, w, 0x5A827999, [](auto x, auto y, auto z) { return z ^ (x & (y ^ z)); });
    rounds<20>(s, w, 0x6ED9EBA1, parity);
    rounds<40>(s, w, 0x8F1BBCDC, [](auto x, auto y, auto z) { return (x & y) | (z & (x | y)); });
    rounds<60>(s, w, 0xCA62C1D6, parity);
    for (std::size_t i = 0; i < s.size(); ++i) state[i] += s[i];
}

}  // namespace

std::array<std::uint8_t, 20> sha1(std::span<const std::uint8_t> data) noexcept {
    State state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    const std::uint64_t numBits = data.size() * 8;
    for (; data.size() >= kBlockSize; data = data.subspan(kBlockSize)) addBlock(state, data.data());

    // 5.1.1: a one bit, zeros, and the length in bits; in one block or two.
    std::array<std::uint8_t, 2 * kBlockSize> tail{};
    std::ranges::copy(data, tail.begin());
    tail[data.size()] = 0x80;
    const std::size_t tailSize = data.size() < kBlockSize - 8 ? kBlockSize : 2 * kBlockSize;
    for (std::size_t i = 0; i < 8; ++i) {
        tail[tailSize - 1 - i] = static_cast<std::uint8_t>(numBits >> (8 * i));
    }
    for (std::size_t at = 0; at < tailSize; at += kBlockSize) addBlock(state, tail.data() + at);

    std::array<std::uint8_t, 20> out{};
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<std::uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
    }
    return out;
}

}  // namespace mervane
