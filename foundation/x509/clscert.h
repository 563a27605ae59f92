#ifndef MERVANE_FOUNDATION_X509_CLSCERT_H
#define MERVANE_FOUNDATION_X509_CLSCERT_H

#include <memory>
#include <string>

#include "../core/clsbase.h"
#include "certificate.h"
#include "systemcerts.h"

namespace mervane {

/// The public certificate object, filled in by ClsPkcs11. It outlives the ClsPkcs11 and loses only
/// the private key with it. Text properties are empty if there is no certificate. Thread rule: any
/// thread may call any method; each holds the object's lock.
class ClsCert final : public ClsBase {
  public:
    /// Shares `cert`, which must come from Certificate::createFromDer() and must not be null.
    /// Replaces any earlier certificate. Always true.
    bool injectCert(Certificate* cert, LogBase& log);

    /// The certificate, shared; null if there is none.
    [[nodiscard]] std::shared_ptr<Certificate> getCert();

    /// The subject as "C=EX, CN=Alice"; see Certificate::getSubjectDN().
    void get_SubjectDN(XString& out);
    /// Upper-case hexadecimal without separators, as is the thumbprint.
    void get_SerialNumber(XString& out);
    void get_Sha1Thumbprint(XString& out);
    /// Whether the certificate is linked to its private key in an open PKCS#11 session.
    [[nodiscard]] bool HasPrivateKey();
    /// The certificate as PEM (RFC 7468); empty if there is none.
    [[nodiscard]] std::string ExportPem();

    /// The share in a store of certificates used with this one; it has a lock of its own.
    [[nodiscard]] SystemCertsHolder& systemCerts() noexcept { return m_systemCerts; }

  private:
    using TextReader = bool (Certificate::*)(XString&, LogBase&) const;
    void readText(TextReader reader, XString& out);

    std::shared_ptr<Certificate> m_cert;
    SystemCertsHolder m_systemCerts;
};

}  // namespace mervane

#endif
