#include "foundation/core/forkwatch.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <set>

#include <dlfcn.h>
#include <pthread.h>

#include "foundation/core/lasting.h"

namespace mervane {
namespace {

std::atomic<std::uint32_t> forkCount{0};
std::atomic<bool> exiting{false};

// When the library is loaded, so before any fork that could matter, and not at the first use: that
// would take a lock, which a fork could catch.
[[maybe_unused]] const bool isRegistered =
    pthread_atfork(nullptr, nullptr, [] { forkCount.fetch_add(1); }) == 0;

// The addresses that an exit handler stands for. A fork abandons them, because another thread may
// have been changing them.
struct Watched {
    std::mutex mutex;
    std::set<const void*> seen;
    std::uint32_t generation = forkGeneration();
    Watched* before = nullptr;
};

constinit Lasting<Watched> watchedAddresses;

Watched& watched() {
    Watched& current = watchedAddresses.get();
    return current.generation == forkGeneration() ? current : watchedAddresses.replace(current);
}

}  // namespace

std::uint32_t forkGeneration() noexcept {
    return forkCount.load(std::memory_order_acquire);
}

void watchProcessExit(const void* user, const void* library) {
    // dladdr() knows the addresses within loaded images, which is where static objects live; heap
    // and stack lie outside.
    Dl_info image{};
    const bool isStatic = ::dladdr(user, &image) != 0;
    Watched& addresses = watched();
    const std::lock_guard lock(addresses.mutex);
    const bool isNewLibrary = addresses.seen.insert(library).second;
    const bool isNewUser = isStatic && addresses.seen.insert(user).second;
    // Exit handlers and static destructors run in reverse order of registration, so this one runs
    // before those of the library and before the destructor of any static object complete by now.
    // A static object completed later is destroyed first, while the library still works.
    if (isNewLibrary || isNewUser) static_cast<void>(std::atexit([] { exiting.store(true); }));
}

bool processIsExiting() noexcept {
    return exiting.load(std::memory_order_acquire);
}

}  // namespace mervane
