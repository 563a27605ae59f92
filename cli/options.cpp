#include "options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <filesystem>

#include <mervane/foundation/log/logger.h>
#include <mervane/foundation/text/ascii.h>

#include "failure.h"
#include "output.h"
#include "words.h"

namespace mervane::cli {
namespace {

// A slot ID in decimal or, with 0x, in hexadecimal.
unsigned long parseSlot(const std::string& text) {
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const char* const begin = text.data() + (isHex ? 2 : 0);
    const char* const end = text.data() + text.size();
    unsigned long value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, isHex ? 16 : 10);
    if (error != std::errc() || stop != end)
        usageError("--slot takes a slot ID, a number in decimal or with 0x in hexadecimal.");
    return value;
}

std::string moduleName(const std::string& text) {
    if (text.empty()) usageError("--module takes the name or the path of a module.");
    return text;
}

// Its pin-source counts like --pin, which comes before it.
void useUri(Options& options, const std::string& text) {
    Pkcs11Uri uri;
    _mvLogger log;
    if (!uri.parse(text, log)) usageError(printable(log.firstError()));
    if (uri.pinSource && !options.pin) {
        options.pin = "file:" + *uri.pinSource;
        options.login = true;
    }
    options.uri = std::move(uri);
}

std::chrono::seconds parseTimeout(const std::string& text) {
    constexpr int kLongest = 3600;
    int seconds = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, seconds);
    if (error != std::errc() || stop != end || seconds < 1 || seconds > kLongest)
        usageError("--timeout takes a number of seconds, 1 to 3600.");
    return std::chrono::seconds(seconds);
}

// A module may change the working directory; a relative path means the one at the start.
std::string absolutePath(const std::string& path, const char* takes) {
    std::error_code error;
    const auto absolute = std::filesystem::absolute(path, error);
    if (error || path.empty()) usageError(takes);
    return absolute.lexically_normal().string();
}

std::string outputPath(const std::string& path) {
    return path == "-"
               ? path
               : absolutePath(path, "--out takes the name of a file, or - for standard output.");
}

std::pair<std::string, std::string> certPart(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos)
        usageError("--cert takes PART=VALUE, such as label=signature.");
    return {text.substr(0, equals), text.substr(equals + 1)};
}

// One of a few words, in any letter case; its number.
std::size_t oneOf(const char* option, const std::string& word,
                  std::span<const std::string_view> words) {
    const auto at = std::ranges::find_if(
        words, [&](std::string_view known) { return equalsIgnoreCase(word, known); });
    if (at != words.end()) return static_cast<std::size_t>(at - words.begin());
    std::string list;
    for (const std::string_view known : words) list.append(list.empty() ? "" : ", ").append(known);
    usageError(std::string(option) + " takes one of " + list + "." + nearestHint(word, words));
}

