#include "foundation/core/forkwatch.h"

#include <atomic>
#include <cstdlib>

#include <dlfcn.h>
#include <pthread.h>

namespace mervane {
namespace {

std::atomic<std::uint32_t> forkCount{0};
std::atomic<bool> exiting{false};

// The handler has to stand before the first fork that matters, which is the one after the first
// object was made; registering it then costs nothing to processes that never make one.
bool registerForkHandler() noexcept {
    return pthread_atfork(nullptr, nullptr, [] { forkCount.fetch_add(1); }) == 0;
}

}  // namespace

std::uint32_t forkGeneration() noexcept {
    static const bool registered = registerForkHandler();
    static_cast<void>(registered);
    return forkCount.load(std::memory_order_acquire);
}

void watchProcessExit(const void* user) noexcept {
    static std::atomic<bool> watching{false};
    Dl_info image{};
    const bool isStatic = ::dladdr(user, &image) != 0;
    if (watching.exchange(true) && !isStatic) return;
    // Handlers run in the reverse order of their registration, so this one runs before the
    // destructor of every static object that is complete by now.
    static_cast<void>(std::atexit([] { exiting.store(true); }));
}

bool processIsExiting() noexcept {
    return exiting.load(std::memory_order_acquire);
}

}  // namespace mervane
