// Verifying ECDSA (SEC 1 4.1.4) with points in Jacobian coordinates: (X, Y, Z) is the point
// (X/Z^2, Y/Z^3), and Z is 0 for the point at infinity.

#include "signing/ecdsa.h"

#include <algorithm>

#include "foundation/text/hex.h"
#include "foundation/x509/curves.h"
#include "foundation/x509/derwriter.h"
#include "signing/curveparameters.h"
#include "signing/modulus.h"

namespace mervane::ecdsa {
namespace {

std::vector<std::uint8_t> bytesOf(std::string_view hex) {
    return fromHex(hex).value_or(std::vector<std::uint8_t>());
}

Modulus modulusOf(std::string_view hex) {
    return Modulus(der::magnitude(bytesOf(hex)));
}

bool isZero(const Limbs& x) {
    return std::ranges::all_of(x, [](std::uint64_t limb) { return limb == 0; });
}

// Coordinates in Montgomery's form.
struct Point {
    Limbs x, y, z;
};

class Curve {
  public:
    explicit Curve(const CurveParameters& parameters)
        : m_p(modulusOf(parameters.p)),
          m_a(number(bytesOf(parameters.a))),
          m_b(number(bytesOf(parameters.b))),
          m_one(number(std::vector<std::uint8_t>{1})),
          m_base{number(bytesOf(parameters.x)), number(bytesOf(parameters.y)), m_one} {}

    [[nodiscard]] const Modulus& field() const noexcept { return m_p; }
    [[nodiscard]] const Point& base() const noexcept { return m_base; }

    // The point of SEC 1 octets; nothing if it is not on the curve (SEC 1 2.3.4).
    [[nodiscard]] std::optional<Point> read(der::Bytes octets, std::size_t fieldSize) const {
        if (coordinateSize(octets) != fieldSize) return std::nullopt;
        const der::Bytes x = octets.subspan(1, fieldSize);
        if (!isBelow(m_p.fromBytes(x), m_p.n())) return std::nullopt;
        Point point{number(x), {}, m_one};
        const Limbs square = add(times(add(times(point.x, point.x), m_a), point.x), m_b);
        const bool isWhole = octets.size() > 1 + fieldSize;
        if (isWhole) {
            const der::Bytes y = octets.subspan(1 + fieldSize);
            if (!isBelow(m_p.fromBytes(y), m_p.n())) return std::nullopt;
            point.y = number(y);
        } else {
            point.y = m_p.squareRoot(square);
            const bool isOdd = (m_p.fromForm(point.y)[0] & 1) != 0;
            if (isOdd != ((octets[0] & 1) != 0)) point.y = minus(Limbs(point.y.size()), point.y);
        }
        return times(point.y, point.y) == square ? std::optional(point) : std::nullopt;
    }

    [[nodiscard]] Point twice(const Point& p) const {
        const Limbs ySquare = times(p.y, p.y);
        const Limbs zSquare = times(p.z, p.z);
        const Limbs xSquare = times(p.x, p.x);
        const Limbs s = doubled(doubled(times(p.x, ySquare)));
        const Limbs m = add(add(doubled(xSquare), xSquare), times(m_a, times(zSquare, zSquare)));
        const Limbs x = minus(times(m, m), doubled(s));
        const Limbs yFourth8 = doubled(doubled(doubled(times(ySquare, ySquare))));
        return {x, minus(times(m, minus(s, x)), yFourth8), doubled(times(p.y, p.z))};
    }

    [[nodiscard]] Point sum(const Point& p, const Point& q) const {
        if (isZero(p.z)) return q;
        if (isZero(q.z)) return p;
        const Limbs pSquare = times(p.z, p.z);
        const Limbs qSquare = times(q.z, q.z);
        const Limbs u = times(p.x, qSquare);
        const Limbs s = times(p.y, times(q.z, qSquare));
        const Limbs h = minus(times(q.x, pSquare), u);
        const Limbs r = minus(times(q.y, times(p.z, pSquare)), s);
        if (isZero(h)) return isZero(r) ? twice(p) : Point{m_one, m_one, Limbs(h.size())};
        const Limbs hSquare = times(h, h);
        const Limbs hCube = times(hSquare, h);
        const Limbs v = times(u, hSquare);
        const Limbs x = minus(minus(times(r, r), hCube), doubled(v));
        return {x, minus(times(r, minus(v, x)), times(s, hCube)), times(h, times(p.z, q.z))};
    }

    // u1 * base + u2 * q, both at once from the top bit (Shamir's trick).
    [[nodiscard]] Point combined(const Limbs& u1, const Limbs& u2, const Point& q) const {
        const Point both = sum(m_base, q);
        Point out{m_one, m_one, Limbs(m_one.size())};
        for (std::size_t bit = 64 * u1.size(); bit-- > 0;) {
            out = twice(out);
            const bool first = (u1[bit / 64] >> (bit % 64) & 1) != 0;
            const bool second = (u2[bit / 64] >> (bit % 64) & 1) != 0;
            if (first || second) out = sum(out, first && second ? both : first ? m_base : q);
        }
        return out;
    }

