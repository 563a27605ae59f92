#ifndef MERVANE_CLI_FAILURE_H
#define MERVANE_CLI_FAILURE_H

#include <string>
#include <utility>

namespace mervane::cli {

/// Exit statuses; scripts rely on them.
enum class Exit : int {
    Done = 0,
    Module = 1,    ///< the module or the token failed
    Usage = 2,     ///< the command line is wrong
    NotFound = 3,  ///< nothing fits
    Pin = 4,       ///< a PIN is missing, wrong or locked
};

/// Ends a command: what is printed on standard error, and the status.
struct Failure {
    Exit status;
    std::string message;
    std::string hint;
};

[[noreturn]] inline void usageError(std::string message) {
    throw Failure{Exit::Usage, std::move(message),
                  "mervane-p11 --help lists the commands and options."};
}

}  // namespace mervane::cli

#endif
