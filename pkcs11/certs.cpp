// The certificate cache, its enumeration, and the choice of one certificate.
//
// The cache holds the token's X.509 certificates in the order in which the module lists them.
// FindAllCerts reads them anew each time, because another program may have changed the token;
// FindCert reads them only when they have not been read since the last login, and get_NumCerts and
// GetCert never do.
//
// FindCert walks the cache once. Asked for "privateKey" it takes the first certificate whose key is
// found, except that certificates of one authentication CA are set aside in favour of any that
// follows; asked for anything else it applies the one match rule whose keyword the question
// contains, and takes the first certificate that fits. Rules are rows of a table below: a new one
// is a row at its place in the order.

#include <array>

#include "pkcs11/clspkcs11.h"
#include "pkcs11/frame.h"

namespace mervane {
namespace {

CertificateHolder* holderAt(const ExtPtrArray& certs, int index) noexcept {
    return static_cast<CertificateHolder*>(certs.elementAt(index));
}

// What a match rule looks at: the certificate, the normalised part name, and the value wanted.
struct Question {
    const Certificate& cert;
    std::string_view part;
    std::string_view value;
    LogBase& log;
};

using TextReader = bool (Certificate::*)(XString&, LogBase&) const;

// Reads a text, and logs it before it is compared.
template <TextReader Reader>
bool read(const Question& q, XString& text) {
    if (!(q.cert.*Reader)(text, q.log)) return false;
    q.log.LogDataX("checking", text);
    return true;
}

template <TextReader Reader>
bool textEquals(const Question& q) {
    XString text;
    return read<Reader>(q, text) && text.view() == q.value;
}

template <TextReader Reader>
bool textEqualsIgnoreCase(const Question& q) {
    XString text;
    return read<Reader>(q, text) && equalsIgnoreCase(text.view(), q.value);
}

// "SERIAL:issuer CN", for each of the three issuer keywords.
bool issuerAndSerialEqual(const Question& q) {
    XString serial;
    XString issuer;
    if (!q.cert.getSerialNumber(serial, q.log) || !q.cert.getIssuerPart("CN", issuer, q.log))
        return false;
    std::string joined(serial.view());
    joined.append(":").append(issuer.view());
    q.log.LogData("checking", joined);
    return joined == q.value;
}

bool hasPolicy(const Question& q) {
    StringBuffer xml;
    if (!q.cert.getExtensionXml("2.5.29.32", xml, q.log)) return false;
    std::string wanted = "<oid>";
    wanted.append(trimmed(q.value)).append("</oid>");
    return xml.containsSubstring(wanted);
}

struct Usage {
    std::string_view name;
    int bit;
};

// Bits of the first octet of KeyUsage (RFC 5280 4.2.1.3). "offlinecrlsign" is an older name for the
// bit of "crlsigning".
constexpr std::array kUsages = {
    Usage{"nonrepudiation", 0x40},     Usage{"digitalsignature", 0x80},
    Usage{"keyencipherment", 0x20},    Usage{"dataencipherment", 0x10},
    Usage{"certificatesigning", 0x04}, Usage{"crlsigning", 0x02},
    Usage{"keyagreement", 0x08},       Usage{"encipheronly", 0x01},
    Usage{"offlinecrlsign", 0x02},
};

// Any one of the usages named will do.
bool hasUsage(const Question& q) {
    const int bits = q.cert.getIntendedKeyUsage(q.log);
    q.log.LogData("checking", "");
    return std::ranges::any_of(kUsages, [&](const Usage& usage) {
        return (bits & usage.bit) != 0 && q.value.find(usage.name) != std::string_view::npos;
    });
}

bool subjectPartEquals(const Question& q) {
    StringBuffer part(q.part);
    part.toUpperCase();
    XString text;
    if (!q.cert.getSubjectPart(part.getString(), text, q.log)) return false;
    q.log.LogDataX("checking", text);
    return text.view() == q.value;
}

struct MatchRule {
    std::string_view keyword;  // looked for anywhere in the part name
    bool (*matches)(const Question& question);
};

// The first row whose keyword the part name contains applies, so the order matters: longer words
// come before the words they contain, and the issuer rows before "serial".
constexpr std::array kMatchRules = {
    MatchRule{"subjectdn_withtags", textEquals<&Certificate::getSubjectDN>},
    MatchRule{"subjectdn", textEquals<&Certificate::getSubjectDN_noTags>},
    MatchRule{"issuercn", issuerAndSerialEqual},
    MatchRule{"issuerserial", issuerAndSerialEqual},
    MatchRule{"serialissuer", issuerAndSerialEqual},
    MatchRule{"serial", textEqualsIgnoreCase<&Certificate::getSerialNumber>},
    MatchRule{"thumbprint", textEqualsIgnoreCase<&Certificate::getSha1ThumbprintX>},
    MatchRule{"policyoid", hasPolicy},
    MatchRule{"keyusage", hasUsage},
    MatchRule{"", subjectPartEquals},
};

// Trimmed and in lower case, with the two long names shortened.
StringBuffer normalizedPart(const StringBuffer& certPart) {
    StringBuffer part = certPart;
    part.trim2();
    part.toLowerCase();
    if (part.equals("organization")) {
        part.setString("o");
    } else if (part.equals("email")) {
        part.setString("e");
    }
    return part;
}

void logSubject(std::string_view name, const Certificate& cert, LogBase& log) {
    XString subject;
    cert.getSubjectDN(subject, log);
    log.LogDataX(name, subject);
}

// Whether a certificate that has a private key is the one to choose. Those of one authentication CA
// are set aside, and taken only when no other with a key follows.
bool isChosen(Certificate& cert, std::shared_ptr<Certificate>& candidate, LogBase& log) {
    XString issuer;
    cert.getIssuerPart("CN", issuer, log);
    if (!candidate && issuer.view().starts_with("EC de Autentica")) {
        candidate = cert.shared_from_this();
        logSubject("candidateCert", cert, log);
        return false;
    }
    logSubject("chosenCertDN", cert, log);
    return true;
}

bool giveCert(Certificate& chosen, SystemCertsHolder& systemCerts, ClsCert& cert, LogBase& log) {
    const CritSecExitor lock(cert);
    cert.systemCerts().mergeSysCerts(systemCerts, log);
    return cert.injectCert(&chosen, log);
}

}  // namespace

bool ClsPkcs11::FindAllCerts() {
    return publicCall(*this, *m_calls, "FindAllCerts", Record::Yes,
                      [this](LogBase& log) { return findAllCerts(log); });
}

int ClsPkcs11::get_NumCerts() {
    const CritSecExitor lock(*this);
    return m_calls->use.hasForked() ? 0 : m_certs.getSize();
}

bool ClsPkcs11::GetCert(int index, ClsCert& cert) {
    return publicCall(*this, *m_calls, "GetCert_pkcs11", Record::Yes, [&](LogBase& log) {
        const CertificateHolder* const holder = holderAt(m_certs, index);
        if (holder == nullptr) {
            // A bad index gets this message too; callers match on it.
            return m_calls->fail(log, FailureKind::NotFound,
                                 "Error loading certificate object from DER.");
        }
        Certificate* const found = holder->getCertPtr(log);
        if (found == nullptr)
            return m_calls->fail(log, FailureKind::NotFound, "Internal error getting cert.");
        const CritSecExitor lock(cert);
        // Replaced here, merged in FindCert: a certificate taken by index belongs to this token's
        // store alone. Done first, so that the caller's object is untouched if it fails.
        cert.systemCerts().setSystemCerts(m_systemCerts.getSystemCertsPtr());
        return cert.injectCert(found, log);
    });
}

bool ClsPkcs11::FindCert(const XString& certPart, const XString& partValue, ClsCert& cert) {
    return publicCall(*this, *m_calls, "FindCert_pkcs11", Record::Yes, [&](LogBase& log) {
        const std::string_view part = trimmed(certPart.view());
        _smartcardCertSpec spec;
        if (equalsIgnoreCase(part, "privateKey")) {
            spec.mustHavePrivateKey = true;
        } else {
            spec.certPart.setString(part);
            spec.certPartVal.setString(partValue.view());
        }
        return findPkcs11Cert(spec, cert, log);
    });
}

bool ClsPkcs11::findPkcs11Cert(const _smartcardCertSpec& spec, ClsCert& cert, LogBase& log) {
    const LogContextExitor context(log, "findPkcs11Cert");
    log.LogDataBool("userLoggedIn", m_userLoggedIn);
    if (!m_certsLoaded && !findAllCerts(log)) return false;
    log.LogDataSb("certPart", spec.certPart);
    log.LogDataSb("certPartVal", spec.certPartVal);

    const StringBuffer part = normalizedPart(spec.certPart);
    StringBuffer value = spec.certPartVal;
    // Usage names are compared in lower case. Only the exact word asks for it: the rule also
    // answers to longer words that contain "keyusage", and callers of those give lower case
    // themselves.
    if (part.equals("keyusage")) value.toLowerCase();
    const auto* const rule = std::ranges::find_if(
        kMatchRules, [&part](const MatchRule& r) { return part.containsSubstring(r.keyword); });

    const auto give = [&](Certificate& chosen) {
        return giveCert(chosen, m_systemCerts, cert, log);
    };
    const int numCerts = m_certs.getSize();
    std::shared_ptr<Certificate> candidate;
    for (int i = 0; i < numCerts; ++i) {
        const LogContextExitor certContext(log, "checkCertMatches");
        const CertificateHolder* const holder = holderAt(m_certs, i);
        // Shared, because the search for its key may find the session gone and clear the cache.
        const auto checked = holder == nullptr ? nullptr : holder->share();
        if (!checked) continue;
        if (!part.isEmpty()) {
            if (rule->matches({*checked, part.view(), value.view(), log})) return give(*checked);
        } else if (!spec.mustHavePrivateKey) {
            log.LogInfo("Simply choosing the 1st encountered certificate...");
            logSubject("chosenCert", *checked, log);
            return give(*checked);
        } else {
            const LogContextExitor keyContext(log, "mustHavePrivateKey");
            // A key that could not be looked for ends the choice: the next certificate with a key
            // may be the wrong one.
            if (!linkForSelection(*checked, log)) return false;
            if (checked->isLinkedToPkcs11() && isChosen(*checked, candidate, log))
                return give(*checked);
        }
    }
    // If the session has ended since, the candidate has lost its private key.
    if (candidate && candidate->isLinkedToPkcs11()) {
        log.LogInfo("The candidate certificate was chosen.");
        return give(*candidate);
    }
    return m_calls->fail(log, FailureKind::NotFound, "Not found.");
}

bool ClsPkcs11::linkForSelection(Certificate& cert, LogBase& log) {
    const auto link = cert.pkcs11Link();
    if (link && link->keyHandle != 0) return true;
    FoundKey found;
    if (!searchKey(cert, true, found, log)) return false;
    log.LogDataBool("hasPrivateKey", found.handle != 0);
    if (found.handle != 0) {
        log.LogDataLong("expectedSignatureSize", found.signatureSize);
        cert.linkToPkcs11Session(this, found.keyType, found.signatureSize, found.handle, log);
        log.LogDataBool("hasPrivateKey", cert.hasPrivateKey(false, log));
    }
    return true;
}

}  // namespace mervane
