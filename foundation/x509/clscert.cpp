#include "foundation/x509/clscert.h"

#include <type_traits>
#include <utility>

#include "foundation/core/guarded.h"
#include "foundation/text/base64.h"
#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"

namespace mervane {
namespace {

std::string toPem(der::Bytes der) {
    constexpr std::size_t kLineLength = 64;  // RFC 7468 section 2
    const std::string base64 = toBase64(der);
    std::string out = "-----BEGIN CERTIFICATE-----\n";
    for (std::size_t at = 0; at < base64.size(); at += kLineLength) {
        out.append(base64, at, kLineLength).push_back('\n');
    }
    return out + "-----END CERTIFICATE-----\n";
}

std::pair<std::string, std::string> validityOf(const Certificate& cert) {
    std::pair<std::string, std::string> times;
    cert.getValidity(times.first, times.second);
    return times;
}

// What `read` returns for the certificate; an empty value if there is none, or no memory.
template <class Read>
auto valueOf(ClsCert& object, Read read) {
    const CritSecExitor lock(object);
    const auto cert = object.getCert();
    using Value = std::invoke_result_t<Read, const Certificate&>;
    return guarded(object.log(), [&] { return cert ? read(*cert) : Value(); });
}

// The same for a text, which is cleared if there is none: the caller's old text would look like the
// answer.
template <class Read>
void readText(ClsCert& object, XString& out, Read read) {
    const bool isKnown = valueOf(object, [&](const Certificate& cert) { return read(cert, out); });
    if (!isKnown) out.clear();
}

using TextReader = bool (Certificate::*)(XString&, LogBase&) const;

void readText(ClsCert& object, XString& out, TextReader reader) {
    readText(object, out, [&](const Certificate& cert, XString& text) {
        return (cert.*reader)(text, object.log());
    });
}

using PartReader = bool (Certificate::*)(const char*, XString&, LogBase&) const;

void readCN(ClsCert& object, XString& out, PartReader reader) {
    readText(object, out, [&](const Certificate& cert, XString& text) {
        return (cert.*reader)("CN", text, object.log());
    });
}

}  // namespace

bool ClsCert::injectCert(Certificate* cert, LogBase&) {
    const CritSecExitor lock(*this);
    m_cert = cert->shared_from_this();
    return true;
}

std::shared_ptr<Certificate> ClsCert::getCert() {
    const CritSecExitor lock(*this);
    return m_cert;
}

void ClsCert::get_SubjectDN(XString& out) {
    readText(*this, out, &Certificate::getSubjectDN);
}

void ClsCert::get_IssuerDN(XString& out) {
    readText(*this, out, &Certificate::getIssuerDN);
}

void ClsCert::get_SerialNumber(XString& out) {
    readText(*this, out, &Certificate::getSerialNumber);
}

void ClsCert::get_Sha1Thumbprint(XString& out) {
    readText(*this, out, &Certificate::getSha1ThumbprintX);
}

void ClsCert::get_Sha256Thumbprint(XString& out) {
    readText(*this, out, &Certificate::getSha256Thumbprint);
}

void ClsCert::get_SubjectCN(XString& out) {
    readCN(*this, out, &Certificate::getSubjectPart);
}

void ClsCert::get_IssuerCN(XString& out) {
    readCN(*this, out, &Certificate::getIssuerPart);
}

void ClsCert::get_NotBefore(XString& out) {
    readText(*this, out, [](const Certificate& cert, XString& text) {
        text.takeUtf8(validityOf(cert).first);
        return true;
    });
}

void ClsCert::get_NotAfter(XString& out) {
    readText(*this, out, [](const Certificate& cert, XString& text) {
        text.takeUtf8(validityOf(cert).second);
        return true;
    });
}

void ClsCert::get_Label(XString& out) {
    readText(*this, out, [](const Certificate& cert, XString& text) {
        text.takeUtf8(toValidUtf8(cert.tokenInfo().label));
        return true;
    });
}

void ClsCert::get_CkaId(XString& out) {
    readText(*this, out, [](const Certificate& cert, XString& text) {
        text.takeUtf8(toHex(cert.tokenInfo().ckaId.span()));
        return true;
    });
}

std::vector<std::string> ClsCert::KeyUsages() {
    return valueOf(*this, [](const Certificate& cert) { return cert.getKeyUsages(); });
}

std::vector<std::string> ClsCert::ExtendedKeyUsages() {
    return valueOf(*this, [](const Certificate& cert) { return cert.getExtendedKeyUsages(); });
}

std::vector<std::string> ClsCert::Policies() {
    return valueOf(*this, [](const Certificate& cert) { return cert.getPolicies(); });
}

bool ClsCert::IsCa() {
    return valueOf(*this, [](const Certificate& cert) { return cert.isCa(); });
}

int ClsCert::get_KeyType() {
    return valueOf(*this, [this](const Certificate& cert) {
        int bits = 0;
        return cert.getCertKeyType(bits, log());
    });
}

int ClsCert::get_KeyBits() {
    return valueOf(*this, [this](const Certificate& cert) {
        int bits = 0;
        cert.getCertKeyType(bits, log());
        return bits;
    });
}

bool ClsCert::HasPrivateKey() {
    return valueOf(*this,
                   [this](const Certificate& cert) { return cert.hasPrivateKey(true, log()); });
}

std::optional<Certificate::Pkcs11Link> ClsCert::PrivateKeyLink() {
    return valueOf(*this, [](const Certificate& cert) { return cert.pkcs11Link(); });
}

std::string ClsCert::ExportPem() {
    return valueOf(*this, [](const Certificate& cert) { return toPem(cert.der()); });
}

std::vector<std::uint8_t> ClsCert::ExportDer() {
    return valueOf(*this, [](const Certificate& cert) {
        return std::vector<std::uint8_t>(cert.der().begin(), cert.der().end());
    });
}

}  // namespace mervane
