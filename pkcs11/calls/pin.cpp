#include "pkcs11/calls/pin.h"

#include "pkcs11/calls/names.h"

namespace mervane {

PinArgument::PinArgument(Calls& calls, const char* pin, CK_SLOT_ID slotId, LogBase& log)
    : m_pin(pin) {
    CK_TOKEN_INFO token{};
    if (size() != 0 || calls.attempt(log, function::kGetTokenInfo, slotId, &token) != CKR_OK)
        return;
    m_isLeftToReader = (token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
}

void logPinState(Calls& calls, CK_SLOT_ID slotId, bool isOfficer, LogBase& log) {
    CK_TOKEN_INFO token{};
    if (calls.attempt(log, function::kGetTokenInfo, slotId, &token) != CKR_OK) return;
    for (const PinState& state : pinStates()) {
        if (state.isOfficers != isOfficer || (token.flags & state.flag) == 0) continue;
        calls.hint(log, state.meaning);
        log.LogDataBool(state.name, true);
    }
}

}  // namespace mervane
