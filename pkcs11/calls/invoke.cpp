// The checks before a call and the report after it.

#include "pkcs11/calls/invoke.h"

#include "foundation/text/hex.h"
#include "pkcs11/calls/ledger.h"

namespace mervane {

bool ClsPkcs11::readyFor(Needs needs, const char* functionName, LogBase& log) {
    if (m_funcs == nullptr) {
        noFuncs(log);
        // Whatever was initialised is not there any more.
        if (m_initialized) dropInitialization(log);
        return false;
    }
    if (needs == Needs::Session && m_hSession == 0) return noSession(log);
    // A module is not trusted to notice that it is not initialised.
    return needs == Needs::Table || m_initialized ||
           reportCode(functionName, needs, CKR_CRYPTOKI_NOT_INITIALIZED, log);
}

bool ClsPkcs11::reportCode(const char* functionName, Needs needs, CK_RV rv, LogBase& log) {
    if (rv == CKR_OK) return true;
    const bool uninitialized = rv == CKR_CRYPTOKI_NOT_INITIALIZED;
    const bool sessionEnded = needs == Needs::Session && m_hSession != 0 && endsSession(rv);
    log.LogError(std::string(functionName) + " failed with " + rvName(rv) + ".");
    log.LogData("rv", toHexNumber(rv));
    if (uninitialized) {
        dropInitialization(log);
        log.LogHint("The module is not initialized; Initialize or QuickSession begins anew.");
    } else if (sessionEnded) {
        dropSession(log);
        log.LogHint("The session is gone; OpenSession is next.");
    } else if (const auto hint = rvHint(rv); !hint.empty()) {
        log.LogHint(hint);
    }
    return false;
}

void ClsPkcs11::dropSession(LogBase& log) {
    setSession(0);
    m_userLoggedIn = m_soLoggedIn = false;
    clearCertCache(log);
    clearPrivateKeyCaches();
}

void ClsPkcs11::dropInitialization(LogBase& log) {
    if (m_holdsModule) ledger::forget(m_funcs);
    m_holdsModule = false;
    m_initialized = false;
    dropSession(log);
}

}  // namespace mervane
