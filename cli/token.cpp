#include "token.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "output.h"
#include "pins.h"

namespace mervane::cli {
namespace {

TokenChoice choiceOf(const Options& options) {
    TokenChoice choice;
    if (options.slot) choice.slotId = static_cast<CK_SLOT_ID>(*options.slot);
    choice.label = options.tokenLabel;
    choice.serialNumber = options.tokenSerial;
    return choice;
}

bool fits(const TokenInfo& token, const TokenChoice& choice) {
    return token.isReadable && (!choice.slotId || *choice.slotId == token.slotId) &&
           (!choice.label || *choice.label == token.label) &&
           (!choice.serialNumber || *choice.serialNumber == token.serialNumber);
}

void logIn(ClsPkcs11& p11, const Options& options, const TokenInfo& token, const Pins& pins,
           XString& pin) {
    pins.read(loginSource(options), {.isOfficers = options.asOfficer, .isNew = false}, token, pin);
    if (!p11.Login(options.asOfficer ? 0 : 1, pin)) throwLastFailure(p11);
}

// Where the dynamic loader finds a library by its name, or the name if it does not.
std::string pathOnSearchPath(const std::string& name) {
    // Kept: it is loaded again at once.
    void* const library = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    const link_map* map = nullptr;
    const bool isFound = library != nullptr && ::dlinfo(library, RTLD_DI_LINKMAP, &map) == 0;
    return isFound && *map->l_name != '\0' ? map->l_name : name;
}

bool canAsk() {
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1;
}

}  // namespace

void useModule(ClsPkcs11& p11, const Options& options) {
    if (options.module.empty())
        usageError("No module is named: use --module PATH or set MERVANE_P11_MODULE.");
    // If there is a file of that name here, it is meant, not one on the loader's search path.
    std::error_code error;
    const bool isHere = std::filesystem::is_regular_file(options.module, error);
    const bool isBareName = options.module.find('/') == std::string::npos;
    p11.put_SharedLibPath(isHere       ? std::filesystem::absolute(options.module, error).string()
                          : isBareName ? pathOnSearchPath(options.module)
                                       : options.module);
}

OpenedToken openToken(ClsPkcs11& p11, const Options& options, LoginIf when) {
    const Pins pins(options);
    useModule(p11, options);
    const bool isTold = options.login || (options.asOfficer && options.soPin);
    if (options.asOfficer && !isTold) usageError("--user so needs --login or --so-pin.");
    if (options.soPin && !options.asOfficer) usageError("--so-pin needs --user so.");
    TokenChoice choice = choiceOf(options);
    choice.withUserPin = isTold && !options.asOfficer;
    OpenedToken opened;
    // The security officer cannot log in while a read-only session is open.
    if (!p11.OpenToken(choice, isTold && options.asOfficer) || !p11.GetToken(opened.token))
        throwLastFailure(p11);
    const bool isNeeded = when != LoginIf::Told && !isTold && !options.noLogin &&
                          opened.token.needsLogin && opened.token.isUserPinSet && canAsk();
    XString pin;
    if (isTold || isNeeded) logIn(p11, options, opened.token, pins, pin);
    if (when == LoginIf::ToSign) {
        if (options.signPin)
            pins.read(options.signPin, {.isOfficers = false, .isNew = false}, opened.token, pin);
        p11.put_SigContextPin(pin);
    }
    opened.isLoggedIn = (isTold && !options.asOfficer) || isNeeded;
    return opened;
}

TokenInfo openForWriting(ClsPkcs11& p11, const Options& options) {
    useModule(p11, options);
    TokenInfo token;
    if (!p11.OpenToken(choiceOf(options), true) || !p11.GetToken(token)) throwLastFailure(p11);
    return token;
}

TokenInfo tokenToInitialise(ClsPkcs11& p11, const Options& options) {
    useModule(p11, options);
    std::vector<TokenInfo> tokens;
    if (!p11.ListTokens(tokens)) throwLastFailure(p11);
    const TokenChoice choice = choiceOf(options);
    const bool isNamed = choice.slotId || choice.label || choice.serialNumber;
    std::erase_if(tokens, [&](const TokenInfo& token) {
        return !fits(token, choice) || (!isNamed && token.isInitialised);
    });
    if (tokens.empty() && isNamed)
        throw CommandError{Exit::NoToken, "There is no such token.",
                           "mervane-p11 discover lists the tokens."};
    if (tokens.empty())
        throw CommandError{Exit::NoToken, "There is no uninitialised token.",
                           "Name one with --slot or --token-label."};
    if (tokens.size() == 1) return tokens.front();
    std::string list;
    for (const TokenInfo& token : tokens)
        list += "\n  --slot " + std::to_string(token.slotId) + "  " + printable(token.label);
    throw CommandError{
        Exit::Usage, "Several tokens are present; choose one with --slot:" + list, {}};
}

std::string stateFor(const TokenInfo& token) {
    if (!token.isReadable) return "cannot be read";
    if (!token.isInitialised) return "not initialised";
    if (token.userPin.isLocked) return "PIN LOCKED";
    if (token.userPin.isLastTry) return "last try";
    if (token.userPin.mustChange) return "PIN must be changed";
    if (token.needsLogin && !token.isUserPinSet) return "PIN not set";
    return token.userPin.isLow ? "PIN was wrong once" : "ready";
}

}  // namespace mervane::cli
