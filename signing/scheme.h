#ifndef MERVANE_SIGNING_SCHEME_H
#define MERVANE_SIGNING_SCHEME_H

#include "foundation/x509/certificate.h"
#include "foundation/x509/derwriter.h"
#include "signing/options.h"

namespace mervane {

/// How one key signs: everything about a signature but the data.
struct Scheme {
    KeyType keyType = kOtherKey;
    Hash hash = Hash::Sha256;
    bool isPss = false;             ///< RSA
    std::size_t signatureSize = 0;  ///< in bytes; of an EC key, of r || s
};

/// The scheme for a certificate's key. Of type kOtherKey if that can neither be RSA nor EC.
Scheme schemeFor(const Certificate& cert, Hash hash, Padding padding, bool cardRequiresPss);

/// Whether the key is long enough for the scheme (RFC 8017 9.1.1 and 9.2).
bool fitsKey(const Scheme& scheme, const Certificate& cert);

/// What a module made of an ECDSA signature as r || s: some give DER. Nothing if it is neither, or
/// a number is out of range.
std::optional<der::Octets> rawEcdsa(const Scheme& scheme, const Certificate& cert,
                                    der::Bytes signature);

}  // namespace mervane

#endif
