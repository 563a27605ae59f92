#ifndef MERVANE_FOUNDATION_CORE_FORKWATCH_H
#define MERVANE_FOUNDATION_CORE_FORKWATCH_H

#include <cstdint>

namespace mervane {

/// How many forks lie between the process that loaded the library and this one. State that is
/// bound to a process (locks held by other threads, module handles) remembers the number under
/// which it was made and is void when the number has changed. Costs one atomic load.
std::uint32_t forkGeneration() noexcept;

/// Asks for the process's end to be noticed before `library`, which was loaded just now or before,
/// runs its own exit handlers, and before `user` is destroyed if it has static storage: from then
/// on processIsExiting() answers true. Takes one place among the exit handlers for each library and
/// for each user of static storage.
void watchProcessExit(const void* user, const void* library);

/// True once the exit handlers run: modules may have torn down their own state by then.
bool processIsExiting() noexcept;

}  // namespace mervane

#endif
