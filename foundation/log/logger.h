#ifndef MERVANE_FOUNDATION_LOG_LOGGER_H
#define MERVANE_FOUNDATION_LOG_LOGGER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "logbase.h"

namespace mervane {

/// The log of a public object: the current (or last) public call in full, and as many earlier calls
/// as fit in 256 KiB, the oldest dropped first.
///
/// Writing appends a few bytes to one buffer; nothing is formatted until the log is read. One call
/// may fill 1 MiB; after that only its error lines are kept (64 KiB more) and the rest is counted
/// in the value "entriesNotKept", so a misbehaving module cannot exhaust memory through the log.
///
/// Not synchronised: read it only while no other thread calls the object.
class _mvLogger final : public LogBase {
  public:
    /// One stored entry: a log line, a value, or the start or end of a context, whose name is in
    /// `text`. The views are valid until the log changes.
    struct Entry {
        /// The kinds of entries.
        enum class What : unsigned char { Error, Info, Data, Enter, Leave };
        What what;              ///< the kind of this entry
        int depth;              ///< number of contexts around the entry
        std::string_view name;  ///< key of a value; empty otherwise
        std::string_view text;  ///< one line of UTF-8 without control characters
    };

    /// Calls `visit` for every entry kept, oldest first. `visit` must not write to this log.
    void forEach(const std::function<void(const Entry&)>& visit) const;

    /// The log as indented text: context names end in a colon, error lines begin with "error: ".
    [[nodiscard]] std::string text() const;
    /// The log as JSON: an array of {"context":name,"entries":[...]}, whose entries are contexts,
    /// {"error":text}, {"info":text} or {"name":name,"value":text}.
    [[nodiscard]] std::string json() const;

    /// The last error line of the last public call, which says what did not succeed; empty if there
    /// is none.
    [[nodiscard]] std::string lastError() const { return m_lastError; }
    /// The first error line of that call, which says why.
    [[nodiscard]] std::string firstError() const { return m_firstError; }
    /// The last hint of that call.
    [[nodiscard]] std::string lastHint() const { return m_lastHint; }

    /// Number of open contexts; 0 whenever no public call is running.
    [[nodiscard]] int contextDepth() const noexcept { return m_depth; }

    /// Forgets all entries and the last error.
    void clear() noexcept;
    /// For a forked child, where the contexts opened by the parent's other threads never close.
    void forgetOpenContexts() noexcept { m_depth = 0; }
    /// The same if a thread was writing at the fork: begins anew, and frees nothing.
    void abandon() noexcept;

  private:
    void write(Kind kind, std::string_view name, std::string_view text) noexcept override;
    void enterContext(std::string_view name) noexcept override;
    void leaveContext() noexcept override;

    // Appends an entry if the call's bound allows; append() itself does not ask.
    bool store(Entry::What what, std::string_view name, std::string_view text);
    void append(Entry::What what, std::string_view name, std::string_view text);
    void beginCall();

    std::string m_bytes;               // the entries; layout in logger.cpp
    std::vector<std::size_t> m_calls;  // where each call begins in m_bytes
    std::string m_firstError;
    std::string m_lastError;
    std::string m_lastHint;
    std::uint64_t m_numDropped = 0;  // entries of the current call not kept
    std::uint64_t m_stored = 0;      // bit n: the open context at depth n has an Enter entry
    int m_depth = 0;
};

}  // namespace mervane

#endif
