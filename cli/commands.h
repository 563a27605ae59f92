#ifndef MERVANE_CLI_COMMANDS_H
#define MERVANE_CLI_COMMANDS_H

#include "failure.h"
#include "options.h"
#include <mervane/pkcs11/clspkcs11.h>

namespace mervane::cli {

// One function a command: prints data on standard output and gives the status, or throws a Failure.
// docs/cli.md describes them for users.

// certs.cpp
Exit runCerts(ClsPkcs11& p11, const Options& options);
Exit runFindCert(ClsPkcs11& p11, const Options& options);
Exit runMatch(ClsPkcs11& p11, const Options& options);

// objects.cpp
Exit runDiscover(ClsPkcs11& p11, const Options& options);
Exit runKeys(ClsPkcs11& p11, const Options& options);
Exit runFindObject(ClsPkcs11& p11, const Options& options);

// admin.cpp
Exit runSetPin(ClsPkcs11& p11, const Options& options);
Exit runInitPin(ClsPkcs11& p11, const Options& options);
Exit runInitToken(ClsPkcs11& p11, const Options& options);

// cards.cpp
Exit runAtr(ClsPkcs11& p11, const Options& options);
Exit runCardData(ClsPkcs11& p11, const Options& options);

}  // namespace mervane::cli

#endif
