#ifndef MERVANE_FOUNDATION_LOG_LOGBASE_H
#define MERVANE_FOUNDATION_LOG_LOGBASE_H

#include <string>
#include <string_view>

namespace mervane {

class ClsBase;
class StringBuffer;
class XString;

/// The log that internal methods write to.
///
/// Log lines are whole sentences; named values have lower camel case keys. Which channel a line
/// goes to (error, info, data) is part of the interface: callers match on it. Nothing here throws;
/// a line is dropped when memory runs out. Not synchronised: the object that owns the log locks.
class LogBase {
  public:
    /// A Hint is stored as an info line.
    enum class Kind : unsigned char { Error, Info, Hint, Data };

    LogBase(const LogBase&) = delete;
    LogBase& operator=(const LogBase&) = delete;
    virtual ~LogBase() = default;

    /// An error line. Written once, where the reason of the failure is known.
    void LogError(std::string_view sentence) noexcept { write(Kind::Error, {}, sentence); }
    /// An info line: what happened, for whoever looks for a cause.
    void LogInfo(std::string_view sentence) noexcept { write(Kind::Info, {}, sentence); }
    /// An info line with the usual remedy for the preceding error line.
    void LogHint(std::string_view sentence) noexcept { write(Kind::Hint, {}, sentence); }
    /// @{
    /// A named value. The Long and Unsigned forms (the latter for handles and slot IDs) write
    /// decimal, the Bool form true or false.
    void LogData(std::string_view name, std::string_view value) noexcept {
        write(Kind::Data, name, value);
    }
    void LogDataX(std::string_view name, const XString& value) noexcept;
    void LogDataSb(std::string_view name, const StringBuffer& value) noexcept;
    void LogDataLong(std::string_view name, long value) noexcept;
    void LogDataUnsigned(std::string_view name, unsigned long value) noexcept;
    void LogDataBool(std::string_view name, bool value) noexcept {
        write(Kind::Data, name, value ? "true" : "false");
    }
    /// @}

    /// Keywords that change what calls do. They travel with the log because it reaches every
    /// internal method.
    void setOptions(std::string_view keywords);
    /// Whether `keyword` occurs anywhere in the options, in any letter case.
    [[nodiscard]] bool hasOption(std::string_view keyword) const noexcept;

  protected:
    LogBase() = default;

    /// @{
    /// What a log does with a line, and with the start and the end of a context.
    virtual void write(Kind kind, std::string_view name, std::string_view text) noexcept = 0;
    virtual void enterContext(std::string_view name) noexcept = 0;
    virtual void leaveContext() noexcept = 0;
    /// @}
    /// In a forked child: if another thread was setting the options at the fork, they are forgotten
    /// and not freed.
    void settleOptions() noexcept;

  private:
    friend class LogContextExitor;

    std::string m_options;
    bool m_isSettingOptions = false;
};

/// A log that discards everything.
class LogNull final : public LogBase {
  private:
    void write(Kind, std::string_view, std::string_view) noexcept override {}
    void enterContext(std::string_view) noexcept override {}
    void leaveContext() noexcept override {}
};

/// Opens a named context, under which log lines are nested, for the length of a scope.
class LogContextExitor {
  public:
    /// @{
    /// Opens the context in the object's log, or in the log.
    LogContextExitor(ClsBase& object, std::string_view name) noexcept;
    LogContextExitor(LogBase& log, std::string_view name) noexcept : m_log(log) {
        m_log.enterContext(name);
    }
    /// @}
    ~LogContextExitor() { m_log.leaveContext(); }
    LogContextExitor(const LogContextExitor&) = delete;
    LogContextExitor& operator=(const LogContextExitor&) = delete;

  private:
    LogBase& m_log;
};

}  // namespace mervane

#endif
