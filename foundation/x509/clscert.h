#ifndef MERVANE_FOUNDATION_X509_CLSCERT_H
#define MERVANE_FOUNDATION_X509_CLSCERT_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../core/clsbase.h"
#include "certificate.h"
#include "systemcerts.h"

namespace mervane {

/// The public certificate object, filled in by ClsPkcs11. It may outlive the ClsPkcs11; it
/// then loses only its link to the private key. Text properties are empty if there is no
/// certificate. Thread rule: any thread may call any method; each holds the object's lock.
class ClsCert final : public ClsBase {
  public:
    /// Shares `cert`, which must come from Certificate::createFromDer() and must not be null.
    /// Replaces any earlier certificate. Always true.
    bool injectCert(Certificate* cert, LogBase& log);

    /// The certificate, shared; null if there is none.
    [[nodiscard]] std::shared_ptr<Certificate> getCert();

    // --- Names and numbers

    /// @{
    /// The subject and the issuer as "C=EX, CN=Alice"; see Certificate::getSubjectDN().
    void get_SubjectDN(XString& out);
    void get_IssuerDN(XString& out);
    /// @}
    /// @{
    /// The first common name of each, unescaped.
    void get_SubjectCN(XString& out);
    void get_IssuerCN(XString& out);
    /// @}
    /// @{
    /// Upper-case hexadecimal without separators, as are the thumbprints.
    void get_SerialNumber(XString& out);
    void get_Sha1Thumbprint(XString& out);
    void get_Sha256Thumbprint(XString& out);
    /// @}
    /// @{
    /// Start and end of validity, "YYYY-MM-DDThh:mm:ssZ"; a time in another form is left as it is.
    void get_NotBefore(XString& out);
    void get_NotAfter(XString& out);
    /// @}

    // --- What it is for

    /// @{
    /// Names as in RFC 5280, others as dotted OIDs; at most 1,000 of each.
    [[nodiscard]] std::vector<std::string> KeyUsages();
    [[nodiscard]] std::vector<std::string> ExtendedKeyUsages();
    [[nodiscard]] std::vector<std::string> Policies();
    /// @}
    /// Whether the basic constraints say that the subject is a CA.
    [[nodiscard]] bool IsCa();

    // --- The key

    /// @{
    /// A KeyType (1 RSA, 3 EC, 0 other), and its size in bits.
    [[nodiscard]] int get_KeyType();
    [[nodiscard]] int get_KeyBits();
    /// @}
    /// Whether the certificate is linked to its private key in an open PKCS#11 session.
    [[nodiscard]] bool HasPrivateKey();
    /// The link: the key's handle, the rule that found it, whether it may sign; nullopt if there is
    /// no link.
    [[nodiscard]] std::optional<Certificate::Pkcs11Link> PrivateKeyLink();

    // --- The token's object that it was read from

    /// CKA_LABEL; ill-formed bytes become U+FFFD.
    void get_Label(XString& out);
    /// CKA_ID in upper-case hexadecimal.
    void get_CkaId(XString& out);

    // --- As a whole; empty if there is no certificate

    /// PEM (RFC 7468).
    [[nodiscard]] std::string ExportPem();
    /// DER, as the token has it.
    [[nodiscard]] std::vector<std::uint8_t> ExportDer();

    /// The store of certificates used with this one, which objects may share. It has its own lock.
    [[nodiscard]] SystemCertsHolder& systemCerts() noexcept { return m_systemCerts; }

  private:
    std::shared_ptr<Certificate> m_cert;
    SystemCertsHolder m_systemCerts;
};

}  // namespace mervane

#endif
