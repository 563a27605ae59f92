#include "signing/scheme.h"

#include "foundation/digest/digest.h"
#include "signing/ecdsa.h"

namespace mervane {
namespace {

// What DigestInfo has before the digest (RFC 8017 9.2, note 1), in bytes.
constexpr std::size_t kDigestInfoHeader = 19;

}  // namespace

Scheme schemeFor(const Certificate& cert, Hash hash, Padding padding, bool cardRequiresPss) {
    const KeyKind kind = keyKindOf(cert.spki());
    const bool mustBePss = cardRequiresPss || isPssKey(cert.spki());
    const bool isPss = padding == Padding::Pss || (padding == Padding::Automatic && mustBePss);
    return {kind.type, hash, kind.type == kRsaKey && isPss,
            static_cast<std::size_t>(kind.signatureSize)};
}

bool fitsKey(const Scheme& scheme, const Certificate& cert) {
    if (scheme.keyType != kRsaKey) return true;
    const std::size_t size = digestSize(scheme.hash);
    if (!scheme.isPss) return scheme.signatureSize >= size + kDigestInfoHeader + 11;
    const int numBits = keyKindOf(cert.spki()).bits - 1;
    return static_cast<std::size_t>(numBits + 7) / 8 >= 2 * size + 2;
}

std::optional<der::Octets> rawEcdsa(const Scheme& scheme, const Certificate& cert,
                                    der::Bytes signature) {
    const der::Bytes parameters = ecKeyPartsOf(cert.spki()).parameters;
    if (signature.size() == scheme.signatureSize && ecdsa::isInRange(parameters, signature))
        return der::Octets(signature.begin(), signature.end());
    auto raw = ecdsa::fromDer(signature, scheme.signatureSize);
    return raw && ecdsa::isInRange(parameters, *raw) ? raw : std::nullopt;
}

}  // namespace mervane
