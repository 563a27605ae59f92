// Parsing finds the fields of TBSCertificate once and keeps them as windows, 32-bit offsets into
// the DER. Readers decode what they are asked for from their window, so a malformed name or
// extension fails that reader alone.
//
// Cards hold certificates that break the rules of DER and RFC 5280: negative serial numbers,
// lengths in too many octets, padding after the end, times in other forms. What can be read safely
// is read. Fields without a reader (algorithms, unique IDs, the signature) are skipped.

#include "foundation/x509/certificate.h"

#include <array>
#include <utility>

#include "foundation/digest/digest.h"
#include "foundation/digest/sha1.h"
#include "foundation/text/bytes.h"
#include "foundation/text/hex.h"
#include "foundation/x509/extensionxml.h"
#include "foundation/x509/name.h"
#include "foundation/x509/oid.h"
#include "foundation/x509/usage.h"

namespace mervane {
namespace {

using namespace std::string_view_literals;

// RFC 5280 4.2.1, as content octets.
constexpr auto kKeyUsageOid = "\x55\x1D\x0F"sv;          // 2.5.29.15
constexpr auto kBasicConstraintsOid = "\x55\x1D\x13"sv;  // 2.5.29.19
constexpr auto kPoliciesOid = "\x55\x1D\x20"sv;          // 2.5.29.32
constexpr auto kExtendedKeyUsageOid = "\x55\x1D\x25"sv;  // 2.5.29.37

bool setText(XString& out, std::optional<std::string> text) {
    if (!text) return false;
    out.takeUtf8(*std::move(text));
    return true;
}

// An INTEGER's content, which is two's complement (X.690 8.3), as sign and magnitude. RFC 5280
// forbids negative serial numbers; they exist.
std::string serialToText(der::Bytes content) {
    const bool negative = (content.front() & 0x80U) != 0;
    std::vector<std::uint8_t> magnitude(content.begin(), content.end());
    if (negative) {
        unsigned carry = 1;
        for (std::size_t i = magnitude.size(); i > 0; --i) {
            const unsigned sum = (magnitude[i - 1] ^ 0xFFU) + carry;
            magnitude[i - 1] = static_cast<std::uint8_t>(sum);
            carry = sum >> 8;
        }
    }
    std::size_t numZeros = 0;
    while (numZeros + 1 < magnitude.size() && magnitude[numZeros] == 0) ++numZeros;
    return (negative ? "-" : "") + toHex(der::Bytes(magnitude).subspan(numZeros));
}

// RFC 5280 4.1.2.5: "YYMMDDhhmmssZ" with a pivot of 50, or "YYYYMMDDhhmmssZ".
std::string timeToText(const der::Element& time) {
    std::string text(asChars(time.content));
    const bool isUtc = time.tag == der::kUtcTime;
    const bool inForm = text.size() == (isUtc ? 13 : 15) && text.back() == 'Z' &&
                        text.find_first_not_of("0123456789") == text.size() - 1;
    if (!inForm) return text;
    if (isUtc) text.insert(0, text[0] >= '5' ? "19" : "20");
    std::string out = text.substr(0, 4) + "-" + text.substr(4, 2) + "-" + text.substr(6, 2) + "T";
    return out + text.substr(8, 2) + ":" + text.substr(10, 2) + ":" + text.substr(12, 2) + "Z";
}

}  // namespace

std::shared_ptr<Certificate> Certificate::createFromDer(der::Bytes der, TokenCertInfo token,
                                                        LogBase& log) {
    // Windows are 32-bit offsets; no certificate comes near that size.
    const auto whole =
        der.size() > UINT32_MAX ? std::nullopt : der::Cursor(der).read(der::kSequence);
    std::string_view malformedField = "certificate";
    if (whole) {
        auto cert = std::make_shared<Certificate>(Private{}, whole->whole, std::move(token));
        malformedField = cert->parse();
        if (malformedField.empty()) return cert;
    }
    log.LogError("The bytes are not an X.509 certificate.");
    log.LogDataUnsigned("numBytes", der.size());
    log.LogData("malformedField", malformedField);
    return nullptr;
}

Certificate::Certificate(Private, der::Bytes der, TokenCertInfo token)
    : m_der(der), m_token(std::move(token)) {}

Certificate::Window Certificate::windowOf(der::Bytes part) const noexcept {
    return {static_cast<std::uint32_t>(part.data() - m_der.span().data()),
            static_cast<std::uint32_t>(part.size())};
}

der::Bytes Certificate::bytesOf(Window window) const noexcept {
    return m_der.span().subspan(window.at, window.size);
}

std::string_view Certificate::parse() {
    // Certificate ::= SEQUENCE {
    auto outer = der::enter(der(), der::kSequence);
    if (!outer) return "certificate";
    //     tbsCertificate       TBSCertificate,
    const auto tbs = outer->read(der::kSequence);
    if (!tbs) return "tbsCertificate";
    //     signatureAlgorithm   AlgorithmIdentifier,
    if (!outer->read(der::kSequence)) return "signatureAlgorithm";
    //     signatureValue       BIT STRING }
    if (!outer->read(der::kBitString)) return "signatureValue";
    return parseTbs(tbs->content);
}

std::string_view Certificate::parseTbs(der::Bytes content) {
    // TBSCertificate ::= SEQUENCE {
    der::Cursor tbs(content);
    //     version              [0] EXPLICIT Version DEFAULT v1,
    if (!tbs.skipOptional(der::contextConstructed(0))) return "version";
    //     serialNumber         CertificateSerialNumber,
    const auto serial = tbs.read(der::kInteger);
    if (!serial) return "serialNumber";
    //     signature            AlgorithmIdentifier,
    if (!tbs.read(der::kSequence)) return "signature";
    //     issuer               Name,
    const auto issuer = tbs.read(der::kSequence);
    if (!issuer) return "issuer";
    //     validity             Validity,
    const auto validity = tbs.read(der::kSequence);
    if (!validity) return "validity";
    //     subject              Name,
    const auto subject = tbs.read(der::kSequence);
    if (!subject) return "subject";
    //     subjectPublicKeyInfo SubjectPublicKeyInfo,
    const auto spki = tbs.read(der::kSequence);
    if (!spki) return "subjectPublicKeyInfo";
    //     issuerUniqueID       [1] IMPLICIT UniqueIdentifier OPTIONAL,
    if (!tbs.skipOptional(der::context(1))) return "issuerUniqueID";
    //     subjectUniqueID      [2] IMPLICIT UniqueIdentifier OPTIONAL,
    if (!tbs.skipOptional(der::context(2))) return "subjectUniqueID";
    m_serial = windowOf(serial->content);
    m_issuer = windowOf(issuer->whole);
    m_validity = windowOf(validity->whole);
    m_subject = windowOf(subject->whole);
    m_spki = windowOf(spki->whole);
    //     extensions           [3] EXPLICIT Extensions OPTIONAL }
    if (!tbs.nextIs(der::contextConstructed(3))) return {};
    const auto tagged = tbs.readAny();
    // Extensions ::= SEQUENCE SIZE (1..MAX) OF Extension
    const auto list = tagged ? der::Cursor(tagged->content).read(der::kSequence) : std::nullopt;
    if (!list) return "extensions";
    m_extensions = windowOf(list->content);
    return {};
}

bool Certificate::getSubjectDN(XString& out, LogBase&) const {
    return setText(out, nameToText(bytesOf(m_subject), true));
}

bool Certificate::getSubjectDN_noTags(XString& out, LogBase&) const {
    return setText(out, nameToText(bytesOf(m_subject), false));
}

bool Certificate::getIssuerDN(XString& out, LogBase&) const {
    return setText(out, nameToText(bytesOf(m_issuer), true));
}

bool Certificate::getSubjectPart(const char* part, XString& out, LogBase&) const {
    return setText(out, namePart(bytesOf(m_subject), part));
}

bool Certificate::getIssuerPart(const char* part, XString& out, LogBase&) const {
    return setText(out, namePart(bytesOf(m_issuer), part));
}

bool Certificate::getSerialNumber(XString& out, LogBase&) const {
    const der::Bytes content = bytesOf(m_serial);
    if (content.empty()) return false;
    out.setFromUtf8(serialToText(content));
    return true;
}

bool Certificate::getSha1ThumbprintX(XString& out, LogBase&) const {
    out.setFromUtf8(toHex(sha1(der())));
    return true;
}

bool Certificate::getSha256Thumbprint(XString& out, LogBase&) const {
    out.setFromUtf8(toHex(digestOf(Hash::Sha256, der())));
    return true;
}

std::optional<Certificate::Extension> Certificate::findExtension(
    std::string_view oidContent) const noexcept {
    for (der::Cursor list(bytesOf(m_extensions)); !list.atEnd();) {
        // Extension ::= SEQUENCE {
        const auto extension = list.read(der::kSequence);
        if (!extension) return std::nullopt;
        der::Cursor fields(extension->content);
        //     extnID    OBJECT IDENTIFIER,
        const auto oid = fields.read(der::kOid);
        if (!oid || asChars(oid->content) != oidContent) continue;
        //     critical  BOOLEAN DEFAULT FALSE,
        const auto critical = fields.read(der::kBoolean);
        //     extnValue OCTET STRING }
        const auto value = fields.read(der::kOctetString);
        if (!value) return std::nullopt;
        const bool isCritical = critical && !critical->content.empty() && critical->content[0] != 0;
        return Extension{isCritical, value->content};
    }
    return std::nullopt;
}

bool Certificate::getExtensionXml(const char* oid, StringBuffer& out, LogBase&) const {
    const std::string content = oidFromText(oid);
    const auto extension = content.empty() ? std::nullopt : findExtension(content);
    if (!extension) return false;
    out.setString(extensionToXml(asBytes(content), extension->critical, extension->value));
    return true;
}

// Empty without the extension.
der::Bytes Certificate::extensionValue(std::string_view oidContent) const noexcept {
    const auto extension = findExtension(oidContent);
    return extension ? extension->value : der::Bytes();
}

int Certificate::getIntendedKeyUsage(LogBase&) const {
    return keyUsageBits(extensionValue(kKeyUsageOid));
}

std::vector<std::string> Certificate::getKeyUsages() const {
    return keyUsageNames(extensionValue(kKeyUsageOid));
}

std::vector<std::string> Certificate::getExtendedKeyUsages() const {
    return extendedKeyUsageNames(extensionValue(kExtendedKeyUsageOid));
}

std::vector<std::string> Certificate::getPolicies() const {
    return policyOids(extensionValue(kPoliciesOid));
}

bool Certificate::isCa() const noexcept {
    return isCaConstraint(extensionValue(kBasicConstraintsOid));
}

bool Certificate::getValidity(std::string& notBefore, std::string& notAfter) const {
    // Validity ::= SEQUENCE { notBefore Time, notAfter Time }; Time ::= CHOICE, hence any type
    auto times = der::enter(bytesOf(m_validity), der::kSequence);
    const auto first = times ? times->readAny() : std::nullopt;
    const auto last = first ? times->readAny() : std::nullopt;
    if (!last) return false;
    notBefore = timeToText(*first);
    notAfter = timeToText(*last);
    return true;
}

int Certificate::getCertKeyType(int& bits, LogBase&) const {
    const KeyKind kind = keyKindOf(bytesOf(m_spki));
    bits = kind.bits;
    return kind.type;
}

int Certificate::expectedSignatureSize(LogBase&) const {
    return keyKindOf(bytesOf(m_spki)).signatureSize;
}

bool Certificate::getKeyAlgorithm(XString& out, LogBase&) const {
    const std::string oid = oidToText(keyAlgorithmOf(bytesOf(m_spki)));
    return setText(out, oid.empty() ? std::nullopt : std::optional(oid));
}

bool Certificate::getCertPublicKey(_mvPublicKey& out, LogBase&) const {
    return out.loadSpki(bytesOf(m_spki));
}

bool Certificate::getPartDer(int part, DataBuffer& out, LogBase&) const {
    if (part != 1 || !isWellFormedName(bytesOf(m_subject))) return false;
    out.assign(bytesOf(m_subject));
    return true;
}

void Certificate::linkToPkcs11Session(const Pkcs11SessionOwner* owner, int keyType,
                                      int expectedSignatureSize, unsigned long keyHandle, LogBase&,
                                      const PrivateKeyFacts& facts) {
    const auto& anchor = owner->sessionAnchor();
    const CritSecExitor lock(m_linkSection);
    m_link = {anchor, anchor->session(), keyType, expectedSignatureSize, keyHandle, facts};
    m_wasLinked = true;
}

std::optional<Certificate::Pkcs11Link> Certificate::pkcs11Link() const {
    const CritSecExitor lock(m_linkSection);
    const auto anchor = m_link.anchor.lock();
    if (!anchor || m_link.sessionNumber == 0 || anchor->session() != m_link.sessionNumber) {
        return std::nullopt;
    }
    return Pkcs11Link{Pkcs11LinkOwner(anchor), m_link.keyType, m_link.expectedSignatureSize,
                      m_link.keyHandle, m_link.facts};
}

void Certificate::unlinkFromPkcs11Session() noexcept {
    const CritSecExitor lock(m_linkSection);
    m_link = Link();
}

bool Certificate::wasLinkedToPkcs11() const {
    const CritSecExitor lock(m_linkSection);
    return m_wasLinked && !pkcs11Link();
}

bool Certificate::hasPrivateKey(bool mustBeUsable, LogBase&) const {
    const auto link = pkcs11Link();
    return link && (!mustBeUsable || link->keyHandle != 0);
}

}  // namespace mervane
