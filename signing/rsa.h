#ifndef MERVANE_SIGNING_RSA_H
#define MERVANE_SIGNING_RSA_H

#include <optional>

#include "foundation/digest/hash.h"
#include "foundation/x509/publickey.h"
#include "signing/modulus.h"

namespace mervane::rsa {

/// Verifies RSA signatures (RFC 8017) with one public key, for which some numbers are kept.
/// Everything here is public, so nothing runs in constant time.
class Verifier {
  public:
    explicit Verifier(const RsaKey& key);

    /// Whether a signature of the modulus's length verifies with RSASSA-PKCS1-v1_5, or with
    /// RSASSA-PSS with MGF1 of the same hash and a salt of the digest's length. False, too, for a
    /// public exponent above 64 bits or of 1, and an even modulus, which no key in use has.
    [[nodiscard]] bool verifiesPkcs1(Hash hash, der::Bytes digest, der::Bytes signature) const;
    [[nodiscard]] bool verifiesPss(Hash hash, der::Bytes digest, der::Bytes signature) const;

  private:
    [[nodiscard]] std::optional<std::vector<std::uint8_t>> encodedMessage(
        der::Bytes signature) const;

    mp_int m_n;
    mp_int m_exponent;
    std::optional<Modulus> m_modulus;  // nothing if the key cannot be used
};

}  // namespace mervane::rsa

#endif
