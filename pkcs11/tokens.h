#ifndef MERVANE_PKCS11_TOKENS_H
#define MERVANE_PKCS11_TOKENS_H

#include <optional>
#include <string>

#include "calls/cktypes.h"

namespace mervane {

/// What a token's flags say about one user's PIN.
struct PinStatus {
    bool isLow = false;       ///< a wrong one was entered since the last login
    bool isLastTry = false;   ///< one more wrong PIN locks it
    bool isLocked = false;    ///< too many wrong ones; no longer accepted
    bool mustChange = false;  ///< it has expired, or is the maker's default
};

/// A token in a slot, as C_GetTokenInfo describes it. Texts are valid UTF-8 without padding.
struct TokenInfo {
    // Not inline: expanded at every use, they would bloat a program.
    /// @{
    /// Empty by default; copies are complete.
    TokenInfo() noexcept;
    TokenInfo(const TokenInfo& other);
    TokenInfo(TokenInfo&& other) noexcept;
    TokenInfo& operator=(const TokenInfo& other);
    TokenInfo& operator=(TokenInfo&& other) noexcept;
    ~TokenInfo();
    /// @}

    /// Sets the flags and the members that follow from them.
    void setFlags(CK_ULONG bits) noexcept;

    CK_SLOT_ID slotId = 0;     ///< where it is
    bool isReadable = false;   ///< false: the module could not describe it; all below is empty
    std::string label;         ///< what people call it
    std::string serialNumber;  ///< the maker's; often the only unique identifier
    std::string manufacturer;  ///< of the token, not of the module
    std::string model;         ///< the maker's model name
    CK_ULONG flags = 0;  ///< CKF_ bits of CK_TOKEN_INFO; the members below give the common ones
    bool isInitialised = false;            ///< CKF_TOKEN_INITIALIZED
    bool isUserPinSet = false;             ///< CKF_USER_PIN_INITIALIZED
    bool needsLogin = false;               ///< CKF_LOGIN_REQUIRED
    bool hasPinPad = false;                ///< the reader takes PINs on keys of its own
    bool isWriteProtected = false;         ///< CKF_WRITE_PROTECTED
    PinStatus userPin;                     ///< the normal user's
    PinStatus officerPin;                  ///< the security officer's
    std::optional<CK_ULONG> minPinLength;  ///< bytes
    std::optional<CK_ULONG> maxPinLength;  ///< bytes
};

/// Which token is meant. Every member given has to match exactly; with none given, it is the only
/// initialised token.
struct TokenChoice {
    /// @{
    /// Each matches the TokenInfo member of the same name.
    std::optional<CK_SLOT_ID> slotId{};
    std::optional<std::string> label{};
    std::optional<std::string> serialNumber{};
    std::optional<std::string> manufacturer{};
    std::optional<std::string> model{};
    /// @}
    /// If none of these is given, only a token whose user PIN is set will do.
    bool withUserPin = false;
};

}  // namespace mervane

#endif
