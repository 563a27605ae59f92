#ifndef MERVANE_FOUNDATION_X509_USAGE_H
#define MERVANE_FOUNDATION_X509_USAGE_H

#include <string>
#include <vector>

#include "foundation/x509/der.h"

namespace mervane {

// What a certificate may be used for. `value` is the content of the extension's extnValue; one that
// is malformed names nothing. A list ends after kMaxListed names: longer ones are not real.
inline constexpr std::size_t kMaxListed = 1000;

/// The first octet of a KeyUsage (RFC 5280 4.2.1.3: 0x80 digitalSignature to 0x01 encipherOnly),
/// its unused bits cleared; 0 if `value` is not a KeyUsage.
int keyUsageBits(der::Bytes value) noexcept;

/// The bits of a KeyUsage by the names of RFC 5280 4.2.1.3, in its order.
std::vector<std::string> keyUsageNames(der::Bytes value);

/// An ExtKeyUsageSyntax (RFC 5280 4.2.1.12): RFC 5280's names, and those of two purposes common on
/// cards; others as dotted OIDs.
std::vector<std::string> extendedKeyUsageNames(der::Bytes value);

/// The dotted OIDs of certificatePolicies (RFC 5280 4.2.1.4).
std::vector<std::string> policyOids(der::Bytes value);

/// Whether BasicConstraints (RFC 5280 4.2.1.9) say that the subject is a CA.
bool isCaConstraint(der::Bytes value) noexcept;

}  // namespace mervane

#endif
