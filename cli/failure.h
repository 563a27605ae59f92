#ifndef MERVANE_CLI_FAILURE_H
#define MERVANE_CLI_FAILURE_H

#include <string>
#include <utility>

#include <mervane/pkcs11/clspkcs11.h>

namespace mervane::cli {

/// Exit statuses. Scripts rely on the numbers.
enum class Exit : int {
    Done = 0,
    Module = 1,    ///< the module or the token failed
    Usage = 2,     ///< the command line is wrong, or names more than one thing
    NotFound = 3,  ///< nothing matched
    Pin = 4,       ///< a PIN is missing, wrong or locked
    NoToken = 5,   ///< no reader, card or such token
};

/// Thrown to end a command: cause, summary and hint go to standard error, or the whole as JSON to
/// standard output. All texts but the cause may be empty.
struct CommandError {
    Exit status;
    std::string message;  ///< lines: the cause first
    std::string hint;
    mervane::Failure failure{};  ///< the library's, if it was the library that failed

    /// The kind of the library's failure; if it was not the library's, the one that the status
    /// implies.
    [[nodiscard]] FailureKind kind() const noexcept;
};

[[noreturn]] inline void usageError(std::string message) {
    throw CommandError{Exit::Usage, std::move(message),
                       "Run mervane-p11 --help for the commands and options."};
}

/// Throws how the object's last call failed: the cause, the summary, and what usually helps. The
/// status follows from the kind of the failure.
[[noreturn]] void throwLastFailure(ClsPkcs11& p11);

/// Prints the error: lines on standard error; with `asJson` a document on standard output instead,
/// unless a document was begun there already.
void printError(const CommandError& error, bool asJson);

}  // namespace mervane::cli

#endif
