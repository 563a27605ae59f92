#include "signing/algorithm.h"

#include <array>
#include <string>

#include "foundation/digest/digest.h"

namespace mervane {
namespace {

using namespace std::string_view_literals;
using der::element;
using der::Octets;

// The last octet of an identifier that differs by the hash function.
Octets oidFor(Hash hash, std::string_view arcs, std::array<char, 3> lastOctets) {
    return der::oid(std::string(arcs) + lastOctets[static_cast<std::size_t>(hash)]);
}

Octets null() {
    return {0x05, 0x00};
}

// RSASSA-PSS-params with all that differs from its defaults (RFC 4055 3.1)
Octets pssParameters(Hash hash) {
    const Octets hashAlgorithm = element(der::kSequence, {hashOid(hash), null()});
    const Octets maskAlgorithm = element(
        der::kSequence, {der::oid("\x2A\x86\x48\x86\xF7\x0D\x01\x01\x08"sv), hashAlgorithm});
    const std::array saltLength = {static_cast<std::uint8_t>(digestSize(hash))};
    return element(der::kSequence,
                   {element(der::contextConstructed(0), {hashAlgorithm}),
                    element(der::contextConstructed(1), {maskAlgorithm}),
                    element(der::contextConstructed(2), {der::unsignedInteger(saltLength)})});
}

}  // namespace

Octets hashOid(Hash hash) {
    return oidFor(hash, "\x60\x86\x48\x01\x65\x03\x04\x02"sv, {1, 2, 3});
}

Octets digestInfo(Hash hash, der::Bytes digest) {
    return element(der::kSequence, {element(der::kSequence, {hashOid(hash), null()}),
                                    element(der::kOctetString, digest)});
}

Octets signatureAlgorithm(const Scheme& scheme) {
    // ecdsa-with-SHA256 and its like (RFC 5754 3.3)
    if (scheme.keyType == kEcKey)
        return element(der::kSequence,
                       {oidFor(scheme.hash, "\x2A\x86\x48\xCE\x3D\x04\x03"sv, {2, 3, 4})});
    if (scheme.isPss)
        return element(der::kSequence, {der::oid("\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0A"sv),
                                        pssParameters(scheme.hash)});
    // sha256WithRSAEncryption and its like (RFC 5754 3.2)
    return element(
        der::kSequence,
        {oidFor(scheme.hash, "\x2A\x86\x48\x86\xF7\x0D\x01\x01"sv, {0x0B, 0x0C, 0x0D}), null()});
}

}  // namespace mervane
