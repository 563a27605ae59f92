#ifndef MERVANE_CLI_COMMANDS_H
#define MERVANE_CLI_COMMANDS_H

#include <mervane/pkcs11/clspkcs11.h>

#include "failure.h"
#include "options.h"

namespace mervane::cli {

/// One command, for parsing, help and dispatch.
struct CommandSpec {
    std::string_view name;
    std::string_view arguments;  // as shown in the help
    std::size_t minArguments;
    std::size_t maxArguments;
    std::uint64_t options;  // OptionBits it accepts, besides --help and --version
    std::string_view help;  // empty for a command that the tool gives itself
    /// Prints data on standard output and returns the exit status, or throws a CommandError.
    Exit (*run)(ClsPkcs11& p11, const Options& options);
};

/// All commands, in the order of the help.
std::span<const CommandSpec> commandSpecs() noexcept;

/// The command of that name. Throws a CommandError if there is none.
const CommandSpec& commandNamed(std::string_view name);

/// The command named by the line. Throws a CommandError if there is none or it does not accept the
/// arguments and options given.
const CommandSpec& commandOf(const CommandLine& line);

// certs.cpp, findcert.cpp
Exit runCerts(ClsPkcs11& p11, const Options& options);
Exit runMatch(ClsPkcs11& p11, const Options& options);
Exit runFindCert(ClsPkcs11& p11, const Options& options);

// sign.cpp, testkeys.cpp
Exit runSign(ClsPkcs11& p11, const Options& options);
Exit runTest(ClsPkcs11& p11, const Options& options);

// objects.cpp
Exit runDiscover(ClsPkcs11& p11, const Options& options);
Exit runKeys(ClsPkcs11& p11, const Options& options);
Exit runFindObject(ClsPkcs11& p11, const Options& options);

// machine.cpp
Exit runModules(ClsPkcs11& p11, const Options& options);
Exit runTokens(ClsPkcs11& p11, const Options& options);

// doctor.cpp
Exit runDoctor(ClsPkcs11& p11, const Options& options);

// commands.cpp: the table as JSON, which the manual and the completions are made from
Exit runCommandTable(ClsPkcs11& p11, const Options& options);
Exit runComplete(ClsPkcs11& p11, const Options& options);

// askmodules.cpp
Exit runAskModule(ClsPkcs11& p11, const Options& options);

// admin.cpp
Exit runSetPin(ClsPkcs11& p11, const Options& options);
Exit runInitPin(ClsPkcs11& p11, const Options& options);
Exit runInitToken(ClsPkcs11& p11, const Options& options);

// cards.cpp
Exit runReaders(ClsPkcs11& p11, const Options& options);
Exit runAtr(ClsPkcs11& p11, const Options& options);
Exit runCardData(ClsPkcs11& p11, const Options& options);

}  // namespace mervane::cli

#endif
