#ifndef MERVANE_FOUNDATION_X509_USAGE_H
#define MERVANE_FOUNDATION_X509_USAGE_H

#include <string>
#include <vector>

#include "foundation/x509/der.h"

namespace mervane {

// What a certificate may be used for. `value` is the content of the extension's extnValue; a
// malformed one names nothing. A list stops after kMaxListed names: no real one is longer.
inline constexpr std::size_t kMaxListed = 1000;

/// The first octet of a KeyUsage (RFC 5280 4.2.1.3: 0x80 digitalSignature to 0x01 encipherOnly),
/// with unused bits cleared; 0 if `value` is not a KeyUsage.
int keyUsageBits(der::Bytes value) noexcept;

/// The names of the bits that a KeyUsage sets, in the order of RFC 5280 4.2.1.3.
std::vector<std::string> keyUsageNames(der::Bytes value);

/// The purposes in an ExtKeyUsageSyntax (RFC 5280 4.2.1.12): by name those of RFC 5280 and two more
/// that are common on cards, the others as dotted OIDs.
std::vector<std::string> extendedKeyUsageNames(der::Bytes value);

/// The dotted OIDs of certificatePolicies (RFC 5280 4.2.1.4).
std::vector<std::string> policyOids(der::Bytes value);

/// Whether BasicConstraints (RFC 5280 4.2.1.9) says that the subject is a CA.
bool isCaConstraint(der::Bytes value) noexcept;

}  // namespace mervane

#endif
