// PIN and token administration.

#include <algorithm>
#include <array>

#include "foundation/text/utf8.h"
#include "pkcs11/calls/operations.h"
#include "pkcs11/calls/pin.h"

namespace mervane::operation {

bool setPin(Calls& calls, const char* oldPin, const char* newPin, LogBase& log) {
    if (!calls.ready(log, function::kSetPin)) return false;
    const CK_SLOT_ID slotId = calls.state.m_slotId;
    PinArgument from(calls, oldPin, slotId, log);
    PinArgument to(calls, newPin, slotId, log);
    const auto rv =
        calls.ask(log, function::kSetPin, from.bytes(), from.size(), to.bytes(), to.size());
    return rv &&
           reportPinCall(calls, function::kSetPin, *rv, slotId, calls.state.m_soLoggedIn, log);
}

bool initPin(Calls& calls, const char* pin, LogBase& log) {
    if (!calls.ready(log, function::kInitPin)) return false;
    const CK_SLOT_ID slotId = calls.state.m_slotId;
    PinArgument fresh(calls, pin, slotId, log);
    const auto rv = calls.ask(log, function::kInitPin, fresh.bytes(), fresh.size());
    return rv && reportPinCall(calls, function::kInitPin, *rv, slotId, false, log);
}

bool initToken(Calls& calls, CK_SLOT_ID slotId, const char* soPin, const char* label,
               LogBase& log) {
    if (!calls.ready(log, function::kInitToken)) return false;
    // CK_TOKEN_INFO.label: 32 bytes of UTF-8, padded with blanks, not terminated.
    std::array<CK_UTF8CHAR, 32> padded{};
    padded.fill(' ');
    const std::string_view text(label);
    log.LogDataUnsigned("slotId", slotId);
    if (text.size() > padded.size()) {
        calls.fail(log, FailureKind::Argument, "The token label is longer than 32 bytes of UTF-8.");
        log.LogData("label", text);
        return false;
    }
    if (!isValidUtf8(text))
        return calls.fail(log, FailureKind::Argument, "The token label is not UTF-8.");
    std::ranges::copy(text, padded.begin());
    PinArgument pin(calls, soPin, slotId, log);
    const auto rv =
        calls.ask(log, function::kInitToken, slotId, pin.bytes(), pin.size(), padded.data());
    return rv && reportPinCall(calls, function::kInitToken, *rv, slotId, true, log);
}

}  // namespace mervane::operation
