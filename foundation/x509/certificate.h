#ifndef MERVANE_FOUNDATION_X509_CERTIFICATE_H
#define MERVANE_FOUNDATION_X509_CERTIFICATE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../core/critsec.h"
#include "../core/object.h"
#include "../log/logbase.h"
#include "../text/databuffer.h"
#include "../text/stringbuffer.h"
#include "../text/xstring.h"
#include "der.h"
#include "keylink.h"
#include "publickey.h"
#include "sessionanchor.h"

namespace mervane {

/// The token object that a certificate was read from.
struct TokenCertInfo {
    unsigned long handle = 0;  ///< CKO_CERTIFICATE handle, in the session it was read in
    DataBuffer ckaId;          ///< CKA_ID; empty if the object has none
    std::string label;         ///< CKA_LABEL as the module returned it, not checked
};

/// A parsed X.509 certificate (RFC 5280), shared by the cache it was read into and by everyone who
/// was handed it.
///
/// A certificate is its DER plus windows on the fields of TBSCertificate, found once at creation.
/// Everything else is decoded from the windows on each request and not kept: most callers want one
/// or two fields of many certificates, and immutable data can be read by any number of threads
/// without a lock. Only the outer structure is checked at creation; a field may still be malformed
/// inside. A reader then returns false and leaves its output untouched. Nothing here verifies a
/// signature.
///
/// The one mutable part is the link to a PKCS#11 session, which has a lock of its own. It holds no
/// pointer that could dangle: once the owner is gone or has another session, the certificate simply
/// is not linked.
class Certificate final : public std::enable_shared_from_this<Certificate> {
    struct Private {};  // only createFromDer() can construct

  public:
    /// Parses the certificate at the front of `der`, which is copied; trailing bytes are ignored,
    /// since some cards pad. On failure returns null and logs an error line and the name of the
    /// malformed field (as in RFC 5280 4.1).
    static std::shared_ptr<Certificate> createFromDer(der::Bytes der, TokenCertInfo token,
                                                      LogBase& log);
    /// The same for a certificate that is not from a token.
    static std::shared_ptr<Certificate> createFromDer(der::Bytes der, LogBase& log) {
        return createFromDer(der, {}, log);
    }

    /// For createFromDer().
    Certificate(Private, der::Bytes der, TokenCertInfo token);
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;
    ~Certificate() = default;

    /// The whole certificate; valid as long as this object.
    [[nodiscard]] der::Bytes der() const noexcept { return m_der.span(); }
    /// Empty if the certificate is not from a token.
    [[nodiscard]] const TokenCertInfo& tokenInfo() const noexcept { return m_token; }

    // --- Names, UTF-8

    /// @{
    /// "C=EX, CN=Alice": escaped and abbreviated as in RFC 4514, but in the certificate's order and
    /// with a space after each comma. The _noTags form has the values alone.
    bool getSubjectDN(XString& out, LogBase& log) const;
    bool getSubjectDN_noTags(XString& out, LogBase& log) const;
    bool getIssuerDN(XString& out, LogBase& log) const;
    /// @}
    /// @{
    /// The first value, unescaped, of the attribute type `part`: "CN", "O", "E", .. in upper case,
    /// or a dotted OID. False if the name has none.
    bool getSubjectPart(const char* part, XString& out, LogBase& log) const;
    bool getIssuerPart(const char* part, XString& out, LogBase& log) const;
    /// @}

    // --- Other fields

    /// Upper-case hexadecimal without separators or leading zero octets; "-" and the magnitude for
    /// a negative number.
    bool getSerialNumber(XString& out, LogBase& log) const;
    /// @{
    /// SHA-1 and SHA-256 of the DER: 40 and 64 upper-case hexadecimal digits.
    bool getSha1ThumbprintX(XString& out, LogBase& log) const;
    bool getSha256Thumbprint(XString& out, LogBase& log) const;
    /// @}
    /// The first extension with this dotted OID, as one line of XML (format in extensionxml.h).
    bool getExtensionXml(const char* oid, StringBuffer& out, LogBase& log) const;
    /// The first octet of KeyUsage (RFC 5280 4.2.1.3): 0x80 digitalSignature, 0x40 nonRepudiation,
    /// and so on; 0 without the extension.
    int getIntendedKeyUsage(LogBase& log) const;
    /// @{
    /// What the certificate may be used for, as in usage.h; empty without the extension.
    [[nodiscard]] std::vector<std::string> getKeyUsages() const;
    [[nodiscard]] std::vector<std::string> getExtendedKeyUsages() const;
    [[nodiscard]] std::vector<std::string> getPolicies() const;
    /// @}
    /// Whether the basic constraints say that the subject is a CA.
    [[nodiscard]] bool isCa() const noexcept;
    /// "YYYY-MM-DDThh:mm:ssZ"; a time in another form is copied as it is in the certificate.
    bool getValidity(std::string& notBefore, std::string& notAfter) const;

