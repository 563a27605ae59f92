#ifndef MERVANE_CLI_OPTIONS_H
#define MERVANE_CLI_OPTIONS_H

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace mervane::cli {

/// The command line, taken apart. PINs stand here as where they come from, never as values.
struct Options {
    std::string command;
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

/// Throws a Failure that names the word at fault.
Options parseOptions(std::span<const char* const> words);

}  // namespace mervane::cli

#endif
