#include "foundation/core/critsec.h"

#include <new>
#include <thread>

#include "foundation/core/forkwatch.h"

namespace mervane {
namespace {

// Marks a mutex that another thread is rebuilding. No process forks often enough to reach it.
constexpr std::uint32_t kRenewing = ~std::uint32_t{0};

}  // namespace

MervaneCritSec::MervaneCritSec() noexcept : m_mutex(), m_generation(forkGeneration()) {}

void MervaneCritSec::enterCriticalSection() {
    const std::uint32_t current = forkGeneration();
    while (true) {
        const std::uint32_t seen = m_generation.load(std::memory_order_acquire);
        if (seen == current) break;
        renewAfterFork(seen, current);
    }
    m_mutex.lock();
}

void MervaneCritSec::leaveCriticalSection() noexcept {
    // Entered before a fork and left in the child: the mutex is stale and will be rebuilt.
    if (m_generation.load(std::memory_order_acquire) == forkGeneration()) m_mutex.unlock();
}

void MervaneCritSec::renewAfterFork(std::uint32_t seen, std::uint32_t current) noexcept {
    if (seen == kRenewing || !m_generation.compare_exchange_strong(seen, kRenewing)) {
        std::this_thread::yield();
        return;
    }
    // A mutex that a thread of the parent held cannot be locked here, not even by the thread that
    // forked: it has another ID in the child.
    if (m_mutex.try_lock()) {
        m_mutex.unlock();
    } else {
        m_wasHeldAtFork.store(true);
    }
    // Over the old one without destroying it; see the union in the header.
    ::new (static_cast<void*>(&m_mutex)) std::recursive_mutex;
    m_generation.store(current, std::memory_order_release);
}

}  // namespace mervane
