#include "cli/token.h"

#include <algorithm>
#include <charconv>

#include "cli/output.h"
#include "cli/pins.h"

namespace mervane::cli {
namespace {

struct Token {
    std::string slotId;
    std::string label;
    std::string flags;  // between blanks
    [[nodiscard]] bool has(std::string_view flag) const {
        return flags.find(" " + std::string(flag) + " ") != std::string::npos;
    }
};

std::vector<Token> listTokens(ClsPkcs11& p11) {
    ClsJsonObject report;
    p11.put_Options("Pkcs11DiscoverSkipMechanisms");
    if (!p11.Discover(true, report)) throwLastError(p11);
    std::vector<Token> tokens;
    const JsonValue* const slots = report.valueAt("slots");
    for (const JsonValue& slot : *slots->asArray()) {
        const JsonValue* const token = slot.find("token");
        if (token == nullptr) continue;
        tokens.push_back(
            {textOf(slot, "slotId"), textOf(*token, "label"), " " + joined(*token, "flags") + " "});
    }
    return tokens;
}

int slotNumber(const Token& token) {
    std::uint32_t id = 0;
    const char* const end = token.slotId.data() + token.slotId.size();
    const auto [stop, error] = std::from_chars(token.slotId.data(), end, id);
    if (error != std::errc() || stop != end) {
        throw Failure{Exit::Module, "The slot ID " + token.slotId + " has more than 32 bits.", {}};
    }
    return static_cast<int>(id);
}

bool mayTake(const Token& token, const Options& options, Takes takes) {
    if (options.tokenLabel) return token.label == *options.tokenLabel;
    const bool initialized = token.has("token-initialized");
    if (takes == Takes::Uninitialized) return !initialized;
    return initialized &&
           (!options.login || options.asOfficer || token.has("user-pin-initialized"));
}

const Token& chooseToken(const std::vector<Token>& tokens, const Options& options, Takes takes) {
    if (options.slot) {
        const auto at = std::ranges::find_if(
            tokens, [&](const Token& t) { return slotNumber(t) == *options.slot; });
        if (at != tokens.end()) return *at;
        throw Failure{Exit::Module,
                      "There is no token in slot " +
                          std::to_string(static_cast<unsigned>(*options.slot)) + ".",
                      "mervane-p11 discover lists the slots."};
    }
    const auto fits = [&](const Token& token) { return mayTake(token, options, takes); };
    const auto numFits = std::ranges::count_if(tokens, fits);
    if (numFits == 1) return *std::ranges::find_if(tokens, fits);
    if (numFits == 0) {
        const std::string what =
            options.tokenLabel
                ? "No token has the label \"" + printable(*options.tokenLabel) + "\"."
            : tokens.empty()                ? "No token is present."
            : takes == Takes::Uninitialized ? "No token is present that is not initialised yet."
                                            : "No token is present that can be used.";
        throw Failure{Exit::Module, what,
                      tokens.empty() ? "" : "mervane-p11 discover says how the tokens stand."};
    }
    std::string list;
    for (const Token& token : tokens) {
        if (fits(token)) list += "\n  --slot " + token.slotId + "  " + printable(token.label);
    }
    throw Failure{Exit::Usage,
                  "Several tokens are present; choose one with --slot or --token-label:" + list,
                  {}};
}

void loginAs(ClsPkcs11& p11, const Options& options, bool hasPinPad) {
    XString pin;
    const auto& source = options.asOfficer && options.soPin ? options.soPin : options.pin;
    const std::string prompt = options.asOfficer ? "security officer PIN" : "user PIN";
    // A reader with keys of its own asks there.
    if (source || !hasPinPad) readPin(source, prompt, pin);
    if (pin.isEmpty() && !hasPinPad) throw Failure{Exit::Pin, "The " + prompt + " is empty.", {}};
    if (!p11.Login(options.asOfficer ? 0 : 1, pin)) throwLastError(p11);
}

}  // namespace

void useModule(ClsPkcs11& p11, const Options& options) {
    if (options.module.empty())
        usageError("No module is named: use --module PATH or set MERVANE_P11_MODULE.");
    p11.put_SharedLibPath(XString(options.module));
}

void throwLastError(const ClsPkcs11& p11, Exit status) {
    std::string error = p11.log().lastError();
    if (error.empty()) error = "The call failed.";
    const bool aboutPin = error.find("CKR_PIN_") != std::string::npos ||
                          error.find("CKR_USER_PIN_NOT_INITIALIZED") != std::string::npos;
    throw Failure{aboutPin ? Exit::Pin : status, error, p11.log().lastHint()};
}

int chooseSlot(ClsPkcs11& p11, const Options& options, Takes takes) {
    return options.slot ? *options.slot : slotNumber(chooseToken(listTokens(p11), options, takes));
}

void openToken(ClsPkcs11& p11, const Options& options, bool readWrite) {
    useModule(p11, options);
    const bool login = options.login || options.pin;
    bool hasPinPad = false;
    int slot = options.slot.value_or(0);
    // With the slot named and the PIN at hand nothing has to be asked of the module first.
    if (!options.slot || (login && !options.pin && !options.soPin)) {
        const auto tokens = listTokens(p11);
        const Token& token = chooseToken(tokens, options, Takes::Initialized);
        slot = slotNumber(token);
        hasPinPad = token.has("protected-authentication-path");
    } else if (!p11.Initialize()) {
        throwLastError(p11);
    }
    if (!p11.OpenSession(slot, readWrite)) throwLastError(p11);
    if (login) loginAs(p11, options, hasPinPad);
}

}  // namespace mervane::cli
