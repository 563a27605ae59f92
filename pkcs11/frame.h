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

/// The frame of every public method: the object's critical section for the whole call, a log
/// context of the method's name, the work with the object's log, the record of the outcome. No
/// exception leaves it; one that ends the work is a failure (a result of false or 0).
template <class Work>
auto publicCall(ClsBase& object, Calls& calls, const char* contextName, Record record,
                Work&& work) {
    const CritSecExitor lock(object);
    if (calls.use.hasForked()) object.log().forgetOpenContexts();
    const LogContextExitor context(object, contextName);
    LogBase& log = object.log();
    const auto result = guarded(log, [&] {
        calls.use.dropAfterFork(log);
        return std::forward<Work>(work)(log);
    });
    if constexpr (std::is_same_v<decltype(result), const bool>) {
        if (record == Record::Yes) object.logSuccessFailure(result);
    }
    return result;
}

}  // namespace mervane

#endif
