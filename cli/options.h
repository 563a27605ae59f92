#ifndef MERVANE_CLI_OPTIONS_H
#define MERVANE_CLI_OPTIONS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <mervane/locate/uri.h>
#include <mervane/signing/options.h>

namespace mervane::cli {

/// The options given. A PIN appears as its source (env:NAME, file:PATH or -), never as its value.
struct Options {
    std::vector<std::string> arguments;  // after the command

    std::string module;         // --module: a path or a name
    std::string defaultModule;  // the environment variable MERVANE_P11_MODULE
    std::string initArgs;
    std::optional<Pkcs11Uri> uri;
    std::chrono::seconds timeout{10};
    std::optional<unsigned long> slot;
    std::optional<std::string> tokenLabel;
    std::optional<std::string> tokenSerial;
    bool login = false;
    bool asOfficer = false;  // --user so
    std::optional<std::string> pin, soPin, newPin, signPin;
    std::optional<std::string> out;                              // absolute, or "-"
    std::optional<std::string> outDir;                           // absolute
    std::vector<std::pair<std::string, std::string>> certParts;  // --cert, as PART and VALUE
    std::optional<std::string> format;                           // raw, der or cms
    SignOptions signing;                                         // --hash, --padding
    bool attached = false;
    bool chain = false;
    bool json = false;
    bool log = false;
    bool tokensOnly = false;
    bool skipMechanisms = false;
    bool mechanisms = false;
    bool noLogin = false;
    bool explain = false;
    bool pem = false;
    bool wide = false;
    bool yes = false;
    bool ifUninitialised = false;
    bool ifUnset = false;
    bool help = false;
    bool version = false;
};

/// One bit per option, for the set that a command accepts.
enum OptionBit : std::uint64_t {
    kModule = 1U << 0,
    kSlot = 1U << 1,
    kTokenLabel = 1U << 2,
    kLogin = 1U << 3,
    kUser = 1U << 4,
    kPin = 1U << 5,
    kSoPin = 1U << 6,
    kNewPin = 1U << 7,
    kTokensOnly = 1U << 8,
    kSkipMechanisms = 1U << 9,
    kOut = 1U << 10,
    kJson = 1U << 11,
    kLog = 1U << 12,
    kHelp = 1U << 13,
    kVersion = 1U << 14,
    kMechanisms = 1U << 15,
    kNoLogin = 1U << 16,
    kExplain = 1U << 17,
    kPem = 1U << 18,
    kWide = 1U << 19,
    kYes = 1U << 20,
    kIfUninitialised = 1U << 21,
    kTokenSerial = 1U << 22,
    kOutDir = 1U << 23,
    kCert = 1U << 24,
    kFormat = 1U << 25,
    kAttached = 1U << 26,
    kChain = 1U << 27,
    kHash = 1U << 28,
    kPadding = 1U << 29,
    kSignPin = 1U << 30,
    kUri = 1ULL << 31,
    kInitArgs = 1ULL << 32,
    kTimeout = 1ULL << 33,
    kIfUnset = 1ULL << 34,
};

/// One option, for parsing and help.
struct OptionSpec {
    OptionBit bit;
    std::string_view name;
    std::string_view shortName;  // such as "-l"; empty if there is none
    std::string_view value;      // its placeholder in the help; empty for a switch
    std::string_view help;
    void (*set)(Options& options, const std::string& value);
};

/// All options, in the order of the help.
std::span<const OptionSpec> optionSpecs() noexcept;

/// A parsed command line.
struct CommandLine {
    std::string command;
    Options options;
    std::uint64_t given = 0;  // OptionBits seen
};

/// Parses the words after the program's name. Throws a CommandError that names the offending word;
/// `out` then has everything before it, so --log still works; --json works wherever it stands.
void parseCommandLine(std::span<const char* const> words, CommandLine& out);

}  // namespace mervane::cli

#endif
