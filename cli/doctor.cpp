// doctor: walks from the card reader to the key and says of each step what was seen and what helps.
//
//     PC/SC and its readers; the card, its ATR and its driver; the modules, each asked in a process
//     of its own; the tokens and the states of their PINs; then what the one token that is meant
//     holds (checkup.cpp).
//
// Nothing is changed.

#include <algorithm>

#include <mervane/locate/readers.h>

#include "askmodules.h"
#include "cards.h"
#include "checkup.h"
#include "commands.h"
#include "diagnosis.h"
#include "locatetoken.h"
#include "pins.h"

namespace mervane::cli {
namespace {

using enum Step::Status;

std::string install(std::string_view moduleName, const std::string& otherwise) {
    const std::string_view package = packageOf(moduleName);
    return package.empty() ? otherwise : "Install the package " + std::string(package);
}

std::string counted(std::ptrdiff_t number, const std::string& noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
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
        : m_p11(p11), m_options(options), m_pins(options), m_found(!options.json) {}

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
        removeRepeated(m_tokens);
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
        if (!findCardInfo(reader.atr, card, m_p11.log())) {
            m_found.add({StepId::Card, Fail, reader.name, m_p11.log().firstError()});
            return;
        }
        const LocatedToken* const served = servedBy(reader);
        m_found.add(
            {StepId::Card, card.isKnown || served != nullptr ? Ok : Warn, reader.name,
             "ATR " + reader.atr + (card.isKnown ? ", " + card.name : ", a card not known here")});
        if (served != nullptr) {
            m_found.add({StepId::Driver, Ok, reader.name, "served by " + served->module.name});
            return;
        }
        const auto installed = std::ranges::find_if(card.paths, isInstalled);
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
            const bool hasOpensc = std::ranges::any_of(m_answers, [](const ModuleAnswer& answer) {
                return answer.hasAnswered() && answer.module.name == "opensc";
            });
            m_found.add({StepId::Driver, Fail, reader.name,
                         hasOpensc ? "no Linux module is known, and OpenSC's shows no token"
                                   : "no Linux module is known",
                         hasOpensc ? "Ask the card's maker for a PKCS#11 module"
                                   : "Try OpenSC's: install the package opensc-pkcs11"});
        }
    }

    void checkModule(const ModuleAnswer& answer) {
        const ModuleInfo& module = answer.module;
        const std::string subject = module.name;
        if (answer.hasAnswered()) {
            const auto isOf = [&](const LocatedToken& token) {
                return token.module.path == module.path;
            };
            m_found.add({StepId::Module, Ok, subject,
                         module.path + ", initialises, " +
                             counted(std::ranges::count_if(m_tokens, isOf), "token")});
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
                     "serial number " + token.serialNumber + ", " + located.module.name +
                         (token.isWriteProtected ? ", write-protected" : "") +
                         (token.hasPinPad ? ", PIN on the reader's own keys" : "")});
        checkPin(subject, located);
    }

    // What another token lacks than the one that was named is only a warning.
    [[nodiscard]] Step::Status ifMeant(const LocatedToken& located, Step::Status status) const {
        return status == Ok || fits(m_wanted, located) ? status : Warn;
    }

    void checkPin(const std::string& subject, const LocatedToken& located) {
        const TokenInfo& token = located.token;
        const PinStatus& pin = token.userPin;
        const auto add = [&](Step::Status status, const char* seen, const char* remedy) {
            m_found.add({StepId::Pin, ifMeant(located, status), subject, seen, remedy});
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
            const bool isTold = !m_found.isComplete();
            m_found.add(
                {StepId::Token, Missing, "",
                 isNamed ? "there is no such token" : "no module shows a token that is ready",
                 isNamed  ? "mervane-p11 tokens lists them"
                 : isTold ? ""
                          : "Plug it in"});
            return;
        }
        if (chosen.size() > 1) {
            m_found.add({StepId::Session, Warn, "",
                         "several tokens are ready, so none is looked into",
                         "Choose one with --token-label, --token-serial or --uri"});
            return;
        }
        checkContents(m_p11, m_options, m_pins, *chosen.front(), m_found);
    }

    Exit report() {
        const Exit status = m_found.hasFailed()    ? Exit::Module
                            : m_found.isComplete() ? Exit::Done
                                                   : Exit::NoToken;
        if (m_options.json)
            m_found.printJson(status == Exit::Done     ? "ok"
                              : status == Exit::Module ? "failed"
                                                       : "noToken");
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
};

}  // namespace

Exit runDoctor(ClsPkcs11& p11, const Options& options) {
    return Doctor(p11, options).run();
}

}  // namespace mervane::cli
