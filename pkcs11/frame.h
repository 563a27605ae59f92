#ifndef MERVANE_PKCS11_FRAME_H
#define MERVANE_PKCS11_FRAME_H

#include <exception>
#include <new>
#include <type_traits>
#include <utility>

#include "pkcs11/clspkcs11.h"

namespace mervane {

/// The frame of every public method: the object's critical section for the whole call, a log
/// context of the method's name, the work with the object's log, the record of the outcome. No
/// exception leaves it; one that ends the work is a failure (a result of false or 0).
template <class Work>
auto ClsPkcs11::publicCall(const char* contextName, Record record, Work&& work) {
    const CritSecExitor lock(*this);
    const LogContextExitor context(*this, contextName);
    std::invoke_result_t<Work, LogBase&> result{};
    try {
        dropStateAfterFork(m_log);
        result = std::forward<Work>(work)(static_cast<LogBase&>(m_log));
    } catch (const std::bad_alloc&) {
        m_log.LogError("There is not enough memory.");
    } catch (const std::exception& error) {
        m_log.LogError("The call was ended by an unexpected exception.");
        m_log.LogData("exception", error.what());
    }
    if constexpr (std::is_same_v<decltype(result), bool>) {
        if (record == Record::Yes) logSuccessFailure(result);
    }
    return result;
}

}  // namespace mervane

#endif
