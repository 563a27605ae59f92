#include "foundation/core/clsbase.h"

#include "foundation/core/guarded.h"

namespace mervane {

bool ClsBase::get_LastMethodSuccess() {
    const CritSecExitor lock(*this);
    return m_lastMethodSuccess;
}

void ClsBase::put_Options(std::string_view keywords) {
    const CritSecExitor lock(*this);
    guarded(m_log, [&] { m_log.setOptions(keywords); });
}

void ClsBase::logSuccessFailure2(bool success, LogBase& log) noexcept {
    m_lastMethodSuccess = success;
    // Info even for a failure: the error line was written where the reason was known.
    log.LogInfo(success ? "Success." : "Failed.");
}

// Defined here because the log layer must not depend on ClsBase.
LogContextExitor::LogContextExitor(ClsBase& object, std::string_view name) noexcept
    : LogContextExitor(object.m_log, name) {}

}  // namespace mervane
