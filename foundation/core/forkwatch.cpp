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

// Registered when the first object asks for the generation: early enough for every fork that could
// matter, and free for processes that never create an object.
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
    // Never destroyed: objects of static storage may still get here while the process exits. A fork
    // abandons it, because another thread may have been changing it.
    struct Watched {
        std::mutex mutex;
        std::set<const void*> seen;
        std::uint32_t generation = forkGeneration();
        Watched* before = nullptr;  // kept in reach, so that no tool calls it a leak
    };
    static std::atomic<Watched*> current{std::make_unique<Watched>().release()};
    Watched* watched = current.load();
    if (watched->generation != forkGeneration()) {
        auto fresh = std::make_unique<Watched>();
        fresh->before = watched;
        watched = fresh.release();
        current.store(watched);
    }
    // dladdr() knows the addresses within loaded images, which is where static objects live; heap
    // and stack lie outside.
    Dl_info image{};
    const bool isStatic = ::dladdr(user, &image) != 0;
    const std::lock_guard lock(watched->mutex);
    const bool isNewLibrary = watched->seen.insert(library).second;
    const bool isNewUser = isStatic && watched->seen.insert(user).second;
    // Exit handlers and static destructors run in reverse order of registration, so this one runs
    // before those of the library and before the destructor of any static object complete by now.
    // A static object completed later is destroyed first, while the library still works.
    if (isNewLibrary || isNewUser) static_cast<void>(std::atexit([] { exiting.store(true); }));
}

bool processIsExiting() noexcept {
    return exiting.load(std::memory_order_acquire);
}

}  // namespace mervane
