#ifndef MERVANE_CLI_ASKMODULES_H
#define MERVANE_CLI_ASKMODULES_H

#include <chrono>
#include <span>
#include <string>
#include <vector>

#include <mervane/foundation/json/clsjsonobject.h>
#include <mervane/locate/modules.h>
#include <mervane/locate/tokens.h>

#include "output.h"

namespace mervane::cli {

/// What a module said of itself and its tokens, or what became of it.
struct ModuleAnswer {
    enum class Outcome : unsigned char {
        Answered,
        Failed,   ///< in a way that it reported
        Crashed,  ///< ended by a signal
        Silent,   ///< did not answer within the time limit
    };

    ModuleInfo module;
    Outcome outcome = Outcome::Failed;
    std::string message{};  ///< unless Answered: "crashed (SIGSEGV)", "gave no answer in 10 s", ..
    std::string hint{};     ///< what usually helps; may be empty
    std::string kind{};     ///< if Failed: the kind of the failure, by its name in JSON
    JsonValue document{};   ///< if Answered: the discovery document, without mechanisms

    [[nodiscard]] bool hasAnswered() const noexcept { return outcome == Outcome::Answered; }
};

/// The outcome in JSON: answered, failed, crashed, silent.
std::string_view nameOf(ModuleAnswer::Outcome outcome) noexcept;

/// Asks each of the modules in a process of its own, all at once, each within the time limit. None
/// is loaded into this process, so none can harm it or the other answers. The order is kept.
std::vector<ModuleAnswer> askModules(std::span<const ModuleInfo> modules,
                                     std::chrono::seconds limit);

/// The tokens in the answers; one that two modules show is there twice.
std::vector<LocatedToken> tokensIn(std::span<const ModuleAnswer> answers);

/// The answers that are none, as a list of JSON objects.
JsonValue unansweredIn(std::span<const ModuleAnswer> answers);

/// A line about a module that gave no answer: its name and what became of it.
std::string lineFor(const ModuleAnswer& answer);

}  // namespace mervane::cli

#endif
