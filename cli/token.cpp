#include "token.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>

#include "output.h"
#include "pins.h"

namespace mervane::cli {
namespace {

struct Token {
    bool isReadable;  // its C_GetTokenInfo succeeded
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
        if (token != nullptr) {
            tokens.push_back({true, textOf(slot, "slotId"), textOf(*token, "label"),
                              " " + joined(*token, "flags") + " "});
        } else if (joined(slot, "flags").find("token-present") != std::string::npos) {
            tokens.push_back({false, textOf(slot, "slotId"), {}, {}});
        }
    }
    return tokens;
}

// The slot ID as the library takes it; nothing for one that does not fit.
std::optional<int> slotNumber(const Token& token) {
    std::uint32_t id = 0;
    const char* const end = token.slotId.data() + token.slotId.size();
    const auto [stop, error] = std::from_chars(token.slotId.data(), end, id);
    const bool fits = error == std::errc() && stop == end && id != UINT32_MAX;
    return fits ? std::optional(static_cast<int>(id)) : std::nullopt;
}

bool mayTake(const Token& token, const Options& options, Takes takes) {
    if (!token.isReadable) return false;
    if (options.slot && slotNumber(token) != options.slot) return false;
    if (options.tokenLabel && token.label != *options.tokenLabel) return false;
    if (options.slot || options.tokenLabel) return true;
    const bool initialized = token.has("token-initialized");
    if (takes == Takes::Uninitialized) return !initialized;
    return initialized &&
           (!options.login || options.asOfficer || token.has("user-pin-initialized"));
}

std::string whyNone(const std::vector<Token>& tokens, const Options& options, Takes takes) {
    std::string what;
    if (options.slot) what += " in slot " + std::to_string(static_cast<unsigned>(*options.slot));
    if (options.tokenLabel) what += " with the label \"" + printable(*options.tokenLabel) + "\"";
    const auto unreadable = std::ranges::find(tokens, false, &Token::isReadable);
    if (unreadable != tokens.end())
        return "The token in slot " + unreadable->slotId + " cannot be read.";
    if (!what.empty()) return "There is no token" + what + ".";
    if (tokens.empty()) return "No token is present.";
    return takes == Takes::Uninitialized ? "Every token present is already initialised."
                                         : "No token is ready for use.";
}

const Token& chooseFrom(const std::vector<Token>& tokens, const Options& options, Takes takes) {
    const auto fits = [&](const Token& token) { return mayTake(token, options, takes); };
    const auto numFits = std::ranges::count_if(tokens, fits);
    if (numFits == 1) return *std::ranges::find_if(tokens, fits);
    if (numFits == 0) {
        throw CommandError{
            Exit::Module, whyNone(tokens, options, takes),
            tokens.empty() ? "" : "mervane-p11 discover shows the state of each token."};
    }
    std::string list;
    for (const Token& token : tokens) {
        if (fits(token)) list += "\n  --slot " + token.slotId + "  " + printable(token.label);
    }
    throw CommandError{
        Exit::Usage,
        "Several tokens are present; choose one with --slot or --token-label:" + list,
        {}};
}

void loginAs(ClsPkcs11& p11, const Options& options, const TokenChoice& token, const Pins& pins) {
    XString pin;
    pins.read(loginSource(options), {.isOfficers = options.asOfficer, .isNew = false}, token, pin);
    if (!p11.Login(options.asOfficer ? 0 : 1, pin)) throwLastError(p11);
}

Exit statusOf(FailureKind kind) {
    using enum FailureKind;
    switch (kind) {
        case Argument:
            return Exit::Usage;
        case NotFound:
            return Exit::NotFound;
        case PinMissing:
        case PinWrong:
        case PinLocked:
        case PinExpired:
        case PinLength:
            return Exit::Pin;
        default:
            return Exit::Module;
    }
}

}  // namespace

void useModule(ClsPkcs11& p11, const Options& options) {
    if (options.module.empty())
        usageError("No module is named: use --module PATH or set MERVANE_P11_MODULE.");
    // A file of that name here is meant, not one on the loader's search path.
    std::error_code error;
    const bool isHere = std::filesystem::is_regular_file(options.module, error);
    const auto path =
        isHere ? std::filesystem::absolute(options.module, error).string() : options.module;
    p11.put_SharedLibPath(XString(error ? options.module : path));
}

void throwLastError(ClsPkcs11& p11) {
    const mervane::Failure failure = p11.lastFailure();
    std::string message =
        failure.cause.empty() ? std::string("The call failed.") : printable(failure.cause);
    const bool hasSummary =
        !failure.summary.empty() &&
        !failure.cause.starts_with(failure.summary.substr(0, failure.summary.size() - 1));
    if (hasSummary) message += "\n" + printable(failure.summary);
    throw CommandError{statusOf(failure.kind), message, failure.hint};
}

TokenChoice chooseToken(ClsPkcs11& p11, const Options& options, Takes takes) {
    const auto tokens = listTokens(p11);
    const Token& token = chooseFrom(tokens, options, takes);
    const auto slot = slotNumber(token);
    if (!slot)
        throw CommandError{
            Exit::Module, "The slot ID " + token.slotId + " has more than 32 bits.", {}};
    return {*slot, token.has("protected-authentication-path"), token.label, token.flags};
}

TokenChoice openToken(ClsPkcs11& p11, const Options& options, bool readWrite) {
    const Pins pins(options);
    useModule(p11, options);
    const bool login = options.login || (options.asOfficer && options.soPin);
    TokenChoice choice{options.slot.value_or(0), false, {}, {}};
    // With the slot named and the PIN at hand nothing has to be asked of the module first.
    if (!options.slot || options.tokenLabel || (login && isAsked(loginSource(options)))) {
        choice = chooseToken(p11, options, Takes::Initialized);
    } else if (!p11.Initialize()) {
        throwLastError(p11);
    }
    // The security officer does not log in beside read-only sessions.
    if (!p11.OpenSession(choice.slot, readWrite || (login && options.asOfficer)))
        throwLastError(p11);
    if (login) loginAs(p11, options, choice, pins);
    return choice;
}

}  // namespace mervane::cli
