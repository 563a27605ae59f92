#include "signing/verifier.h"

#include <utility>

#include "signing/ecdsa.h"

namespace mervane {

Verifier::Verifier(std::shared_ptr<const Certificate> cert) : m_cert(std::move(cert)) {
    LogNull log;
    _mvPublicKey key;
    if (m_cert->getCertPublicKey(key, log) && key.getRsaKey() != nullptr)
        m_rsa.emplace(*key.getRsaKey());
}

Verdict Verifier::verify(const Scheme& scheme, der::Bytes digest, der::Bytes signature) const {
    if (scheme.keyType == kEcKey) {
        const EcKeyParts key = ecKeyPartsOf(m_cert->spki());
        return ecdsa::verify(key.parameters, key.point, digest, signature);
    }
    if (!m_rsa) return Verdict::NotVerifiable;
    const bool isRight = scheme.isPss ? m_rsa->verifiesPss(scheme.hash, digest, signature)
                                      : m_rsa->verifiesPkcs1(scheme.hash, digest, signature);
    return isRight ? Verdict::Right : Verdict::Wrong;
}

}  // namespace mervane
