#ifndef MERVANE_PKCS11_CALLS_GUARD_H
#define MERVANE_PKCS11_CALLS_GUARD_H

#include <cxxabi.h>
#include <pthread.h>

#include "foundation/log/logbase.h"
#include "pkcs11/calls/rv.h"

namespace mervane {

/// Puts off the cancellation of this thread (pthread_cancel) for the length of a scope. Modules
/// read files and wait for readers, which are cancellation points, and none survives being unwound:
/// it keeps its locks, or leaves a token's file half written.
class CancellationPause {
  public:
    CancellationPause() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancellationPause() { ::pthread_setcancelstate(m_before, nullptr); }
    CancellationPause(const CancellationPause&) = delete;
    CancellationPause& operator=(const CancellationPause&) = delete;

  private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

/// Calls a function of the module. An exception that the module lets out ends here, before its code
/// can be unmapped.
template <class Function, class... Args>
CK_RV callModule(LogBase& log, Function function, Args... args) {
    const CancellationPause pause;
    try {
        return function(args...);
    } catch (abi::__forced_unwind&) {
        throw;  // the module ends its thread (pthread_exit); that may not be stopped
    } catch (...) {
        log.LogError("The module threw an exception.");
        return CKR_GENERAL_ERROR;
    }
}

}  // namespace mervane

#endif
