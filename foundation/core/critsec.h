#ifndef MERVANE_FOUNDATION_CORE_CRITSEC_H
#define MERVANE_FOUNDATION_CORE_CRITSEC_H

#include <atomic>
#include <cstdint>
#include <mutex>

namespace mervane {

/// A recursive lock that survives fork().
///
/// fork() copies every mutex in the state it happens to be in, but only the calling thread. A mutex
/// that another thread held would stay locked in the child for ever, and even destroying an
/// inherited object would hang. Each section therefore remembers the fork generation (forkwatch.h)
/// in which its mutex was built; the first thread to enter it in the child builds a new one, so all
/// sections start out free there.
///
/// This makes the lock usable, not the data: what the other thread was changing at the fork may be
/// half changed in the child.
class MervaneCritSec {
  public:
    MervaneCritSec() noexcept;
    MervaneCritSec(const MervaneCritSec&) = delete;
    MervaneCritSec& operator=(const MervaneCritSec&) = delete;
    ~MervaneCritSec() = default;

    /// Blocks until the section is free. The thread that holds it may enter again.
    void enterCriticalSection();
    /// To be called once for each enterCriticalSection(), on the same thread.
    void leaveCriticalSection() noexcept;

    /// In a forked child, once it has entered: somebody was inside the section at the fork, so that
    /// what it guards may be half changed. Asked once: the answer is false from then on.
    [[nodiscard]] bool takeWasHeldAtFork() noexcept { return m_wasHeldAtFork.exchange(false); }

  private:
    void renewAfterFork(std::uint32_t seen, std::uint32_t current) noexcept;

    // In a union, so never destroyed: destroying a mutex that one of the parent's threads held is
    // undefined, and the type owns nothing that would leak.
    union {
        std::recursive_mutex m_mutex;
    };
    std::atomic<std::uint32_t> m_generation;  // fork generation that m_mutex was built in
    std::atomic<bool> m_wasHeldAtFork{false};
};

/// Holds a critical section for the length of a scope.
class CritSecExitor {
  public:
    /// Enters the section, which must outlive this.
    explicit CritSecExitor(MervaneCritSec& section) : m_section(section) {
        m_section.enterCriticalSection();
    }
    ~CritSecExitor() { m_section.leaveCriticalSection(); }
    CritSecExitor(const CritSecExitor&) = delete;
    CritSecExitor& operator=(const CritSecExitor&) = delete;

  private:
    MervaneCritSec& m_section;
};

}  // namespace mervane

#endif
