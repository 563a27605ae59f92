// SHA-2 (FIPS 180-4). SHA-256 and SHA-512 are one function over words of 32 and 64 bits: the
// constants of the former are the upper halves of the latter's, and only the amounts of the
// rotations differ. SHA-384 is SHA-512 with another start, cut.
//
// SHA-256 is done by the processor's own instructions where it has them, which is five times as
// fast.

#include "foundation/digest/digest.h"

#include <algorithm>
#include <bit>
#include <type_traits>

#include "foundation/digest/padding.h"
#include "foundation/digest/sha256x86.h"

namespace mervane {
namespace {

// FIPS 180-4 4.2.3; the upper halves of the first 64 are 4.2.2.
constexpr std::array<std::uint64_t, 80> kConstants = {
    0x428A2F98D728AE22, 0x7137449123EF65CD, 0xB5C0FBCFEC4D3B2F, 0xE9B5DBA58189DBBC,
    0x3956C25BF348B538, 0x59F111F1B605D019, 0x923F82A4AF194F9B, 0xAB1C5ED5DA6D8118,
    0xD807AA98A3030242, 0x12835B0145706FBE, 0x243185BE4EE4B28C, 0x550C7DC3D5FFB4E2,
    0x72BE5D74F27B896F, 0x80DEB1FE3B1696B1, 0x9BDC06A725C71235, 0xC19BF174CF692694,
    0xE49B69C19EF14AD2, 0xEFBE4786384F25E3, 0x0FC19DC68B8CD5B5, 0x240CA1CC77AC9C65,
    0x2DE92C6F592B0275, 0x4A7484AA6EA6E483, 0x5CB0A9DCBD41FBD4, 0x76F988DA831153B5,
    0x983E5152EE66DFAB, 0xA831C66D2DB43210, 0xB00327C898FB213F, 0xBF597FC7BEEF0EE4,
    0xC6E00BF33DA88FC2, 0xD5A79147930AA725, 0x06CA6351E003826F, 0x142929670A0E6E70,
    0x27B70A8546D22FFC, 0x2E1B21385C26C926, 0x4D2C6DFC5AC42AED, 0x53380D139D95B3DF,
    0x650A73548BAF63DE, 0x766A0ABB3C77B2A8, 0x81C2C92E47EDAEE6, 0x92722C851482353B,
    0xA2BFE8A14CF10364, 0xA81A664BBC423001, 0xC24B8B70D0F89791, 0xC76C51A30654BE30,
    0xD192E819D6EF5218, 0xD69906245565A910, 0xF40E35855771202A, 0x106AA07032BBD1B8,
    0x19A4C116B8D2D0C8, 0x1E376C085141AB53, 0x2748774CDF8EEB99, 0x34B0BCB5E19B48A8,
    0x391C0CB3C5C95A63, 0x4ED8AA4AE3418ACB, 0x5B9CCA4F7763E373, 0x682E6FF3D6B2B8A3,
    0x748F82EE5DEFB2FC, 0x78A5636F43172F60, 0x84C87814A1F0AB72, 0x8CC702081A6439EC,
    0x90BEFFFA23631E28, 0xA4506CEBDE82BDE9, 0xBEF9A3F7B2C67915, 0xC67178F2E372532B,
    0xCA273ECEEA26619C, 0xD186B8C721C0C207, 0xEADA7DD6CDE0EB1E, 0xF57D4F7FEE6ED178,
    0x06F067AA72176FBA, 0x0A637DC5A2C898A6, 0x113F9804BEF90DAE, 0x1B710B35131C471B,
    0x28DB77F523047D84, 0x32CAAB7B40C72493, 0x3C9EBE0A15C9BEBC, 0x431D67C49C100D4C,
    0x4CC5D4BECB3E42B6, 0x597F299CFC657E2A, 0x5FCB6FAB3AD6FAEC, 0x6C44198C4A475817,
};

// FIPS 180-4 5.3.5; the upper halves are 5.3.3.
constexpr std::array<std::uint64_t, 8> kStart = {
    0x6A09E667F3BCC908, 0xBB67AE8584CAA73B, 0x3C6EF372FE94F82B, 0xA54FF53A5F1D36F1,
    0x510E527FADE682D1, 0x9B05688C2B3E6C1F, 0x1F83D9ABFB41BD6B, 0x5BE0CD19137E2179};
// FIPS 180-4 5.3.4
constexpr std::array<std::uint64_t, 8> kStart384 = {
    0xCBBB9D5DC1059ED8, 0x629A292A367CD507, 0x9159015A3070DD17, 0x152FECD8F70E5939,
    0x67332667FFC00B31, 0x8EB44A8768581511, 0xDB0C2E0D64F98FA7, 0x47B5481DBEFA4FA4};

// FIPS 180-4 4.1.2 and 4.1.3: the sigma functions, as amounts of two rotations and a rotation or a
// shift.
template <class Word>
struct Rotations;
template <>
struct Rotations<std::uint32_t> {
    static constexpr std::array<int, 3> big0 = {2, 13, 22}, big1 = {6, 11, 25};
    static constexpr std::array<int, 3> small0 = {7, 18, 3}, small1 = {17, 19, 10};
};
template <>
struct Rotations<std::uint64_t> {
    static constexpr std::array<int, 3> big0 = {28, 34, 39}, big1 = {14, 18, 41};
    static constexpr std::array<int, 3> small0 = {1, 8, 7}, small1 = {19, 61, 6};
};

template <class Word>
Word big(Word x, const std::array<int, 3>& by) noexcept {
    return std::rotr(x, by[0]) ^ std::rotr(x, by[1]) ^ std::rotr(x, by[2]);
}
template <class Word>
Word small(Word x, const std::array<int, 3>& by) noexcept {
    return std::rotr(x, by[0]) ^ std::rotr(x, by[1]) ^ x >> by[2];
}

template <class Word>
Word constantAt(std::size_t t) noexcept {
    return static_cast<Word>(kConstants[t] >> (64 - 8 * sizeof(Word)));
}

template <class Word>
Word bigEndian(const std::uint8_t* bytes) noexcept {
    Word word = 0;
    for (std::size_t i = 0; i < sizeof(Word); ++i) word = static_cast<Word>(word << 8 | bytes[i]);
    return word;
}

// FIPS 180-4 6.2.2 and 6.4.2
template <class Word>
void addBlock(std::array<std::uint64_t, 8>& state, const std::uint8_t* block) noexcept {
    using R = Rotations<Word>;
    constexpr std::size_t kRounds = sizeof(Word) == 4 ? 64 : 80;
    std::array<Word, kRounds> w{};
    for (std::size_t t = 0; t < 16; ++t) w[t] = bigEndian<Word>(block + t * sizeof(Word));
    for (std::size_t t = 16; t < kRounds; ++t)
        w[t] = small(w[t - 2], R::small1) + w[t - 7] + small(w[t - 15], R::small0) + w[t - 16];
    std::array<Word, 8> v{};
    for (std::size_t i = 0; i < 8; ++i) v[i] = static_cast<Word>(state[i]);
    auto& [a, b, c, d, e, f, g, h] = v;
    for (std::size_t t = 0; t < kRounds; ++t) {
        const Word t1 = h + big(e, R::big1) + ((e & f) ^ (~e & g)) + constantAt<Word>(t) + w[t];
        const Word t2 = big(a, R::big0) + ((a & b) ^ (a & c) ^ (b & c));
        h = g, g = f, f = e, e = d + t1;
        d = c, c = b, b = a, a = t1 + t2;
    }
    for (std::size_t i = 0; i < 8; ++i)
        state[i] = static_cast<Word>(static_cast<Word>(state[i]) + v[i]);
}

}  // namespace

std::size_t digestSize(Hash hash) noexcept {
    return hash == Hash::Sha256 ? 32 : hash == Hash::Sha384 ? 48 : 64;
}

Digest::Digest(Hash hash) noexcept
    : m_hash(hash),
      m_blockSize(hash == Hash::Sha256 ? 64 : 128),
      m_state(hash == Hash::Sha384 ? kStart384 : kStart) {
    if (hash == Hash::Sha256) {
        for (std::uint64_t& word : m_state) word >>= 32;
    }
}

void Digest::addBlocks(const std::uint8_t* blocks, std::size_t number) noexcept {
    if (m_hash == Hash::Sha256 && sha256x86::isAvailable()) {
        sha256x86::addBlocks(m_state, blocks, number);
        return;
    }
    for (; number > 0; --number, blocks += m_blockSize) {
        m_hash == Hash::Sha256 ? addBlock<std::uint32_t>(m_state, blocks)
                               : addBlock<std::uint64_t>(m_state, blocks);
    }
}

void Digest::add(std::span<const std::uint8_t> data) noexcept {
    m_size += data.size();
    if (m_used != 0) {
        const std::size_t taken = std::min(data.size(), m_blockSize - m_used);
        std::ranges::copy(data.first(taken), m_block.begin() + static_cast<std::ptrdiff_t>(m_used));
        m_used += taken;
        data = data.subspan(taken);
        if (m_used < m_blockSize) return;
        addBlocks(m_block.data(), 1);
        m_used = 0;
    }
    const std::size_t number = data.size() / m_blockSize;
    addBlocks(data.data(), number);
    data = data.subspan(number * m_blockSize);
    std::ranges::copy(data, m_block.begin());
    m_used = data.size();
}

std::vector<std::uint8_t> Digest::finish() {
    const auto rest = std::span(m_block).first(m_used);
    const PaddedEnd end(rest, m_size, m_blockSize);
    addBlocks(end.bytes().data(), end.bytes().size() / m_blockSize);
    const std::size_t wordSize = m_blockSize / 16;
    std::vector<std::uint8_t> out(digestSize(m_hash));
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] =
            static_cast<std::uint8_t>(m_state[i / wordSize] >> (8 * (wordSize - 1 - i % wordSize)));
    return out;
}

std::vector<std::uint8_t> digestOf(Hash hash, std::span<const std::uint8_t> data) {
    Digest digest(hash);
    digest.add(data);
    return digest.finish();
}

}  // namespace mervane
