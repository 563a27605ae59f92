// The find operation: begun, gathered from, and ended on every way out.
//
// All handles are gathered before the search is ended and any object is read: modules disagree
// about what may be called during a search. C_FindObjects may return fewer handles than asked for
// before the end; only 0 ends it. A search left active by somebody else on the session is ended,
// once.

#include "pkcs11/calls/search.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace mervane {
namespace {

// Handles asked for at a time: large, so that nearly every search takes two calls, one of which
// returns nothing.
constexpr std::size_t kBatch = 1024;

// A search that never ends is given up after this many batches in a row without a new handle.
constexpr int kMaxStaleBatches = 4;

// Handles in the order found, without duplicates.
class HandleList {
  public:
    HandleList(std::vector<CK_OBJECT_HANDLE>& handles, std::size_t limit)
        : m_handles(handles), m_limit(limit) {}

    [[nodiscard]] bool isFull() const noexcept { return m_handles.size() >= m_limit; }

    // Returns how many of the batch were new.
    std::size_t add(std::span<const CK_OBJECT_HANDLE> batch) {
        const std::size_t before = m_handles.size();
        for (const CK_OBJECT_HANDLE handle : batch) {
            if (isFull()) break;
            if (handle != 0 && isNew(handle)) m_handles.push_back(handle);
        }
        return m_handles.size() - before;
    }

  private:
    // Most modules list handles in rising order; the set is only built for one that does not.
    bool isNew(CK_OBJECT_HANDLE handle) {
        if (m_seen.empty() && (m_handles.empty() || handle > m_handles.back())) return true;
        if (m_seen.empty()) m_seen.insert(m_handles.begin(), m_handles.end());
        return m_seen.insert(handle).second;
    }

    std::vector<CK_OBJECT_HANDLE>& m_handles;
    std::size_t m_limit;
    std::unordered_set<CK_OBJECT_HANDLE> m_seen;
};

// An active search of the session; ends it on every way out.
class FindOperation {
  public:
    FindOperation(Calls& calls, LogBase& log) noexcept
        : m_calls(calls), m_log(log), m_session(calls.use.session()) {}
    ~FindOperation() { end(); }
    FindOperation(const FindOperation&) = delete;
    FindOperation& operator=(const FindOperation&) = delete;

    std::optional<CK_RV> end() {
        if (std::exchange(m_hasEnded, true) || m_calls.use.session() != m_session)
            return std::nullopt;  // or it ended with its session
        const auto rv = m_calls.ask(m_log, function::kFindObjectsFinal);
        if (rv && *rv != CKR_OK) m_log.LogDataUnsigned("findObjectsFinalResult", *rv);
        return rv;
    }

  private:
    Calls& m_calls;
    LogBase& m_log;
    std::uint64_t m_session;
    bool m_hasEnded = false;
};

std::optional<CK_RV> gatherObjects(Calls& calls, std::size_t limit,
                                   std::vector<CK_OBJECT_HANDLE>& handles, LogBase& log) {
    std::vector<CK_OBJECT_HANDLE> batch(std::min(kBatch, limit));
    HandleList list(handles, limit);
    for (int numStale = 0; numStale < kMaxStaleBatches;) {
        CK_ULONG count = 0;
        std::ranges::fill(batch, CK_OBJECT_HANDLE{0});
        const auto rv = calls.ask(log, function::kFindObjects, batch.data(),
                                  static_cast<CK_ULONG>(batch.size()), &count);
        if (rv != CKR_OK || count == 0) return rv;
        const auto given = std::span(batch).first(std::min<std::size_t>(count, batch.size()));
        numStale = list.add(given) == 0 ? numStale + 1 : 0;
        if (list.isFull()) {
            if (limit == kMaxObjects) {
                log.LogInfo("The module lists more objects than are looked at.");
                ++calls.numLeftOut;
            }
            return rv;
        }
    }
    log.LogInfo("The module's search does not end; what it found so far is used.");
    ++calls.numLeftOut;
    return CKR_OK;
}

}  // namespace

bool findObjects(Calls& calls, std::span<CK_ATTRIBUTE> query, std::size_t limit,
                 std::vector<CK_OBJECT_HANDLE>& handles, LogBase& log) {
    if (!calls.ready(log, function::kFindObjectsInit, function::kFindObjects,
                     function::kFindObjectsFinal))
        return false;
    const auto begin = [&] {
        return calls.ask(log, function::kFindObjectsInit, query.data(),
                         static_cast<CK_ULONG>(query.size()));
    };
    auto rv = begin();
    if (rv == CKR_OPERATION_ACTIVE) {
        // Somebody else left a search active on this session.
        calls.attempt(log, function::kFindObjectsFinal);
        rv = begin();
    }
    if (!rv || !calls.report(function::kFindObjectsInit, *rv, log)) return false;
    FindOperation operation(calls, log);
    rv = gatherObjects(calls, limit, handles, log);
    const auto endRv = operation.end();
    // Reported only after the search has ended, because the report may drop the session.
    const bool isWhole = rv && calls.report(function::kFindObjects, *rv, log);
    if (calls.hasOpenSession() && endRv && endsUse(Needs::Session, *endRv)) {
        calls.report(function::kFindObjectsFinal, *endRv, log);
    }
    return isWhole && calls.hasOpenSession();  // handles die with the session
}

}  // namespace mervane
