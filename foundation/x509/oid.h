#ifndef MERVANE_FOUNDATION_X509_OID_H
#define MERVANE_FOUNDATION_X509_OID_H

#include <string>
#include <string_view>

#include "foundation/x509/der.h"

namespace mervane {

/// The dotted form of an OBJECT IDENTIFIER's content octets (X.690 8.19), with arcs of any size;
/// empty if they are malformed or longer than 128 octets, which no identifier in use is.
std::string oidToText(der::Bytes content);

/// The content octets of a dotted identifier with arcs of up to 64 bits; empty for any other text.
std::string oidFromText(std::string_view dotted);

}  // namespace mervane

#endif
