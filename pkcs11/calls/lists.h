#ifndef MERVANE_PKCS11_CALLS_LISTS_H
#define MERVANE_PKCS11_CALLS_LISTS_H

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "pkcs11/calls/calls.h"

namespace mervane {

/// How many IDs the module really wrote into `room`, which was preset to
/// CK_UNAVAILABLE_INFORMATION: neither a slot nor a mechanism.
inline std::size_t numWritten(std::span<const CK_ULONG> room, CK_ULONG claimed) noexcept {
    const auto given = room.first(std::min<std::size_t>(room.size(), claimed));
    return static_cast<std::size_t>(std::ranges::find(given, CK_UNAVAILABLE_INFORMATION) -
                                    given.begin());
}

/// Fetches a list of IDs in the standard's two steps (PKCS#11 2.40 base, 5.2): its length, then the
/// list. The second step offers some spare room, because the list may grow in between; if that is
/// not enough the two are repeated a few times. IDs beyond `limit` are dropped.
template <Needs N, class Signature, class... Args>
bool fetchList(Calls& calls, const ModuleFunction<N, Signature>& function, CK_ULONG limit,
               std::vector<CK_ULONG>& list, LogBase& log, Args... args) {
    constexpr int kMaxTries = 4;
    constexpr CK_ULONG kSpare = 16;
    constexpr CK_ULONG kMaxRoom = 1048576;  // bounds what a module can make us allocate
    for (int numTries = 0; numTries < kMaxTries; ++numTries) {
        CK_ULONG count = 0;
        if (!calls.invoke(log, function, args..., static_cast<CK_ULONG*>(nullptr), &count))
            return false;
        list.assign(std::min(count, kMaxRoom) + kSpare, CK_UNAVAILABLE_INFORMATION);
        count = list.size();
        const auto rv = calls.ask(log, function, args..., list.data(), &count);
        if (rv == CKR_BUFFER_TOO_SMALL) continue;
        if (!rv || !calls.report(function, *rv, log)) return false;
        list.resize(std::min(numWritten(list, count), static_cast<std::size_t>(limit)));
        return true;
    }
    return calls.fail(log, FailureKind::ModuleFailed,
                      std::string(function.name) + " does not settle on the length of its list.");
}

}  // namespace mervane

#endif
