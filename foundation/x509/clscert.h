#ifndef MERVANE_FOUNDATION_X509_CLSCERT_H
#define MERVANE_FOUNDATION_X509_CLSCERT_H

#include <memory>
#include <string>

#include "../core/clsbase.h"
#include "certificate.h"
#include "systemcerts.h"

namespace mervane {

/// The public certificate object. It is filled by ClsPkcs11 and stays usable when that is gone;
/// then only the way to the private key is lost. Text properties are empty without a certificate.
/// Thread rule: every method holds the object's critical section.
class ClsCert final : public ClsBase {
  public:
    /// Takes a share of a certificate. `cert` must come from Certificate::createFromDer and not be
    /// null.
    bool injectCert(Certificate* cert, LogBase& log);

    /// A share of the certificate for its readers; null when there is none.
    [[nodiscard]] std::shared_ptr<Certificate> getCert();

    /// The subject as "TAG=value, TAG=value".
    void get_SubjectDN(XString& out);
    /// Upper-case hexadecimal.
    void get_SerialNumber(XString& out);
    /// Upper-case hexadecimal.
    void get_Sha1Thumbprint(XString& out);
    /// The private key can be reached through an open PKCS#11 session.
    [[nodiscard]] bool HasPrivateKey();
    /// RFC 7468 text; empty without a certificate.
    [[nodiscard]] std::string ExportPem();

    [[nodiscard]] SystemCertsHolder& systemCerts() noexcept { return m_systemCerts; }

  private:
    using TextReader = bool (Certificate::*)(XString&, LogBase&) const;
    void readText(TextReader reader, XString& out);

    std::shared_ptr<Certificate> m_cert;
    SystemCertsHolder m_systemCerts;
};

}  // namespace mervane

#endif
