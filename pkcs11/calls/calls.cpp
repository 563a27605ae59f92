// The checks before a call and the report after it.

#include "pkcs11/calls/calls.h"

#include <string>

#include "foundation/text/hex.h"

namespace mervane {

bool Calls::noFunc(const char* functionName, LogBase& log) const {
    log.LogError("Function not found");
    log.LogData("functionName", functionName);
    log.LogDataX("sharedLibPath", state.m_loadedLibPath);
    return false;
}

bool Calls::noFuncs(LogBase& log) const {
    log.LogError("PKCS11 functions not available");
    log.LogDataX("sharedLibPath", state.m_loadedLibPath);
    return false;
}

bool Calls::noSession(LogBase& log) const {
    log.LogError("No PKCS11 session is open.");
    return false;
}

bool Calls::readyFor(Needs needs, const char* functionName, LogBase& log) {
    if (use.functions() == nullptr) {
        noFuncs(log);
        // Whatever was initialised has gone with the library.
        if (state.m_initialized) use.dropInitialisation(log);
        return false;
    }
    if (needs == Needs::Session && !hasOpenSession()) return noSession(log);
    // Modules cannot be relied on to notice that they are not initialised.
    return needs == Needs::Table || state.m_initialized ||
           reportCode(functionName, needs, CKR_CRYPTOKI_NOT_INITIALIZED, log);
}

bool Calls::reportCode(const char* functionName, Needs needs, CK_RV rv, LogBase& log) {
    if (rv == CKR_OK) return true;
    const bool uninitialised = rv == CKR_CRYPTOKI_NOT_INITIALIZED;
    const bool sessionEnded = needs == Needs::Session && hasOpenSession() && endsSession(rv);
    log.LogError(std::string(functionName) + " failed with " + rvName(rv) + ".");
    log.LogData("rv", toHexNumber(rv));
    if (uninitialised) {
        use.dropInitialisation(log);
        log.LogHint("The module is not initialised; Initialize or QuickSession begins anew.");
    } else if (sessionEnded) {
        use.dropSession(log);
        log.LogHint("The session is gone; OpenSession is next.");
    } else if (const auto hint = rvHint(rv); !hint.empty()) {
        log.LogHint(hint);
    }
    return false;
}

}  // namespace mervane
