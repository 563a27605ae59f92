// doctor: walks from the card reader to the key and says of each step what was seen and what helps.
//
//     PC/SC and its readers; the card, its ATR and its driver; the modules, each asked in a process
//     of its own; the tokens and the states of their PINs; then, of the one token that is meant: a
//     session, a login if that was asked for, the certificates with their keys, and whether one of
//     them can sign.
//
// Nothing is changed. Nobody is logged in unless the options say so, and then only with a token
// that leaves more than one try.

#include <algorithm>
#include <filesystem>

#include <mervane/locate/readers.h>

#include "askmodules.h"
#include "cards.h"
#include "certview.h"
#include "commands.h"
#include "diagnosis.h"
#include "locatetoken.h"
#include "pins.h"
#include "token.h"

namespace mervane::cli {
namespace {

using enum Step::Status;

std::string install(std::string_view moduleName, const std::string& otherwise) {
    const std::string_view package = packageOf(moduleName);
    return package.empty() ? otherwise : "Install the package " + std::string(package);
}

// What usually helps with a module that gave no answer.
std::string remedyFor(const ModuleAnswer& answer) {
    using enum ModuleAnswer::Outcome;
    if (!answer.hint.empty()) return answer.hint;
    if (answer.kind == nameOf(FailureKind::ModuleNotLoadable))
        return "Install what the loader misses; ldd " + answer.module.path + " lists it";
    if (answer.outcome == Crashed || answer.outcome == Silent)
        return "Update the module, or use another one with --module";
    return "mervane-p11 discover --module " + answer.module.path + " --log shows its calls";
}

class Doctor {
  public:
    Doctor(ClsPkcs11& p11, const Options& options)
        : m_p11(p11), m_options(options), m_pins(options) {}

    Exit run() {
        if (!listReaders(m_readers, m_p11.log())) throw std::bad_alloc();
        askAll();
        checkReaders();
        for (const std::string& complaint : m_complaints)
            m_found.add({StepId::Configuration, Warn, "", complaint});
        if (m_answers.empty())
            m_found.add({StepId::Module, Fail, "", "no PKCS#11 module is installed",
                         "Install that of your token; opensc-pkcs11 serves most smart cards"});
        for (const ModuleAnswer& answer : m_answers) checkModule(answer);
        for (const LocatedToken& token : m_tokens) checkToken(token);
        checkChosen();
        return report();
    }

  private:
    void askAll() {
        const std::string name = namedModule(m_options);
        std::vector<ModuleInfo> modules;
        LogNull log;
        if (!listModules(modules, m_complaints, log)) throw std::bad_alloc();
        m_wanted = wantedToken(m_options);
        if (!name.empty()) {
            modules = {moduleNamed(name, m_options)};
        } else {
            std::erase_if(modules, [&](const ModuleInfo& module) {
                const bool isBroken = !module.obstacle.empty() && !module.isDisabled;
                return (!module.isUsable() && !isBroken) ||
                       (module.isTrust && !m_wanted.namesToken());
            });
        }
        m_answers = askModules(modules, m_options.timeout);
        m_tokens = tokensIn(m_answers);
        m_hasToken = std::ranges::any_of(m_tokens, isReady);
    }

    static bool isReady(const LocatedToken& located) {
        return located.token.isReadable && located.token.isInitialised;
    }

    // A token that is no card needs no reader.
    [[nodiscard]] Step::Status unlessToken(Step::Status status) const {
        return m_hasToken ? Warn : status;
    }

    void checkReaders() {
        const bool isThere = m_readers.state == PcscState::Ready;
        if (!isThere) {
            const bool isNoReader = m_readers.state == PcscState::NoReader;
            if (isNoReader) m_found.add({StepId::Pcsc, Ok, "", "library and daemon answer"});
            m_found.add({isNoReader ? StepId::Reader : StepId::Pcsc,
                         unlessToken(isNoReader ? Missing : Fail), "", whyNoReaders(m_readers),
                         readersHint(m_readers)});
            return;
        }
        m_found.add({StepId::Pcsc, Ok, "", "library and daemon answer"});
        const bool hasCard = std::ranges::any_of(m_readers.readers, [](const CardReader& reader) {
            return reader.card == CardReader::Card::Present ||
                   reader.card == CardReader::Card::Mute;
        });
        for (const CardReader& reader : m_readers.readers) checkReader(reader, hasCard);
    }

