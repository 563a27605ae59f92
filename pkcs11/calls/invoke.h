#ifndef MERVANE_PKCS11_CALLS_INVOKE_H
#define MERVANE_PKCS11_CALLS_INVOKE_H

#include <cxxabi.h>

#include <optional>

#include "pkcs11/calls/cryptoki.h"
#include "pkcs11/calls/entries.h"
#include "pkcs11/calls/rv.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {

/// Calls a function of the module. An exception that the module lets out ends here, before its code
/// can be unmapped.
template <class Function, class... Args>
CK_RV callModule(LogBase& log, Function function, Args... args) {
    try {
        return function(args...);
    } catch (abi::__forced_unwind&) {
        throw;  // the thread is being cancelled; that may not be stopped
    } catch (...) {
        log.LogError("The module threw an exception.");
        return CKR_GENERAL_ERROR;
    }
}

/// The return value of a call means that what the call needs is gone.
inline bool endsUse(Needs needs, CK_RV rv) noexcept {
    return rv == CKR_CRYPTOKI_NOT_INITIALIZED || (needs == Needs::Session && endsSession(rv));
}

template <class... Entries>
bool ClsPkcs11::ready(LogBase& log, const Entries&... entries) {
    const auto isReady = [&]<Needs N, class Function>(const Entry<N, Function>& e) {
        return readyFor(N, e.name, log) && (m_funcs->*e.member != nullptr || noFunc(e.name, log));
    };
    return (isReady(entries) && ...);
}

template <Needs N, class Function, class... Args>
std::optional<CK_RV> ClsPkcs11::ask(LogBase& log, const Entry<N, Function>& entry, Args... args) {
    if (!ready(log, entry)) return std::nullopt;
    const Function function = m_funcs->*entry.member;
    if constexpr (N == Needs::Session) {
        return callModule(log, function, m_hSession, args...);
    } else {
        return callModule(log, function, args...);
    }
}

template <Needs N, class Function>
bool ClsPkcs11::report(const Entry<N, Function>& entry, CK_RV rv, LogBase& log) {
    return rv == CKR_OK || reportCode(entry.name, N, rv, log);
}

template <Needs N, class Function, class... Args>
std::optional<CK_RV> ClsPkcs11::attempt(LogBase& log, const Entry<N, Function>& entry,
                                        Args... args) {
    const auto rv = ask(log, entry, args...);
    if (rv && endsUse(N, *rv)) report(entry, *rv, log);
    return rv;
}

template <Needs N, class Function, class... Args>
bool ClsPkcs11::invoke(LogBase& log, const Entry<N, Function>& entry, Args... args) {
    const auto rv = ask(log, entry, args...);
    return rv && report(entry, *rv, log);
}

}  // namespace mervane

#endif
