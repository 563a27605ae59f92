#include "foundation/x509/curves.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "foundation/text/bytes.h"

namespace mervane {
namespace {

using namespace std::string_view_literals;

// RFC 3279 2.3.5.
constexpr auto kPrimeField = "\x2A\x86\x48\xCE\x3D\x01\x01"sv;
constexpr auto kBinaryField = "\x2A\x86\x48\xCE\x3D\x01\x02"sv;

// Far beyond any curve in use; keeps sizes made from untrusted bytes small.
constexpr int kMaxFieldBits = 16384;

struct NamedCurve {
    std::string_view arcs;  // content octets of the identifier without the last
    std::uint8_t lastOctet;
    EcCurve curve;
};

constexpr auto kSec2 = "\x2B\x81\x04\x00"sv;                       // SEC 2
constexpr auto kX962Binary = "\x2A\x86\x48\xCE\x3D\x03\x00"sv;     // RFC 3279 2.3.5
constexpr auto kX962Prime = "\x2A\x86\x48\xCE\x3D\x03\x01"sv;      // the same
constexpr auto kBrainpool = "\x2B\x24\x03\x03\x02\x08\x01\x01"sv;  // RFC 5639 4.1
constexpr auto kWtls = "\x67\x2B\x01\x04"sv;                       // WAP-261-WTLS
constexpr auto kSm2 = "\x2A\x81\x1C\xCF\x55\x01\x82"sv;            // GM/T 0006

constexpr bool kPrime = true;
constexpr bool kBinary = false;

constexpr std::array kCurves = {
    NamedCurve{kSec2, 1, {163, 163, kBinary}},         // sect163k1
    NamedCurve{kSec2, 2, {163, 162, kBinary}},         // sect163r1
    NamedCurve{kSec2, 3, {239, 238, kBinary}},         // sect239k1
    NamedCurve{kSec2, 4, {113, 113, kBinary}},         // sect113r1
    NamedCurve{kSec2, 5, {113, 113, kBinary}},         // sect113r2
    NamedCurve{kSec2, 6, {112, 112, kPrime}},          // secp112r1
    NamedCurve{kSec2, 7, {112, 110, kPrime}},          // secp112r2
    NamedCurve{kSec2, 8, {160, 161, kPrime}},          // secp160r1
    NamedCurve{kSec2, 9, {160, 161, kPrime}},          // secp160k1
    NamedCurve{kSec2, 10, {256, 256, kPrime}},         // secp256k1
    NamedCurve{kSec2, 15, {163, 163, kBinary}},        // sect163r2
    NamedCurve{kSec2, 16, {283, 281, kBinary}},        // sect283k1
    NamedCurve{kSec2, 17, {283, 282, kBinary}},        // sect283r1
    NamedCurve{kSec2, 22, {131, 131, kBinary}},        // sect131r1
    NamedCurve{kSec2, 23, {131, 131, kBinary}},        // sect131r2
    NamedCurve{kSec2, 24, {193, 193, kBinary}},        // sect193r1
    NamedCurve{kSec2, 25, {193, 193, kBinary}},        // sect193r2
    NamedCurve{kSec2, 26, {233, 232, kBinary}},        // sect233k1
    NamedCurve{kSec2, 27, {233, 233, kBinary}},        // sect233r1
    NamedCurve{kSec2, 28, {128, 128, kPrime}},         // secp128r1
    NamedCurve{kSec2, 29, {128, 126, kPrime}},         // secp128r2
    NamedCurve{kSec2, 30, {160, 161, kPrime}},         // secp160r2
    NamedCurve{kSec2, 31, {192, 192, kPrime}},         // secp192k1
    NamedCurve{kSec2, 32, {224, 225, kPrime}},         // secp224k1
    NamedCurve{kSec2, 33, {224, 224, kPrime}},         // secp224r1
    NamedCurve{kSec2, 34, {384, 384, kPrime}},         // secp384r1
    NamedCurve{kSec2, 35, {521, 521, kPrime}},         // secp521r1
    NamedCurve{kSec2, 36, {409, 407, kBinary}},        // sect409k1
    NamedCurve{kSec2, 37, {409, 409, kBinary}},        // sect409r1
    NamedCurve{kSec2, 38, {571, 570, kBinary}},        // sect571k1
    NamedCurve{kSec2, 39, {571, 570, kBinary}},        // sect571r1
    NamedCurve{kX962Prime, 1, {192, 192, kPrime}},     // prime192v1
    NamedCurve{kX962Prime, 2, {192, 192, kPrime}},     // prime192v2
    NamedCurve{kX962Prime, 3, {192, 192, kPrime}},     // prime192v3
    NamedCurve{kX962Prime, 4, {239, 239, kPrime}},     // prime239v1
    NamedCurve{kX962Prime, 5, {239, 239, kPrime}},     // prime239v2
    NamedCurve{kX962Prime, 6, {239, 239, kPrime}},     // prime239v3
    NamedCurve{kX962Prime, 7, {256, 256, kPrime}},     // prime256v1
    NamedCurve{kX962Binary, 1, {163, 163, kBinary}},   // c2pnb163v1
    NamedCurve{kX962Binary, 2, {163, 162, kBinary}},   // c2pnb163v2
    NamedCurve{kX962Binary, 3, {163, 162, kBinary}},   // c2pnb163v3
    NamedCurve{kX962Binary, 4, {176, 161, kBinary}},   // c2pnb176v1
    NamedCurve{kX962Binary, 5, {191, 191, kBinary}},   // c2tnb191v1
    NamedCurve{kX962Binary, 6, {191, 190, kBinary}},   // c2tnb191v2
    NamedCurve{kX962Binary, 7, {191, 189, kBinary}},   // c2tnb191v3
    NamedCurve{kX962Binary, 10, {208, 193, kBinary}},  // c2pnb208w1
    NamedCurve{kX962Binary, 11, {239, 238, kBinary}},  // c2tnb239v1
    NamedCurve{kX962Binary, 12, {239, 237, kBinary}},  // c2tnb239v2
    NamedCurve{kX962Binary, 13, {239, 236, kBinary}},  // c2tnb239v3
    NamedCurve{kX962Binary, 16, {272, 257, kBinary}},  // c2pnb272w1
    NamedCurve{kX962Binary, 17, {304, 289, kBinary}},  // c2pnb304w1
    NamedCurve{kX962Binary, 18, {359, 353, kBinary}},  // c2tnb359v1
    NamedCurve{kX962Binary, 19, {368, 353, kBinary}},  // c2pnb368w1
    NamedCurve{kX962Binary, 20, {431, 418, kBinary}},  // c2tnb431r1
    NamedCurve{kBrainpool, 1, {160, 160, kPrime}},     // brainpoolP160r1
    NamedCurve{kBrainpool, 2, {160, 160, kPrime}},     // brainpoolP160t1
    NamedCurve{kBrainpool, 3, {192, 192, kPrime}},     // brainpoolP192r1
    NamedCurve{kBrainpool, 4, {192, 192, kPrime}},     // brainpoolP192t1
    NamedCurve{kBrainpool, 5, {224, 224, kPrime}},     // brainpoolP224r1
    NamedCurve{kBrainpool, 6, {224, 224, kPrime}},     // brainpoolP224t1
    NamedCurve{kBrainpool, 7, {256, 256, kPrime}},     // brainpoolP256r1
    NamedCurve{kBrainpool, 8, {256, 256, kPrime}},     // brainpoolP256t1
    NamedCurve{kBrainpool, 9, {320, 320, kPrime}},     // brainpoolP320r1
    NamedCurve{kBrainpool, 10, {320, 320, kPrime}},    // brainpoolP320t1
    NamedCurve{kBrainpool, 11, {384, 384, kPrime}},    // brainpoolP384r1
    NamedCurve{kBrainpool, 12, {384, 384, kPrime}},    // brainpoolP384t1
    NamedCurve{kBrainpool, 13, {512, 512, kPrime}},    // brainpoolP512r1
    NamedCurve{kBrainpool, 14, {512, 512, kPrime}},    // brainpoolP512t1
    NamedCurve{kWtls, 1, {113, 112, kBinary}},         // wap-wsg-idm-ecid-wtls1
    NamedCurve{kWtls, 3, {163, 163, kBinary}},         // wap-wsg-idm-ecid-wtls3
    NamedCurve{kWtls, 4, {113, 113, kBinary}},         // wap-wsg-idm-ecid-wtls4
    NamedCurve{kWtls, 5, {163, 163, kBinary}},         // wap-wsg-idm-ecid-wtls5
    NamedCurve{kWtls, 6, {112, 112, kPrime}},          // wap-wsg-idm-ecid-wtls6
    NamedCurve{kWtls, 7, {160, 161, kPrime}},          // wap-wsg-idm-ecid-wtls7
    NamedCurve{kWtls, 8, {112, 113, kPrime}},          // wap-wsg-idm-ecid-wtls8
    NamedCurve{kWtls, 9, {160, 161, kPrime}},          // wap-wsg-idm-ecid-wtls9
    NamedCurve{kWtls, 10, {233, 232, kBinary}},        // wap-wsg-idm-ecid-wtls10
    NamedCurve{kWtls, 11, {233, 233, kBinary}},        // wap-wsg-idm-ecid-wtls11
    NamedCurve{kWtls, 12, {224, 224, kPrime}},         // wap-wsg-idm-ecid-wtls12
    NamedCurve{kSm2, 45, {256, 256, kPrime}},          // SM2
};

// FieldID ::= SEQUENCE { fieldType OBJECT IDENTIFIER, parameters ANY DEFINED BY fieldType }
EcCurve readField(der::Bytes fieldId) noexcept {
    der::Cursor field(fieldId);
    const auto type = field.read(der::kOid);
    if (type && asChars(type->content) == kPrimeField) {
        // Prime-p ::= INTEGER
        const auto prime = field.read(der::kInteger);
        return {prime ? der::bitCount(prime->content) : 0, 0, true};
    }
    if (!type || asChars(type->content) != kBinaryField) return {};
    // Characteristic-two ::= SEQUENCE { m INTEGER, basis OBJECT IDENTIFIER, parameters ANY }
    const auto binary = field.read(der::kSequence);
    const auto degree = binary ? der::Cursor(binary->content).read(der::kInteger) : std::nullopt;
    if (!degree || der::bitCount(degree->content) > 16) return {};
    int bits = 0;
    for (const std::uint8_t octet : der::magnitude(degree->content)) bits = bits << 8 | octet;
    return {bits, 0, false};
}

// SpecifiedECDomain ::= SEQUENCE { version INTEGER, fieldID FieldID, curve Curve, base OCTET
//   STRING, order INTEGER, .. } (SEC 1 C.2)
std::optional<EcCurve> readExplicit(der::Bytes parameters) noexcept {
    der::Cursor parts(parameters);
    const auto version = parts.read(der::kInteger);
    const auto field = version ? parts.read(der::kSequence) : std::nullopt;
    if (!field || !parts.read(der::kSequence) || !parts.read(der::kOctetString)) {
        return std::nullopt;
    }
    const auto order = parts.read(der::kInteger);
    EcCurve curve = readField(field->content);
    curve.orderBits = order ? der::bitCount(order->content) : 0;
    // A curve has no more points than the field has elements and twice the root of that (Hasse).
    const bool inBounds = curve.bits > 0 && curve.bits <= kMaxFieldBits && curve.orderBits > 0 &&
                          curve.orderBits <= curve.bits + 1;
    return inBounds ? std::optional(curve) : std::nullopt;
}

bool isOfListedLength(der::Bytes point) noexcept {
    return std::ranges::any_of(kCurves, [size = coordinateSize(point)](const NamedCurve& named) {
        return named.curve.fieldSize() == size;
    });
}

}  // namespace

std::optional<EcCurve> findCurve(der::Bytes ecParameters) noexcept {
    // EcpkParameters ::= CHOICE { namedCurve OBJECT IDENTIFIER, ecParameters SEQUENCE,
    //   implicitlyCA NULL }
    const auto choice = der::Cursor(ecParameters).readAny();
    if (!choice) return std::nullopt;
    if (choice->tag == der::kSequence) return readExplicit(choice->content);
    if (choice->tag != der::kOid || choice->content.empty()) return std::nullopt;
    const std::string_view oid = asChars(choice->content);
    const auto* const named = std::ranges::find_if(kCurves, [&](const NamedCurve& row) {
        return row.lastOctet == choice->content.back() && row.arcs == oid.substr(0, oid.size() - 1);
    });
    return named == kCurves.end() ? std::nullopt : std::optional(named->curve);
}

std::optional<EcCurve> curveOfPoint(der::Bytes point) noexcept {
    const int bits = static_cast<int>(coordinateSize(point)) * 8;
    return bits == 0 ? std::nullopt : std::optional(EcCurve{bits, bits});
}

std::size_t coordinateSize(der::Bytes point) noexcept {
    if (point.empty()) return 0;
    const std::size_t rest = point.size() - 1;
    const bool isCompressed = point[0] == 0x02 || point[0] == 0x03;
    const bool isWhole = point[0] == 0x04 || point[0] == 0x06 || point[0] == 0x07;
    const std::size_t size = isCompressed ? rest : isWhole && rest % 2 == 0 ? rest / 2 : 0;
    return size <= kMaxFieldBits / 8 ? size : 0;
}

der::Bytes unwrapEcPoint(der::Bytes value, const std::optional<EcCurve>& curve) noexcept {
    // ECPoint ::= OCTET STRING
    const auto wrapped = der::Cursor(value).read(der::kOctetString);
    const der::Bytes content = wrapped ? wrapped->content : der::Bytes();
    if (curve) {
        if (coordinateSize(value) == curve->fieldSize()) return value;
        return coordinateSize(content) == curve->fieldSize() ? content : der::Bytes();
    }
    const bool isWrapped = coordinateSize(content) != 0 && wrapped->whole.size() == value.size() &&
                           (isOfListedLength(content) || !isOfListedLength(value));
    if (isWrapped) return content;
    return coordinateSize(value) != 0 ? value : der::Bytes();
}

DataBuffer comparablePoint(der::Bytes point) {
    DataBuffer out;
    const std::size_t size = coordinateSize(point);
    if (size == 0) return out;
    const std::uint8_t sign = point[0] == 0x04 ? point.back() : point[0];
    out.appendByte(static_cast<std::uint8_t>(0x02U | (sign & 1U)));
    out.append(point.subspan(1, size));
    return out;
}

}  // namespace mervane