    void checkReader(const CardReader& reader, bool hasOtherCard) {
        using enum CardReader::Card;
        m_found.add({StepId::Reader, Ok, "", reader.name});
        if (reader.card == None) {
            if (!hasOtherCard)
                m_found.add({StepId::Card, unlessToken(Missing), reader.name, "no card",
                             "Put the card in"});
        } else if (reader.card != Present) {
            m_found.add({StepId::Card, Fail, reader.name,
                         reader.card == Mute ? "the card does not answer"
                                             : "the reader does not say whether there is a card",
                         "Take the card out, clean it, and put it in the right way round"});
        } else {
            checkCard(reader);
        }
    }

    // A module names its slots after the readers, in 64 bytes.
    [[nodiscard]] const LocatedToken* servedBy(const CardReader& reader) const {
        const auto token = std::ranges::find_if(m_tokens, [&](const LocatedToken& located) {
            return !located.slotDescription.empty() &&
                   reader.name.starts_with(located.slotDescription);
        });
        return token == m_tokens.end() ? nullptr : &*token;
    }

    void checkCard(const CardReader& reader) {
        CardInfo card;
        const bool isKnown = findCardInfo(reader.atr, card, m_p11.log());
        const LocatedToken* const served = servedBy(reader);
        m_found.add(
            {StepId::Card, isKnown || served != nullptr ? Ok : Warn, reader.name,
             "ATR " + reader.atr + (isKnown ? ", " + card.name : ", a card not known here")});
        if (served != nullptr) {
            m_found.add({StepId::Driver, Ok, reader.name, "served by " + served->module.name});
            return;
        }
        const auto isThere = [](const std::string& path) {
            std::error_code error;
            return std::filesystem::is_regular_file(path, error);
        };
        const auto installed = std::ranges::find_if(card.paths, isThere);
        if (installed != card.paths.end()) {
            m_found.add({StepId::Driver, Fail, reader.name,
                         *installed + " is installed and shows no token",
                         "mervane-p11 discover --module " + *installed + " --log shows its calls"});
        } else if (!card.paths.empty()) {
            m_found.add({StepId::Driver, Fail, reader.name,
                         "the driver is not installed: " + card.driver,
                         install(moduleNameOf(card.paths.front()),
                                 "Install " + card.driver + " from its maker; " +
                                     card.paths.front() + " is where it is expected")});
        } else {
            m_found.add({StepId::Driver, Fail, reader.name, "no Linux module is known",
                         "Try OpenSC's: install the package opensc-pkcs11"});
        }
    }

    void checkModule(const ModuleAnswer& answer) {
        const ModuleInfo& module = answer.module;
        const std::string subject = module.name;
        if (answer.hasAnswered()) {
            m_found.add({StepId::Module, Ok, subject, module.path});
            return;
        }
        const bool isMissing = answer.kind == nameOf(FailureKind::ModuleMissing);
        // Nothing is wrong with the machine if one of several modules has no device to work with.
        const bool isHarmless = answer.outcome == ModuleAnswer::Outcome::Failed && !isMissing &&
                                m_hasToken && namedModule(m_options).empty();
        m_found.add({StepId::Module, isHarmless ? Warn : Fail, subject, answer.message,
                     isMissing ? install(module.name, "Install it, or name another one")
                               : remedyFor(answer)});
    }

    void checkToken(const LocatedToken& located) {
        const TokenInfo& token = located.token;
        const std::string subject =
            token.isReadable ? "\"" + token.label + "\"" : "slot " + std::to_string(token.slotId);
        if (!token.isReadable) {
            m_found.add({StepId::Token, Fail, subject, "cannot be read",
                         "Take it out and put it in again"});
            return;
        }
        if (!token.isInitialised) {
            m_found.add({StepId::Token, Warn, "slot " + std::to_string(token.slotId),
                         "a token that is not initialised (" + located.module.name + ")",
                         "mervane-p11 init-token LABEL makes it usable"});
            return;
        }
        m_found.add({StepId::Token, Ok, subject,
                     "serial number " + token.serialNumber + ", " + located.module.name});
        checkPin(subject, token);
    }

