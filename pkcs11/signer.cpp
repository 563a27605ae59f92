// The certificate to sign with: the best of those that fit, by the order that SignerQuery gives.
//
// Two traps. A key that could not be looked for ends the choice, since it may belong to the best
// certificate. And only the merits count: which of two certificates the token lists first means
// nothing.

#include "pkcs11/signer.h"

#include <algorithm>

#include "foundation/system/clock.h"
#include "foundation/text/hex.h"
#include "pkcs11/certmatch.h"
#include "pkcs11/clspkcs11.h"
#include "pkcs11/frame.h"
#include "pkcs11/privkeys.h"

namespace mervane {
namespace {

// What speaks for a certificate, in the order in which it counts. Better is greater.
struct Merits {
    bool isSure = false;  // its key is no guess
    bool isValid = false;
    bool isPersons = false;  // not a CA's
    bool isForSignatures = false;
    std::string notBefore;

    Merits(const Certificate& cert, const FoundKey& key, std::string_view at) {
        LogNull log;
        constexpr int kSignatures = 0x80 | 0x40;  // digitalSignature, nonRepudiation
        std::string notAfter;
        isSure = !isGuess(key.facts.rule);
        // Times of this form compare as texts; another form is not within anything.
        isValid = cert.getValidity(notBefore, notAfter) && at.size() == notBefore.size() &&
                  at.size() == notAfter.size() && notBefore <= at && at <= notAfter;
        isPersons = !cert.isCa();
        isForSignatures =
            cert.getKeyUsages().empty() || (cert.getIntendedKeyUsage(log) & kSignatures) != 0;
    }

    [[nodiscard]] int compare(const Merits& other) const noexcept {
        const auto rank = [](const Merits& m) {
            return m.isSure * 8 + m.isValid * 4 + m.isPersons * 2 + m.isForSignatures * 1;
        };
        const int difference = rank(*this) - rank(other);
        return difference != 0 ? difference : notBefore.compare(other.notBefore);
    }

    [[nodiscard]] std::string_view whyWorse(const Merits& best) const noexcept {
        if (isSure != best.isSure) return "its key is a guess";
        if (isValid != best.isValid) return "it is outside its validity";
        if (isPersons != best.isPersons) return "it is a CA certificate";
        if (isForSignatures != best.isForSignatures) return "it is not for signatures";
        return "its validity begins earlier";
    }
};

// A certificate that fits the query and has a key that may sign.
struct Candidate {
    std::shared_ptr<Certificate> cert;
    FoundKey key;
    Merits merits;

    [[nodiscard]] std::string described() const {
        LogNull log;
        XString subject;
        XString serial;
        cert->getSubjectDN(subject, log);
        cert->getSerialNumber(serial, log);
        return std::string(subject.view()) + " (serial number " + std::string(serial.view()) +
               ", ID " + toHex(cert->tokenInfo().ckaId.span()) + ")";
    }
};

bool isSame(const Candidate& a, const Candidate& b) {
    return std::ranges::equal(a.cert->der(), b.cert->der());
}

// What a query demands, prepared for comparison.
class Demands {
  public:
    explicit Demands(const SignerQuery& query) : m_query(query) {
        for (const auto& [part, value] : query.parts) {
            // A key is wanted in any case.
            if (!equalsIgnoreCase(trimmed(part), "privateKey")) m_parts.emplace_back(part, value);
        }
    }

    [[nodiscard]] bool areMet(const Certificate& cert, LogBase& log) const {
        XString digest;
        const TokenCertInfo& object = cert.tokenInfo();
        return (!m_query.label || object.label == *m_query.label) &&
               (!m_query.id || equalsIgnoreCase(toHex(object.ckaId.span()), *m_query.id)) &&
               (!m_query.sha256 || (cert.getSha256Thumbprint(digest, log) &&
                                    equalsIgnoreCase(digest.view(), *m_query.sha256))) &&
               std::ranges::all_of(m_parts, [&](const CertMatch& part) {
                   return !part.hasPart() || part.matches(cert, log);
               });
    }

  private:
    const SignerQuery& m_query;
    std::vector<CertMatch> m_parts;
};

// Certificates that fit but have no key to sign with.
struct Misfits {
    int numWithoutKey = 0;
    int numThatMayNotSign = 0;

