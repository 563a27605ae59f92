// mervane-p11: what a PKCS#11 module holds, from the command line. Data goes to standard output,
// everything else to standard error.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <iostream>

#include "commands.h"
#include "output.h"

namespace mervane::cli {
namespace {

struct Command {
    std::string_view name;
    std::string_view arguments;
    std::string_view help;
    Exit (*run)(ClsPkcs11& p11, const Options& options);
};

constexpr std::array kCommands = {
    Command{"discover", "", "describe the module, its slots and tokens", runDiscover},
    Command{"certs", "", "list the certificates", runCerts},
    Command{"find-cert", "PART [VALUE]",
            "choose a certificate; PART is privateKey, subjectDN, CN, serial, ...", runFindCert},
    Command{"match", "", "list the certificates with the private key of each", runMatch},
    Command{"keys", "[SELECTOR]",
            "list the keys; SELECTOR: words of private public secret rsa ec all", runKeys},
    Command{"find-object", "JSON",
            R"(find one object, such as '{"class":"privateKey","label":"sign"}')", runFindObject},
    Command{"set-pin", "", "change the PIN given by --pin to that of --new-pin", runSetPin},
    Command{"init-pin", "", "set the user PIN to --new-pin, as the security officer with --so-pin",
            runInitPin},
    Command{"init-token", "LABEL", "initialise a token with --so-pin; everything on it is lost",
            runInitToken},
    Command{"atr", "ATR", "name the card with this ATR and its driver", runAtr},
    Command{"card-data", "", "print the card database", runCardData},
};

constexpr std::string_view kOptionsHelp = R"(
options:
  --module PATH        the PKCS#11 module (else the environment variable MERVANE_P11_MODULE)
  --slot ID            the slot of the token
  --token-label TEXT   the token with exactly this label
  --login              log in; --pin implies it
  --user user|so       as whom (user)
  --pin SOURCE         where the PIN comes from: env:NAME, file:PATH or - (prompt)
  --so-pin, --new-pin  alike
  --tokens-only        discover: only slots that hold a token
  --skip-mechanisms    discover: without the mechanisms
  --out FILE           find-cert: write the certificate, in DER if the name ends in .der, else in PEM
  --json               print JSON
  --log                print the log of all calls on standard error
  --help, --version

exit status: 0 done, 1 module or token failure, 2 usage, 3 nothing found, 4 PIN missing, wrong or locked
)";

void printHelp() {
    std::cout << "usage: mervane-p11 COMMAND [options]\n\ncommands:\n";
    for (const Command& command : kCommands) {
        std::string left = std::string(command.name) + " " + std::string(command.arguments);
        left.resize(std::max<std::size_t>(left.size() + 1, 24), ' ');
        std::cout << "  " << left << command.help << '\n';
    }
    std::cout << kOptionsHelp;
}

const Command& findCommand(const std::string& name) {
    for (const Command& command : kCommands) {
        if (command.name == name) return command;
    }
    usageError(name.empty() ? "No command is given." : "Unknown command: " + printable(name));
}

Exit run(const Options& options, ClsPkcs11& p11) {
    if (options.help) {
        printHelp();
    } else if (options.version) {
        std::cout << "mervane-p11 " MERVANE_VERSION "\n";
    } else {
        return findCommand(options.command).run(p11, options);
    }
    return Exit::Done;
}

// A module must not open its files where this program writes: what is closed is taken. Nothing can
// be read from the one or written to the others, which is then said.
void takeStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) != -1) continue;
        const int mode = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        static_cast<void>(::open("/dev/null", mode));  // gets the lowest number, which is this one
    }
}

int main(std::span<const char* const> words) {
    takeStandardDescriptors();
    Options options;
    ClsPkcs11 p11;
    Failure failure{Exit::Done, {}, {}};
    try {
        options = parseOptions(words);
        failure.status = run(options, p11);
        std::cout.flush();
        if (!std::cout) failure = {Exit::Module, "Standard output cannot be written.", {}};
    } catch (const Failure& f) {
        failure = f;
    } catch (const std::exception& error) {
        failure = {Exit::Module, error.what(), {}};
    }
    if (options.log) std::cerr << p11.log().text();
    if (!failure.message.empty()) std::cerr << "mervane-p11: " << failure.message << '\n';
    if (!failure.hint.empty()) std::cerr << failure.hint << '\n';
    return static_cast<int>(failure.status);
}

}  // namespace
}  // namespace mervane::cli

int main(int argc, char** argv) {
    const std::span<const char* const> words(argv, static_cast<std::size_t>(argc));
    return mervane::cli::main(words.subspan(words.empty() ? 0 : 1));
}
