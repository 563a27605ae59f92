#ifndef MERVANE_FOUNDATION_X509_DERWRITER_H
#define MERVANE_FOUNDATION_X509_DERWRITER_H

#include <string_view>
#include <vector>

#include "foundation/x509/der.h"

namespace mervane::der {

// Writing DER (X.690). An element is made from its parts, from the inside out.

using Octets = std::vector<std::uint8_t>;

/// An element: its tag, its length, and the parts one after the other.
Octets element(std::uint8_t tag, std::initializer_list<Octets> parts);
Octets element(std::uint8_t tag, Bytes content);

/// An INTEGER that is not negative, from big-endian bytes.
Octets unsignedInteger(Bytes bigEndian);
/// An OBJECT IDENTIFIER, from its content octets.
Octets oid(std::string_view content);
/// A SET OF, or with another tag in its place: the elements in the order that DER demands (X.690
/// 11.6).
Octets setOf(std::vector<Octets> elements, std::uint8_t tag = kSet);
/// UTCTime, or GeneralizedTime from 2050 (RFC 5280 4.1.2.5), of "YYYY-MM-DDThh:mm:ssZ".
Octets time(std::string_view text);

}  // namespace mervane::der

#endif