    void report(Calls& calls, LogBase& log) const {
        if (numThatMayNotSign != 0) {
            calls.fail(log, FailureKind::KeyMayNotSign,
                       "The private key may not sign: its CKA_SIGN is false or missing.");
        } else if (numWithoutKey == 0) {
            calls.fail(log, FailureKind::NotFound, "No certificate fits.");
        } else {
            calls.fail(log, FailureKind::NotFound,
                       "No private key was found for the certificates that fit.");
            if (!calls.state.m_userLoggedIn)
                calls.hint(log, "The user is not logged in, so private keys may be hidden.");
        }
    }
};

// Logs those that were passed over. False if another is as good as the best.
bool isClear(Calls& calls, const std::vector<Candidate>& candidates, const Candidate& best,
             LogBase& log) {
    constexpr int kMaxNamed = 10;
    std::string equals;
    int numEquals = 0;
    for (const Candidate& other : candidates) {
        if (&other == &best || isSame(other, best)) continue;
        if (other.merits.compare(best.merits) == 0) {
            if (++numEquals <= kMaxNamed) equals.append("; ").append(other.described());
        } else {
            log.LogInfo("Passed over " + other.described() + ": " +
                        std::string(other.merits.whyWorse(best.merits)) + ".");
        }
    }
    if (numEquals == 0) return true;
    if (numEquals > kMaxNamed)
        equals.append("; " + std::to_string(numEquals - kMaxNamed) + " more");
    calls.fail(log, FailureKind::SeveralCerts,
               "Several certificates fit equally well: " + best.described() + equals + ".");
    calls.hint(log, "Choose one by label, ID or SHA-256.");
    return false;
}

// The candidates among the cached certificates; nothing if a key could not be looked for.
std::optional<std::vector<Candidate>> candidatesFor(Calls& calls, const SignerQuery& query,
                                                    std::string_view at, LogBase& log) {
    const Demands demands(query);
    const ExtPtrArray& certs = calls.state.m_certs;
    std::vector<Candidate> candidates;
    Misfits misfits;
    for (int i = 0; i < certs.getSize(); ++i) {
        const auto* const holder = static_cast<CertificateHolder*>(certs.elementAt(i));
        const auto checked = holder == nullptr ? nullptr : holder->share();
        if (!checked || !demands.areMet(*checked, log)) continue;
        FoundKey key;
        if (!searchKey(calls, *checked, {.mustSign = true}, key, log) ||
            !checkGuess(calls, *checked, key, log))
            return std::nullopt;
        const bool isThere = key.handle != 0 && !key.facts.isDisproved;
        const bool mayNotSign = isThere ? !key.facts.maySign.value_or(true)
                                        : key.handle == 0 && hasKeyThatMayNotSign(calls, *checked);
        if (mayNotSign) {
            ++misfits.numThatMayNotSign;
        } else if (!isThere) {
            ++misfits.numWithoutKey;
        } else {
            candidates.push_back({checked, key, Merits(*checked, key, at)});
        }
    }
    if (candidates.empty()) misfits.report(calls, log);
    return candidates;
}

}  // namespace

bool ClsPkcs11::FindSigner(const SignerQuery& query, ClsCert& cert) {
    return publicCall(*this, *m_calls, "FindSigner", Record::Yes, [&](LogBase& log) {
        const std::string at = query.at.empty() ? utcNow() : query.at;
        if (!isUtcTime(at))
            return m_calls->fail(log, FailureKind::Argument,
                                 "The time is not of the form YYYY-MM-DDThh:mm:ssZ.");
        if (!m_certsLoaded && !findAllCerts(log)) return false;
        const auto candidates = candidatesFor(*m_calls, query, at, log);
        if (!candidates || candidates->empty()) return false;
        const Candidate& best = *std::ranges::max_element(
            *candidates,
            [](const auto& a, const auto& b) { return a.merits.compare(b.merits) < 0; });
        if (!isClear(*m_calls, *candidates, best, log)) return false;
        best.cert->linkToPkcs11Session(this, best.key.keyType, best.key.signatureSize,
                                       best.key.handle, log, best.key.facts);
        const CritSecExitor lock(cert);
        cert.systemCerts().mergeSysCerts(m_systemCerts, log);
        return cert.injectCert(best.cert.get(), log);
    });
}

}  // namespace mervane
