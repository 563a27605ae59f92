// set-pin, init-pin and init-token.

#include <fcntl.h>

#include <csignal>
#include <iostream>

#include "commands.h"
#include "locatetoken.h"
#include "output.h"
#include "pins.h"
#include "terminal.h"
#include "token.h"

namespace mervane::cli {
namespace {

// Says what was done, even if standard output cannot be written.
void sayDone(const Options& options, std::string_view member, bool value,
             const std::string& sentence) {
    // A reader that has gone would end the program before it has said so.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    if (options.json) {
        JsonPrinter document;
        document.member(member, JsonValue(value));
        document.finish();
    } else {
        std::cout << sentence << '\n';
    }
    std::cout.flush();
    if (!std::cout)
        throw CommandError{Exit::Module, sentence + " Standard output cannot be written.", {}};
}

// What would be lost: the token, and its objects as far as they can be seen without a login.
std::string whatDies(ClsPkcs11& p11, const TokenInfo& token) {
    std::string out = "\"" + printable(token.label) + "\" (serial number " +
                      printable(token.serialNumber) + ", slot " + std::to_string(token.slotId) +
                      ")";
    int numObjects = 0;
    const bool isOpen = p11.OpenToken({.slotId = token.slotId}, false);
    if (isOpen && p11.CountObjects(numObjects)) {
        out += ", on which " + std::to_string(numObjects) +
               (numObjects == 1 ? " object" : " objects") + " can be seen without a login";
    }
    if (isOpen) p11.CloseSession();  // C_InitToken fails while one is open
    return out;
}

// A slip of the fingers must destroy nothing.
void confirm(ClsPkcs11& p11, const TokenInfo& token, const Options& options) {
    if (options.yes || !token.isInitialised) return;
    const std::string victim = whatDies(p11, token);
    // An empty label would be typed by the Enter key alone.
    if (token.label.empty())
        throw CommandError{Exit::Usage,
                           "Everything would be destroyed on the token " + victim + ".",
                           "Its label is blank and cannot be typed; --yes goes on without asking."};
    SecretLine answer;
    const bool isAsked = askUnseen(
        "Everything will be destroyed on the token " + victim + ".\nType its label to go on: ",
        answer);
    if (isAsked && answer.text() == token.label) return;
    throw CommandError{Exit::Usage,
                       (isAsked ? "That is not its label; nothing was changed on the token "
                                : "Everything would be destroyed on the token ") +
                           victim + ".",
                       isAsked ? "" : "--yes skips the question."};
}

bool isThereAlready(ClsPkcs11& p11, const TokenChoice& choice, const Options& options) {
    std::vector<TokenInfo> tokens;
    if (!p11.ListTokens(tokens)) throwLastFailure(p11);
    return std::ranges::any_of(tokens, [&](const TokenInfo& token) {
        const bool isNamed =
            choice.slotId ? token.slotId == *choice.slotId : token.label == options.arguments[0];
        return token.isReadable && token.isInitialised && isNamed;
    });
}

constexpr const char* kNothingChanged = "The token is initialised already; nothing was changed.";

int slotArgument(const TokenInfo& token) {
    if (token.slotId >= UINT32_MAX)
        throw CommandError{
            Exit::Module,
            "The slot ID " + std::to_string(token.slotId) + " has more than 32 bits.",
            {}};
    return static_cast<int>(token.slotId);
}

}  // namespace

Exit runSetPin(ClsPkcs11& p11, const Options& options) {
    const Pins pins(options);
    if (options.soPin && !options.asOfficer) usageError("--so-pin needs --user so.");
    const TokenInfo token = openForWriting(p11, options);
    XString oldPin;
    XString newPin;
    pins.read(loginSource(options), {.isOfficers = options.asOfficer, .isNew = false}, token,
              oldPin);
    pins.read(options.newPin, {.isOfficers = options.asOfficer, .isNew = true}, token, newPin);
    // The user's own PIN is changed without a login, as the standard allows, so that the old PIN is
    // tried once; the security officer has to be logged in.
    if (options.asOfficer && !p11.Login(0, oldPin)) throwLastFailure(p11);
    if (!p11.SetPin(oldPin, newPin)) throwLastFailure(p11);
    sayDone(options, "ok", true, "The PIN was changed.");
    return Exit::Done;
}

Exit runInitPin(ClsPkcs11& p11, const Options& options) {
    const Pins pins(options);
    const TokenInfo token = openForWriting(p11, options);
    if (options.ifUnset && token.isUserPinSet) {
        sayDone(options, "changed", false, "The user PIN is set already; nothing was changed.");
        return Exit::Done;
    }
    XString soPin;
    XString newPin;
    pins.read(options.soPin, {.isOfficers = true, .isNew = false}, token, soPin);
    pins.read(options.newPin, {.isOfficers = false, .isNew = true}, token, newPin);
    if (!p11.Login(0, soPin) || !p11.InitPin(newPin)) throwLastFailure(p11);
    sayDone(options, options.ifUnset ? "changed" : "ok", true, "The user PIN was set.");
    return Exit::Done;
}

Exit runInitToken(ClsPkcs11& p11, const Options& options) {
    const Pins pins(options);
    const TokenChoice choice = locateToken(p11, options, Suitable::Uninitialised);
    if (options.ifUninitialised && isThereAlready(p11, choice, options)) {
        sayDone(options, "changed", false, kNothingChanged);
        return Exit::Done;
    }
    const TokenInfo token = tokenToInitialise(p11, choice);
    if (options.ifUninitialised && token.isInitialised) {
        sayDone(options, "changed", false, kNothingChanged);
        return Exit::Done;
    }
    const int slot = slotArgument(token);
    confirm(p11, token, options);
    XString soPin;
    pins.read(options.soPin, {.isOfficers = true, .isNew = !token.isInitialised}, token, soPin);
    if (!p11.InitToken(slot, soPin, options.arguments[0])) throwLastFailure(p11);
    sayDone(options, options.ifUninitialised ? "changed" : "ok", true,
            "The token was initialised.");
    return Exit::Done;
}

}  // namespace mervane::cli
