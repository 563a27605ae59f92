#ifndef MERVANE_FOUNDATION_X509_CURVES_H
#define MERVANE_FOUNDATION_X509_CURVES_H

#include <optional>

#include "../text/databuffer.h"
#include "der.h"

namespace mervane {

/// The curve of an EC key, as far as the sizes and forms of points and signatures need it.
struct EcCurve {
    int bits = 0;       ///< size of the field
    int orderBits = 0;  ///< size of the base point's order, below which a signature's r and s are
    bool isPrime =
        false;  ///< over a prime field; false for binary fields and where it is not known

    /// Size of a coordinate in bytes.
    [[nodiscard]] std::size_t fieldSize() const noexcept {
        return static_cast<std::size_t>(bits + 7) / 8;
    }
    /// Size in bytes of r and of s, the halves of a signature.
    [[nodiscard]] int orderSize() const noexcept { return (orderBits + 7) / 8; }
};

/// The curve of EcpkParameters in DER (RFC 3279 2.3.5): a named curve of the table, or explicit
/// parameters. Nothing for other names, implicitlyCA, malformed parameters and fields of more than
/// 16384 bits.
std::optional<EcCurve> findCurve(der::Bytes ecParameters) noexcept;

/// The curve as its point alone tells: both sizes from the length of a coordinate. Nothing when it
/// is no point.
std::optional<EcCurve> curveOfPoint(der::Bytes point) noexcept;

/// Octets of a coordinate of a point (SEC 1 2.3.3): compressed 02 or 03, uncompressed 04, or hybrid
/// 06 or 07 (X9.62 4.3.6). 0 when it is none, the point at infinity included.
std::size_t coordinateSize(der::Bytes point) noexcept;

/// The point within a CKA_EC_POINT value of a key on `curve`, which modules give as DER OCTET
/// STRING (PKCS#11 2.40 mechanisms 2.3.3) or raw; empty when it is neither. On a known curve the
/// length tells them apart, since a raw point may look like DER (04 41 ..). On an unknown one a
/// value is wrapped when it is one whole OCTET STRING around a point, unless as a raw point alone
/// it has the length of a curve of the table.
der::Bytes unwrapEcPoint(der::Bytes value, const std::optional<EcCurve>& curve) noexcept;

/// The compressed form that a point has on a prime field, so that all forms of it compare byte by
/// byte; empty when it is no point. On a binary field the first octet of a point given as
/// compressed (X9.62 4.2.2: a bit of Y/X, not of Y) may differ from that of the same point given as
/// uncompressed.
DataBuffer comparablePoint(der::Bytes point);

}  // namespace mervane

#endif
