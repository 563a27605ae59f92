#ifndef MERVANE_SIGNING_CURVEPARAMETERS_H
#define MERVANE_SIGNING_CURVEPARAMETERS_H

#include <string_view>

#include "foundation/x509/der.h"

namespace mervane {

/// A curve y^2 = x^3 + ax + b over a prime field, in hexadecimal digits, each as long as the field.
/// Its p is 3 modulo 4, and its points are all multiples of the base point.
struct CurveParameters {
    std::string_view oid;  // content octets
    std::string_view p, a, b;
    std::string_view order;  // of the base point
    std::string_view x, y;   // the base point
};

/// The parameters of a named curve, by EcpkParameters in DER (RFC 5480 2.1.1); null if they are not
/// in the table.
const CurveParameters* findParameters(der::Bytes ecParameters) noexcept;

}  // namespace mervane

#endif
