#include "foundation/x509/publickey.h"

#include <optional>
#include <string_view>

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

// The windows on a SubjectPublicKeyInfo that both readers below need.
struct SpkiParts {
    std::optional<EcCurve> curve;  // of an EC key alone
    EcKeyParts ec;
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
    const std::string_view name = asChars(oid->content);
    if (name == kEcPublicKey) {
        const auto parameters = parts.readAny();
        out.curve = parameters ? findCurve(parameters->whole) : std::nullopt;
        if (!out.curve) out.curve = curveOfPoint(*key);
        out.ec = {parameters ? parameters->whole : der::Bytes(), *key};
        return out.curve ? std::optional(out) : std::nullopt;
    }
    if (name != kRsaEncryption && name != kRsaPss) return std::nullopt;

    // RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER }
    auto numbers = der::enter(*key, der::kSequence);
    const auto modulus = numbers ? numbers->read(der::kInteger) : std::nullopt;
    const auto exponent = modulus ? numbers->read(der::kInteger) : std::nullopt;
    if (!exponent) return std::nullopt;
    out.modulus = der::magnitude(modulus->content);
    out.exponent = der::magnitude(exponent->content);
    const int bits = der::bitCount(out.modulus);
    return bits < kMinRsaBits || bits > kMaxRsaBits ? std::nullopt : std::optional(out);
}

}  // namespace

mp_int::mp_int(der::Bytes bigEndian) : m_bytes(der::magnitude(bigEndian)) {}

int mp_int::bitCount() const noexcept {
    return der::bitCount(m_bytes.span());
}

void MpIntUtil::toUnsignedBytes(const mp_int& value, DataBuffer& out) {
    out.assign(value.bytes());
}

void MpIntUtil::toSignedBytes(const mp_int& value, DataBuffer& out) {
    out.clear();
    out.appendByte(0);
    out.append(value.bytes());
}

bool EccKey::exportEccPoint(DataBuffer& out, LogBase& log) const {
    if (coordinateSize(m_point.span()) != m_curve.fieldSize()) {
        log.LogError("The public EC point of the certificate does not fit its curve.");
        return false;
    }
    out = m_point;
    return true;
}

std::array<DataBuffer, 2> EccKey::comparablePoints() const {
    std::array<DataBuffer, 2> out;
    if (coordinateSize(m_point.span()) != m_curve.fieldSize()) return out;
    out[0] = comparablePoint(m_point.span());
    if (m_curve.isPrime) return out;
    out[1] = out[0];
    const auto octets = out[1].resized(out[1].getSize());
    octets[0] ^= 1U;
    return out;
}

bool _mvPublicKey::loadSpki(der::Bytes spki) {
    const auto parts = splitSpki(spki);
    if (!parts) return false;
    if (parts->curve) {
        m_key.emplace<EccKey>(*parts->curve, parts->ec.point);
    } else {
        m_key.emplace<RsaKey>(RsaKey{mp_int(parts->modulus), mp_int(parts->exponent)});
    }
    return true;
}

KeyKind keyKindOf(der::Bytes spki) noexcept {
    const auto parts = splitSpki(spki);
    if (!parts) return {};
    if (parts->curve) return {kEcKey, parts->curve->bits, 2 * parts->curve->orderSize()};
    const int bits = der::bitCount(parts->modulus);
    return {kRsaKey, bits, (bits + 7) / 8};
}

der::Bytes keyAlgorithmOf(der::Bytes spki) noexcept {
    auto fields = der::enter(spki, der::kSequence);
    const auto algorithm = fields ? fields->read(der::kSequence) : std::nullopt;
    const auto oid = algorithm ? der::Cursor(algorithm->content).read(der::kOid) : std::nullopt;
    return oid ? oid->content : der::Bytes();
}

EcKeyParts ecKeyPartsOf(der::Bytes spki) noexcept {
    const auto parts = splitSpki(spki);
    return parts ? parts->ec : EcKeyParts();
}

bool isPssKey(der::Bytes spki) noexcept {
    return asChars(keyAlgorithmOf(spki)) == kRsaPss;
}

}  // namespace mervane
