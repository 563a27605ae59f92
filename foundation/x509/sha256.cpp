#include "foundation/x509/sha256.h"

#include <algorithm>
#include <bit>

namespace mervane {
namespace {

constexpr std::size_t kBlockSize = 64;

using State = std::array<std::uint32_t, 8>;

// FIPS 180-4 5.3.3
constexpr State kStart = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                          0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};

// FIPS 180-4 4.2.2
constexpr std::array<std::uint32_t, 64> kConstants = {
    0x428A2F98, 0x71374491, 0xB5C0FBCF, 0xE9B5DBA5, 0x3956C25B, 0x59F111F1, 0x923F82A4, 0xAB1C5ED5,
    0xD807AA98, 0x12835B01, 0x243185BE, 0x550C7DC3, 0x72BE5D74, 0x80DEB1FE, 0x9BDC06A7, 0xC19BF174,
    0xE49B69C1, 0xEFBE4786, 0x0FC19DC6, 0x240CA1CC, 0x2DE92C6F, 0x4A7484AA, 0x5CB0A9DC, 0x76F988DA,
    0x983E5152, 0xA831C66D, 0xB00327C8, 0xBF597FC7, 0xC6E00BF3, 0xD5A79147, 0x06CA6351, 0x14292967,
    0x27B70A85, 0x2E1B2138, 0x4D2C6DFC, 0x53380D13, 0x650A7354, 0x766A0ABB, 0x81C2C92E, 0x92722C85,
    0xA2BFE8A1, 0xA81A664B, 0xC24B8B70, 0xC76C51A3, 0xD192E819, 0xD6990624, 0xF40E3585, 0x106AA070,
    0x19A4C116, 0x1E376C08, 0x2748774C, 0x34B0BCB5, 0x391C0CB3, 0x4ED8AA4A, 0x5B9CCA4F, 0x682E6FF3,
    0x748F82EE, 0x78A5636F, 0x84C87814, 0x8CC70208, 0x90BEFFFA, 0xA4506CEB, 0xBEF9A3F7, 0xC67178F2,
};

std::uint32_t bigEndian(const std::uint8_t* bytes) noexcept {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

// FIPS 180-4 6.2.2
void addBlock(State& state, const std::uint8_t* block) noexcept {
    std::array<std::uint32_t, 64> w{};
    for (std::size_t t = 0; t < 16; ++t) w[t] = bigEndian(block + t * 4);
    for (std::size_t t = 16; t < 64; ++t) {
        const std::uint32_t x = w[t - 15];
        const std::uint32_t y = w[t - 2];
        w[t] = (std::rotr(y, 17) ^ std::rotr(y, 19) ^ y >> 10) + w[t - 7] +
               (std::rotr(x, 7) ^ std::rotr(x, 18) ^ x >> 3) + w[t - 16];
    }
    auto [a, b, c, d, e, f, g, h] = state;
    for (std::size_t t = 0; t < 64; ++t) {
        const std::uint32_t t1 = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) +
                                 ((e & f) ^ (~e & g)) + kConstants[t] + w[t];
        const std::uint32_t t2 =
            (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g, g = f, f = e, e = d + t1;
        d = c, c = b, b = a, a = t1 + t2;
    }
    const State after = {a, b, c, d, e, f, g, h};
    for (std::size_t i = 0; i < state.size(); ++i) state[i] += after[i];
}

}  // namespace

std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> data) noexcept {
    State state = kStart;
    const std::uint64_t numBits = data.size() * 8;
    for (; data.size() >= kBlockSize; data = data.subspan(kBlockSize)) addBlock(state, data.data());

    // FIPS 180-4 5.1.1: a one bit, zeros, and the length in bits, in one block or two.
    std::array<std::uint8_t, 2 * kBlockSize> tail{};
    std::ranges::copy(data, tail.begin());
    tail[data.size()] = 0x80;
    const std::size_t tailSize = data.size() < kBlockSize - 8 ? kBlockSize : 2 * kBlockSize;
    for (std::size_t i = 0; i < 8; ++i)
        tail[tailSize - 1 - i] = static_cast<std::uint8_t>(numBits >> (8 * i));
    for (std::size_t at = 0; at < tailSize; at += kBlockSize) addBlock(state, tail.data() + at);

    std::array<std::uint8_t, 32> out{};
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<std::uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
    return out;
}

}  // namespace mervane
