// Verifying RSA signatures (RFC 8017 8.1.2, 8.2.2).

#include "signing/rsa.h"

#include <algorithm>
#include <optional>

#include "foundation/digest/digest.h"
#include "signing/algorithm.h"

namespace mervane::rsa {
namespace {

// RFC 8017 B.2.1, exclusive-ored onto `out`.
void applyMask(Hash hash, der::Bytes seed, std::span<std::uint8_t> out) {
    for (std::uint32_t counter = 0; !out.empty(); ++counter) {
        Digest digest(hash);
        digest.add(seed);
        const std::array<std::uint8_t, 4> octets = {
            static_cast<std::uint8_t>(counter >> 24), static_cast<std::uint8_t>(counter >> 16),
            static_cast<std::uint8_t>(counter >> 8), static_cast<std::uint8_t>(counter)};
        digest.add(octets);
        const auto mask = digest.finish();
        const std::size_t size = std::min(out.size(), mask.size());
        for (std::size_t i = 0; i < size; ++i) out[i] ^= mask[i];
        out = out.subspan(size);
    }
}

}  // namespace

Verifier::Verifier(const RsaKey& key) : m_n(key.modulus), m_exponent(key.exponent) {
    const der::Bytes n = m_n.bytes();
    const der::Bytes e = m_exponent.bytes();
    const bool isUsable = !n.empty() && (n.back() & 1U) != 0 && !e.empty() && e.size() <= 8 &&
                          (e.back() & 1U) != 0 && m_exponent.bitCount() > 1;
    if (isUsable) m_modulus.emplace(n);
}

// The signature to the power of the public exponent (RFC 8017 5.2.2), as long as the modulus;
// nothing if the key or the signature is out of range.
std::optional<std::vector<std::uint8_t>> Verifier::encodedMessage(der::Bytes signature) const {
    const der::Bytes e = m_exponent.bytes();
    if (!m_modulus || signature.size() != m_n.bytes().size()) return std::nullopt;
    const Limbs base = m_modulus->fromBytes(signature);
    if (!isBelow(base, m_modulus->n())) return std::nullopt;
    const Limbs inForm = m_modulus->toForm(base);
    Limbs power = inForm;
    for (int bit = m_exponent.bitCount() - 2; bit >= 0; --bit) {
        power = m_modulus->multiply(power, power);
        const std::size_t at = e.size() - 1 - static_cast<std::size_t>(bit) / 8;
        // The last factor is plain, and with it the product.
        if ((e[at] >> (bit % 8) & 1) != 0)
            power = m_modulus->multiply(power, bit == 0 ? base : inForm);
    }
    return Modulus::toBytes(power, signature.size());
}

bool Verifier::verifiesPkcs1(Hash hash, der::Bytes digest, der::Bytes signature) const {
    const auto message = encodedMessage(signature);
    const auto info = digestInfo(hash, digest);
    if (!message || message->size() < info.size() + 11) return false;
    // EM = 00 01 FF .. FF 00 DigestInfo
    std::vector<std::uint8_t> wanted(message->size(), 0xFF);
    wanted[0] = 0;
    wanted[1] = 1;
    wanted[wanted.size() - info.size() - 1] = 0;
    std::ranges::copy(info, wanted.end() - static_cast<std::ptrdiff_t>(info.size()));
    return *message == wanted;
}

bool Verifier::verifiesPss(Hash hash, der::Bytes digest, der::Bytes signature) const {
    auto message = encodedMessage(signature);
    if (!message) return false;
    // RFC 8017 9.1.2: EM = maskedDB, H, BC, of one bit less than the modulus.
    const int numBits = m_n.bitCount() - 1;
    std::span<std::uint8_t> em = *message;
    if (numBits % 8 == 0) {
        if (em[0] != 0) return false;
        em = em.subspan(1);
    }
    const std::size_t size = digestSize(hash);
    if (em.size() < 2 * size + 2 || em.back() != 0xBC) return false;
    const auto db = em.first(em.size() - size - 1);
    const auto h = em.subspan(db.size(), size);
    const auto unused =
        static_cast<std::uint8_t>(numBits % 8 == 0 ? 0 : 0xFF << (numBits % 8) & 0xFF);
    if ((db[0] & unused) != 0) return false;
    applyMask(hash, h, db);
    db[0] = static_cast<std::uint8_t>(db[0] & ~unused);
    const auto salt = db.last(size);
    const auto padding = db.first(db.size() - size);
    if (padding.back() != 1 || std::ranges::any_of(padding.first(padding.size() - 1),
                                                   [](std::uint8_t b) { return b != 0; }))
        return false;
    Digest wanted(hash);
    wanted.add(std::array<std::uint8_t, 8>{});
    wanted.add(digest);
    wanted.add(salt);
    return std::ranges::equal(wanted.finish(), h);
}

}  // namespace mervane::rsa
