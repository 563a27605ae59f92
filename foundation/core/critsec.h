#ifndef MERVANE_FOUNDATION_CORE_CRITSEC_H
#define MERVANE_FOUNDATION_CORE_CRITSEC_H

#include <atomic>
#include <cstdint>
#include <mutex>

namespace mervane {

/// A critical section that the thread holding it may enter again.
///
/// It survives fork(): in the child a section that another thread of the parent held is free, so
/// that a forked process can go on using (or at least destroy) the objects it inherited.
class MervaneCritSec {
  public:
    MervaneCritSec() noexcept;
    MervaneCritSec(const MervaneCritSec&) = delete;
    MervaneCritSec& operator=(const MervaneCritSec&) = delete;
    ~MervaneCritSec() = default;

    void enterCriticalSection();
    void leaveCriticalSection() noexcept;

    /// In a forked child, once it has entered: somebody was inside the section at the fork, so that
    /// what it guards may be half changed. Asked once: the answer is false from then on.
    [[nodiscard]] bool takeWasHeldAtFork() noexcept { return m_wasHeldAtFork.exchange(false); }

  private:
    void renewAfterFork(std::uint32_t seen, std::uint32_t current) noexcept;

    // Never destroyed: destroying a mutex that a thread of the parent held is undefined, and the
    // type owns nothing outside itself.
    union {
        std::recursive_mutex m_mutex;
    };
    std::atomic<std::uint32_t> m_generation;
    std::atomic<bool> m_wasHeldAtFork{false};
};

/// Holds a critical section for the length of a scope.
class CritSecExitor {
  public:
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
