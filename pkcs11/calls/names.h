#ifndef MERVANE_PKCS11_CALLS_NAMES_H
#define MERVANE_PKCS11_CALLS_NAMES_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pkcs11/calls/cryptoki.h"

namespace mervane {

/// A value of the standard and its name in reports.
struct NamedValue {
    CK_ULONG value;
    std::string_view name;
};

/// All mechanisms of PKCS#11 2.40 and 3.0 by their standard names, in the order of the values.
std::span<const NamedValue> mechanismNames() noexcept;

// The name of a value; "0x..." for one that the standard does not define.
std::string mechanismName(CK_MECHANISM_TYPE type);
std::string keyTypeName(CK_ULONG keyType);  ///< "RSA", "EC", "AES"

// Names of the flags that are set, without CKF_ and in kebab case. Bits that the standard does not
// define are joined into one "0x...".
std::vector<std::string> slotFlagNames(CK_FLAGS flags);
std::vector<std::string> tokenFlagNames(CK_FLAGS flags);
std::vector<std::string> mechanismFlagNames(CK_FLAGS flags);
/// The token flag of that name; 0 if there is none.
CK_FLAGS tokenFlagNamed(std::string_view name) noexcept;

/// A token flag about the state of a PIN.
struct PinState {
    CK_FLAGS flag;
    bool isOfficers;
    std::string_view name;     // key of the log value
    std::string_view meaning;  // a sentence
};

/// In order of rising urgency.
std::span<const PinState> pinStates() noexcept;

}  // namespace mervane

#endif
