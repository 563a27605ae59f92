#ifndef MERVANE_CLI_FAILURE_H
#define MERVANE_CLI_FAILURE_H

#include <string>
#include <utility>

namespace mervane::cli {

/// Exit statuses. Scripts rely on the numbers.
enum class Exit : int {
    Done = 0,
    Module = 1,    ///< the module or the token failed
    Usage = 2,     ///< the command line is wrong
    NotFound = 3,  ///< nothing matched
    Pin = 4,       ///< a PIN is missing, wrong or locked
};

/// Thrown to end a command: message and hint go to standard error. Either may be empty.
struct CommandError {
    Exit status;
    std::string message;
    std::string hint;
};

[[noreturn]] inline void usageError(std::string message) {
    throw CommandError{Exit::Usage, std::move(message),
                       "Run mervane-p11 --help for the commands and options."};
}

}  // namespace mervane::cli

#endif
