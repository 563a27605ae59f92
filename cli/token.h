#ifndef MERVANE_CLI_TOKEN_H
#define MERVANE_CLI_TOKEN_H

#include <mervane/pkcs11/clspkcs11.h>

#include "failure.h"
#include "options.h"

namespace mervane::cli {

/// Sets the module's path; a usage error when there is none.
void useModule(ClsPkcs11& p11, const Options& options);

/// Throws how the object's last call failed: the cause, the summary, and what usually helps. The
/// status follows from the kind of the failure.
[[noreturn]] void throwLastError(ClsPkcs11& p11);

/// Which tokens a command may take when none is named.
enum class Takes : unsigned char { Initialized, Uninitialized };

/// A token that was chosen.
struct TokenChoice {
    int slot;
    bool hasPinPad;     ///< the reader asks for PINs on keys of its own
    std::string label;  ///< empty when the module was not asked, like the flags
    std::string flags;  ///< between blanks, as in discover
};

/// The token that the options name, or the only one that the command may take. Throws when there is
/// none, and with the list when there are several: a PIN is never tried on the wrong token.
TokenChoice chooseToken(ClsPkcs11& p11, const Options& options, Takes takes);

/// Opens a session with the token chosen and logs in when the options ask for it.
TokenChoice openToken(ClsPkcs11& p11, const Options& options, bool readWrite);

}  // namespace mervane::cli

#endif
