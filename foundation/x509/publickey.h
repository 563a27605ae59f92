#ifndef MERVANE_FOUNDATION_X509_PUBLICKEY_H
#define MERVANE_FOUNDATION_X509_PUBLICKEY_H

#include <memory>
#include <optional>
#include <string_view>
#include <variant>

#include "../log/logbase.h"
#include "../text/databuffer.h"
#include "der.h"

namespace mervane {

/// A non-negative integer as its minimal big-endian bytes; zero has none.
class mp_int {
  public:
    mp_int() = default;
    /// From big-endian bytes; leading zero bytes are dropped.
    explicit mp_int(der::Bytes bigEndian);

    [[nodiscard]] der::Bytes bytes() const noexcept { return m_bytes.span(); }
    [[nodiscard]] int bitCount() const noexcept;

  private:
    DataBuffer m_bytes;
};

struct MpIntUtil {
    /// Replaces `out` by the minimal unsigned big-endian bytes.
    static void toUnsignedBytes(const mp_int& value, DataBuffer& out);
    /// The same with a zero byte before them, as a positive number has it in two's complement.
    static void toSignedBytes(const mp_int& value, DataBuffer& out);
};

/// A named curve that the search for keys supports.
struct EcCurve {
    std::string_view name;
    std::string_view oid;  // content octets of its identifier
    int bits;              // size of the field

    [[nodiscard]] std::size_t fieldSize() const noexcept {
        return static_cast<std::size_t>(bits + 7) / 8;
    }
    /// Octets of an uncompressed point (SEC 1 2.3.3): 04, X, Y.
    [[nodiscard]] std::size_t pointSize() const noexcept { return 1 + 2 * fieldSize(); }
};

/// The curve of EcpkParameters in DER (RFC 5480 2.1.1); null when it is none of the supported
/// named curves (explicit parameters included).
const EcCurve* findCurve(der::Bytes ecParameters) noexcept;

/// The point within a CKA_EC_POINT value of a key on `curve` (null when that is not known), which
/// modules give as DER OCTET STRING (PKCS#11 2.40 mechanisms 2.3.3) or raw. The two are told apart
/// by length, never by trying DER first: a raw point may look like DER. Empty when it is neither.
der::Bytes unwrapEcPoint(der::Bytes value, const EcCurve* curve) noexcept;

struct RsaKey {
    mp_int modulus;
    mp_int exponent;
};

class EccKey {
  public:
    EccKey(const EcCurve& curve, der::Bytes point) : m_curve(&curve), m_point(point) {}

    [[nodiscard]] const EcCurve& curve() const noexcept { return *m_curve; }

    /// Replaces `out` by the public point as SEC 1 octets (04 X Y, or compressed as the
    /// certificate has it). False, with a line, when its length or first octet does not fit the
    /// curve.
    bool exportEccPoint(DataBuffer& out, LogBase& log) const;

  private:
    const EcCurve* m_curve;
    DataBuffer m_point;
};

/// A certificate's public key.
class _mvPublicKey {
  public:
    /// Null when the key is of the other kind.
    [[nodiscard]] const RsaKey* getRsaKey() const noexcept { return std::get_if<RsaKey>(&m_key); }
    [[nodiscard]] const EccKey* getEccKey() const noexcept { return std::get_if<EccKey>(&m_key); }

    /// Reads a SubjectPublicKeyInfo (RFC 5280 4.1.2.7). False when it is malformed, of another
    /// algorithm, on another curve, or an RSA key of fewer than 512 or more than 16384 bits; the
    /// key is then untouched.
    [[nodiscard]] bool loadSpki(der::Bytes spki);

  private:
    std::variant<std::monostate, RsaKey, EccKey> m_key;
};

/// Kind and size of a SubjectPublicKeyInfo's key without copying it.
struct KeyKind {
    int type = 0;  ///< 1 RSA, 3 EC, 0 any other
    int bits = 0;  ///< of the modulus or the field; 0 with type 0
};
KeyKind keyKindOf(der::Bytes spki) noexcept;

}  // namespace mervane

#endif
