// Montgomery multiplication, as Koç, Acar and Kaliski's "Analyzing and Comparing Montgomery
// Multiplication Algorithms" (1996) has it under FIOS: product and reduction in one pass.

#include "signing/modulus.h"

#include <algorithm>
#include <bit>

namespace mervane {
namespace {

__extension__ using Wide = unsigned __int128;

std::uint64_t low(Wide x) noexcept {
    return static_cast<std::uint64_t>(x);
}
std::uint64_t high(Wide x) noexcept {
    return static_cast<std::uint64_t>(x >> 64);
}

// a += b and a -= b; each returns what goes beyond the top.
std::uint64_t addTo(Limbs& a, const Limbs& b) noexcept {
    std::uint64_t carry = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const Wide sum = Wide{a[i]} + b[i] + carry;
        a[i] = low(sum);
        carry = high(sum);
    }
    return carry;
}
std::uint64_t subtractFrom(Limbs& a, const Limbs& b) noexcept {
    std::uint64_t borrow = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const Wide difference = Wide{a[i]} - b[i] - borrow;
        a[i] = low(difference);
        borrow = high(difference) & 1;
    }
    return borrow;
}

// By Newton's iteration, which doubles the bits that are right; n itself is right in three.
std::uint64_t negativeInverseOf(std::uint64_t n) noexcept {
    std::uint64_t inverse = n;
    for (int i = 0; i < 5; ++i) inverse *= 2 - n * inverse;
    return ~inverse + 1;
}

Limbs limbsOf(der::Bytes bigEndian, std::size_t number) {
    Limbs out(number);
    for (std::size_t i = 0; i < bigEndian.size(); ++i)
        out[i / 8] |= std::uint64_t{bigEndian[bigEndian.size() - 1 - i]} << (8 * (i % 8));
    return out;
}

}  // namespace

bool isBelow(const Limbs& a, const Limbs& b) noexcept {
    return std::lexicographical_compare(a.rbegin(), a.rend(), b.rbegin(), b.rend());
}

Modulus::Modulus(der::Bytes n)
    : m_n(limbsOf(n, (n.size() + 7) / 8)),
      m_negativeInverse(negativeInverseOf(m_n[0])),
      m_squareOfR(squareOfR()) {}

Limbs Modulus::fromBytes(der::Bytes bigEndian) const {
    return limbsOf(bigEndian, m_n.size());
}

std::vector<std::uint8_t> Modulus::toBytes(const Limbs& x, std::size_t size) {
    std::vector<std::uint8_t> out(size);
    for (std::size_t i = 0; i < size && i / 8 < x.size(); ++i)
        out[size - 1 - i] = static_cast<std::uint8_t>(x[i / 8] >> (8 * (i % 8)));
    return out;
}

Limbs Modulus::fromForm(const Limbs& x) const {
    Limbs one(m_n.size());
    one[0] = 1;
    return multiply(x, one);
}

Limbs Modulus::multiply(const Limbs& a, const Limbs& b) const {
    const std::size_t size = m_n.size();
    Limbs out(size);
    // Plain pointers, so that the compiler keeps them in registers.
    std::uint64_t* const t = out.data();
    const std::uint64_t* const second = b.data();
    const std::uint64_t* const n = m_n.data();
    std::uint64_t top = 0;  // the limb above t; 0 or 1
    for (const std::uint64_t digit : a) {
        Wide product = Wide{digit} * second[0] + t[0];
        const std::uint64_t factor = low(product) * m_negativeInverse;
        Wide reduced = Wide{factor} * n[0] + low(product);  // its lower half is zero
#pragma GCC unroll 4
        for (std::size_t j = 1; j < size; ++j) {
            product = Wide{digit} * second[j] + t[j] + high(product);
            reduced = Wide{factor} * n[j] + low(product) + high(reduced);
            t[j - 1] = low(reduced);
        }
        const Wide sum = Wide{top} + high(product) + high(reduced);
        t[size - 1] = low(sum);
        top = high(sum);
    }
    if (top != 0 || !isBelow(out, m_n)) subtractFrom(out, m_n);
    return out;
}

Limbs Modulus::add(const Limbs& a, const Limbs& b) const {
    Limbs out = a;
    if (addTo(out, b) != 0 || !isBelow(out, m_n)) subtractFrom(out, m_n);
    return out;
}

Limbs Modulus::subtract(const Limbs& a, const Limbs& b) const {
    Limbs out = a;
    if (subtractFrom(out, b) != 0) addTo(out, m_n);
    return out;
}

Limbs Modulus::power(const Limbs& x, const Limbs& exponent) const {
    Limbs one(m_n.size());
    one[0] = 1;
    Limbs out = toForm(one);
    for (std::size_t bit = 64 * exponent.size(); bit-- > 0;) {
        out = multiply(out, out);
        if ((exponent[bit / 64] >> (bit % 64) & 1) != 0) out = multiply(out, x);
    }
    return out;
}

Limbs Modulus::inverse(const Limbs& x) const {
    Limbs exponent = m_n;
    Limbs two(m_n.size());
    two[0] = 2;
    subtractFrom(exponent, two);
    return power(x, exponent);
}

// To the power of (n + 1) / 4, which is (n - 3) / 4 + 1.
Limbs Modulus::squareRoot(const Limbs& x) const {
    Limbs exponent = m_n;
    for (std::size_t i = 0; i < exponent.size(); ++i)
        exponent[i] = exponent[i] >> 2 | (i + 1 < exponent.size() ? exponent[i + 1] << 62 : 0);
    return multiply(power(x, exponent), x);
}

// From the greatest power of two below n by doubling up to R times 2 to the power of the number of
// limbs, which is six squarings away from R * R.
Limbs Modulus::squareOfR() const {
    const std::size_t size = m_n.size();
    const std::size_t topBit =
        64 * size - 1 - static_cast<std::size_t>(std::countl_zero(m_n.back()));
    Limbs power(size);
    power[topBit / 64] = std::uint64_t{1} << (topBit % 64);
    for (std::size_t exponent = topBit; exponent < 65 * size; ++exponent) power = add(power, power);
    for (int i = 0; i < 6; ++i) power = multiply(power, power);
    return power;
}

}  // namespace mervane
