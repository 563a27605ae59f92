#include "foundation/x509/clscert.h"

#include "foundation/core/guarded.h"
#include "foundation/text/base64.h"

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

void ClsCert::readText(TextReader reader, XString& out) {
    const CritSecExitor lock(*this);
    const bool known = guarded(m_log, [&] { return m_cert && ((*m_cert).*reader)(out, m_log); });
    if (!known) out.clear();  // the caller's old text would look like the answer
}

void ClsCert::get_SubjectDN(XString& out) {
    readText(&Certificate::getSubjectDN, out);
}

void ClsCert::get_SerialNumber(XString& out) {
    readText(&Certificate::getSerialNumber, out);
}

void ClsCert::get_Sha1Thumbprint(XString& out) {
    readText(&Certificate::getSha1ThumbprintX, out);
}

bool ClsCert::HasPrivateKey() {
    const CritSecExitor lock(*this);
    return m_cert && m_cert->hasPrivateKey(true, m_log);
}

std::string ClsCert::ExportPem() {
    const CritSecExitor lock(*this);
    if (!m_cert) return {};
    return guarded(m_log, [this] { return toPem(m_cert->der()); });
}

}  // namespace mervane
