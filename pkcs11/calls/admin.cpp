// PIN and token administration.

#include <algorithm>
#include <array>

#include "pkcs11/calls/invoke.h"
#include "pkcs11/calls/pin.h"

namespace mervane {

bool ClsPkcs11::C_SetPIN(const char* oldPin, const char* newPin, LogBase& log) {
    const PinArgument from(oldPin);
    const PinArgument to(newPin);
    const auto rv = ask(log, entry::kSetPin, from.bytes, from.size, to.bytes, to.size);
    return rv && reportPinCall(entry::kSetPin.name, *rv, m_slotId, log);
}

bool ClsPkcs11::C_InitPIN(const char* pin, LogBase& log) {
    const PinArgument fresh(pin);
    const auto rv = ask(log, entry::kInitPin, fresh.bytes, fresh.size);
    return rv && reportPinCall(entry::kInitPin.name, *rv, m_slotId, log);
}

bool ClsPkcs11::C_InitToken(unsigned long slotId, const char* soPin, const char* label,
                            LogBase& log) {
    // CK_TOKEN_INFO.label: 32 bytes of UTF-8, padded with blanks, not terminated.
    std::array<CK_UTF8CHAR, 32> padded{};
    padded.fill(' ');
    const std::string_view text(label);
    log.LogDataUnsigned("slotId", slotId);
    if (text.size() > padded.size()) {
        log.LogError("The token label is longer than 32 bytes of UTF-8.");
        log.LogData("label", text);
        return false;
    }
    std::ranges::copy(text, padded.begin());
    const PinArgument pin(soPin);
    const auto rv = ask(log, entry::kInitToken, slotId, pin.bytes, pin.size, padded.data());
    return rv && reportPinCall(entry::kInitToken.name, *rv, slotId, log);
}

bool ClsPkcs11::reportPinCall(const char* functionName, CK_RV rv, CK_SLOT_ID slotId, LogBase& log) {
    if (report(functionName, rv, log)) return true;
    const bool aboutPin = rv == CKR_PIN_INCORRECT || rv == CKR_PIN_LOCKED ||
                          rv == CKR_PIN_LEN_RANGE || rv == CKR_PIN_INVALID || rv == CKR_PIN_EXPIRED;
    CK_TOKEN_INFO token{};
    if (!aboutPin || ask(log, entry::kGetTokenInfo, slotId, &token) != CKR_OK) return false;
    for (const PinState& state : pinStates()) {
        if ((token.flags & state.flag) == 0) continue;
        log.LogHint(state.meaning);
        log.LogDataBool(state.name, true);
    }
    return false;
}

}  // namespace mervane
