#ifndef MERVANE_CLI_CHECKUP_H
#define MERVANE_CLI_CHECKUP_H

#include <mervane/locate/tokens.h>
#include <mervane/pkcs11/clspkcs11.h>

#include "diagnosis.h"
#include "options.h"
#include "pins.h"

namespace mervane::cli {

/// Loads the token's module, looks into the token, and adds what it saw to `found`.
void checkContents(ClsPkcs11& p11, const Options& options, const Pins& pins,
                   const LocatedToken& located, Diagnosis& found);

}  // namespace mervane::cli

#endif
