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
    // Not on the error channel: the reason of a failure is there already, at the place that knew.
    log.LogInfo(success ? "Success." : "Failed.");
}

// Here and not with LogBase, which knows nothing of the objects that have a log.
LogContextExitor::LogContextExitor(ClsBase& object, std::string_view name) noexcept
    : LogContextExitor(object.m_log, name) {}

}  // namespace mervane
