#ifndef MERVANE_PKCS11_FRAME_H
#define MERVANE_PKCS11_FRAME_H

#include <type_traits>

#include "foundation/core/guarded.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {

/// The frame of every public method: the object's critical section for the whole call, a log
/// context of the method's name, the work with the object's log, the record of the outcome. No
/// exception leaves it; one that ends the work is a failure (a result of false or 0).
template <class Work>
auto ClsPkcs11::publicCall(const char* contextName, Record record, Work&& work) {
    const CritSecExitor lock(*this);
    if (hasForked()) m_log.forgetOpenContexts();
    const LogContextExitor context(*this, contextName);
    const auto result = guarded(m_log, [&] {
        dropStateAfterFork(m_log);
        return work(static_cast<LogBase&>(m_log));
    });
    if constexpr (std::is_same_v<decltype(result), const bool>) {
        if (record == Record::Yes) logSuccessFailure(result);
    }
    return result;
}

}  // namespace mervane

#endif
