// What a token holds: a session, a login if that was asked for, each certificate with its key, and
// whether one of them can sign.
//
// Nobody is logged in unless the options say so, and then only with a token that leaves more than
// one try.

#include "checkup.h"

#include "certview.h"
#include "locatetoken.h"

namespace mervane::cli {
namespace {

using enum Step::Status;

class Checkup {
  public:
    Checkup(ClsPkcs11& p11, const Options& options, const Pins& pins, Diagnosis& found)
        : m_p11(p11), m_options(options), m_pins(pins), m_found(found) {}

    void run(const LocatedToken& located) {
        const TokenChoice choice = useToken(m_p11, located);
        const std::string subject = "\"" + located.token.label + "\"";
        if (!m_p11.OpenToken(choice, false) || !m_p11.GetToken(m_token)) {
            fail(StepId::Session, subject);
            return;
        }
        m_found.add({StepId::Session, Ok, subject, "a session can be opened"});
        if (m_options.login && !logIn(subject)) return;
        if (!m_p11.FindAllCerts()) {
            fail(StepId::Certificate, subject);
            return;
        }
        const int count = m_p11.get_NumCerts();
        if (count == 0) {
            m_found.add({StepId::Certificate, Fail, subject, "no certificate can be seen",
                         mayBeHidden() ? "Log in with --login; it may be private"
                                       : "Have a certificate written to it"});
            return;
        }
        for (int i = 0; i < count; ++i) checkCertificate(i);
        if (!m_found.has(StepId::Certificate, Fail)) checkSigner(subject);
    }

  private:
    bool fail(StepId id, const std::string& subject) {
        const Failure failure = m_p11.lastFailure();
        m_found.add({id, Fail, subject, failure.cause, failure.hint});
        return false;
    }

    [[nodiscard]] bool mayBeHidden() const { return m_token.needsLogin && !m_isLoggedIn; }

    bool logIn(const std::string& subject) {
        if (m_token.userPin.isLocked) {
            m_found.add({StepId::Login, Fail, subject, "not tried: the PIN is locked"});
            return false;
        }
        if (m_token.userPin.isLastTry) {
            m_found.add({StepId::Login, Fail, subject,
                         "not tried: one more wrong PIN would lock it",
                         "If you are sure of it, mervane-p11 match --login tries it"});
            return false;
        }
        XString pin;
        XString signPin;
        try {
            m_pins.read(m_options.pin, {.isOfficers = false, .isNew = false}, m_token, pin);
            signPin = pin;
            if (m_options.signPin)
                m_pins.read(m_options.signPin, {.isOfficers = false, .isNew = false}, m_token,
                            signPin);
        } catch (const CommandError& error) {
            m_found.add({StepId::Login, Fail, subject, error.message, error.hint});
            return false;
        }
        if (!m_p11.Login(1, pin)) return fail(StepId::Login, subject);
        m_p11.put_SigContextPin(signPin);
        m_isLoggedIn = true;
        m_found.add({StepId::Login, Ok, subject, "logged in"});
        return true;
    }

    void checkCertificate(int index) {
        ClsCert cert;
        if (!m_p11.GetCert(index, cert)) {
            fail(StepId::Certificate, std::to_string(index));
            return;
        }
        const std::string subject = whoFor(cert);
        LogNull log;
        const bool isLinked = m_p11.linkCertToPkcs11Session(cert.getCert().get(), true, log);
        if (!isLinked && m_p11.lastFailure().kind != FailureKind::NotFound) {
            fail(StepId::Certificate, subject);
            return;
        }
        const KeyView key = keyViewOf(m_p11, cert, m_token, m_isLoggedIn, false);
        const std::string seen = keyFor(cert) + (isValidToday(cert) ? ", until " : ", ") +
                                 untilFor(cert) + ", " + useFor(cert) + ", key: " + keyText(key);
        if (key.link && m_isLoggedIn && key.link->facts.maySign.value_or(true)) {
            prove(cert, subject, seen);
        } else if (!isValidToday(cert)) {
            m_found.add({StepId::Certificate, Warn, subject, seen, "Have it renewed"});
        } else if (key.state == KeyView::State::Unknown) {
            m_found.add({StepId::Certificate, Warn, subject, seen, "Log in with --login"});
        } else if (key.isGuess()) {
            m_found.add({StepId::Certificate, Warn, subject, seen,
                         "Log in with --login, and the key is proved by a signature"});
        } else {
            m_found.add({StepId::Certificate, key.link || cert.IsCa() ? Ok : Warn, subject, seen,
                         key.link || cert.IsCa() ? "" : "Nothing can be signed with it"});
        }
    }

    static std::string keyText(const KeyView& key) {
        if (!key.link) return privateKeyFor(key);
        return "found by " + foundByFor(key) +
               (key.link->facts.maySign.value_or(true) ? "" : ", may not sign");
    }

    void prove(ClsCert& cert, const std::string& subject, const std::string& seen) {
        KeyProof proof{};
        if (!m_p11.ProveKey(cert, proof)) {
            fail(StepId::Certificate, subject);
        } else if (proof == KeyProof::Disproved) {
            m_found.add({StepId::Certificate, Fail, subject, seen + ", which signs for another",
                         "mervane-p11 match --explain tells about the other keys"});
        } else if (!isValidToday(cert)) {
            m_found.add({StepId::Certificate, Warn, subject, seen + ", signs", "Have it renewed"});
        } else {
            const bool isProved = proof == KeyProof::Proved;
            m_found.add({StepId::Certificate, isProved ? Ok : Warn, subject,
                         seen + (isProved ? ", proved by a signature" : ", signs; not verified")});
        }
    }

    void checkSigner(const std::string& subject) {
        ClsCert cert;
        if (m_p11.FindSigner({}, cert)) {
            const bool isValid = isValidToday(cert);
            m_found.add({StepId::Signing, isValid ? Ok : Fail, subject,
                         isValid
                             ? "signs as " + whoFor(cert)
                             : "the certificate to sign with is not valid today: " + whoFor(cert),
                         isValid ? "" : "Have it renewed"});
            return;
        }
        const FailureKind kind = m_p11.lastFailure().kind;
        if (kind == FailureKind::NotFound && mayBeHidden()) {
            m_found.add({StepId::Signing, Warn, subject, "no key can be seen without a login",
                         "Log in with --login"});
        } else if (kind == FailureKind::SeveralCerts) {
            m_found.add({StepId::Signing, Warn, subject, "several certificates can sign",
                         "Choose one with mervane-p11 sign --cert"});
        } else {
            fail(StepId::Signing, subject);
        }
    }

    ClsPkcs11& m_p11;
    const Options& m_options;
    const Pins& m_pins;
    Diagnosis& m_found;
    TokenInfo m_token;
    bool m_isLoggedIn = false;
};

}  // namespace

void checkContents(ClsPkcs11& p11, const Options& options, const Pins& pins,
                   const LocatedToken& located, Diagnosis& found) {
    Checkup(p11, options, pins, found).run(located);
}

}  // namespace mervane::cli
