#include "signing/cms.h"

#include "foundation/digest/digest.h"
#include "signing/algorithm.h"

namespace mervane::cms {
namespace {

using namespace std::string_view_literals;
using der::element;
using der::Octets;

// RFC 5652 4, 5.1, 11.1 to 11.3
constexpr auto kData = "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x01"sv;
constexpr auto kSignedData = "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x02"sv;
constexpr auto kContentType = "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x03"sv;
constexpr auto kMessageDigest = "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x04"sv;
constexpr auto kSigningTime = "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x05"sv;
// RFC 5035 5
constexpr auto kSigningCertificateV2 = "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x10\x02\x2F"sv;

// Attribute ::= SEQUENCE { attrType OBJECT IDENTIFIER, attrValues SET OF AttributeValue }
Octets attribute(std::string_view type, Octets value) {
    return element(der::kSequence, {der::oid(type), element(der::kSet, {std::move(value)})});
}

// SigningCertificateV2 ::= SEQUENCE { certs SEQUENCE OF ESSCertIDv2, .. }
// ESSCertIDv2 ::= SEQUENCE { hashAlgorithm DEFAULT id-sha256, certHash OCTET STRING, .. }
Octets signingCertificate(const Certificate& signer) {
    const auto digest = digestOf(Hash::Sha256, signer.der());
    const Octets id = element(der::kSequence, {element(der::kOctetString, digest)});
    return element(der::kSequence, {element(der::kSequence, {id})});
}

Octets copyOf(der::Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

// SignerInfo ::= SEQUENCE { version, sid, digestAlgorithm, signedAttrs [0], signatureAlgorithm,
//   signature OCTET STRING } with IssuerAndSerialNumber as sid
Octets signerInfo(const Scheme& scheme, const Certificate& signer, der::Bytes attributes,
                  der::Bytes signature) {
    Octets tagged = copyOf(attributes);
    tagged[0] = der::contextConstructed(0);  // implicit, in place of SET OF (RFC 5652 5.4)
    return element(der::kSequence,
                   {der::unsignedInteger(std::array<std::uint8_t, 1>{1}),
                    element(der::kSequence, {copyOf(signer.issuer()),
                                             element(der::kInteger, signer.serialNumber())}),
                    element(der::kSequence, {hashOid(scheme.hash)}), std::move(tagged),
                    signatureAlgorithm(scheme), element(der::kOctetString, signature)});
}

}  // namespace

Octets signedAttributes(const Certificate& signer, der::Bytes messageDigest,
                        std::string_view time) {
    return der::setOf({attribute(kContentType, der::oid(kData)),
                       attribute(kMessageDigest, element(der::kOctetString, messageDigest)),
                       attribute(kSigningTime, der::time(time)),
                       attribute(kSigningCertificateV2, signingCertificate(signer))});
}

// SignedData ::= SEQUENCE { version, digestAlgorithms SET, encapContentInfo, certificates [0],
//   signerInfos SET OF SignerInfo }
Octets signedData(const Scheme& scheme, const Certificate& signer, der::Bytes attributes,
                  der::Bytes signature, const Octets* content,
                  const std::vector<std::shared_ptr<Certificate>>& certs) {
    std::vector<Octets> encoded;
    encoded.reserve(certs.size());
    for (const auto& cert : certs) encoded.push_back(copyOf(cert->der()));
    Octets encapsulated = der::oid(kData);
    if (content != nullptr) {
        const Octets tagged =
            element(der::contextConstructed(0), {element(der::kOctetString, der::Bytes(*content))});
        encapsulated.insert(encapsulated.end(), tagged.begin(), tagged.end());
    }
    const Octets body = element(
        der::kSequence, {der::unsignedInteger(std::array<std::uint8_t, 1>{1}),
                         element(der::kSet, {element(der::kSequence, {hashOid(scheme.hash)})}),
                         element(der::kSequence, {std::move(encapsulated)}),
                         der::setOf(std::move(encoded), der::contextConstructed(0)),
                         element(der::kSet, {signerInfo(scheme, signer, attributes, signature)})});
    return element(der::kSequence,
                   {der::oid(kSignedData), element(der::contextConstructed(0), {body})});
}

}  // namespace mervane::cms
