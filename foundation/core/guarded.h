#ifndef MERVANE_FOUNDATION_CORE_GUARDED_H
#define MERVANE_FOUNDATION_CORE_GUARDED_H

#include <exception>
#include <new>
#include <type_traits>
#include <utility>

#include "foundation/log/logbase.h"

namespace mervane {

/// Runs `work` where nothing may be thrown: at the public interface. An exception of the standard
/// library ends the work, is told in one error line, and gives a result of false, 0 or empty.
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
