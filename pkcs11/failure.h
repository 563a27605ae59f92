#ifndef MERVANE_PKCS11_FAILURE_H
#define MERVANE_PKCS11_FAILURE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "calls/cktypes.h"

namespace mervane {

/// What kind of thing went wrong, for a program to act on.
enum class FailureKind : std::uint8_t {
    None,               ///< the last call succeeded
    Argument,           ///< an argument is malformed
    ModuleMissing,      ///< no path is set, or there is no file there
    ModuleNotLoadable,  ///< the file is not a shared library, or the loader refused it
    NotAModule,         ///< the library offers no PKCS#11 function list
    ModuleFailed,       ///< a function of the module failed in a way that has no kind of its own
    NoToken,            ///< no slot holds a token, or not the one asked for
    TokenGone,          ///< session or token went away during the call, or no session is open
    SeveralTokens,      ///< more than one token fits
    SeveralCerts,       ///< more than one certificate fits equally well
    NotLoggedIn,        ///< somebody has to log in first
    PinMissing,         ///< the token wants a PIN and was given none
    PinWrong,
    PinLocked,
    PinExpired,
    PinLength,  ///< too short, too long, or with characters that the token refuses
    NotFound,   ///< everything could be searched, and nothing fits
    KeyMayNotSign,
    NotSupported,  ///< the module or the token does not offer it
    NoMemory,
};

/// The kind's name in JSON: argument, moduleMissing, ...; "none" for None.
std::string_view nameOf(FailureKind kind) noexcept;

/// How the last public call failed. Every public method sets it anew.
struct Failure {
    FailureKind kind = FailureKind::None;  ///< None: it succeeded
    std::string cause;                     ///< the first line that says why, with its values
    std::string summary;                   ///< the last error line of the call; may equal the cause
    std::string hint;                      ///< what usually helps; empty if no single thing does
    std::string function;     ///< of the module, such as "C_Login"; empty if none was concerned
    std::optional<CK_RV> rv;  ///< what it returned
    std::optional<CK_SLOT_ID> slotId;  ///< the slot concerned
    std::string tokenLabel;            ///< of the token concerned, if it was read

    /// The standard's name of `rv`; empty if there is none.
    [[nodiscard]] std::string rvName() const;
};

}  // namespace mervane

#endif
