#ifndef MERVANE_PKCS11_TOKENS_H
#define MERVANE_PKCS11_TOKENS_H

#include <optional>
#include <string>

#include "calls/cktypes.h"

namespace mervane {

/// What a token's flags say of one user's PIN.
struct PinStatus {
    bool isLow = false;      ///< it was given wrongly since the last login
    bool isLastTry = false;  ///< one more wrong PIN locks it
    bool isLocked = false;
    bool mustChange = false;  ///< it is expired or the maker's
};

/// A token in a slot, as C_GetTokenInfo describes it. Texts are valid UTF-8 without padding.
struct TokenInfo {
    CK_SLOT_ID slotId = 0;
    bool isReadable = false;  ///< false: the module could not describe it; all below is empty
    std::string label;
    std::string serialNumber;
    std::string manufacturer;
    std::string model;
    CK_ULONG flags = 0;  ///< CKF_ bits of CK_TOKEN_INFO; the next members say the common ones
    bool isInitialised = false;
    bool isUserPinSet = false;
    bool needsLogin = false;
    bool hasPinPad = false;  ///< the reader asks for PINs on keys of its own
    bool isWriteProtected = false;
    PinStatus userPin;
    PinStatus officerPin;                  ///< the security officer's
    std::optional<CK_ULONG> minPinLength;  ///< bytes
    std::optional<CK_ULONG> maxPinLength;
};

/// Which token is meant. All members that are given have to fit exactly; with none given, the only
/// initialised token.
struct TokenChoice {
    std::optional<CK_SLOT_ID> slotId{};
    std::optional<std::string> label{};
    std::optional<std::string> serialNumber{};
    std::optional<std::string> manufacturer{};
    std::optional<std::string> model{};
    /// With none of these given, only a token whose user PIN is set.
    bool withUserPin = false;
};

}  // namespace mervane

#endif
