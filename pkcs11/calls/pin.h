#ifndef MERVANE_PKCS11_CALLS_PIN_H
#define MERVANE_PKCS11_CALLS_PIN_H

#include <string>

#include "pkcs11/calls/invoke.h"

namespace mervane {

/// A PIN as an argument of a module's function, which takes it by a pointer that is not const. It
/// is handed over where it lies, never copied.
struct PinArgument {
    explicit PinArgument(const char* pin) noexcept
        : bytes(reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(pin))),
          size(std::char_traits<char>::length(pin)) {}

    CK_UTF8CHAR* bytes;
    CK_ULONG size;
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
