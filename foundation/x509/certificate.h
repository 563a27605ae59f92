#ifndef MERVANE_FOUNDATION_X509_CERTIFICATE_H
#define MERVANE_FOUNDATION_X509_CERTIFICATE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "../core/critsec.h"
#include "../core/object.h"
#include "../log/logbase.h"
#include "../text/databuffer.h"
#include "../text/stringbuffer.h"
#include "../text/xstring.h"
#include "der.h"
#include "publickey.h"
#include "sessionanchor.h"

namespace mervane {

/// The token object that a certificate was read from.
struct TokenCertInfo {
    unsigned long handle = 0;  ///< of the CKO_CERTIFICATE object, in the session it was read in
    DataBuffer ckaId;          ///< CKA_ID; empty when the object has none
    std::string label;         ///< CKA_LABEL as the module gave it
};

/// A parsed X.509 certificate (RFC 5280), shared between a cache and everybody it was given to.
///
/// It keeps its DER and windows into it, made once; everything else is decoded when asked for and
/// not kept, so that reading needs no lock. Each reader reports whether the value could be had and
/// leaves its output alone when not.
///
/// The link to a PKCS#11 session may be made and dropped by the session's owner while other threads
/// ask for it. It holds no pointer that can dangle: when the owner is gone or has another session,
/// the certificate simply is not linked.
class Certificate final : public std::enable_shared_from_this<Certificate> {
    struct Private {};  // keeps construction within createFromDer

  public:
    /// The certificate at the front of `der`; bytes behind it (some cards pad) are ignored. Null,
    /// with an error line, when there is none.
    static std::shared_ptr<Certificate> createFromDer(der::Bytes der, TokenCertInfo token,
                                                      LogBase& log);
    static std::shared_ptr<Certificate> createFromDer(der::Bytes der, LogBase& log) {
        return createFromDer(der, {}, log);
    }

    Certificate(Private, der::Bytes der, TokenCertInfo token);
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;
    ~Certificate() = default;

    [[nodiscard]] der::Bytes der() const noexcept { return m_der.span(); }
    [[nodiscard]] const TokenCertInfo& tokenInfo() const noexcept { return m_token; }

    // --- Names. Forms as nameToText() and namePart() have them.
    bool getSubjectDN(XString& out, LogBase& log) const;
    bool getSubjectDN_noTags(XString& out, LogBase& log) const;
    bool getIssuerDN(XString& out, LogBase& log) const;
    /// The first value of the type that `part` names ("CN", "O", "E", .. or a dotted OID).
    bool getSubjectPart(const char* part, XString& out, LogBase& log) const;
    bool getIssuerPart(const char* part, XString& out, LogBase& log) const;

    /// Upper-case hexadecimal without separators, the leading zero octet of a positive number
    /// removed; "-" and the magnitude for a negative one.
    bool getSerialNumber(XString& out, LogBase& log) const;
    /// Upper-case hexadecimal, 40 digits.
    bool getSha1ThumbprintX(XString& out, LogBase& log) const;
    /// The first extension with this dotted OID, as extensionToXml() writes it.
    bool getExtensionXml(const char* oid, StringBuffer& out, LogBase& log) const;
    /// The first octet of the KeyUsage bits (RFC 5280 4.2.1.3, 0x80 digitalSignature); 0 when the
    /// certificate lacks the extension.
    int getIntendedKeyUsage(LogBase& log) const;
    /// "YYYY-MM-DDThh:mm:ssZ"; an out-of-form time as the certificate has it.
    bool getValidity(std::string& notBefore, std::string& notAfter) const;

    // --- Key
    /// 1 RSA, 3 EC, 0 any other; `bits` is the size of the modulus or the field, 0 with type 0.
    int getCertKeyType(int& bits, LogBase& log) const;
    bool getCertPublicKey(_mvPublicKey& out, LogBase& log) const;
    /// The DER of a part: 1 the subject name. False for other numbers and a malformed name.
    bool getPartDer(int part, DataBuffer& out, LogBase& log) const;

    // --- Link to the session that holds the private key

    /// Records the owner, the key type code, the length of its signatures in bytes and the handle
    /// of the private key, for later signing. Replaces an earlier link.
    void linkToPkcs11Session(const Pkcs11SessionOwner* owner, int keyType,
                             int expectedSignatureSize, unsigned long keyHandle, LogBase& log);
    void unlinkFromPkcs11Session() noexcept;

    /// What linkToPkcs11Session() recorded.
    struct Pkcs11Link {
        Pkcs11LinkOwner owner;
        int keyType;
        int expectedSignatureSize;
        unsigned long keyHandle;
    };
    /// The link as long as it holds: owner alive, the session it was made under open.
    [[nodiscard]] std::optional<Pkcs11Link> pkcs11Link() const;
    [[nodiscard]] bool isLinkedToPkcs11() const { return pkcs11Link().has_value(); }
    /// Whether the private key can be reached: a link that holds a key handle. With `mustBeUsable`
    /// false a link alone counts.
    bool hasPrivateKey(bool mustBeUsable, LogBase& log) const;

  private:
    // Where in m_der a part lies.
    struct Window {
        std::uint32_t at = 0;
        std::uint32_t size = 0;
    };

    [[nodiscard]] bool parse();
    [[nodiscard]] Window windowOf(der::Bytes part) const noexcept;
    [[nodiscard]] der::Bytes bytesOf(Window window) const noexcept;

    struct Extension {
        bool critical = false;
        der::Bytes value;
    };
    [[nodiscard]] std::optional<Extension> findExtension(
        std::string_view oidContent) const noexcept;

    DataBuffer m_der;
    TokenCertInfo m_token;
    Window m_serial;      // content of the INTEGER
    Window m_issuer;      // whole Name
    Window m_validity;    // whole SEQUENCE
    Window m_subject;     // whole Name
    Window m_spki;        // whole SubjectPublicKeyInfo
    Window m_extensions;  // content of the SEQUENCE OF Extension; empty when there is none

    // The session's number tells a link of an earlier session of the same owner.
    struct Link {
        std::weak_ptr<Pkcs11SessionAnchor> anchor;
        std::uint64_t sessionNumber = 0;
        int keyType = 0;
        int expectedSignatureSize = 0;
        unsigned long keyHandle = 0;
    };
    mutable MervaneCritSec m_linkSection;  // guards m_link
    Link m_link;
};

/// An array element that holds one certificate, shared with others.
class CertificateHolder final : public NonRefCountedObj {
  public:
    explicit CertificateHolder(std::shared_ptr<Certificate> cert) noexcept
        : m_cert(std::move(cert)) {}

    /// Null when it holds none. Valid while the holder, or a share of it, lives.
    [[nodiscard]] Certificate* getCertPtr(LogBase&) const noexcept { return m_cert.get(); }
    [[nodiscard]] const std::shared_ptr<Certificate>& share() const noexcept { return m_cert; }

  private:
    std::shared_ptr<Certificate> m_cert;
};

}  // namespace mervane

#endif
