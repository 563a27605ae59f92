// SHA-256 by the SHA extensions of x86 (Intel's Architectures Software Developer's Manual, volume
// 2: SHA256RNDS2, SHA256MSG1, SHA256MSG2). The instructions keep the state as ABEF and CDGH; four
// rounds take one vector of the schedule.

#include "foundation/digest/sha256x86.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

namespace mervane::sha256x86 {
namespace {

// FIPS 180-4 4.2.2
alignas(16) constexpr std::array<std::uint32_t, 64> kConstants = {
    0x428A2F98, 0x71374491, 0xB5C0FBCF, 0xE9B5DBA5, 0x3956C25B, 0x59F111F1, 0x923F82A4, 0xAB1C5ED5,
    0xD807AA98, 0x12835B01, 0x243185BE, 0x550C7DC3, 0x72BE5D74, 0x80DEB1FE, 0x9BDC06A7, 0xC19BF174,
    0xE49B69C1, 0xEFBE4786, 0x0FC19DC6, 0x240CA1CC, 0x2DE92C6F, 0x4A7484AA, 0x5CB0A9DC, 0x76F988DA,
    0x983E5152, 0xA831C66D, 0xB00327C8, 0xBF597FC7, 0xC6E00BF3, 0xD5A79147, 0x06CA6351, 0x14292967,
    0x27B70A85, 0x2E1B2138, 0x4D2C6DFC, 0x53380D13, 0x650A7354, 0x766A0ABB, 0x81C2C92E, 0x92722C85,
    0xA2BFE8A1, 0xA81A664B, 0xC24B8B70, 0xC76C51A3, 0xD192E819, 0xD6990624, 0xF40E3585, 0x106AA070,
    0x19A4C116, 0x1E376C08, 0x2748774C, 0x34B0BCB5, 0x391C0CB3, 0x4ED8AA4A, 0x5B9CCA4F, 0x682E6FF3,
    0x748F82EE, 0x78A5636F, 0x84C87814, 0x8CC70208, 0x90BEFFFA, 0xA4506CEB, 0xBEF9A3F7, 0xC67178F2,
};

bool hasExtensions() noexcept {
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    constexpr unsigned kSha = 1U << 29;    // leaf 7, EBX
    constexpr unsigned kSsse3 = 1U << 9;   // leaf 1, ECX
    constexpr unsigned kSse41 = 1U << 19;  // leaf 1, ECX
    if (__get_cpuid_count(7, 0, &a, &b, &c, &d) == 0 || (b & kSha) == 0) return false;
    return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & kSsse3) != 0 && (c & kSse41) != 0;
}

const bool hasThem = hasExtensions();

}  // namespace

bool isAvailable() noexcept {
    return hasThem;
}

__attribute__((target("sha,ssse3,sse4.1"))) void addBlocks(std::array<std::uint64_t, 8>& state,
                                                           const std::uint8_t* blocks,
                                                           std::size_t number) noexcept {
    const auto word = [&state](std::size_t i) { return static_cast<int>(state[i]); };
    __m128i abef = _mm_set_epi32(word(0), word(1), word(4), word(5));
    __m128i cdgh = _mm_set_epi32(word(2), word(3), word(6), word(7));
    const __m128i bigEndian = _mm_set_epi64x(0x0C0D0E0F08090A0B, 0x0405060700010203);
    for (; number > 0; --number, blocks += 64) {
        const __m128i abefBefore = abef;
        const __m128i cdghBefore = cdgh;
        __m128i w[4];
        for (std::size_t i = 0; i < 4; ++i)
            w[i] = _mm_shuffle_epi8(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 16 * i)), bigEndian);
#pragma GCC unroll 16  // so that the schedule stays in registers
        for (std::size_t i = 0; i < 16; ++i) {
            __m128i& next = w[i % 4];
            if (i >= 4) {
                const __m128i last = w[(i + 3) % 4];
                const __m128i between = _mm_alignr_epi8(last, w[(i + 2) % 4], 4);
                next = _mm_sha256msg2_epu32(
                    _mm_add_epi32(_mm_sha256msg1_epu32(next, w[(i + 1) % 4]), between), last);
            }
            const __m128i sum = _mm_add_epi32(
                next, _mm_load_si128(reinterpret_cast<const __m128i*>(kConstants.data() + 4 * i)));
            cdgh = _mm_sha256rnds2_epu32(cdgh, abef, sum);
            abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(sum, 0x0E));
        }
        abef = _mm_add_epi32(abef, abefBefore);
        cdgh = _mm_add_epi32(cdgh, cdghBefore);
    }
    const auto store = [&state](std::size_t i, int value) {
        state[i] = static_cast<std::uint32_t>(value);
    };
    store(0, _mm_extract_epi32(abef, 3)), store(1, _mm_extract_epi32(abef, 2));
    store(4, _mm_extract_epi32(abef, 1)), store(5, _mm_extract_epi32(abef, 0));
    store(2, _mm_extract_epi32(cdgh, 3)), store(3, _mm_extract_epi32(cdgh, 2));
    store(6, _mm_extract_epi32(cdgh, 1)), store(7, _mm_extract_epi32(cdgh, 0));
}

}  // namespace mervane::sha256x86

#else

namespace mervane::sha256x86 {

bool isAvailable() noexcept {
    return false;
}
void addBlocks(std::array<std::uint64_t, 8>&, const std::uint8_t*, std::size_t) noexcept {}

}  // namespace mervane::sha256x86

#endif
