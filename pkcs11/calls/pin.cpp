#include "pkcs11/calls/pin.h"

#include <string>

#include "pkcs11/calls/fixedtext.h"
#include "pkcs11/calls/names.h"

namespace mervane {

PinArgument::PinArgument(Calls& calls, const char* pin, CK_SLOT_ID slotId, LogBase& log)
    : m_pin(pin) {
    CK_TOKEN_INFO token{};
    if (size() != 0 || calls.attempt(log, function::kGetTokenInfo, slotId, &token) != CKR_OK)
        return;
    m_isLeftToReader = (token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
}

void explainPinFailure(Calls& calls, CK_RV rv, CK_SLOT_ID slotId, bool isOfficer, LogBase& log) {
    CK_TOKEN_INFO token{};
    calls.concerns(slotId);
    if (calls.attempt(log, function::kGetTokenInfo, slotId, &token) != CKR_OK) return;
    calls.concerns(slotId, textOf(token.label));
    for (const PinState& state : pinStates()) {
        if (state.isOfficers != isOfficer || (token.flags & state.flag) == 0) continue;
        calls.hint(log, state.meaning);
        log.LogDataBool(state.name, true);
    }
    if (rv == CKR_PIN_LEN_RANGE && token.ulMinPinLen <= token.ulMaxPinLen &&
        token.ulMaxPinLen != CK_UNAVAILABLE_INFORMATION) {
        calls.hint(log, "The PIN has " + std::to_string(token.ulMinPinLen) + " to " +
                            std::to_string(token.ulMaxPinLen) + " characters here.");
    }
}

}  // namespace mervane
