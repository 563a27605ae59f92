#ifndef MERVANE_PKCS11_STATE_H
#define MERVANE_PKCS11_STATE_H

#include <memory>

#include "../foundation/core/ptrarray.h"
#include "../foundation/log/logbase.h"
#include "../foundation/text/xstring.h"
#include "../foundation/x509/systemcerts.h"
#include "calls/cktypes.h"
#include "tokens.h"

namespace mervane {

class KeyIndex;
class KeyNotebook;

/// The members of a ClsPkcs11. All are guarded by the object's critical section; nothing here takes
/// it. Who changes which: the loader (pkcs11/module.cpp) the library, the call layer
/// (pkcs11/calls/) the session, the logins and the caches.
///
/// What clears what:
///
///     another SharedLibPath loaded      the library, the initialisation, the session
///     initialisation gone               m_initialized, the session
///     session closed, replaced or gone  m_hSession, the logins, all caches
///     logout                            the logins, all caches; the session stays
///     login                             the key caches and m_certsLoaded: more can be seen
struct Pkcs11State {
    Pkcs11State();
    Pkcs11State(const Pkcs11State&) = delete;
    Pkcs11State& operator=(const Pkcs11State&) = delete;
    ~Pkcs11State();

    SystemCertsHolder m_systemCerts;  // given to every certificate that is handed out

    // --- The module. The path takes effect at the next load.
    XString m_sharedLibPath;      // as the caller set it
    XString m_loadedLibPath;      // as dlopen got it; empty exactly when m_libHandle is null
    void* m_libHandle = nullptr;  // from dlopen

    // --- The session
    CK_SESSION_HANDLE m_hSession = 0;  // 0: none is open
    CK_SLOT_ID m_slotId = 0;           // of the session opened last

    // --- What was read through the session. Each list is built aside and swapped in whole, so that
    // a failed read leaves the one before; a "loaded" flag says that its list is complete.
    ExtPtrArray m_certs;  // of CertificateHolder, in the token's order
    bool m_certsLoaded = false;
    bool m_rsaKeysLoaded = false;
    // The two Have flags describe the last fill, and go on doing so after the cache is cleared.
    bool m_rsaKeysHaveSubject = false;
    bool m_rsaKeysHaveModulus = false;
    ExtPtrArray m_rsaPrivKeys;  // of Pkcs11_PrivateKey
    bool m_ecdsaKeysLoaded = false;
    ExtPtrArray m_ecdsaPrivKeys;  // of Pkcs11_PrivateKey

    // --- What the module and the token were told
    bool m_initialized = false;            // C_Initialize succeeded, and nobody has finalised since
    bool m_certHandleIsKeyHandle = false;  // follows the module loaded last
    bool m_soLoggedIn = false;             // the two count only while a session is open
    bool m_userLoggedIn = false;
    XString m_sigContextPin;  // kept until it is set anew
    XString m_initArgs;       // for C_Initialize; mostly empty

    bool m_ecdsaKeysHavePoints = false;  // of the last fill of m_ecdsaPrivKeys
    // Some key of the last fill could not be read, or its point: it may be the one that is wanted.
    bool m_isRsaKeyUnread = false;
    bool m_isEcdsaKeyUnread = false;
    bool m_rsaKeysReread = false;  // for that reason, and in vain: not again for each certificate
    bool m_ecdsaKeysReread = false;
    std::unique_ptr<KeyIndex> m_rsaIndex;  // over the two caches
    std::unique_ptr<KeyIndex> m_ecdsaIndex;
    std::unique_ptr<KeyNotebook> m_keyNotes;
    bool m_sessionIsReadWrite = false;    // of the session opened last
    bool m_contextPinWasRefused = false;  // m_sigContextPin was, so it is not tried again
    bool m_isSettingProperty = false;     // see abandon()
    TokenInfo m_token;                    // as it was described in the session of this number
    std::uint64_t m_tokenSession = 0;

    /// Unlinks every cached certificate, then forgets them all.
    void clearCertCache(LogBase& log);
    /// Forgets all cached private keys.
    void clearPrivateKeyCaches() noexcept;
    /// Forgets who is logged in and all that was read, as the end of a session does.
    void clearSessionData(LogBase& log);
    /// In a forked child, when another thread was changing the members at the fork: makes them as
    /// new and leaves what they held unfreed. Only the two properties are kept, unless one of them
    /// was being set just then.
    void abandon();
};

}  // namespace mervane

#endif
