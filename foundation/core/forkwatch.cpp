#include "foundation/core/forkwatch.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>

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

void watchProcessExit(const void* user, const void* library) {
    // Neither is ever freed: exit handlers and destructors of static objects come in any order. A
    // fork abandons both, since another thread may have been at work on them.
    struct Watched {
        std::mutex mutex;
        std::set<const void*> seen;
        std::uint32_t generation = forkGeneration();
    };
    static std::atomic<Watched*> current{std::make_unique<Watched>().release()};
    Watched* watched = current.load();
    if (watched->generation != forkGeneration()) {
        watched = std::make_unique<Watched>().release();
        current.store(watched);
    }
    Dl_info image{};
    const bool isStatic = ::dladdr(user, &image) != 0;
    const std::lock_guard lock(watched->mutex);
    const bool isNewLibrary = watched->seen.insert(library).second;
    const bool isNewUser = isStatic && watched->seen.insert(user).second;
    // Handlers run in the reverse order of their registration. This one runs before those of the
    // library, and before the destructor of a static object that is complete by now. An object that
    // is to be destroyed earlier than that finds the library at work.
    if (isNewLibrary || isNewUser) static_cast<void>(std::atexit([] { exiting.store(true); }));
}

bool processIsExiting() noexcept {
    return exiting.load(std::memory_order_acquire);
}

}  // namespace mervane
