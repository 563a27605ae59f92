// set-pin, init-pin and init-token.

#include <iostream>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/pins.h"
#include "cli/token.h"

namespace mervane::cli {
namespace {

void sayDone(const Options& options, const std::string& sentence) {
    std::cout << (options.json ? "{\"ok\": true}" : sentence) << '\n';
}

}  // namespace

Exit runSetPin(ClsPkcs11& p11, const Options& options) {
    if (!options.arguments.empty()) usageError("set-pin takes no arguments.");
    // The user's own PIN is changed without a login, as the standard allows, so that the old PIN is
    // tried once; the security officer has to be logged in.
    Options session = options;
    session.login = options.asOfficer;
    session.pin.reset();
    session.soPin = options.soPin ? options.soPin : options.pin;
    openToken(p11, session, true);
    XString oldPin;
    XString newPin;
    readPin(options.asOfficer ? session.soPin : options.pin, "old PIN", oldPin);
    readPin(options.newPin, "new PIN", newPin);
    if (!p11.SetPin(oldPin, newPin)) throwLastError(p11);
    sayDone(options, "The PIN was changed.");
    return Exit::Done;
}

Exit runInitPin(ClsPkcs11& p11, const Options& options) {
    if (!options.arguments.empty()) usageError("init-pin takes no arguments.");
    Options session = options;
    session.login = session.asOfficer = true;
    session.pin.reset();
    openToken(p11, session, true);
    XString newPin;
    readPin(options.newPin, "new user PIN", newPin);
    if (!p11.InitPin(newPin)) throwLastError(p11);
    sayDone(options, "The user PIN was set.");
    return Exit::Done;
}

Exit runInitToken(ClsPkcs11& p11, const Options& options) {
    if (options.arguments.size() != 1) usageError("init-token takes one label.");
    useModule(p11, options);
    // Without a choice only a token that holds nothing yet is taken.
    const int slot = chooseSlot(p11, options, Takes::Uninitialized);
    if (!p11.Initialize()) throwLastError(p11);
    XString soPin;
    readPin(options.soPin, "security officer PIN", soPin);
    if (!p11.InitToken(slot, soPin, XString(options.arguments[0]))) throwLastError(p11);
    sayDone(options, "The token was initialised.");
    return Exit::Done;
}

}  // namespace mervane::cli
