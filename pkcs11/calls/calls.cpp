// The checks before a call and the report after it.

#include "pkcs11/calls/calls.h"

#include <exception>
#include <memory>
#include <string>

#include "foundation/text/hex.h"

namespace mervane {

void Calls::abandonAfterFork() {
    use.abandonAfterFork();
    std::construct_at(&failure);
    std::construct_at(&lastLoss);
    std::construct_at(&m_leftOut);
    numLeftOut = 0;
}

void Calls::forgetOutcome() noexcept {
    forgetFailure();
    m_leftOut.clear();
    numLeftOut = 0;
}

void Calls::forgetFailure() noexcept {
    failure = Failure();
}

void Calls::noteFailure(FailureKind kind, std::string_view cause) noexcept {
    if (failure.kind != FailureKind::None) return;
    failure.kind = kind;
    try {
        failure.cause = cause;
    } catch (const std::exception&) {
        failure.cause.clear();  // no memory for the text; the kind stays
    }
}

bool Calls::fail(LogBase& log, FailureKind kind, std::string_view sentence) noexcept {
    log.LogError(sentence);
    noteFailure(kind, sentence);
    try {
        failure.summary = sentence;
    } catch (const std::exception&) {
        failure.summary.clear();
    }
    return false;
}

void Calls::leaveOut(CK_OBJECT_HANDLE object) {
    if (m_leftOut.insert(object).second) ++numLeftOut;
}

void Calls::wasRead(CK_OBJECT_HANDLE object) noexcept {
    if (m_leftOut.erase(object) != 0) --numLeftOut;
}

bool Calls::failForLoss(LogBase& log, std::string_view sentence) {
    if (failure.kind == FailureKind::None) failure = lastLoss;
    return fail(log, FailureKind::ModuleFailed, sentence);
}

void Calls::concerns(CK_SLOT_ID slotId, std::string_view tokenLabel) noexcept {
    failure.slotId = slotId;
    try {
        failure.tokenLabel = tokenLabel;
    } catch (const std::exception&) {
        failure.tokenLabel.clear();
    }
}

void Calls::hint(LogBase& log, std::string_view sentence) noexcept {
    log.LogHint(sentence);
    try {
        failure.hint = sentence;
    } catch (const std::exception&) {
        failure.hint.clear();
    }
}

bool Calls::noFunc(const char* functionName, LogBase& log) {
    const bool isList = std::string_view(functionName) == "C_GetFunctionList";
    noteFailure(isList ? FailureKind::NotAModule : FailureKind::NotSupported,
                std::string(state.m_loadedLibPath.view()) +
                    (isList ? " is no PKCS#11 module (no C_GetFunctionList)."
                            : " does not offer " + std::string(functionName) + "."));
    fail(log, FailureKind::NotSupported, "Function not found");
    log.LogData("functionName", functionName);
    log.LogDataX("sharedLibPath", state.m_loadedLibPath);
    return false;
}

bool Calls::noFuncs(LogBase& log) {
    noteFailure(FailureKind::ModuleMissing, "No PKCS#11 module is loaded.");
    fail(log, FailureKind::ModuleMissing, "PKCS11 functions not available");
    log.LogDataX("sharedLibPath", state.m_loadedLibPath);
    return false;
}

bool Calls::noSession(LogBase& log) {
    return fail(log, FailureKind::TokenGone, "No PKCS11 session is open.");
}

bool Calls::sessionChanged(LogBase& log) {
    return fail(log, FailureKind::TokenGone, "The session was replaced during the call.");
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
    // A module that called back may have got another session since.
    const bool sessionEnded = needs == Needs::Session && hasOpenSession() && endsSession(rv) &&
                              m_calledSession == use.session();
    const std::string failed = std::string(functionName) + " failed with " + rvName(rv);
    if (failure.kind == FailureKind::None) {
        failure.function = functionName;
        failure.rv = rv;
        if (needs == Needs::Session) concerns(state.m_slotId);
        noteFailure(sessionEnded ? FailureKind::TokenGone : rvKind(rv),
                    failed + " (" + toHexNumber(rv, 1) + ").");
    }
    fail(log, rvKind(rv), failed + ".");
    log.LogData("rv", toHexNumber(rv));
    if (rv == CKR_CRYPTOKI_NOT_INITIALIZED) {
        use.dropInitialisation(log);
        hint(log, "The module is not initialised; Initialize or QuickSession begins anew.");
    } else if (sessionEnded) {
        use.dropSession(log);
        hint(log, "The session is gone; OpenSession is next.");
    } else if (const auto advice = rvHint(rv); !advice.empty()) {
        hint(log, advice);
    }
    return false;
}

}  // namespace mervane
