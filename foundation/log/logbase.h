#ifndef MERVANE_FOUNDATION_LOG_LOGBASE_H
#define MERVANE_FOUNDATION_LOG_LOGBASE_H

#include <string>
#include <string_view>

namespace mervane {

class ClsBase;
class StringBuffer;
class XString;

/// What an internal method writes to. Lines are whole sentences; named values use lower camel
/// case keys. Which channel a message goes to is part of the behaviour. Nothing here throws: an
/// entry for which there is no memory is dropped.
class LogBase {
  public:
    enum class Kind : unsigned char { Error, Info, Hint, Data };

    LogBase(const LogBase&) = delete;
    LogBase& operator=(const LogBase&) = delete;
    virtual ~LogBase() = default;

    void LogError(std::string_view sentence) noexcept { write(Kind::Error, {}, sentence); }
    void LogInfo(std::string_view sentence) noexcept { write(Kind::Info, {}, sentence); }
    /// An information line that says what usually helps against the error line before it.
    void LogHint(std::string_view sentence) noexcept { write(Kind::Hint, {}, sentence); }
    void LogData(std::string_view name, std::string_view value) noexcept {
        write(Kind::Data, name, value);
    }
    void LogDataX(std::string_view name, const XString& value) noexcept;
    void LogDataSb(std::string_view name, const StringBuffer& value) noexcept;
    void LogDataLong(std::string_view name, long value) noexcept;
    /// Written as unsigned, in decimal: handles and slot IDs.
    void LogDataUnsigned(std::string_view name, unsigned long value) noexcept;
    void LogDataBool(std::string_view name, bool value) noexcept {
        write(Kind::Data, name, value ? "true" : "false");
    }

    /// Keywords that change what calls do; a keyword counts wherever it stands, in any case.
    void setOptions(std::string_view keywords) { m_options = keywords; }
    [[nodiscard]] bool hasOption(std::string_view keyword) const noexcept;

  protected:
    LogBase() = default;

    virtual void write(Kind kind, std::string_view name, std::string_view text) noexcept = 0;
    virtual void enterContext(std::string_view name) noexcept = 0;
    virtual void leaveContext() noexcept = 0;

  private:
    friend class LogContextExitor;

    std::string m_options;
};

/// Discards everything.
class LogNull final : public LogBase {
  private:
    void write(Kind, std::string_view, std::string_view) noexcept override {}
    void enterContext(std::string_view) noexcept override {}
    void leaveContext() noexcept override {}
};

/// Opens a named context for the length of a scope.
class LogContextExitor {
  public:
    LogContextExitor(ClsBase& object, std::string_view name) noexcept;
    LogContextExitor(LogBase& log, std::string_view name) noexcept : m_log(log) {
        m_log.enterContext(name);
    }
    ~LogContextExitor() { m_log.leaveContext(); }
    LogContextExitor(const LogContextExitor&) = delete;
    LogContextExitor& operator=(const LogContextExitor&) = delete;

  private:
    LogBase& m_log;
};

}  // namespace mervane

#endif
