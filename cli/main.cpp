// mervane-p11: what a PKCS#11 module holds, from the command line. Data goes to standard output,
// everything else to standard error.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>

#include "commands.h"
#include "pins.h"

namespace mervane::cli {
namespace {

// A column of the help: the left one padded, at least one blank behind it.
void printHelpRow(std::string left, std::string_view help) {
    left.resize(std::max<std::size_t>(left.size() + 1, 24), ' ');
    std::cout << "  " << left << help << '\n';
}

void printHelp() {
    std::cout << "usage: mervane-p11 COMMAND [options]\n\ncommands:\n";
    for (const CommandSpec& command : commandSpecs())
        printHelpRow(std::string(command.name) + " " + std::string(command.arguments),
                     command.help);
    std::cout << "\noptions:\n";
    for (const OptionSpec& option : optionSpecs())
        printHelpRow(std::string(option.name) + " " + std::string(option.value), option.help);
    std::cout
        << "\nexit status: 0 done, 1 module or token failure, 2 usage, 3 nothing found, 4 PIN "
           "missing, wrong or locked\n";
}

Exit run(const CommandLine& line, ClsPkcs11& p11) {
    if (line.options.help) {
        printHelp();
    } else if (line.options.version) {
        std::cout << "mervane-p11 " MERVANE_VERSION "\n";
    } else {
        return commandOf(line).run(p11, line.options);
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
    CommandLine line;
    ClsPkcs11 p11;
    Failure failure{Exit::Done, {}, {}};
    try {
        parseCommandLine(words, line);
        failure.status = run(line, p11);
        std::cout.flush();
        if (!std::cout) failure = {Exit::Module, "Standard output cannot be written.", {}};
    } catch (const Failure& f) {
        failure = f;
    } catch (const std::exception& error) {
        failure = {Exit::Module, error.what(), {}};
    }
    if (line.options.log) std::cerr << p11.log().text();
    if (!failure.message.empty()) std::cerr << "mervane-p11: " << failure.message << '\n';
    if (!failure.hint.empty()) std::cerr << failure.hint << '\n';
    return static_cast<int>(failure.status);
}

}  // namespace
}  // namespace mervane::cli

int main(int argc, char** argv) {
    const std::span<const char* const> words(argv, static_cast<std::size_t>(argc));
    return mervane::cli::guardPins(
        [&] { return mervane::cli::main(words.subspan(words.empty() ? 0 : 1)); });
}