    // The x of a point that is not at infinity, plain.
    [[nodiscard]] Limbs affineX(const Point& p) const {
        const Limbs inverse = m_p.inverse(p.z);
        return m_p.fromForm(times(p.x, times(inverse, inverse)));
    }

  private:
    [[nodiscard]] Limbs number(der::Bytes bytes) const { return m_p.toForm(m_p.fromBytes(bytes)); }
    [[nodiscard]] Limbs times(const Limbs& a, const Limbs& b) const { return m_p.multiply(a, b); }
    [[nodiscard]] Limbs add(const Limbs& a, const Limbs& b) const { return m_p.add(a, b); }
    [[nodiscard]] Limbs minus(const Limbs& a, const Limbs& b) const { return m_p.subtract(a, b); }
    [[nodiscard]] Limbs doubled(const Limbs& a) const { return m_p.add(a, a); }

    Modulus m_p;
    Limbs m_a, m_b, m_one;
    Point m_base;
};

// The leftmost bits of the digest, as many as the order has (FIPS 186-5 6.4.2), below the order.
Limbs shortened(der::Bytes digest, const Modulus& order, std::size_t orderSize, int orderBits) {
    const der::Bytes left = digest.first(std::min(digest.size(), orderSize));
    Limbs out = order.fromBytes(left);
    const int surplus = static_cast<int>(left.size()) * 8 - orderBits;
    for (int i = 0; i < surplus; ++i) {
        for (std::size_t j = 0; j < out.size(); ++j)
            out[j] = out[j] >> 1 | (j + 1 < out.size() ? out[j + 1] << 63 : 0);
    }
    return isBelow(out, order.n()) ? out : order.subtract(out, order.n());
}

// Whether both halves are between 1 and the order less one, all in as many octets.
bool areInRange(der::Bytes raw, der::Bytes order) {
    const auto isInRange = [order](der::Bytes half) {
        return half.size() == order.size() && !der::magnitude(half).empty() &&
               std::ranges::lexicographical_compare(half, order);
    };
    return isInRange(raw.first(raw.size() / 2)) && isInRange(raw.subspan(raw.size() / 2));
}

std::vector<std::uint8_t> orderOf(const CurveParameters& parameters) {
    const auto bytes = bytesOf(parameters.order);
    const der::Bytes order = der::magnitude(bytes);
    return {order.begin(), order.end()};
}

}  // namespace

std::vector<std::uint8_t> toDer(der::Bytes raw) {
    return der::element(der::kSequence, {der::unsignedInteger(raw.first(raw.size() / 2)),
                                         der::unsignedInteger(raw.subspan(raw.size() / 2))});
}

std::optional<std::vector<std::uint8_t>> fromDer(der::Bytes der, std::size_t size) {
    const auto whole = der::Cursor(der).read(der::kSequence);
    if (!whole || whole->whole.size() != der.size()) return std::nullopt;
    der::Cursor numbers(whole->content);
    std::vector<std::uint8_t> raw(size);
    for (const std::size_t end : {size / 2, size}) {
        const auto number = numbers.read(der::kInteger);
        if (!number || number->content.empty() || (number->content[0] & 0x80U) != 0)
            return std::nullopt;
        const der::Bytes digits = der::magnitude(number->content);
        if (digits.size() > size / 2) return std::nullopt;
        std::ranges::copy(digits, raw.begin() + static_cast<std::ptrdiff_t>(end - digits.size()));
    }
    return numbers.atEnd() ? std::optional(std::move(raw)) : std::nullopt;
}

bool isInRange(der::Bytes ecParameters, der::Bytes raw) {
    const CurveParameters* const parameters = findParameters(ecParameters);
    if (parameters != nullptr) return areInRange(raw, orderOf(*parameters));
    const auto isNull = [](der::Bytes half) { return der::magnitude(half).empty(); };
    return !isNull(raw.first(raw.size() / 2)) && !isNull(raw.subspan(raw.size() / 2));
}

Verdict verify(der::Bytes ecParameters, der::Bytes point, der::Bytes digest, der::Bytes raw) {
    const CurveParameters* const parameters = findParameters(ecParameters);
    if (parameters == nullptr) return Verdict::NotVerifiable;
    const auto orderBytes = orderOf(*parameters);
    const Curve curve(*parameters);
    const auto q = curve.read(point, parameters->p.size() / 2);
    if (!q || !areInRange(raw, orderBytes)) return Verdict::Wrong;
    const Modulus order(orderBytes);
    const Limbs r = order.fromBytes(raw.first(orderBytes.size()));
    const Limbs s = order.fromBytes(raw.subspan(orderBytes.size()));
    const Limbs e = shortened(digest, order, orderBytes.size(), der::bitCount(orderBytes));
    const Limbs w = order.inverse(order.toForm(s));  // in form, so the products are plain
    const Limbs u1 = order.multiply(e, w);
    const Limbs u2 = order.multiply(r, w);
    const Point sum = curve.combined(u1, u2, *q);
    if (isZero(sum.z)) return Verdict::Wrong;
    Limbs v = curve.affineX(sum);
    while (!isBelow(v, order.n())) v = order.subtract(v, order.n());
    return v == r ? Verdict::Right : Verdict::Wrong;
}

}  // namespace mervane::ecdsa