    void checkPin(const std::string& subject, const TokenInfo& token) {
        const PinStatus& pin = token.userPin;
        const auto add = [&](Step::Status status, const char* seen, const char* remedy) {
            m_found.add({StepId::Pin, status, subject, seen, remedy});
        };
        if (pin.isLocked) {
            add(Fail, "the user PIN is locked",
                "mervane-p11 init-pin sets it anew, with the PIN of the security officer");
        } else if (token.needsLogin && !token.isUserPinSet) {
            add(Fail, "no user PIN is set", "mervane-p11 init-pin sets it");
        } else if (pin.isLastTry) {
            add(Warn, "one more wrong PIN locks it", "Make sure of the PIN before you try it");
        } else if (pin.mustChange) {
            add(Warn, "the user PIN must be changed", "mervane-p11 set-pin changes it");
        } else if (pin.isLow) {
            add(Warn, "a wrong PIN was entered last", "");
        } else {
            add(Ok, token.needsLogin ? "set, and not locked" : "none is needed", "");
        }
    }

    // The one token that is meant is looked into.
    void checkChosen() {
        std::vector<const LocatedToken*> chosen;
        for (const LocatedToken& located : m_tokens) {
            if (isReady(located) && fits(m_wanted, located)) chosen.push_back(&located);
        }
        if (chosen.empty()) {
            const bool isNamed = m_wanted.namesToken();
            m_found.add(
                {StepId::Token, Missing, "",
                 isNamed ? "there is no such token" : "no module shows a token that is ready",
                 isNamed ? "mervane-p11 tokens lists them" : "Plug it in"});
            return;
        }
        if (chosen.size() > 1) {
            m_found.add({StepId::Session, Warn, "",
                         "several tokens are ready, so none is looked into",
                         "Choose one with --token-label, --token-serial or --uri"});
            return;
        }
        checkContents(*chosen.front());
    }

    bool fail(StepId id, const std::string& subject) {
        const Failure failure = m_p11.lastFailure();
        m_found.add({id, Fail, subject, failure.cause, failure.hint});
        return false;
    }

    void checkContents(const LocatedToken& located) {
        m_p11.put_SharedLibPath(located.module.path);
        m_p11.put_InitArgs(located.module.initArgs);
        TokenChoice choice;
        choice.slotId = located.token.slotId;
        choice.label = located.token.label;
        choice.serialNumber = located.token.serialNumber;
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

    [[nodiscard]] bool mayBeHidden() const { return m_token.needsLogin && !m_isLoggedIn; }

    bool logIn(const std::string& subject) {
        if (m_token.userPin.isLocked || m_token.userPin.isLastTry) {
            m_found.add({StepId::Login, Fail, subject,
                         m_token.userPin.isLocked ? "not tried: the PIN is locked"
                                                  : "not tried: one more wrong PIN would lock it",
                         "mervane-p11 match --login tries it"});
            return false;
        }
        XString pin;
        m_pins.read(m_options.pin, {.isOfficers = false, .isNew = false}, m_token, pin);
        if (!m_p11.Login(1, pin)) {
            return fail(StepId::Login, subject);
        }
        if (m_options.signPin)
            m_pins.read(m_options.signPin, {.isOfficers = false, .isNew = false}, m_token, pin);
        m_p11.put_SigContextPin(pin);
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
        const std::string seen = keyFor(cert) + ", until " + untilFor(cert) + ", " + useFor(cert) +
                                 ", key: " + keyText(key);
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

    Exit report() {
        const Exit status = m_found.hasFailed()    ? Exit::Module
                            : m_found.isComplete() ? Exit::Done
                                                   : Exit::NoToken;
        if (m_options.json) {
            m_found.printJson(status == Exit::Done     ? "ok"
                              : status == Exit::Module ? "failed"
                                                       : "noToken");
        } else {
            m_found.print();
        }
        return status;
    }

    ClsPkcs11& m_p11;
    const Options& m_options;
    Pins m_pins;  // taken from the environment before a module is asked
    Diagnosis m_found;
    ReaderList m_readers;
    std::vector<std::string> m_complaints;
    Pkcs11Uri m_wanted;
    std::vector<ModuleAnswer> m_answers;
    std::vector<LocatedToken> m_tokens;
    bool m_hasToken = false;  // one that is ready
    TokenInfo m_token;        // the one that is looked into
    bool m_isLoggedIn = false;
};

}  // namespace

Exit runDoctor(ClsPkcs11& p11, const Options& options) {
    return Doctor(p11, options).run();
}

}  // namespace mervane::cli
