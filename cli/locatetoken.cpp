// Which module, and which of its tokens.
//
// Where no module is named, all modules of this machine are asked for their tokens, each in a
// process of its own; only the one that has the token is loaded here.

#include "locatetoken.h"

#include <algorithm>
#include <filesystem>

#include "failure.h"

namespace mervane::cli {
namespace {

constexpr const char* kNoModuleHint =
    "Install the module of your token (opensc-pkcs11 for most smart cards), or name one with "
    "--module.";

constexpr const char* kSeveralHint =
    "Choose one with --uri, --token-label or --token-serial, or name the module with --module.";

std::vector<ModuleInfo> allModules() {
    std::vector<ModuleInfo> modules;
    std::vector<std::string> complaints;
    LogNull log;
    if (!listModules(modules, complaints, log)) throw std::bad_alloc();
    for (const std::string& complaint : complaints) remark(complaint);
    return modules;
}

std::string pathsOf(const std::vector<ModuleInfo>& modules) {
    std::string list;
    for (const ModuleInfo& module : modules) list += "\n  " + printable(module.path);
    return list;
}

// Only a discovery document has these.
bool namesMoreThanAToken(const Pkcs11Uri& uri) {
    return uri.libraryDescription || uri.libraryManufacturer || uri.libraryVersion ||
           uri.slotDescription || uri.slotManufacturer;
}

bool isSuitable(const TokenInfo& token, Suitable suitable) {
    switch (suitable) {
        case Suitable::WithUserPin:
            return token.isInitialised && token.isUserPinSet;
        case Suitable::Uninitialised:
            return !token.isInitialised;
        default:
            return token.isInitialised;
    }
}

std::string listOf(const std::vector<LocatedToken>& tokens) {
    std::string list;
    for (const LocatedToken& located : tokens)
        list += "\n  " + printable(uriOf(located.token).text()) + "  (" +
                printable(located.module.name) + ", slot " + std::to_string(located.token.slotId) +
                ")";
    return list;
}

[[noreturn]] void fail(Exit status, FailureKind kind, std::string message, const char* hint) {
    mervane::Failure failure;
    failure.kind = kind;
    throw CommandError{status, std::move(message), hint, std::move(failure)};
}

// A module that could not be asked may have the token: that is no "there is none".
[[noreturn]] void throwNone(std::span<const ModuleAnswer> answers, bool isNamed,
                            Suitable suitable) {
    std::string message = isNamed                               ? "There is no such token"
                          : suitable == Suitable::Uninitialised ? "There is no uninitialised token"
                                                                : "No token is ready for use";
    std::string unasked;
    std::string hint = "mervane-p11 doctor tells what stands in the way.";
    for (const ModuleAnswer& answer : answers) {
        if (answer.hasAnswered()) continue;
        unasked += "\n  " + lineFor(answer);
        if (!answer.hint.empty()) hint = answer.hint;
    }
    if (unasked.empty()) throw CommandError{Exit::NoToken, message + ".", hint};
    throw CommandError{Exit::Module, message + ", as far as the modules could be asked:" + unasked,
                       hint};
}

void use(ClsPkcs11& p11, const ModuleInfo& module) {
    p11.put_SharedLibPath(module.path);
    p11.put_InitArgs(module.initArgs);
}

bool isForPin(const Options& options, Suitable suitable) {
    return suitable != Suitable::Initialised || options.login || options.soPin || options.newPin;
}

// Names the other modules that show the chosen token.
void sayWhoElseShows(const LocatedToken& chosen, const std::vector<LocatedToken>& all) {
    const std::string uri = uriOf(chosen.token).text();
    for (const LocatedToken& other : all) {
        if (other.module.path == chosen.module.path || uriOf(other.token).text() != uri) continue;
        remark(printable(other.module.path) + " shows this token as well; " +
               printable(chosen.module.path) + " is used.");
    }
}

// Names the modules whose tokens nobody knows. Where one of these may be the one that is meant, no
// PIN is to be tried.
void sayWhatIsUnknown(std::span<const ModuleAnswer> answers, bool isPinAtRisk) {
    for (const ModuleAnswer& answer : answers) {
        if (answer.hasAnswered() || answer.outcome == ModuleAnswer::Outcome::Failed) continue;
        remark(lineFor(answer));
        if (isPinAtRisk)
            fail(Exit::Module, FailureKind::ModuleFailed,
                 "A token of " + printable(answer.module.name) +
                     " may be the one that is meant: no PIN is tried.",
                 kSeveralHint);
    }
}

TokenChoice locateAmong(ClsPkcs11& p11, const std::vector<ModuleInfo>& modules,
                        const Options& options, Suitable suitable) {
    if (modules.empty())
        fail(Exit::Module, FailureKind::ModuleMissing, "No PKCS#11 module is installed.",
             kNoModuleHint);
    const Pkcs11Uri wanted = wantedToken(options);
    // A token is to be destroyed only under a name of its own.
    const bool isNamed = suitable == Suitable::Uninitialised
                             ? wanted.token || wanted.serial || wanted.slotId
                             : wanted.namesToken();
    const auto answers = askModules(modules, options.timeout);
    const std::vector<LocatedToken> all = tokensIn(answers);
    std::vector<LocatedToken> tokens = all;
    removeRepeated(tokens);
    const auto isInitialisedAlready = [&](const LocatedToken& located) {
        return options.ifUninitialised && located.token.isInitialised &&
               located.token.label == options.arguments[0];
    };
    const bool isDone = !isNamed && std::ranges::any_of(tokens, isInitialisedAlready);
    std::erase_if(tokens, [&](const LocatedToken& located) {
        if (isDone) return !isInitialisedAlready(located);
        return !fits(wanted, located) || (!isNamed && !isSuitable(located.token, suitable));
    });
    if (tokens.empty()) throwNone(answers, isNamed, suitable);
    if (tokens.size() > 1)
        fail(Exit::Usage, FailureKind::SeveralTokens,
             "Several tokens are present; choose one:" + listOf(tokens), kSeveralHint);
    sayWhoElseShows(tokens.front(), all);
    sayWhatIsUnknown(answers, !isNamed && isForPin(options, suitable));
    return useToken(p11, tokens.front());
}

}  // namespace

std::string moduleOfLine(const Options& options) {
    if (!options.module.empty()) return options.module;
    if (options.uri && options.uri->modulePath) return *options.uri->modulePath;
    if (options.uri && options.uri->moduleName) return *options.uri->moduleName;
    return {};
}

std::string namedModule(const Options& options) {
    const std::string module = moduleOfLine(options);
    return module.empty() ? options.defaultModule : module;
}

TokenChoice useToken(ClsPkcs11& p11, const LocatedToken& located) {
    use(p11, located.module);
    TokenChoice choice;
    choice.slotId = located.token.slotId;
    choice.label = located.token.label;
    choice.serialNumber = located.token.serialNumber;
    return choice;
}

ModuleInfo moduleNamed(const std::string& name, const Options& options) {
    ModuleInfo module;
    module.name = moduleNameOf(name);
    module.path = name;
    std::error_code error;
    if (name.find('/') == std::string::npos) {
        // A module of this machine comes before a file that somebody has left here.
        std::vector<ModuleInfo> named = allModules();
        std::erase_if(named, [&](const ModuleInfo& known) {
            return known.path.empty() || !isNamed(known, name);
        });
        const bool isUris = options.module.empty() && options.uri && options.uri->moduleName;
        if (named.size() > 1)
            usageError("Several modules have the name " + printable(name) + ":" + pathsOf(named));
        if (named.empty() && isUris)
            usageError(
                "The URI names a module that this machine does not have: " + printable(name) + ".");
        if (named.size() == 1) {
            module = named.front();
        } else if (!std::filesystem::is_regular_file(name, error)) {
            module.path = pathOnSearchPath(name);
        }
    }
    if (std::filesystem::is_regular_file(module.path, error))
        module.path = std::filesystem::absolute(module.path, error).string();
    if (!options.initArgs.empty()) module.initArgs = options.initArgs;
    return module;
}

std::vector<ModuleInfo> usableModules(bool withTrust) {
    std::vector<ModuleInfo> modules = allModules();
    std::erase_if(modules, [&](const ModuleInfo& module) {
        return !module.isUsable() || (module.isTrust && !withTrust);
    });
    return modules;
}

Pkcs11Uri wantedToken(const Options& options) {
    Pkcs11Uri wanted = options.uri.value_or(Pkcs11Uri());
    if (options.slot) wanted.slotId = std::to_string(*options.slot);
    if (options.tokenLabel) wanted.token = options.tokenLabel;
    if (options.tokenSerial) wanted.serial = options.tokenSerial;
    // By these the module has been chosen.
    wanted.moduleName.reset();
    wanted.modulePath.reset();
    return wanted;
}

void useModule(ClsPkcs11& p11, const Options& options) {
    const std::string name = namedModule(options);
    if (name.empty())
        usageError(
            "No module is named: use --module or set MERVANE_P11_MODULE; mervane-p11 modules lists "
            "them.");
    use(p11, moduleNamed(name, options));
}

TokenChoice locateToken(ClsPkcs11& p11, const Options& options, Suitable suitable) {
    const std::string name = namedModule(options);
    const Pkcs11Uri wanted = wantedToken(options);
    if (name.empty()) {
        if (wanted.slotId) usageError("A slot needs --module: each module has slots of its own.");
        if (!options.initArgs.empty()) usageError("--init-args needs --module.");
        return locateAmong(p11, usableModules(wanted.namesToken() || namesMoreThanAToken(wanted)),
                           options, suitable);
    }
    const ModuleInfo module = moduleNamed(name, options);
    if (namesMoreThanAToken(wanted)) return locateAmong(p11, {module}, options, suitable);
    use(p11, module);
    TokenChoice choice = wanted.tokenChoice();
    choice.withUserPin = suitable == Suitable::WithUserPin;
    return choice;
}

}  // namespace mervane::cli
