#include "failure.h"

#include <iostream>

#include "output.h"

namespace mervane::cli {
namespace {

Exit statusOf(FailureKind kind) {
    using enum FailureKind;
    switch (kind) {
        case Argument:
        case SeveralTokens:
        case SeveralCerts:
            return Exit::Usage;
        case NotFound:
        case KeyMayNotSign:
            return Exit::NotFound;
        case NotLoggedIn:
        case PinMissing:
        case PinWrong:
        case PinLocked:
        case PinExpired:
        case PinLength:
            return Exit::Pin;
        case NoToken:
            return Exit::NoToken;
        default:
            return Exit::Module;
    }
}

JsonValue textOrNull(std::string_view text) {
    return text.empty() ? JsonValue() : JsonValue(text);
}

}  // namespace

FailureKind CommandError::kind() const noexcept {
    using enum FailureKind;
    if (failure.kind != None) return failure.kind;
    switch (status) {
        case Exit::Usage:
            return Argument;
        case Exit::NotFound:
            return NotFound;
        case Exit::Pin:
            return PinMissing;
        case Exit::NoToken:
            return NoToken;
        default:
            return ModuleFailed;
    }
}

void throwLastFailure(ClsPkcs11& p11) {
    const mervane::Failure failure = p11.lastFailure();
    std::string message =
        failure.cause.empty() ? std::string("The call failed.") : printable(failure.cause);
    const bool hasSummary =
        !failure.summary.empty() &&
        !failure.cause.starts_with(failure.summary.substr(0, failure.summary.size() - 1));
    if (hasSummary) message += "\n" + printable(failure.summary);
    const bool isSeveral = failure.kind == FailureKind::SeveralTokens;
    throw CommandError{
        statusOf(failure.kind), message,
        isSeveral ? "Choose one with --token-label, --token-serial or --slot." : failure.hint,
        failure};
}

void printError(const CommandError& error, bool asJson) {
    if (!asJson || JsonPrinter::wasBegun()) {
        std::cerr << "mervane-p11: " << error.message << '\n';
        if (!error.hint.empty()) std::cerr << error.hint << '\n';
        return;
    }
    JsonValue out = JsonValue::object();
    const mervane::Failure& failure = error.failure;
    out.set("kind", nameOf(error.kind()));
    out.set("message", error.message);
    out.set("function", textOrNull(failure.function));
    out.set("rv", failure.rv ? JsonValue(*failure.rv) : JsonValue());
    out.set("rvName", textOrNull(failure.rvName()));
    out.set("hint", textOrNull(error.hint));
    out.set("slotId", failure.slotId ? JsonValue(*failure.slotId) : JsonValue());
    out.set("token", textOrNull(failure.tokenLabel));
    JsonPrinter document;
    document.member("error", out);
    document.finish();
}

}  // namespace mervane::cli
