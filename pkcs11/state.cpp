#include "pkcs11/state.h"

#include "foundation/x509/certificate.h"

namespace mervane {

void Pkcs11State::clearCertCache(LogBase& log) {
    const LogContextExitor context(log, "clearPkcs11CertCache");
    for (int i = 0; i < m_certs.getSize(); ++i) {
        const auto* const holder = static_cast<CertificateHolder*>(m_certs.elementAt(i));
        Certificate* const cert = holder == nullptr ? nullptr : holder->getCertPtr(log);
        if (cert != nullptr) cert->unlinkFromPkcs11Session();
    }
    m_certs.removeAllObjects();
    m_certsLoaded = false;
}

void Pkcs11State::clearPrivateKeyCaches() noexcept {
    m_rsaPrivKeys.removeAllObjects();
    m_rsaKeysLoaded = false;
    m_ecdsaPrivKeys.removeAllObjects();
    m_ecdsaKeysLoaded = false;
}

void Pkcs11State::clearSessionData(LogBase& log) {
    m_userLoggedIn = m_soLoggedIn = false;
    clearCertCache(log);
    clearPrivateKeyCaches();
}

}  // namespace mervane
