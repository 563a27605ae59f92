#ifndef MERVANE_PKCS11_PRIVKEYS_H
#define MERVANE_PKCS11_PRIVKEYS_H

#include "foundation/x509/certificate.h"
#include "pkcs11/calls/calls.h"
#include "pkcs11/explanation.h"
#include "pkcs11/records.h"

namespace mervane {

// The search for a certificate's private key; its story is told in privkeys.cpp. Each of these is
// false if the keys could not be looked at, which has been reported then.

/// Looks for the key. `found` has a handle of 0 if there is none.
bool searchKey(Calls& calls, Certificate& cert, KeySearch how, FoundKey& found, LogBase& log);

/// Asks the token whether a guess can be right.
bool checkGuess(Calls& calls, Certificate& cert, FoundKey& found, LogBase& log);

/// Whether a certificate for which the search has found no key has one that may not sign: RSA keys
/// that may not are passed over. Looks at what the search has read.
bool hasKeyThatMayNotSign(Calls& calls, const Certificate& cert);

/// Says how the search ends, and what speaks against the keys that it does not take.
bool explainSearch(Calls& calls, Certificate& cert, KeyExplanation& out, LogBase& log);

}  // namespace mervane

#endif
