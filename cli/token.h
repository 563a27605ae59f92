#ifndef MERVANE_CLI_TOKEN_H
#define MERVANE_CLI_TOKEN_H

#include <mervane/pkcs11/clspkcs11.h>

#include "failure.h"
#include "options.h"

namespace mervane::cli {

/// A session that was opened.
struct OpenedToken {
    TokenInfo token;
    bool isLoggedIn = false;  ///< the user, who sees the private objects; an officer does not
};

/// When the tool logs in.
enum class LoginIf : unsigned char {
    Told,    ///< the options ask for it
    Needed,  ///< or there is a terminal to ask on, and the token hides private keys until then
    ToSign,  ///< as Needed; and the PIN is kept for keys that ask for it at each signature
};

/// Opens a session with the token that the options name, or with the only one that is ready for
/// use, and logs in. Throws when there is none, and with the list when there are several: a PIN is
/// never tried on the wrong token.
OpenedToken openToken(ClsPkcs11& p11, const Options& options, LoginIf when = LoginIf::Told);

/// The same for reading and writing; nobody is logged in.
TokenInfo openForWriting(ClsPkcs11& p11, const Options& options);

/// Opens no session: the token that the choice names, or the only one that is not initialised yet.
TokenInfo tokenToInitialise(ClsPkcs11& p11, const TokenChoice& choice);

/// The token's state in a few words: "PIN LOCKED", "last try", "not initialised", "ready".
std::string stateFor(const TokenInfo& token);

}  // namespace mervane::cli

#endif
