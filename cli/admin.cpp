// set-pin, init-pin and init-token.

#include <iostream>

#include "commands.h"
#include "output.h"
#include "pins.h"
#include "token.h"

namespace mervane::cli {
namespace {

void sayDone(const Options& options, const std::string& sentence) {
    std::cout << (options.json ? "{\"ok\": true}" : sentence) << '\n';
}

// A read-write session with the token chosen, nobody logged in.
TokenChoice openForPins(ClsPkcs11& p11, const Options& options) {
    useModule(p11, options);
    Options choosing = options;
    choosing.login = false;  // a token without a user PIN is as good
    TokenChoice token = chooseToken(p11, choosing, Takes::Initialized);
    if (!p11.OpenSession(token.slot, true)) throwLastError(p11);
    return token;
}

}  // namespace

Exit runSetPin(ClsPkcs11& p11, const Options& options) {
    const Pins pins(options);
    const TokenChoice token = openForPins(p11, options);
    XString oldPin;
    XString newPin;
    pins.read(loginSource(options), {.isOfficers = options.asOfficer, .isNew = false}, token,
              oldPin);
    pins.read(options.newPin, {.isOfficers = options.asOfficer, .isNew = true}, token, newPin);
    // The user's own PIN is changed without a login, as the standard allows, so that the old PIN is
    // tried once; the security officer has to be logged in.
    if (options.asOfficer && !p11.Login(0, oldPin)) throwLastError(p11);
    if (!p11.SetPin(oldPin, newPin)) throwLastError(p11);
    sayDone(options, "The PIN was changed.");
    return Exit::Done;
}

Exit runInitPin(ClsPkcs11& p11, const Options& options) {
    const Pins pins(options);
    const TokenChoice token = openForPins(p11, options);
    XString soPin;
    XString newPin;
    pins.read(options.soPin, {.isOfficers = true, .isNew = false}, token, soPin);
    pins.read(options.newPin, {.isOfficers = false, .isNew = true}, token, newPin);
    if (!p11.Login(0, soPin) || !p11.InitPin(newPin)) throwLastError(p11);
    sayDone(options, "The user PIN was set.");
    return Exit::Done;
}

Exit runInitToken(ClsPkcs11& p11, const Options& options) {
    const Pins pins(options);
    useModule(p11, options);
    // Without a choice only a token that holds nothing yet is taken.
    const TokenChoice token = chooseToken(p11, options, Takes::Uninitialized);
    XString soPin;
    const bool isNew = token.flags.find(" token-initialized ") == std::string::npos;
    pins.read(options.soPin, {.isOfficers = true, .isNew = isNew}, token, soPin);
    if (!p11.InitToken(token.slot, soPin, XString(options.arguments[0]))) throwLastError(p11);
    sayDone(options, "The token was initialised.");
    return Exit::Done;
}

}  // namespace mervane::cli
