#include "foundation/digest/sha1.h"

#include <bit>
#include <utility>

#include "foundation/digest/padding.h"

namespace mervane {
namespace {

constexpr std::size_t kBlockSize = 64;

using State = std::array<std::uint32_t, 5>;

std::uint32_t bigEndian(const std::uint8_t* bytes) noexcept {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

using Schedule = std::array<std::uint32_t, 16>;

// One round (FIPS 180-4 6.1.3, the form with a 16-word circular schedule), which computes its own
// word of the schedule. Instead of rotating the five words of the state, the caller passes them in
// rotated order; only b and e change.
template <unsigned T>
void step(Schedule& w, std::uint32_t a, std::uint32_t& b, std::uint32_t c, std::uint32_t d,
          std::uint32_t& e) noexcept {
    std::uint32_t& word = w[T & 15U];
    if constexpr (T >= 16) {
        word = std::rotl(w[(T + 13) & 15U] ^ w[(T + 8) & 15U] ^ w[(T + 2) & 15U] ^ word, 1);
    }
    std::uint32_t f = 0;
    if constexpr (T < 20) {
        f = (d ^ (b & (c ^ d))) + 0x5A827999;  // 4.1.1 Ch, 4.2.1
    } else if constexpr (T < 40) {
        f = (b ^ c ^ d) + 0x6ED9EBA1;  // Parity
    } else if constexpr (T < 60) {
        f = ((b & c) | (d & (b | c))) + 0x8F1BBCDC;  // Maj
    } else {
        f = (b ^ c ^ d) + 0xCA62C1D6;
    }
    e += std::rotl(a, 5) + f + word;
    b = std::rotl(b, 30);
}

// After five rounds the words are back in their original order.
template <unsigned... Fives>
void allRounds(Schedule& w, State& s, std::integer_sequence<unsigned, Fives...>) noexcept {
    auto& [a, b, c, d, e] = s;
    ((step<Fives * 5>(w, a, b, c, d, e), step<Fives * 5 + 1>(w, e, a, b, c, d),
      step<Fives * 5 + 2>(w, d, e, a, b, c), step<Fives * 5 + 3>(w, c, d, e, a, b),
      step<Fives * 5 + 4>(w, b, c, d, e, a)),
     ...);
}

void addBlock(State& state, const std::uint8_t* block) noexcept {
    Schedule w{};
    for (std::size_t i = 0; i < w.size(); ++i) w[i] = bigEndian(block + i * 4);
    State s = state;
    allRounds(w, s, std::make_integer_sequence<unsigned, 16>());
    for (std::size_t i = 0; i < s.size(); ++i) state[i] += s[i];
}

}  // namespace

std::array<std::uint8_t, 20> sha1(std::span<const std::uint8_t> data) noexcept {
    State state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    const std::uint64_t size = data.size();
    for (; data.size() >= kBlockSize; data = data.subspan(kBlockSize)) addBlock(state, data.data());
    const PaddedEnd end(data, size, kBlockSize);
    for (auto rest = end.bytes(); !rest.empty(); rest = rest.subspan(kBlockSize))
        addBlock(state, rest.data());

    std::array<std::uint8_t, 20> out{};
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<std::uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
    }
    return out;
}

}  // namespace mervane
