#ifndef MERVANE_FOUNDATION_CORE_FORKWATCH_H
#define MERVANE_FOUNDATION_CORE_FORKWATCH_H

#include <cstdint>

namespace mervane {

/// How many forks lie between the process that loaded the library and this one. State that is
/// bound to a process (locks held by other threads, module handles) remembers the number under
/// which it was made and is void when the number has changed. Costs one atomic load.
std::uint32_t forkGeneration() noexcept;

/// Asks for the process's end to be noticed before `user` is destroyed at exit: from the moment
/// that exit handlers begin to run, processIsExiting() answers true. Takes a place among the exit
/// handlers for the first user and for every one of static storage, and none for the rest.
void watchProcessExit(const void* user) noexcept;

/// True once the exit handlers run: modules may have torn down their own state by then.
bool processIsExiting() noexcept;

}  // namespace mervane

#endif
