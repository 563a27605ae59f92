#include "pkcs11/failure.h"

#include <array>

#include "pkcs11/calls/rv.h"

namespace mervane {

std::string_view nameOf(FailureKind kind) noexcept {
    // In the order of the values.
    constexpr std::array<std::string_view, 20> kNames = {
        "none",         "argument",   "moduleMissing", "moduleNotLoadable", "notAModule",
        "moduleFailed", "noToken",    "tokenGone",     "severalTokens",     "severalCerts",
        "notLoggedIn",  "pinMissing", "pinWrong",      "pinLocked",         "pinExpired",
        "pinLength",    "notFound",   "keyMayNotSign", "notSupported",      "noMemory"};
    return kNames.at(static_cast<std::size_t>(kind));
}

std::string Failure::rvName() const {
    return rv ? mervane::rvName(*rv) : std::string();
}

}  // namespace mervane
