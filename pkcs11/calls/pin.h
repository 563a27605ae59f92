#ifndef MERVANE_PKCS11_CALLS_PIN_H
#define MERVANE_PKCS11_CALLS_PIN_H

#include "foundation/text/xstring.h"
#include "pkcs11/calls/calls.h"

namespace mervane {

/// A PIN as an argument to a module's function. The functions take non-const pointers, and some
/// write through them, so this is a copy, wiped at the end.
///
/// An empty PIN is left to a reader with a PIN pad (CKF_PROTECTED_AUTHENTICATION_PATH) by passing a
/// null pointer (PKCS#11 2.40 base, C_Login). The token's flags are read only for an empty PIN.
class PinArgument {
  public:
    PinArgument(Calls& calls, const char* pin, CK_SLOT_ID slotId, LogBase& log);

    [[nodiscard]] CK_UTF8CHAR* bytes() noexcept {
        return m_isLeftToReader
                   ? nullptr
                   : reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(m_pin.getUtf8()));
    }
    [[nodiscard]] CK_ULONG size() const noexcept { return m_pin.view().size(); }

  private:
    XString m_pin;
    bool m_isLeftToReader = false;
};

/// Logs what the token says about the user's PIN, or the security officer's: the lengths it
/// accepts, if that was the failure, and its flags.
void explainPinFailure(Calls& calls, CK_RV rv, CK_SLOT_ID slotId, bool isOfficer, LogBase& log);

/// Calls::report(), followed by explainPinFailure() if the failure is about a PIN.
template <Needs N, class Signature>
bool reportPinCall(Calls& calls, const ModuleFunction<N, Signature>& function, CK_RV rv,
                   CK_SLOT_ID slotId, bool isOfficer, LogBase& log) {
    if (calls.report(function, rv, log)) return true;
    if (isAboutPin(rv)) explainPinFailure(calls, rv, slotId, isOfficer, log);
    return false;
}

}  // namespace mervane

#endif
