#ifndef MERVANE_PKCS11_TOKENS_H
#define MERVANE_PKCS11_TOKENS_H

#include <optional>
#include <string>

#include "calls/cktypes.h"

namespace mervane {

/// What a token's flags say about one user's PIN.
struct PinStatus {
    bool isLow = false;      ///< a wrong one was entered since the last login
    bool isLastTry = false;  ///< one more wrong PIN locks it
    bool isLocked = false;
    bool mustChange = false;  ///< it has expired, or is the maker's default
};

/// A token in a slot, as C_GetTokenInfo describes it. Texts are valid UTF-8 without padding.
struct TokenInfo {
    // Not inline: expanded at every use, its texts would add 20 KiB to the library.
    TokenInfo() noexcept;
    TokenInfo(const TokenInfo& other);
    TokenInfo(TokenInfo&& other) noexcept;
    TokenInfo& operator=(const TokenInfo& other);
    TokenInfo& operator=(TokenInfo&& other) noexcept;
    ~TokenInfo();

    /// Sets the flags and the members that follow from them.
    void setFlags(CK_ULONG bits) noexcept;

    CK_SLOT_ID slotId = 0;
    bool isReadable = false;  ///< false: the module could not describe it; all below is empty
    std::string label;
    std::string serialNumber;
    std::string manufacturer;
    std::string model;
    CK_ULONG flags = 0;  ///< CKF_ bits of CK_TOKEN_INFO; the members below give the common ones
    bool isInitialised = false;
    bool isUserPinSet = false;
    bool needsLogin = false;
    bool hasPinPad = false;  ///< the reader takes PINs on keys of its own
    bool isWriteProtected = false;
    PinStatus userPin;
    PinStatus officerPin;                  ///< the security officer's
    std::optional<CK_ULONG> minPinLength;  ///< bytes
    std::optional<CK_ULONG> maxPinLength;
};

/// Which token is meant. Every member given has to match exactly; with none given, it is the only
/// initialised token.
struct TokenChoice {
    std::optional<CK_SLOT_ID> slotId{};
    std::optional<std::string> label{};
    std::optional<std::string> serialNumber{};
    std::optional<std::string> manufacturer{};
    std::optional<std::string> model{};
    /// If none of these is given, only a token whose user PIN is set will do.
    bool withUserPin = false;
};

}  // namespace mervane

#endif
