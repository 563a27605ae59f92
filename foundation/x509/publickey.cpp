#include "foundation/x509/publickey.h"

#include <algorithm>
#include <array>
#include <bit>

#include "foundation/text/bytes.h"

namespace mervane {
namespace {

using namespace std::string_view_literals;

// RFC 3279 2.3.1 and 2.3.5, RFC 4055 1.2.
constexpr auto kRsaEncryption = "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01"sv;
constexpr auto kRsaPss = "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0A"sv;
constexpr auto kEcPublicKey = "\x2A\x86\x48\xCE\x3D\x02\x01"sv;

constexpr int kMinRsaBits = 512;
constexpr int kMaxRsaBits = 16384;

// SEC 2 (secp), RFC 5480 (P curves) and RFC 5639 (Brainpool, plain and twisted).
constexpr std::array kCurves = {
    EcCurve{"P-256", "\x2A\x86\x48\xCE\x3D\x03\x01\x07"sv, 256},
    EcCurve{"P-384", "\x2B\x81\x04\x00\x22"sv, 384},
    EcCurve{"P-521", "\x2B\x81\x04\x00\x23"sv, 521},
    EcCurve{"secp256k1", "\x2B\x81\x04\x00\x0A"sv, 256},
    EcCurve{"brainpoolP160r1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x01"sv, 160},
    EcCurve{"brainpoolP160t1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x02"sv, 160},
    EcCurve{"brainpoolP192r1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x03"sv, 192},
    EcCurve{"brainpoolP192t1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x04"sv, 192},
    EcCurve{"brainpoolP224r1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x05"sv, 224},
    EcCurve{"brainpoolP224t1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x06"sv, 224},
    EcCurve{"brainpoolP256r1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x07"sv, 256},
    EcCurve{"brainpoolP256t1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x08"sv, 256},
    EcCurve{"brainpoolP320r1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x09"sv, 320},
    EcCurve{"brainpoolP320t1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x0A"sv, 320},
    EcCurve{"brainpoolP384r1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x0B"sv, 384},
    EcCurve{"brainpoolP384t1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x0C"sv, 384},
    EcCurve{"brainpoolP512r1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x0D"sv, 512},
    EcCurve{"brainpoolP512t1", "\x2B\x24\x03\x03\x02\x08\x01\x01\x0E"sv, 512},
};

der::Bytes withoutLeadingZeros(der::Bytes bytes) noexcept {
    const auto first = std::ranges::find_if(bytes, [](std::uint8_t b) { return b != 0; });
    return bytes.subspan(static_cast<std::size_t>(first - bytes.begin()));
}

int bitsOf(der::Bytes minimal) noexcept {
    if (minimal.empty()) return 0;
    return static_cast<int>((minimal.size() - 1) * 8) + std::bit_width(minimal.front());
}

bool fitsCurve(der::Bytes point, const EcCurve& curve) noexcept {
    if (point.empty()) return false;
    if (point[0] == 0x04) return point.size() == curve.pointSize();
    return (point[0] == 0x02 || point[0] == 0x03) && point.size() == 1 + curve.fieldSize();
}

// The windows on a SubjectPublicKeyInfo that both readers below need.
struct SpkiParts {
    const EcCurve* curve = nullptr;  // of an EC key
    der::Bytes point;
    der::Bytes modulus, exponent;  // of an RSA key, without leading zeros
};

std::optional<SpkiParts> splitSpki(der::Bytes spki) noexcept {
    // SubjectPublicKeyInfo ::= SEQUENCE { algorithm AlgorithmIdentifier, subjectPublicKey BIT
    // STRING }
    auto fields = der::enter(spki, der::kSequence);
    const auto algorithm = fields ? fields->read(der::kSequence) : std::nullopt;
    const auto keyBits = algorithm ? fields->read(der::kBitString) : std::nullopt;
    const auto key = keyBits ? der::wholeOctets(keyBits->content) : std::nullopt;
    if (!key) return std::nullopt;

    // AlgorithmIdentifier ::= SEQUENCE { algorithm OBJECT IDENTIFIER, parameters ANY OPTIONAL }
    der::Cursor parts(algorithm->content);
    const auto oid = parts.read(der::kOid);
    if (!oid) return std::nullopt;
    SpkiParts out;
    if (asChars(oid->content) == kEcPublicKey) {
        const auto parameters = parts.readAny();
        out.curve = parameters ? findCurve(parameters->whole) : nullptr;
        out.point = *key;
        return out.curve == nullptr ? std::nullopt : std::optional(out);
    }
    if (asChars(oid->content) != kRsaEncryption && asChars(oid->content) != kRsaPss)
        return std::nullopt;

    // RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER }
    auto numbers = der::enter(*key, der::kSequence);
    const auto modulus = numbers ? numbers->read(der::kInteger) : std::nullopt;
    const auto exponent = modulus ? numbers->read(der::kInteger) : std::nullopt;
    if (!exponent) return std::nullopt;
    out.modulus = withoutLeadingZeros(modulus->content);
    out.exponent = withoutLeadingZeros(exponent->content);
    const int bits = bitsOf(out.modulus);
    return bits < kMinRsaBits || bits > kMaxRsaBits ? std::nullopt : std::optional(out);
}

}  // namespace

mp_int::mp_int(der::Bytes bigEndian) : m_bytes(withoutLeadingZeros(bigEndian)) {}

int mp_int::bitCount() const noexcept {
    return bitsOf(m_bytes.span());
}

void MpIntUtil::toUnsignedBytes(const mp_int& value, DataBuffer& out) {
    out.assign(value.bytes());
}

void MpIntUtil::toSignedBytes(const mp_int& value, DataBuffer& out) {
    out.clear();
    out.appendByte(0);
    out.append(value.bytes());
}

const EcCurve* findCurve(der::Bytes ecParameters) noexcept {
    // EcpkParameters ::= CHOICE { namedCurve OBJECT IDENTIFIER, ... }
    const auto oid = der::Cursor(ecParameters).read(der::kOid);
    if (!oid) return nullptr;
    const auto* const curve = std::ranges::find(kCurves, asChars(oid->content), &EcCurve::oid);
    return curve == kCurves.end() ? nullptr : curve;
}

der::Bytes unwrapEcPoint(der::Bytes value, const EcCurve* curve) noexcept {
    const auto fits = [curve](der::Bytes point) {
        if (curve != nullptr) return fitsCurve(point, *curve);
        // No length of a raw point of these curves is that of a wrapped one.
        return std::ranges::any_of(kCurves, [&](const EcCurve& c) { return fitsCurve(point, c); });
    };
    if (fits(value)) return value;
    // ECPoint ::= OCTET STRING
    const auto wrapped = der::Cursor(value).read(der::kOctetString);
    return wrapped && fits(wrapped->content) ? wrapped->content : der::Bytes();
}

bool EccKey::exportEccPoint(DataBuffer& out, LogBase& log) const {
    if (!fitsCurve(m_point.span(), *m_curve)) {
        log.LogError("The public EC point of the certificate does not fit its curve.");
        return false;
    }
    out = m_point;
    return true;
}

bool _mvPublicKey::loadSpki(der::Bytes spki) {
    const auto parts = splitSpki(spki);
    if (!parts) return false;
    if (parts->curve != nullptr) {
        m_key.emplace<EccKey>(*parts->curve, parts->point);
    } else {
        m_key.emplace<RsaKey>(RsaKey{mp_int(parts->modulus), mp_int(parts->exponent)});
    }
    return true;
}

KeyKind keyKindOf(der::Bytes spki) noexcept {
    const auto parts = splitSpki(spki);
    if (!parts) return {};
    return parts->curve != nullptr ? KeyKind{3, parts->curve->bits}
                                   : KeyKind{1, bitsOf(parts->modulus)};
}

}  // namespace mervane
