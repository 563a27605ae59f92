#ifndef MERVANE_PKCS11_CALLS_PIN_H
#define MERVANE_PKCS11_CALLS_PIN_H

#include <string>

#include "pkcs11/calls/invoke.h"

namespace mervane {

/// A PIN as an argument of a module's function, which takes it by a pointer that is not const: a
/// copy, so that the caller's stays what it is, wiped at the end.
class PinArgument {
  public:
    explicit PinArgument(const char* pin) : m_pin(pin) {}

    /// The reader asks for the PIN on its own pad.
    void leaveToPinPad() noexcept { m_isLeft = true; }

    [[nodiscard]] CK_UTF8CHAR* bytes() noexcept {
        return m_isLeft ? nullptr
                        : reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(m_pin.getUtf8()));
    }
    [[nodiscard]] CK_ULONG size() const noexcept { return m_pin.view().size(); }

  private:
    XString m_pin;
    bool m_isLeft = false;
};

template <Needs N, class Function>
bool ClsPkcs11::reportPinCall(const Entry<N, Function>& entry, CK_RV rv, CK_SLOT_ID slotId,
                              bool isOfficer, LogBase& log) {
    if (report(entry, rv, log)) return true;
    if (isAboutPin(rv)) logPinState(slotId, isOfficer, log);
    return false;
}

}  // namespace mervane

#endif
