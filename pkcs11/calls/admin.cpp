// PIN and token administration.

#include <algorithm>
#include <array>

#include "foundation/text/utf8.h"
#include "pkcs11/calls/names.h"
#include "pkcs11/calls/pin.h"

namespace mervane {

PinArgument ClsPkcs11::pinArgument(const char* pin, CK_SLOT_ID slotId, LogBase& log) {
    PinArgument argument(pin);
    CK_TOKEN_INFO token{};
    if (argument.size() != 0 || attempt(log, entry::kGetTokenInfo, slotId, &token) != CKR_OK)
        return argument;
    // PKCS#11 2.40 base, C_Login and the others that take a PIN.
    if ((token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0) argument.leaveToPinPad();
    return argument;
}

void ClsPkcs11::logPinState(CK_SLOT_ID slotId, bool isOfficer, LogBase& log) {
    CK_TOKEN_INFO token{};
    if (attempt(log, entry::kGetTokenInfo, slotId, &token) != CKR_OK) return;
    for (const PinState& state : pinStates()) {
        if (state.isOfficers != isOfficer || (token.flags & state.flag) == 0) continue;
        log.LogHint(state.meaning);
        log.LogDataBool(state.name, true);
    }
}

bool ClsPkcs11::C_SetPIN(const char* oldPin, const char* newPin, LogBase& log) {
    if (!ready(log, entry::kSetPin)) return false;
    PinArgument from = pinArgument(oldPin, m_slotId, log);
    PinArgument to = pinArgument(newPin, m_slotId, log);
    const auto rv = ask(log, entry::kSetPin, from.bytes(), from.size(), to.bytes(), to.size());
    return rv && reportPinCall(entry::kSetPin, *rv, m_slotId, m_soLoggedIn, log);
}

bool ClsPkcs11::C_InitPIN(const char* pin, LogBase& log) {
    if (!ready(log, entry::kInitPin)) return false;
    PinArgument fresh = pinArgument(pin, m_slotId, log);
    const auto rv = ask(log, entry::kInitPin, fresh.bytes(), fresh.size());
    return rv && reportPinCall(entry::kInitPin, *rv, m_slotId, false, log);
}

bool ClsPkcs11::C_InitToken(unsigned long slotId, const char* soPin, const char* label,
                            LogBase& log) {
    if (!ready(log, entry::kInitToken)) return false;
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
    if (!isValidUtf8(text)) {
        log.LogError("The token label is not UTF-8.");
        return false;
    }
    std::ranges::copy(text, padded.begin());
    PinArgument pin = pinArgument(soPin, slotId, log);
    const auto rv = ask(log, entry::kInitToken, slotId, pin.bytes(), pin.size(), padded.data());
    return rv && reportPinCall(entry::kInitToken, *rv, slotId, true, log);
}

}  // namespace mervane
