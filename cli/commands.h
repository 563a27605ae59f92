#ifndef MERVANE_CLI_COMMANDS_H
#define MERVANE_CLI_COMMANDS_H

#include <mervane/pkcs11/clspkcs11.h>

#include "failure.h"
#include "options.h"

namespace mervane::cli {

/// A command as parser, help and dispatch see it.
struct CommandSpec {
    std::string_view name;
    std::string_view arguments;
    std::size_t minArguments;
    std::size_t maxArguments;
    std::uint32_t options;  // of OptionBit: those it uses, beside --help and --version
    std::string_view help;
    /// Prints data on standard output and gives the status, or throws a Failure.
    Exit (*run)(ClsPkcs11& p11, const Options& options);
};

/// In the order of the help.
std::span<const CommandSpec> commandSpecs() noexcept;

/// The command that the line names, once arguments and options fit it; throws a Failure else.
const CommandSpec& commandOf(const CommandLine& line);

// certs.cpp
Exit runCerts(ClsPkcs11& p11, const Options& options);
Exit runFindCert(ClsPkcs11& p11, const Options& options);
Exit runMatch(ClsPkcs11& p11, const Options& options);

// objects.cpp
Exit runDiscover(ClsPkcs11& p11, const Options& options);
Exit runKeys(ClsPkcs11& p11, const Options& options);
Exit runFindObject(ClsPkcs11& p11, const Options& options);

// admin.cpp
Exit runSetPin(ClsPkcs11& p11, const Options& options);
Exit runInitPin(ClsPkcs11& p11, const Options& options);
Exit runInitToken(ClsPkcs11& p11, const Options& options);

// cards.cpp
Exit runAtr(ClsPkcs11& p11, const Options& options);
Exit runCardData(ClsPkcs11& p11, const Options& options);

}  // namespace mervane::cli

#endif
