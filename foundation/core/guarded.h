#ifndef MERVANE_FOUNDATION_CORE_GUARDED_H
#define MERVANE_FOUNDATION_CORE_GUARDED_H

#include <exception>
#include <new>
#include <type_traits>
#include <utility>

#include "foundation/log/logbase.h"

namespace mervane {

/// Runs `work` at the public boundary, which no exception may cross. One from the standard library
/// is logged as an error line, and the result is then false, 0 or empty.
template <class Work>
auto guarded(LogBase& log, Work&& work) -> std::invoke_result_t<Work> {
    try {
        return std::forward<Work>(work)();
    } catch (const std::bad_alloc&) {
        log.LogError("There is not enough memory.");
    } catch (const std::exception& error) {
        log.LogError("The call was ended by an unexpected exception.");
        log.LogData("exception", error.what());
    }
    return std::invoke_result_t<Work>();
}

}  // namespace mervane

#endif
