#ifndef MERVANE_PKCS11_CALLS_GUARD_H
#define MERVANE_PKCS11_CALLS_GUARD_H

#include <cxxabi.h>

#include "foundation/log/logbase.h"
#include "pkcs11/calls/rv.h"

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

}  // namespace mervane

#endif
