#ifndef MERVANE_PKCS11_CALLS_CALLS_H
#define MERVANE_PKCS11_CALLS_CALLS_H

#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "pkcs11/calls/functions.h"
#include "pkcs11/calls/guard.h"
#include "pkcs11/calls/moduleuse.h"
#include "pkcs11/failure.h"

namespace mervane {

/// The return value of a call means that what the call needs is gone.
inline bool endsUse(Needs needs, CK_RV rv) noexcept {
    return rv == CKR_CRYPTOKI_NOT_INITIALIZED || (needs == Needs::Session && endsSession(rv));
}

/// How the functions of the module are called, over the members of one object: checks, call and
/// report stand here once, for all functions.
///
///     ask      the return value, where some codes are no failures; nothing when the function could
///              not be called, which has been reported then
///     attempt  for what may fail: reports only what means that session or initialisation are gone
///     invoke   reports every code but CKR_OK, and is then false
///
/// All three check first that the function table is there, the module initialised and a session
/// open, as far as the function demands it, and that the table has the function. What a
/// report says is gone is dropped with it.
///
/// What is asked of the module, and what is made of its answers, stands above this class: see
/// operations.h.
class Calls {
  public:
    Calls(Pkcs11State& members, std::shared_ptr<Pkcs11SessionAnchor> anchor)
        : state(members), use(members, std::move(anchor)) {}
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    Pkcs11State& state;
    ModuleUse use;
    Failure failure;     // of the public call that runs, or ran last
    Failure lastLoss;    // why an object could not be read, the last one that could not
    int numLeftOut = 0;  // objects that it could not read, or did not look at

    /// In a forked child in which the object may be half changed: begins anew, and frees nothing.
    void abandonAfterFork();
    /// At the start of a public call.
    void forgetOutcome() noexcept;
    /// At the end of one that succeeded.
    void forgetFailure() noexcept;

    /// Reports a failure of the public call: one error line. The first one is the cause, the last
    /// the summary. False, so that a check can report and fail in one step.
    bool fail(LogBase& log, FailureKind kind, std::string_view sentence) noexcept;
    /// The same without a line in the log, for a cause that the log tells in its own way.
    void noteFailure(FailureKind kind, std::string_view cause) noexcept;
    /// Names the slot, and the token if its label is known, that the failure is about.
    void concerns(CK_SLOT_ID slotId, std::string_view tokenLabel = {}) noexcept;
    /// Counts an object that could not be read, once however often that is tried, until it is read.
    void leaveOut(CK_OBJECT_HANDLE object);
    void wasRead(CK_OBJECT_HANDLE object) noexcept;
    /// Fails for an object that could not be read: that is the cause.
    bool failForLoss(LogBase& log, std::string_view sentence);
    /// An information line on what usually helps.
    void hint(LogBase& log, std::string_view sentence) noexcept;

    [[nodiscard]] bool hasOpenSession() const noexcept { return state.m_hSession != 0; }

    template <Needs N, class Signature, class... Args>
    std::optional<CK_RV> ask(LogBase& log, const ModuleFunction<N, Signature>& function,
                             Args... args);
    template <Needs N, class Signature, class... Args>
    std::optional<CK_RV> attempt(LogBase& log, const ModuleFunction<N, Signature>& function,
                                 Args... args);
    template <Needs N, class Signature, class... Args>
    bool invoke(LogBase& log, const ModuleFunction<N, Signature>& function, Args... args);

    /// Whether all of these functions can be called; reports the first that cannot.
    template <class... Functions>
    bool ready(LogBase& log, const Functions&... functions);

    /// Writes the lines for a return value, and drops what it says is gone. True for CKR_OK. What a
    /// function that names a slot says of its token does not end the session.
    template <Needs N, class Signature>
    bool report(const ModuleFunction<N, Signature>& function, CK_RV rv, LogBase& log) {
        return rv == CKR_OK || reportCode(function.name, N, rv, log);
    }
    bool reportCode(const char* functionName, Needs needs, CK_RV rv, LogBase& log);
    /// report() for something that the call can do without: no failure of the call, unless the
    /// session has ended with it.
    template <Needs N, class Signature>
    bool reportLoss(const ModuleFunction<N, Signature>& function, CK_RV rv, LogBase& log) {
        const Failure before = failure;
        if (report(function, rv, log)) return true;
        if (!endsUse(N, rv)) lastLoss = std::exchange(failure, before);
        return false;
    }

    // Each reports and is false.
    bool noFunc(const char* functionName, LogBase& log);
    bool noFuncs(LogBase& log);
    bool noSession(LogBase& log);
    /// The module called back into the object, which has another session now.
    bool sessionChanged(LogBase& log);

  private:
    bool readyFor(Needs needs, const char* functionName, LogBase& log);

    std::uint64_t m_calledSession = 0;  // the one that the last call was made on
    std::set<CK_OBJECT_HANDLE> m_leftOut;
};

template <class... Functions>
bool Calls::ready(LogBase& log, const Functions&... functions) {
    const auto isReady = [&]<Needs N, class Signature>(const ModuleFunction<N, Signature>& f) {
        return readyFor(N, f.name, log) &&
               (use.functions()->*f.member != nullptr || noFunc(f.name, log));
    };
    return (isReady(functions) && ...);
}

template <Needs N, class Signature, class... Args>
std::optional<CK_RV> Calls::ask(LogBase& log, const ModuleFunction<N, Signature>& function,
                                Args... args) {
    if (!ready(log, function)) return std::nullopt;
    const Signature call = use.functions()->*function.member;
    const ModuleUse::Inside inside(use);
    const std::uint64_t session = use.session();
    CK_RV rv = CKR_OK;
    if constexpr (N == Needs::Session) {
        rv = callModule(log, call, state.m_hSession, args...);
    } else {
        rv = callModule(log, call, args...);
    }
    m_calledSession = session;
    return rv;
}

template <Needs N, class Signature, class... Args>
std::optional<CK_RV> Calls::attempt(LogBase& log, const ModuleFunction<N, Signature>& function,
                                    Args... args) {
    const auto rv = ask(log, function, args...);
    if (rv && endsUse(N, *rv)) report(function, *rv, log);
    return rv;
}

template <Needs N, class Signature, class... Args>
bool Calls::invoke(LogBase& log, const ModuleFunction<N, Signature>& function, Args... args) {
    const auto rv = ask(log, function, args...);
    return rv && report(function, *rv, log);
}

}  // namespace mervane

#endif
