#ifndef MERVANE_CLI_LOCATETOKEN_H
#define MERVANE_CLI_LOCATETOKEN_H

#include <mervane/locate/tokens.h>
#include <mervane/pkcs11/clspkcs11.h>

#include "askmodules.h"
#include "options.h"

namespace mervane::cli {

/// Which tokens will do where none is named.
enum class Suitable : unsigned char {
    Initialised,
    WithUserPin,    ///< and their user PIN is set
    Uninitialised,  ///< for init-token
};

/// The module that the command line names, by --module or in a URI; empty if it names none.
std::string moduleOfLine(const Options& options);
/// The same, or else the one that the environment names.
std::string namedModule(const Options& options);

/// Sets the path of the token's module; returns by what the token is chosen in it.
TokenChoice useToken(ClsPkcs11& p11, const LocatedToken& located);

/// The module of that name or path, as far as it is known here.
ModuleInfo moduleNamed(const std::string& name, const Options& options);

/// The modules worth asking, out of all of this machine: the trust modules only if `withTrust`.
/// Says which configuration files are not used.
std::vector<ModuleInfo> usableModules(bool withTrust);

/// The token that the options name, as far as they name one.
Pkcs11Uri wantedToken(const Options& options);

/// Sets the path of the module that the options name. Throws when none is named.
void useModule(ClsPkcs11& p11, const Options& options);

/// Sets the path of the module that is named; if none is, that of the one whose token the options
/// name, or which has the only suitable one. Returns by what the token is chosen in it. Throws with
/// the list when several will do, so that no PIN reaches a token by chance.
TokenChoice locateToken(ClsPkcs11& p11, const Options& options, Suitable suitable);

}  // namespace mervane::cli

#endif
