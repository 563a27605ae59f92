// mervane-p11: the library on the command line.
//
// A run is: parse the line, look the command up in the table (commands.cpp), call it. A command
// returns its exit status or throws a CommandError with status, message and hint; nothing else
// prints errors. Data goes to standard output and only there. Commands print once they have
// everything, so a failure leaves no half-written document for the next program in the pipe.
//
// The tool uses the public headers alone, as an application would.

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
#include <utility>

#include "commands.h"
#include "output.h"
#include "pins.h"

namespace mervane::cli {
namespace {

// One row of the help: the left column padded to 24, but always with a space after it.
void printHelpRow(std::string left, std::string_view help) {
    left.resize(std::max<std::size_t>(left.size() + 1, 24), ' ');
    std::cout << "  " << left << help << '\n';
}

void printOptions(std::uint64_t bits) {
    std::cout << "\noptions:\n";
    for (const OptionSpec& option : optionSpecs()) {
        if ((option.bit & bits) == 0) continue;
        const std::string shortName(option.shortName);
        printHelpRow((shortName.empty() ? "" : shortName + ", ") + std::string(option.name) + " " +
                         std::string(option.value),
                     option.help);
    }
}

void printHelp() {
    std::cout << "usage: mervane-p11 COMMAND [options]\n\ncommands:\n";
    for (const CommandSpec& command : commandSpecs()) {
        if (command.help.empty()) continue;
        printHelpRow(std::string(command.name) + " " + std::string(command.arguments),
                     command.help);
    }
    printOptions(~0ULL);
    std::cout << "\nexit status: 0 done, 1 module or token failed, 2 usage, 3 nothing found,\n"
                 "4 PIN missing, wrong or locked, 5 no reader, card or such token\n";
}

void printHelpOf(const CommandSpec& command) {
    std::cout << "usage: mervane-p11 " << command.name << (command.arguments.empty() ? "" : " ")
              << command.arguments << " [options]\n"
              << command.help << '\n';
    printOptions(command.options | kHelp);
}

Exit run(const CommandLine& line, ClsPkcs11& p11) {
    if (line.options.help) {
        line.command.empty() ? printHelp() : printHelpOf(commandNamed(line.command));
    } else if (line.options.version) {
        std::cout << "mervane-p11 " MERVANE_VERSION "\n";
    } else {
        return commandOf(line).run(p11, line.options);
    }
    return Exit::Done;
}

// If a standard descriptor is closed, the next file a module opens would get its number and our
// output would go into that file. So closed ones are opened first, on /dev/null and in the wrong
// direction: using them fails, and the failure is reported.
void takeStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) != -1) continue;
        const int mode = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        static_cast<void>(::open("/dev/null", mode));  // takes the lowest free number: this one
    }
}

void printLog(const ClsPkcs11& p11, bool asJson) {
    try {
        std::cerr << (asJson ? p11.log().json() + "\n" : p11.log().text());
    } catch (const std::exception&) {
        std::cerr << "mervane-p11: No memory left to print the log.\n";
    }
}

int main(std::span<const char* const> words) {
    takeStandardDescriptors();
    // Large blocks go back to the system when they are freed: what it takes to read a hostile
    // certificate is not kept while it is printed.
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    CommandLine line;
    CommandError failure{Exit::Done, {}, {}};
    const std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    try {
        if (!p11) throw std::bad_alloc();
        parseCommandLine(words, line);
        if (line.options.json && line.options.log) silenceRemarks();
        failure.status = run(line, *p11);
        std::cout.flush();
        if (!std::cout) failure = {Exit::Module, "Standard output cannot be written.", {}};
    } catch (CommandError& f) {
        failure = std::move(f);  // cannot fail, as a copy may
    } catch (const std::bad_alloc&) {
        failure = {Exit::Module, "No memory left.", {}};  // short enough to need none
        failure.failure.kind = FailureKind::NoMemory;
    } catch (const std::exception& error) {
        failure = {Exit::Module, error.what(), {}};
    }
    if (line.options.log && p11) printLog(*p11, line.options.json);
    try {
        if (!failure.message.empty()) printError(failure, line.options.json);
    } catch (const std::exception&) {
        std::cerr << "mervane-p11: No memory left.\n";
    }
    return static_cast<int>(failure.status);
}

}  // namespace
}  // namespace mervane::cli

int main(int argc, char** argv) {
    const std::span<const char* const> words(argv, static_cast<std::size_t>(argc));
    return mervane::cli::guardPins(
        [&] { return mervane::cli::main(words.subspan(words.empty() ? 0 : 1)); });
}