    // --- Key
    /// Returns a KeyType and sets `bits` to the size of the modulus or the field, 0 for other keys.
    /// An EC key (id-ecPublicKey) may be on any curve: if neither its name nor explicit parameters
    /// tell the field (an unknown name, none, implicitlyCA, malformed parameters), the length of
    /// the point does. A key that is malformed beyond that counts as other.
    int getCertKeyType(int& bits, LogBase& log) const;
    /// Length in bytes of the private key's signatures: that of the modulus, or twice that of the
    /// curve's order; 0 for other keys.
    int expectedSignatureSize(LogBase& log) const;
    /// The dotted OID of the key's algorithm, whatever its type.
    bool getKeyAlgorithm(XString& out, LogBase& log) const;
    /// Decodes the public key; false for keys that _mvPublicKey::loadSpki() does not support.
    bool getCertPublicKey(_mvPublicKey& out, LogBase& log) const;
    /// @{
    /// The whole SubjectPublicKeyInfo, the whole issuer, and the content of the serial number;
    /// valid as long as this object.
    [[nodiscard]] der::Bytes spki() const noexcept { return bytesOf(m_spki); }
    [[nodiscard]] der::Bytes issuer() const noexcept { return bytesOf(m_issuer); }
    [[nodiscard]] der::Bytes serialNumber() const noexcept { return bytesOf(m_serial); }
    /// @}
    /// The DER of one field: 1 is the subject; any other number, or a malformed subject, is false.
    bool getPartDer(int part, DataBuffer& out, LogBase& log) const;

    // --- Link to the session that holds the private key. Any thread may call these.

    /// Records `owner` and its current session, the key type (1 RSA, 3 EC), the length of the key's
    /// signatures in bytes, the private key's handle, and what is known of the key, for signing
    /// later. Replaces any earlier link. `owner` must not be null.
    void linkToPkcs11Session(const Pkcs11SessionOwner* owner, int keyType,
                             int expectedSignatureSize, unsigned long keyHandle, LogBase& log,
                             const PrivateKeyFacts& facts = {});
    /// Drops the link, if there is one.
    void unlinkFromPkcs11Session() noexcept;

    /// What linkToPkcs11Session() recorded.
    struct Pkcs11Link {
        Pkcs11LinkOwner owner;      ///< whose session it is
        int keyType;                ///< a KeyType
        int expectedSignatureSize;  ///< bytes
        unsigned long keyHandle;    ///< CKO_PRIVATE_KEY handle, in that session
        PrivateKeyFacts facts;      ///< what is known of the key
    };
    /// The link; nullopt once the owner is gone or the session it was made under has ended.
    [[nodiscard]] std::optional<Pkcs11Link> pkcs11Link() const;
    /// Whether pkcs11Link() has a value.
    [[nodiscard]] bool isLinkedToPkcs11() const { return pkcs11Link().has_value(); }
    /// Whether there was a link whose session has ended since.
    [[nodiscard]] bool wasLinkedToPkcs11() const;
    /// Whether there is a link with a key handle; unless `mustBeUsable`, any link will do.
    bool hasPrivateKey(bool mustBeUsable, LogBase& log) const;

  private:
    // A range of m_der, in bytes.
    struct Window {
        std::uint32_t at = 0;
        std::uint32_t size = 0;
    };

    // Set the windows. Return the name of the malformed field, empty if there is none.
    [[nodiscard]] std::string_view parse();
    [[nodiscard]] std::string_view parseTbs(der::Bytes content);
    [[nodiscard]] Window windowOf(der::Bytes part) const noexcept;
    [[nodiscard]] der::Bytes bytesOf(Window window) const noexcept;

    struct Extension {
        bool critical = false;
        der::Bytes value;
    };
    [[nodiscard]] std::optional<Extension> findExtension(
        std::string_view oidContent) const noexcept;
    [[nodiscard]] der::Bytes extensionValue(std::string_view oidContent) const noexcept;

    DataBuffer m_der;
    TokenCertInfo m_token;
    Window m_serial;      // content of the INTEGER
    Window m_issuer;      // whole Name
    Window m_validity;    // whole SEQUENCE
    Window m_subject;     // whole Name
    Window m_spki;        // whole SubjectPublicKeyInfo
    Window m_extensions;  // content of Extensions; empty if there are none

    // The session number tells apart the sessions of one owner.
    struct Link {
        std::weak_ptr<Pkcs11SessionAnchor> anchor;
        std::uint64_t sessionNumber = 0;
        int keyType = 0;
        int expectedSignatureSize = 0;
        unsigned long keyHandle = 0;
        PrivateKeyFacts facts;
    };
    mutable MervaneCritSec m_linkSection;  // guards the two
    Link m_link;
    bool m_wasLinked = false;
};

/// A share of one certificate, as an element of an ExtPtrArray.
class CertificateHolder final : public NonRefCountedObj {
  public:
    /// `cert` may be null.
    explicit CertificateHolder(std::shared_ptr<Certificate> cert) noexcept
        : m_cert(std::move(cert)) {}

    /// The certificate, or null; valid while the holder or any other share of it lives.
    [[nodiscard]] Certificate* getCertPtr(LogBase&) const noexcept { return m_cert.get(); }
    /// The same, to be shared.
    [[nodiscard]] const std::shared_ptr<Certificate>& share() const noexcept { return m_cert; }

  private:
    std::shared_ptr<Certificate> m_cert;
};

}  // namespace mervane

#endif
