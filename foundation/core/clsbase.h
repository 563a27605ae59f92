#ifndef MERVANE_FOUNDATION_CORE_CLSBASE_H
#define MERVANE_FOUNDATION_CORE_CLSBASE_H

#include <memory>

#include "../log/logger.h"
#include "critsec.h"
#include "object.h"

namespace mervane {

/// Base of every public object: its critical section, its log, and the record of how the last
/// recorded call went.
class ClsBase : public MervaneObject, public MervaneCritSec {
  public:
    ClsBase(const ClsBase&) = delete;
    ClsBase& operator=(const ClsBase&) = delete;
    ~ClsBase() override = default;

    /// The object's log. Thread rule: read it while no other thread calls the object.
    [[nodiscard]] _mvLogger& log() noexcept { return m_log; }
    [[nodiscard]] const _mvLogger& log() const noexcept { return m_log; }

    /// The outcome that was recorded last; true on a new object. Methods that record nothing
    /// leave it as it was.
    [[nodiscard]] bool get_LastMethodSuccess();

    /// Option keywords for the object's calls, such as "Pkcs11DiscoverSkipMechanisms"; any
    /// separators, any letter case.
    void put_Options(std::string_view keywords);

    /// Records the outcome of a public method, in the object and as a line of its log.
    void logSuccessFailure(bool success) noexcept { logSuccessFailure2(success, m_log); }
    /// The same with the line written to `log`.
    void logSuccessFailure2(bool success, LogBase& log) noexcept;

  protected:
    ClsBase() = default;

    _mvLogger m_log;

  private:
    friend class LogContextExitor;

    bool m_lastMethodSuccess = true;
};

/// Releases an object when its scope ends.
class _clsBaseHolder {
  public:
    explicit _clsBaseHolder(ClsBase* object) noexcept : m_object(object) {}

  private:
    std::unique_ptr<ClsBase> m_object;
};

}  // namespace mervane

#endif
