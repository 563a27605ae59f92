#ifndef MERVANE_FOUNDATION_CORE_CLSBASE_H
#define MERVANE_FOUNDATION_CORE_CLSBASE_H

#include <memory>

#include "../log/logger.h"
#include "critsec.h"
#include "object.h"

namespace mervane {

/// Base of every public object: its lock, its log, and the outcome of the last call.
class ClsBase : public MervaneObject, public MervaneCritSec {
  public:
    ClsBase(const ClsBase&) = delete;
    ClsBase& operator=(const ClsBase&) = delete;
    ~ClsBase() override = default;

    /// @{
    /// The object's log. Not synchronised: read it only while no other thread calls the object.
    [[nodiscard]] _mvLogger& log() noexcept { return m_log; }
    [[nodiscard]] const _mvLogger& log() const noexcept { return m_log; }
    /// @}

    /// Whether the last method that records its outcome succeeded; true on a new object. Methods
    /// that record nothing leave it unchanged. Takes the lock.
    [[nodiscard]] bool get_LastMethodSuccess();

    /// Sets the option keywords for later calls, such as "Pkcs11DiscoverSkipMechanisms". Separators
    /// and letter case do not matter; earlier keywords are replaced. Takes the lock.
    void put_Options(std::string_view keywords);

    /// Records the outcome of a public method and logs it as an info line. The caller holds the
    /// lock.
    void logSuccessFailure(bool success) noexcept { logSuccessFailure2(success, m_log); }
    /// As above, but writes the line to `log`.
    void logSuccessFailure2(bool success, LogBase& log) noexcept;

  protected:
    ClsBase() = default;

    _mvLogger m_log;  ///< see log()

  private:
    friend class LogContextExitor;

    bool m_lastMethodSuccess = true;
};

/// Owns an object, which may be null, and deletes it at the end of the scope.
class _clsBaseHolder {
  public:
    /// Takes ownership.
    explicit _clsBaseHolder(ClsBase* object) noexcept : m_object(object) {}

  private:
    std::unique_ptr<ClsBase> m_object;
};

}  // namespace mervane

#endif
