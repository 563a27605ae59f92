#include "token.h"

#include <unistd.h>

#include <algorithm>

#include "locatetoken.h"
#include "output.h"
#include "pins.h"

namespace mervane::cli {
namespace {

bool isOrAny(const auto& wanted, const auto& value) {
    return !wanted || *wanted == value;
}

bool fits(const TokenInfo& token, const TokenChoice& choice) {
    return token.isReadable && isOrAny(choice.slotId, token.slotId) &&
           isOrAny(choice.label, token.label) && isOrAny(choice.serialNumber, token.serialNumber) &&
           isOrAny(choice.manufacturer, token.manufacturer) && isOrAny(choice.model, token.model);
}

void logIn(ClsPkcs11& p11, const Options& options, const TokenInfo& token, const Pins& pins,
           XString& pin) {
    pins.read(loginSource(options), {.isOfficers = options.asOfficer, .isNew = false}, token, pin);
    if (!p11.Login(options.asOfficer ? 0 : 1, pin)) throwLastFailure(p11);
}

bool canAsk() {
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1;
}

}  // namespace

OpenedToken openToken(ClsPkcs11& p11, const Options& options, LoginIf when) {
    const Pins pins(options);
    const bool isTold = !options.noLogin && (options.login || (options.asOfficer && options.soPin));
    if (options.asOfficer && !isTold) usageError("--user so needs --login or --so-pin.");
    if (options.soPin && !options.asOfficer) usageError("--so-pin needs --user so.");
    const bool needsUserPin = isTold && !options.asOfficer;
    const TokenChoice choice =
        locateToken(p11, options, needsUserPin ? Suitable::WithUserPin : Suitable::Initialised);
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
    const TokenChoice choice = locateToken(p11, options, Suitable::Initialised);
    TokenInfo token;
    if (!p11.OpenToken(choice, true) || !p11.GetToken(token)) throwLastFailure(p11);
    return token;
}

TokenInfo tokenToInitialise(ClsPkcs11& p11, const TokenChoice& choice) {
    std::vector<TokenInfo> tokens;
    if (!p11.ListTokens(tokens)) throwLastFailure(p11);
    const bool isNamed = choice.slotId || choice.label || choice.serialNumber;
    const auto unread = std::ranges::find_if(tokens, [&](const TokenInfo& token) {
        return !token.isReadable && isOrAny(choice.slotId, token.slotId);
    });
    const std::string unreadSlot =
        unread == tokens.end() ? std::string() : std::to_string(unread->slotId);
    std::erase_if(tokens, [&](const TokenInfo& token) {
        return !fits(token, choice) || (!isNamed && token.isInitialised);
    });
    if (tokens.empty() && !unreadSlot.empty())
        throw CommandError{Exit::Module,
                           "The token in slot " + unreadSlot + " cannot be read; --log says why.",
                           {}};
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