constexpr std::array<std::string_view, 3> kHashes = {"sha256", "sha384", "sha512"};
constexpr std::array<std::string_view, 3> kPaddings = {"auto", "pkcs1", "pss"};
constexpr std::array<std::string_view, 3> kFormats = {"raw", "der", "cms"};

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
    OptionSpec{kModule, "--module", "", "NAME|PATH",
               "the PKCS#11 module (default: MERVANE_P11_MODULE, else the one that has the token)",
               [](Options& o, Value v) { o.module = moduleName(v); }},
    OptionSpec{kInitArgs, "--init-args", "", "TEXT",
               "what C_Initialize gets, such as \"configdir='sql:/home/alice/.pki/nssdb'\"",
               [](Options& o, Value v) { o.initArgs = v; }},
    OptionSpec{kUri, "--uri", "", "URI", "use the token of this PKCS #11 URI (RFC 7512)",
               [](Options& o, Value v) { useUri(o, v); }},
    OptionSpec{kSlot, "--slot", "", "ID", "use the token in this slot",
               [](Options& o, Value v) { o.slot = parseSlot(v); }},
    OptionSpec{kTokenLabel, "--token-label", "", "TEXT", "use the token with exactly this label",
               [](Options& o, Value v) { o.tokenLabel = v; }},
    OptionSpec{kTokenSerial, "--token-serial", "", "TEXT",
               "use the token with exactly this serial number",
               [](Options& o, Value v) { o.tokenSerial = v; }},
    OptionSpec{kTimeout, "--timeout", "", "SECONDS",
               "how long each module may take to list its tokens (default: 10)",
               [](Options& o, Value v) { o.timeout = parseTimeout(v); }},
    OptionSpec{kLogin, "--login", "-l", "", "log in; --pin implies it",
               [](Options& o, Value) { o.login = true; }},
    OptionSpec{kUser, "--user", "", "user|so",
               "log in as the user (default) or the security officer",
               [](Options& o, Value v) { o.asOfficer = isOfficer(v); }},
    OptionSpec{kPin, "--pin", "", "SOURCE",
               "where the PIN comes from: env:NAME, file:PATH or - (prompt)",
               [](Options& o, Value v) {
                   o.pin = pinSource("--pin", v);
                   o.login = true;
               }},
    OptionSpec{kSoPin, "--so-pin", "", "SOURCE", "where the security officer's PIN comes from",
               [](Options& o, Value v) { o.soPin = pinSource("--so-pin", v); }},
    OptionSpec{kNewPin, "--new-pin", "", "SOURCE", "where the new PIN comes from",
               [](Options& o, Value v) { o.newPin = pinSource("--new-pin", v); }},
    OptionSpec{kNoLogin, "--no-login", "", "", "do not ask for a PIN, even on a terminal",
               [](Options& o, Value) { o.noLogin = true; }},
    OptionSpec{kTokensOnly, "--tokens-only", "", "", "only slots with a token",
               [](Options& o, Value) { o.tokensOnly = true; }},
    OptionSpec{kSkipMechanisms, "--skip-mechanisms", "", "", "leave out the mechanisms",
               [](Options& o, Value) { o.skipMechanisms = true; }},
    OptionSpec{kMechanisms, "--mechanisms", "", "", "list the mechanisms too",
               [](Options& o, Value) { o.mechanisms = true; }},
    OptionSpec{kExplain, "--explain", "", "", "say why the other keys were not taken",
               [](Options& o, Value) { o.explain = true; }},
    OptionSpec{kPem, "--pem", "", "", "add the certificate itself to the JSON",
               [](Options& o, Value) { o.pem = true; }},
    OptionSpec{kWide, "--wide", "", "", "all columns, even on a terminal",
               [](Options& o, Value) { o.wide = true; }},
    OptionSpec{kYes, "--yes", "", "", "destroy what is on the token without asking",
               [](Options& o, Value) { o.yes = true; }},
    OptionSpec{kIfUninitialised, "--if-uninitialised", "", "",
               "change nothing if a token with that label is initialised already",
               [](Options& o, Value) { o.ifUninitialised = true; }},
    OptionSpec{kIfUnset, "--if-unset", "", "", "change nothing if the user PIN is set already",
               [](Options& o, Value) { o.ifUnset = true; }},
    OptionSpec{
        kOut, "--out", "", "FILE",
        "write to FILE; - is standard output; a certificate as DER if the name ends in .der, else "
        "as PEM",
        [](Options& o, Value v) { o.out = outputPath(v); }},
    OptionSpec{
        kOutDir, "--out-dir", "", "DIR", "write the signatures into DIR, as NAME.p7s or NAME.sig",
        [](Options& o, Value v) {
            o.outDir = absolutePath(v, "--out-dir takes the name of a folder.");
        }},
    OptionSpec{kCert, "--cert", "", "PART=VALUE",
               "sign with the certificate that fits; may be given more than once",
               [](Options& o, Value v) { o.certParts.push_back(certPart(v)); }},
    OptionSpec{kFormat, "--format", "", "raw|der|cms",
               "the form of the signature (default: cms for .p7s and --out-dir, else der)",
               [](Options& o, Value v) { o.format = kFormats[oneOf("--format", v, kFormats)]; }},
    OptionSpec{kAttached, "--attached", "", "", "put the document into the CMS as well",
               [](Options& o, Value) { o.attached = true; }},
    OptionSpec{kChain, "--chain", "", "", "add the issuers' certificates that the token has",
               [](Options& o, Value) { o.chain = true; }},
    OptionSpec{kHash, "--hash", "", "sha256|sha384|sha512", "the hash function (default: sha256)",
               [](Options& o, Value v) {
                   o.signing.hash = static_cast<Hash>(oneOf("--hash", v, kHashes));
               }},
    OptionSpec{kPadding, "--padding", "", "auto|pkcs1|pss", "the padding of RSA signatures",
               [](Options& o, Value v) {
                   o.signing.padding = static_cast<Padding>(oneOf("--padding", v, kPaddings));
               }},
    OptionSpec{kSignPin, "--sign-pin", "", "SOURCE",
               "the PIN that a key asks for at each signature (default: the one of --pin)",
               [](Options& o, Value v) { o.signPin = pinSource("--sign-pin", v); }},
    OptionSpec{kJson, "--json", "", "", "print JSON", [](Options& o, Value) { o.json = true; }},
    OptionSpec{kLog, "--log", "", "", "print the log of all calls on standard error",
               [](Options& o, Value) { o.log = true; }},
    OptionSpec{kHelp, "--help", "-h", "", "print this help",
               [](Options& o, Value) { o.help = true; }},
    OptionSpec{kVersion, "--version", "", "", "print the version",
               [](Options& o, Value) { o.version = true; }},
};

const OptionSpec& findOption(std::string_view name) {
    const auto* const option = std::ranges::find_if(kOptions, [name](const OptionSpec& spec) {
        return spec.name == name || (!name.empty() && spec.shortName == name);
    });
    if (option != kOptions.end()) return *option;
    std::array<std::string_view, kOptions.size()> names;
    std::ranges::transform(kOptions, names.begin(), &OptionSpec::name);
    usageError("Unknown option: " + printable(name) + "." + nearestHint(name, names));
}

// What people know from other tools of the field.
constexpr std::array<std::pair<std::string_view, std::string_view>, 2> kShortCommands = {
    {{"-L", "discover"}, {"-O", "match"}}};

std::string commandFor(const std::string& word) {
    for (const auto& [shortName, command] : kShortCommands) {
        if (word == shortName) return std::string(command);
    }
    return word;
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-' && commandFor(word) == word;
}

}  // namespace

std::span<const OptionSpec> optionSpecs() noexcept {
    return kOptions;
}

void parseCommandLine(std::span<const char* const> words, CommandLine& out) {
    if (const char* const module = std::getenv("MERVANE_P11_MODULE"))
        out.options.defaultModule = module;
    // How a failure is reported does not depend on where in the line it is.
    const auto end = std::ranges::find(words, std::string_view("--"));
    out.options.json = std::find(words.begin(), end, std::string_view("--json")) != end;
    bool onlyArguments = false;  // after "--"
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string word = words[i];
        if (onlyArguments || !isOption(word)) {
            if (out.command.empty()) {
                out.command = commandFor(word);
            } else {
                out.options.arguments.push_back(word);
            }
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
