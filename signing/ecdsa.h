#ifndef MERVANE_SIGNING_ECDSA_H
#define MERVANE_SIGNING_ECDSA_H

#include <cstdint>
#include <optional>
#include <vector>

#include "foundation/x509/der.h"
#include "signing/verdict.h"

namespace mervane::ecdsa {

// ECDSA signatures (FIPS 186-5 6.4), and their two forms: r and s one after the other, each as long
// as the order of the base point (PKCS#11 calls it the signature, IEEE P1363), and Ecdsa-Sig-Value
// in DER, as certificates and CMS have it (RFC 3279 2.2.3).

/// The DER of r || s. Both halves have the same length.
std::vector<std::uint8_t> toDer(der::Bytes raw);
/// r || s of `size` bytes in all; nothing if it is not a DER of two numbers that fit.
std::optional<std::vector<std::uint8_t>> fromDer(der::Bytes der, std::size_t size);

/// Whether r || s verifies. Not verifiable: a curve without a row in the table (P-256, P-384,
/// P-521, secp256k1, brainpool), by the name in EcpkParameters. The numbers are public, so nothing
/// runs in constant time.
Verdict verify(der::Bytes ecParameters, der::Bytes point, der::Bytes digest, der::Bytes raw);

/// Whether r and s lie between 1 and the order less one. Where the curve has no row only zero is
/// refused.
bool isInRange(der::Bytes ecParameters, der::Bytes raw);

}  // namespace mervane::ecdsa

#endif
