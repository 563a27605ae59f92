#include "pkcs11/state.h"

#include <memory>

#include "foundation/x509/certificate.h"
#include "pkcs11/keyindex.h"
#include "pkcs11/keynotes.h"

namespace mervane {
namespace {

// A new value in the place of one that may be half changed, whose destructor must not run.
template <class T>
void renew(T& member) {
    std::construct_at(&member);
}

}  // namespace

Pkcs11State::Pkcs11State()
    : m_rsaIndex(std::make_unique<KeyIndex>()),
      m_ecdsaIndex(std::make_unique<KeyIndex>()),
      m_keyNotes(std::make_unique<KeyNotebook>()) {}

Pkcs11State::~Pkcs11State() = default;

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
    m_rsaKeysReread = m_ecdsaKeysReread = false;
}

void Pkcs11State::clearSessionData(LogBase& log) {
    m_userLoggedIn = m_soLoggedIn = false;
    clearCertCache(log);
    clearPrivateKeyCaches();
}

void Pkcs11State::abandon() {
    renew(m_systemCerts);
    if (m_isSettingProperty) {
        renew(m_sharedLibPath);
        renew(m_sigContextPin);
        renew(m_initArgs);
        m_isSettingProperty = false;
    }
    renew(m_loadedLibPath);
    renew(m_token);
    m_tokenSession = 0;
    m_libHandle = nullptr;  // stays mapped
    for (ExtPtrArray* const list : {&m_certs, &m_rsaPrivKeys, &m_ecdsaPrivKeys}) list->abandon();
    for (auto* const index : {&m_rsaIndex, &m_ecdsaIndex}) {
        static_cast<void>(index->release());
        *index = std::make_unique<KeyIndex>();
    }
    static_cast<void>(m_keyNotes.release());
    m_keyNotes = std::make_unique<KeyNotebook>();
}

}  // namespace mervane
