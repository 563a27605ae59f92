#ifndef MERVANE_FOUNDATION_LOG_LOGGER_H
#define MERVANE_FOUNDATION_LOG_LOGGER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "logbase.h"

namespace mervane {

/// The log of a public object: the current (or last) public call whole, and as many earlier calls
/// as fit 256 KiB, the oldest dropped first.
///
/// Writing an entry appends a few bytes to one buffer; nothing is formatted until somebody reads.
/// One call may fill 1 MiB; beyond that only its errors are kept (64 KiB more) and the rest is
/// counted, so that a module cannot fill the memory through the log.
class _mvLogger final : public LogBase {
  public:
    /// One stored entry, as forEach() gives it. For contexts `text` is the name.
    struct Entry {
        enum class What : unsigned char { Error, Info, Data, Enter, Leave } what;
        int depth;              ///< contexts around the entry
        std::string_view name;  ///< of a value, else empty
        std::string_view text;  ///< one line of UTF-8 without control characters
    };

    /// All entries kept, oldest first.
    void forEach(const std::function<void(const Entry&)>& visit) const;

    /// Indented text: a context's name ends in a colon, an error line begins with "error: ".
    [[nodiscard]] std::string text() const;
    /// An array of contexts, {"context":name,"entries":[...]}, whose entries are contexts,
    /// {"error":text}, {"info":text} or {"name":name,"value":text}.
    [[nodiscard]] std::string json() const;

    /// The last error line of the last public call and the hint that followed it; empty when
    /// there is none.
    [[nodiscard]] std::string lastError() const { return m_lastError; }
    [[nodiscard]] std::string lastHint() const { return m_lastHint; }

    /// Open contexts; 0 whenever no public call runs.
    [[nodiscard]] int contextDepth() const noexcept { return m_depth; }

    void clear() noexcept;
    /// In a forked child: contexts that other threads of the parent had open will not be closed.
    void forgetOpenContexts() noexcept { m_depth = 0; }
    /// The same if a thread was writing at the fork: begins anew, and frees nothing.
    void abandon() noexcept;

  private:
    void write(Kind kind, std::string_view name, std::string_view text) noexcept override;
    void enterContext(std::string_view name) noexcept override;
    void leaveContext() noexcept override;

    // Keeps an entry when the call has room left for it; append() keeps it in any case.
    bool store(Entry::What what, std::string_view name, std::string_view text);
    void append(Entry::What what, std::string_view name, std::string_view text);
    void beginCall();

    std::string m_bytes;               // entries of all calls kept
    std::vector<std::size_t> m_calls;  // where each call begins in m_bytes
    std::string m_lastError;
    std::string m_lastHint;
    std::uint64_t m_numDropped = 0;  // entries of the current call that were not kept
    std::uint64_t m_stored = 0;      // one bit a depth: the open context there is in m_bytes
    int m_depth = 0;
};

}  // namespace mervane

#endif
