#ifndef MERVANE_FOUNDATION_X509_PUBLICKEY_H
#define MERVANE_FOUNDATION_X509_PUBLICKEY_H

#include <array>
#include <variant>

#include "../log/logbase.h"
#include "../text/databuffer.h"
#include "curves.h"
#include "der.h"

namespace mervane {

/// The codes of Certificate::getCertKeyType().
enum KeyType : int { kOtherKey = 0, kRsaKey = 1, kEcKey = 3 };

/// A non-negative integer as its minimal big-endian bytes; zero has none.
class mp_int {
  public:
    mp_int() = default;
    /// From big-endian bytes; leading zero bytes are dropped.
    explicit mp_int(der::Bytes bigEndian);

    /// Valid until the number changes.
    [[nodiscard]] der::Bytes bytes() const noexcept { return m_bytes.span(); }
    /// Its size in bits; 0 for zero.
    [[nodiscard]] int bitCount() const noexcept;

  private:
    DataBuffer m_bytes;
};

/// A number as bytes, in the two ways that DER and PKCS#11 have it.
struct MpIntUtil {
    /// Replaces `out` by the minimal unsigned big-endian bytes.
    static void toUnsignedBytes(const mp_int& value, DataBuffer& out);
    /// The same with a zero byte before them, as a positive number has it in two's complement.
    static void toSignedBytes(const mp_int& value, DataBuffer& out);
};

/// The numbers of an RSA public key (RFC 8017 3.1).
struct RsaKey {
    mp_int modulus;   ///< n
    mp_int exponent;  ///< e
};

/// The public point of an EC key, and its curve.
class EccKey {
  public:
    /// Copies the point, which is not checked.
    EccKey(const EcCurve& curve, der::Bytes point) : m_curve(curve), m_point(point) {}

    /// The curve, as far as it is known.
    [[nodiscard]] const EcCurve& curve() const noexcept { return m_curve; }

    /// Replaces `out` by the public point as SEC 1 octets, in the form that the certificate has it
    /// (04 X Y, compressed or hybrid). False, with a line, when its length or first octet does not
    /// fit the curve.
    bool exportEccPoint(DataBuffer& out, LogBase& log) const;

    /// What comparablePoint() may have made of the same point in whatever form: one value on a
    /// prime field, elsewhere one for each sign, the likelier first; unused ones are empty, and all
    /// are when the point does not fit the curve. The other sign may be that of another point, with
    /// the negated private key, but no token holds both.
    [[nodiscard]] std::array<DataBuffer, 2> comparablePoints() const;

  private:
    EcCurve m_curve;
    DataBuffer m_point;
};

/// A certificate's public key.
class _mvPublicKey {
  public:
    /// @{
    /// Null when the key is of the other kind.
    [[nodiscard]] const RsaKey* getRsaKey() const noexcept { return std::get_if<RsaKey>(&m_key); }
    [[nodiscard]] const EccKey* getEccKey() const noexcept { return std::get_if<EccKey>(&m_key); }
    /// @}

    /// Reads a SubjectPublicKeyInfo (RFC 5280 4.1.2.7). False when it is malformed or of a
    /// kind that keyKindOf() calls 0; the key is then untouched.
    [[nodiscard]] bool loadSpki(der::Bytes spki);

  private:
    std::variant<std::monostate, RsaKey, EccKey> m_key;
};

/// Kind and sizes of a SubjectPublicKeyInfo's key without copying it.
struct KeyKind {
    KeyType type = kOtherKey;  ///< RSA, EC, or other
    int bits = 0;              ///< of the modulus or the field; 0 for other keys
    int signatureSize = 0;     ///< in bytes: the modulus, or r and s below the order
};

/// As Certificate::getCertKeyType() has it; RSA keys of fewer than 512 or more than 16384 bits are
/// of type 0.
KeyKind keyKindOf(der::Bytes spki) noexcept;

/// Content octets of the key algorithm's identifier; empty when that is malformed.
der::Bytes keyAlgorithmOf(der::Bytes spki) noexcept;

/// The parts of an EC key in a SubjectPublicKeyInfo.
struct EcKeyParts {
    der::Bytes parameters;  ///< EcpkParameters
    der::Bytes point;       ///< as encoded
};
/// Both parts empty for other keys.
EcKeyParts ecKeyPartsOf(der::Bytes spki) noexcept;

/// Whether the key is for RSASSA-PSS alone (RFC 4055 1.2).
bool isPssKey(der::Bytes spki) noexcept;

}  // namespace mervane

#endif
