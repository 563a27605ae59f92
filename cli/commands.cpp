// The table of commands that parsing, --help and dispatch work from. The manual is docs/cli.md.

#include "commands.h"

#include <algorithm>
#include <array>
#include <limits>

#include "output.h"
#include "words.h"

namespace mervane::cli {
namespace {

constexpr std::size_t kAny = std::numeric_limits<std::size_t>::max();

constexpr std::uint64_t kForms = kJson | kLog;
constexpr std::uint64_t kToken =
    kModule | kInitArgs | kSlot | kTokenLabel | kTokenSerial | kUri | kTimeout | kForms;
constexpr std::uint64_t kReading = kToken | kLogin | kUser | kPin | kSoPin;

constexpr std::array kCommands = {
    CommandSpec{"doctor", "", 0, 0, kToken | kLogin | kPin | kSignPin,
                "check everything from the card reader to the key, and name remedies", runDoctor},
    CommandSpec{"readers", "", 0, 0, kForms | kWide, "list the card readers and their cards",
                runReaders},
    CommandSpec{"modules", "", 0, 0, kForms | kWide, "list the PKCS#11 modules of this machine",
                runModules},
    CommandSpec{"tokens", "", 0, 0, kModule | kInitArgs | kUri | kTimeout | kForms | kWide,
                "list the tokens of all modules", runTokens},
    CommandSpec{"discover", "", 0, 0,
                kModule | kInitArgs | kForms | kTokensOnly | kSkipMechanisms | kMechanisms | kWide,
                "describe the module, its slots and tokens", runDiscover},
    CommandSpec{"certs", "", 0, 0, kReading | kPem | kWide, "list the certificates", runCerts},
    CommandSpec{"find-cert", "[PART [VALUE]]", 0, 2, kReading | kOut | kNoLogin | kExplain | kPem,
                "choose a certificate; PART is privateKey, subjectDN, CN, serial, ...",
                runFindCert},
    CommandSpec{"match", "", 0, 0, kReading | kNoLogin | kExplain | kPem | kWide,
                "list the certificates, each with its private key", runMatch},
    CommandSpec{"keys", "[SELECTOR]", 0, kAny, kReading | kWide,
                "list the keys; SELECTOR: any of private public secret rsa ec all", runKeys},
    CommandSpec{"find-object", "JSON", 1, 1, kReading,
                R"(find one object, such as '{"class":"privateKey","label":"sign"}')",
                runFindObject},
    CommandSpec{"sign", "FILE...", 1, kAny,
                kToken | kLogin | kPin | kSignPin | kNoLogin | kOut | kOutDir | kCert | kFormat |
                    kAttached | kChain | kHash | kPadding,
                "sign files with the key of the signing certificate; - is standard input", runSign},
    CommandSpec{"test", "", 0, 0, kToken | kLogin | kPin | kSignPin | kNoLogin | kWide,
                "let every key sign, and verify that with its certificate", runTest},
    CommandSpec{"set-pin", "", 0, 0, kToken | kUser | kPin | kSoPin | kNewPin,
                "change the PIN from --pin to --new-pin", runSetPin},
    CommandSpec{"init-pin", "", 0, 0, kToken | kSoPin | kNewPin | kIfUnset,
                "set the user PIN to --new-pin, as the security officer (--so-pin)", runInitPin},
    CommandSpec{"init-token", "LABEL", 1, 1, kToken | kSoPin | kYes | kIfUninitialised,
                "initialise a token with --so-pin; destroys everything on it", runInitToken},
    CommandSpec{"atr", "[ATR]", 0, kAny, kForms,
                "name the card with this ATR, or the cards in the readers, and its module", runAtr},
    CommandSpec{"card-data", "", 0, 0, kForms, "print the card database", runCardData},
    CommandSpec{"command-table", "", 0, 0, kForms, "", runCommandTable},
    CommandSpec{"complete", "labels|modules", 1, 1, kForms, "", runComplete},
    CommandSpec{"ask-module", "PATH INIT-ARGS PARENT", 3, 3, kForms, "", runAskModule},
};

void checkArguments(const CommandSpec& command, std::size_t numGiven) {
    if (numGiven >= command.minArguments && numGiven <= command.maxArguments) return;
    const std::string takes =
        command.maxArguments == 0 ? std::string("no arguments") : std::string(command.arguments);
    usageError(std::string(command.name) + " takes " + takes + ".");
}

// Of these two, one would be without effect.
constexpr std::array<std::pair<OptionBit, OptionBit>, 8> kExclusive = {
    {{kMechanisms, kSkipMechanisms},
     {kNoLogin, kLogin},
     {kNoLogin, kPin},
     {kWide, kJson},
     {kOut, kOutDir},
     {kUri, kSlot},
     {kUri, kTokenLabel},
     {kUri, kTokenSerial}}};

std::string nameOf(OptionBit bit) {
    return std::string(std::ranges::find(optionSpecs(), bit, &OptionSpec::bit)->name);
}

// A URI may name a certificate or its key where one is chosen.
void checkUri(const CommandSpec& command, const Pkcs11Uri& uri) {
    if (!uri.namesObject()) return;
    if (command.run != runSign && command.run != runFindCert)
        usageError("--uri names an object, and " + std::string(command.name) +
                   " takes that of a token.");
    if (uri.type && uri.type != "cert" && uri.type != "private")
        usageError("--uri names neither a certificate nor a private key.");
}

void checkOptions(const CommandSpec& command, const CommandLine& line) {
    const std::uint64_t given = line.given;
    const auto isStray = [&](const OptionSpec& option) {
        return (given & option.bit & ~(command.options | kHelp | kVersion)) != 0;
    };
    const auto stray = std::ranges::find_if(optionSpecs(), isStray);
    if (stray != optionSpecs().end())
        usageError(std::string(command.name) + " does not take " + std::string(stray->name) + ".");
    if ((given & kPem) != 0 && (given & kJson) == 0)
        usageError("--pem needs --json; find-cert --out - prints a certificate.");
    if (line.options.uri) checkUri(command, *line.options.uri);
    for (const auto& [one, other] : kExclusive) {
        if ((given & one) != 0 && (given & other) != 0)
            usageError(nameOf(one) + " does not go with " + nameOf(other) + ".");
    }
}

}  // namespace

std::span<const CommandSpec> commandSpecs() noexcept {
    return kCommands;
}

const CommandSpec& commandNamed(std::string_view name) {
    const auto* const command = std::ranges::find(kCommands, name, &CommandSpec::name);
    if (command != kCommands.end()) return *command;
    std::array<std::string_view, kCommands.size()> names;
    std::ranges::transform(kCommands, names.begin(), &CommandSpec::name);
    usageError("Unknown command: " + printable(name) + "." + nearestHint(name, names));
}

const CommandSpec& commandOf(const CommandLine& line) {
    if (line.command.empty()) usageError("No command given.");
    const CommandSpec& command = commandNamed(line.command);
    checkOptions(command, line);
    checkArguments(command, line.options.arguments.size());
    return command;
}

Exit runCommandTable(ClsPkcs11&, const Options&) {
    JsonValue document = JsonValue::object();
    JsonValue& options = document.set("options", JsonValue::array());
    for (const OptionSpec& option : optionSpecs()) {
        JsonValue& entry = options.append(JsonValue::object());
        entry.set("name", option.name);
        entry.set("short", option.shortName);
        entry.set("value", option.value);
        entry.set("help", option.help);
    }
    JsonValue& commands = document.set("commands", JsonValue::array());
    for (const CommandSpec& command : kCommands) {
        if (command.help.empty()) continue;
        JsonValue& entry = commands.append(JsonValue::object());
        entry.set("name", command.name);
        entry.set("arguments", command.arguments);
        entry.set("help", command.help);
        JsonValue& names = entry.set("options", JsonValue::array());
        for (const OptionSpec& option : optionSpecs()) {
            if (((command.options | kHelp) & option.bit) != 0) names.append(JsonValue(option.name));
        }
    }
    printJson(document);
    return Exit::Done;
}

}  // namespace mervane::cli
