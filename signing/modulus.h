#ifndef MERVANE_SIGNING_MODULUS_H
#define MERVANE_SIGNING_MODULUS_H

#include <cstdint>
#include <vector>

#include "foundation/x509/der.h"

namespace mervane {

/// A natural number in limbs of 64 bits, the least significant first.
using Limbs = std::vector<std::uint64_t>;

/// Whether a < b; both have the same number of limbs.
bool isBelow(const Limbs& a, const Limbs& b) noexcept;

/// Arithmetic modulo an odd number n, in Montgomery's form: a number x stands as x * R modulo n,
/// where R is 2 to the power of 64 times the number of limbs. Everything that is computed here is
/// public, so nothing runs in constant time. All numbers are below n.
class Modulus {
  public:
    /// Of an odd number in big-endian bytes without leading zeros; not empty.
    explicit Modulus(der::Bytes n);

    [[nodiscard]] const Limbs& n() const noexcept { return m_n; }
    /// Plain limbs, as many as n has; `bigEndian` has no more bytes than they hold.
    [[nodiscard]] Limbs fromBytes(der::Bytes bigEndian) const;
    /// `size` bytes, big-endian.
    [[nodiscard]] static std::vector<std::uint8_t> toBytes(const Limbs& x, std::size_t size);

    /// x * R and x / R.
    [[nodiscard]] Limbs toForm(const Limbs& x) const { return multiply(x, m_squareOfR); }
    [[nodiscard]] Limbs fromForm(const Limbs& x) const;

    /// a * b / R: the product, if both are in form; a plain number, if one of them is.
    [[nodiscard]] Limbs multiply(const Limbs& a, const Limbs& b) const;
    [[nodiscard]] Limbs add(const Limbs& a, const Limbs& b) const;
    [[nodiscard]] Limbs subtract(const Limbs& a, const Limbs& b) const;
    /// 1 / x where n is prime (Fermat), in form.
    [[nodiscard]] Limbs inverse(const Limbs& x) const;
    /// A number whose square is x, if there is one, where n is prime and 3 modulo 4; in form.
    [[nodiscard]] Limbs squareRoot(const Limbs& x) const;

  private:
    [[nodiscard]] Limbs power(const Limbs& x, const Limbs& exponent) const;
    [[nodiscard]] Limbs squareOfR() const;

    Limbs m_n;
    std::uint64_t m_negativeInverse;  // -1 / n modulo 2 to the power of 64
    Limbs m_squareOfR;                // R * R modulo n
};

}  // namespace mervane

#endif
