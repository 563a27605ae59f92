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
// contains (certmatch.cpp), and takes the first certificate that fits.

#include "pkcs11/certmatch.h"
#include "pkcs11/clspkcs11.h"
#include "pkcs11/frame.h"
#include "pkcs11/privkeys.h"

namespace mervane {
namespace {

CertificateHolder* holderAt(const ExtPtrArray& certs, int index) noexcept {
    return static_cast<CertificateHolder*>(certs.elementAt(index));
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

bool linkForSelection(Pkcs11SessionOwner& owner, Calls& calls, Certificate& cert, LogBase& log) {
    const auto link = cert.pkcs11Link();
    if (link && link->keyHandle != 0) return true;
    FoundKey found;
    if (!searchKey(calls, cert, {}, found, log)) return false;
    log.LogDataBool("hasPrivateKey", found.handle != 0);
    if (found.handle != 0) {
        log.LogDataLong("expectedSignatureSize", found.signatureSize);
        cert.linkToPkcs11Session(&owner, found.keyType, found.signatureSize, found.handle, log,
                                 found.facts);
        log.LogDataBool("hasPrivateKey", cert.hasPrivateKey(false, log));
    }
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

    const CertMatch wanted(spec.certPart.view(), spec.certPartVal.view());
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
        if (wanted.hasPart()) {
            if (wanted.matches(*checked, log)) return give(*checked);
        } else if (!spec.mustHavePrivateKey) {
            log.LogInfo("Simply choosing the 1st encountered certificate...");
            logSubject("chosenCert", *checked, log);
            return give(*checked);
        } else {
            const LogContextExitor keyContext(log, "mustHavePrivateKey");
            // A key that could not be looked for ends the choice: the next certificate with a key
            // may be the wrong one.
            if (!linkForSelection(*this, *m_calls, *checked, log)) return false;
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

}  // namespace mervane
