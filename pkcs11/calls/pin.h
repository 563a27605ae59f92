#ifndef MERVANE_PKCS11_CALLS_PIN_H
#define MERVANE_PKCS11_CALLS_PIN_H

#include "foundation/text/xstring.h"
#include "pkcs11/calls/calls.h"

namespace mervane {

/// A PIN as an argument of a module's function, which takes it by a pointer that is not const: a
/// copy, so that the caller's stays what it is, wiped at the end.
///
/// An empty PIN is left to the reader where that asks for PINs on keys of its own
/// (CKF_PROTECTED_AUTHENTICATION_PATH): the module then gets a null pointer, as PKCS#11 2.40 base
/// has it for C_Login and the others that take a PIN. Only for an empty PIN is the token asked.
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

/// Says what the token's flags tell of the user's PIN, or of the security officer's.
void logPinState(Calls& calls, CK_SLOT_ID slotId, bool isOfficer, LogBase& log);

/// Calls::report(), and after a failure that is about a PIN logPinState().
template <Needs N, class Signature>
bool reportPinCall(Calls& calls, const ModuleFunction<N, Signature>& function, CK_RV rv,
                   CK_SLOT_ID slotId, bool isOfficer, LogBase& log) {
    if (calls.report(function, rv, log)) return true;
    if (isAboutPin(rv)) logPinState(calls, slotId, isOfficer, log);
    return false;
}

}  // namespace mervane

#endif
