#include "pkcs11/calls/moduleuse.h"

#include <utility>

#include "foundation/core/forkwatch.h"
#include "pkcs11/calls/guard.h"
#include "pkcs11/calls/ledger.h"

namespace mervane {

ModuleUse::ModuleUse(Pkcs11State& state, std::shared_ptr<Pkcs11SessionAnchor> anchor)
    : m_state(state), m_anchor(std::move(anchor)), m_forkGeneration(forkGeneration()) {}

void ModuleUse::adopt(CK_FUNCTION_LIST* functions, LogBase& log) {
    if (m_state.m_initialized) dropSession(log);
    m_state.m_initialized = false;
    m_functions = functions;
}

void ModuleUse::abandon(LogBase& log) noexcept {
    release(log);
    m_functions = nullptr;
}

// --- Initialisation

void ModuleUse::initialised(bool byUs) {
    // The module may have called back from C_Initialize, and been initialised from there.
    if (!m_hasShare) ledger::enter(m_functions, byUs);
    m_hasShare = true;
    m_state.m_initialized = true;
    watchProcessExit(&m_state, m_state.m_libHandle);
}

void ModuleUse::dropInitialisation(LogBase& log) {
    if (m_hasShare) ledger::forget(m_functions);
    m_hasShare = false;
    m_state.m_initialized = false;
    dropSession(log);
}

void ModuleUse::release(LogBase& log) noexcept {
    m_anchor->setSession(0);  // links end before what they lead to does
    if (m_functions == nullptr || !m_hasShare) return;
    if (m_state.m_hSession != 0) closeQuietly(m_state.m_hSession, log);
    m_hasShare = false;
    const ledger::Turn turn(m_state.m_libHandle);
    if (ledger::leave(m_functions) && m_functions->C_Finalize != nullptr)
        callModule(log, m_functions->C_Finalize, nullptr);
}

// --- Session

void ModuleUse::beginSession(CK_SESSION_HANDLE session) noexcept {
    m_state.m_hSession = session;
    m_anchor->setSession(++m_lastSessionNumber);
}

void ModuleUse::replaceSession(CK_SESSION_HANDLE session, bool onSameToken, LogBase& log) {
    // A login belongs to the token: it holds for all sessions with that token and no others.
    const bool user = onSameToken && m_state.m_userLoggedIn;
    const bool officer = onSameToken && m_state.m_soLoggedIn;
    const CK_SESSION_HANDLE old = m_state.m_hSession;
    dropSession(log);
    beginSession(session);
    m_state.m_userLoggedIn = user;
    m_state.m_soLoggedIn = officer;
    // A module that returns the old handle again has one session, which is still wanted.
    if (old != session) closeQuietly(old, log);
}

void ModuleUse::exchangeSession(CK_SESSION_HANDLE session, LogBase& log) noexcept {
    const CK_SESSION_HANDLE old = std::exchange(m_state.m_hSession, session);
    if (old != session) closeQuietly(old, log);
}

void ModuleUse::restartSession(LogBase& log) {
    const CK_SESSION_HANDLE session = m_state.m_hSession;
    dropSession(log);
    beginSession(session);
}

void ModuleUse::dropSession(LogBase& log) {
    m_state.m_hSession = 0;
    m_anchor->setSession(0);
    m_state.clearSessionData(log);
}

void ModuleUse::closeQuietly(CK_SESSION_HANDLE session, LogBase& log) noexcept {
    if (m_functions->C_CloseSession == nullptr) return;
    const CK_RV rv = callModule(log, m_functions->C_CloseSession, session);
    if (rv != CKR_OK) log.LogDataUnsigned("closeSessionResult", rv);
}

// --- Fork

bool ModuleUse::hasForked() const noexcept {
    return m_forkGeneration != forkGeneration();
}

void ModuleUse::dropAfterFork(LogBase& log) {
    if (!hasForked()) return;
    m_forkGeneration = forkGeneration();
    const bool hadState = m_state.m_initialized || m_state.m_hSession != 0;
    m_hasShare = false;  // the ledger of this process begins empty
    dropSession(log);
    m_state.m_initialized = false;
    if (hadState)
        log.LogInfo("The process has forked: the session is the parent's. Initialize begins anew.");
}

void ModuleUse::abandonAfterFork() {
    m_hasShare = false;
    m_functions = nullptr;
    m_depth = 0;
    m_state.abandon();
}

}  // namespace mervane
