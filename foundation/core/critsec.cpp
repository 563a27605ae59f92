#include "foundation/core/critsec.h"

#include <new>
#include <thread>

#include "foundation/core/forkwatch.h"

namespace mervane {
namespace {

// No process forks this often; the value marks a mutex that another thread is making anew.
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
    // A section entered before a fork by the thread that forked was made anew since: not held.
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
    ::new (static_cast<void*>(&m_mutex)) std::recursive_mutex;
    m_generation.store(current, std::memory_order_release);
}

}  // namespace mervane
