#ifndef MERVANE_PKCS11_FRAME_H
#define MERVANE_PKCS11_FRAME_H

#include <type_traits>
#include <utility>

#include "foundation/core/clsbase.h"
#include "foundation/core/guarded.h"
#include "pkcs11/calls/calls.h"

namespace mervane {

/// Whether a public method's outcome is recorded in the object and its log.
enum class Record : bool { No, Yes };

/// In a forked child, before anything else of the object is touched: what another thread may have
/// been changing at the fork is abandoned. The caller holds the object's critical section.
inline void settleAfterFork(ClsBase& object, Calls& calls) {
    if (!calls.use.hasForked()) return;
    if (object.takeWasHeldAtFork()) {
        object.log().abandon();
        calls.abandonAfterFork();
    } else {
        object.log().forgetOpenContexts();
    }
}

/// Runs the work of a call that reports its failure in `calls`. What ends by an exception has no
/// cause of its own: the memory ran out.
template <class Work>
auto guardedCall(Calls& calls, LogBase& log, Work&& work) {
    calls.forgetOutcome();
    bool hasEnded = false;
    const auto result = guarded(log, [&] {
        calls.use.dropAfterFork(log);
        const auto value = std::forward<Work>(work)(log);
        hasEnded = true;
        return value;
    });
    if (!hasEnded) calls.noteFailure(FailureKind::NoMemory, "There is not enough memory.");
    if (hasEnded && result) calls.forgetFailure();
    return result;
}

/// The frame of every public method: the object's critical section for the whole call, a log
/// context of the method's name, the work with the object's log, the record of the outcome. No
/// exception leaves it; one that ends the work is a failure (a result of false or 0).
template <class Work>
auto publicCall(ClsBase& object, Calls& calls, const char* contextName, Record record,
                Work&& work) {
    const CritSecExitor lock(object);
    settleAfterFork(object, calls);
    const LogContextExitor context(object, contextName);
    LogBase& log = object.log();
    const auto result = guardedCall(calls, log, std::forward<Work>(work));
    if constexpr (std::is_same_v<decltype(result), const bool>) {
        if (record == Record::Yes) object.logSuccessFailure(result);
    }
    return result;
}

}  // namespace mervane

#endif
