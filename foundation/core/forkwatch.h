#ifndef MERVANE_FOUNDATION_CORE_FORKWATCH_H
#define MERVANE_FOUNDATION_CORE_FORKWATCH_H

#include <cstdint>

namespace mervane {

// The two events that invalidate state without a call: fork() and process exit.
//
// After fork() the child inherits locks that no thread will release, and sessions that belong to
// its parent: to PKCS#11 the child is a new application. A fork handler can do next to nothing
// safely, so it only counts. Whoever holds process-bound state saves the count and compares it on
// the next use.
//
// At exit the modules tear down their state in exit handlers of their own. A ClsPkcs11 of static
// storage may be destroyed after that and must then not call its module at all.

/// Number of forks since the process that loaded the library; state built under another number is
/// void. Any thread; one atomic load.
std::uint32_t forkGeneration() noexcept;

/// Makes processIsExiting() true before `library` (any address that identifies it), which must
/// already be loaded, runs its exit handlers, and before `user` is destroyed if it has static
/// storage. Registers one exit handler per library and per static user. Any thread.
void watchProcessExit(const void* user, const void* library);

/// Whether a watched exit has begun, so that modules may have torn down their state. Any thread.
bool processIsExiting() noexcept;

}  // namespace mervane

#endif
