#include "options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>

#include "failure.h"
#include "output.h"

namespace mervane::cli {
namespace {

// A slot ID in decimal or, with 0x, in hexadecimal. The library takes 32 bits as an int.
int parseSlot(const std::string& text) {
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const char* const begin = text.data() + (isHex ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, isHex ? 16 : 10);
    // 0xFFFFFFFF would become -1, which means any slot.
    if (error != std::errc() || stop != end || value == UINT32_MAX) {
        usageError("--slot takes a slot ID below 0xFFFFFFFF.");
    }
    return static_cast<int>(value);
}

bool isOfficer(const std::string& user) {
    if (user != "user" && user != "so") usageError("--user takes user or so.");
    return user == "so";
}

std::string pinSource(const std::string& option, const std::string& text) {
    if (text == "-" || text.starts_with("env:") || text.starts_with("file:")) return text;
    usageError(
        option +
        " takes env:NAME, file:PATH or - (prompt). A PIN itself is refused on the command line, "
        "where every user of the machine could read it.");
}

using Value = const std::string&;

constexpr std::array kOptions = {
    OptionSpec{kModule, "--module", "PATH",
               "the PKCS#11 module (default: the environment variable MERVANE_P11_MODULE)",
               [](Options& o, Value v) { o.module = v; }},
    OptionSpec{kSlot, "--slot", "ID", "use the token in this slot",
               [](Options& o, Value v) { o.slot = parseSlot(v); }},
    OptionSpec{kTokenLabel, "--token-label", "TEXT", "use the token with exactly this label",
               [](Options& o, Value v) { o.tokenLabel = v; }},
    OptionSpec{kLogin, "--login", "", "log in; --pin implies it",
               [](Options& o, Value) { o.login = true; }},
    OptionSpec{kUser, "--user", "user|so", "log in as the user (default) or the security officer",
               [](Options& o, Value v) { o.asOfficer = isOfficer(v); }},
    OptionSpec{kPin, "--pin", "SOURCE",
               "where the PIN comes from: env:NAME, file:PATH or - (prompt)",
               [](Options& o, Value v) {
                   o.pin = pinSource("--pin", v);
                   o.login = true;
               }},
    OptionSpec{kSoPin, "--so-pin", "SOURCE", "where the security officer's PIN comes from",
               [](Options& o, Value v) { o.soPin = pinSource("--so-pin", v); }},
    OptionSpec{kNewPin, "--new-pin", "SOURCE", "where the new PIN comes from",
               [](Options& o, Value v) { o.newPin = pinSource("--new-pin", v); }},
    OptionSpec{kTokensOnly, "--tokens-only", "", "only slots with a token",
               [](Options& o, Value) { o.tokensOnly = true; }},
    OptionSpec{kSkipMechanisms, "--skip-mechanisms", "", "leave out the mechanisms",
               [](Options& o, Value) { o.skipMechanisms = true; }},
    OptionSpec{kOut, "--out", "FILE",
               "write the certificate: DER if the name ends in .der, otherwise PEM",
               [](Options& o, Value v) { o.out = v; }},
    OptionSpec{kJson, "--json", "", "print JSON", [](Options& o, Value) { o.json = true; }},
    OptionSpec{kLog, "--log", "", "print the log of all calls on standard error",
               [](Options& o, Value) { o.log = true; }},
    OptionSpec{kHelp, "--help", "", "print this help", [](Options& o, Value) { o.help = true; }},
    OptionSpec{kVersion, "--version", "", "print the version",
               [](Options& o, Value) { o.version = true; }},
};

const OptionSpec& findOption(std::string_view name) {
    const auto* const option = std::ranges::find(kOptions, name, &OptionSpec::name);
    if (option == kOptions.end()) usageError("Unknown option: " + printable(name));
    return *option;
}

}  // namespace

std::span<const OptionSpec> optionSpecs() noexcept {
    return kOptions;
}

void parseCommandLine(std::span<const char* const> words, CommandLine& out) {
    // The default; --module replaces it.
    if (const char* const module = std::getenv("MERVANE_P11_MODULE")) out.options.module = module;
    bool onlyArguments = false;  // after "--"
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string word = words[i];
        if (onlyArguments || !word.starts_with("--")) {
            (out.command.empty() ? out.command : out.options.arguments.emplace_back()) = word;
            continue;
        }
        if (word == "--") {
            onlyArguments = true;
            continue;
        }
        // --name value, or --name=value
        const auto equals = word.find('=');
        const bool isJoined = equals != std::string::npos;
        const OptionSpec& option = findOption(word.substr(0, equals));
        const std::string name(option.name);
        if (option.value.empty() && isJoined) usageError(name + " takes no value.");
        const bool needsNext = !option.value.empty() && !isJoined;
        if (needsNext && i + 1 == words.size()) usageError(name + " needs a value.");
        option.set(out.options, needsNext  ? words[++i]
                                : isJoined ? word.substr(equals + 1)
                                           : std::string());
        out.given |= option.bit;
    }
}

}  // namespace mervane::cli
