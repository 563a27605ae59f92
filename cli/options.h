#ifndef MERVANE_CLI_OPTIONS_H
#define MERVANE_CLI_OPTIONS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mervane::cli {

/// The values of the options given. PINs stand here as where they come from, never as values.
struct Options {
    std::vector<std::string> arguments;  // behind the command

    std::string module;  // --module, or the environment variable MERVANE_P11_MODULE
    std::optional<int> slot;
    std::optional<std::string> tokenLabel;
    bool login = false;
    bool asOfficer = false;  // --user so
    std::optional<std::string> pin, soPin, newPin;
    std::optional<std::string> out;
    bool json = false;
    bool log = false;
    bool tokensOnly = false;
    bool skipMechanisms = false;
    bool help = false;
    bool version = false;
};

/// One bit an option, so that a command names those it uses.
enum OptionBit : std::uint32_t {
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
};

/// An option as parser and help see it.
struct OptionSpec {
    OptionBit bit;
    std::string_view name;
    std::string_view value;  // what stands for it in the help; empty for a switch
    std::string_view help;
    void (*set)(Options& options, const std::string& value);
};

/// In the order of the help.
std::span<const OptionSpec> optionSpecs() noexcept;

/// The command line taken apart: which command, and the options that were given.
struct CommandLine {
    std::string command;
    Options options;
    std::uint32_t given = 0;  // of OptionBit
};

/// Fills `out` as far as the line can be read; throws a Failure that names the word at fault.
void parseCommandLine(std::span<const char* const> words, CommandLine& out);

}  // namespace mervane::cli

#endif
