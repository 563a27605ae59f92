#ifndef MERVANE_CLI_PINS_H
#define MERVANE_CLI_PINS_H

#include <optional>
#include <string>

#include <mervane/foundation/text/xstring.h>

namespace mervane::cli {

/// Gets a PIN from where the option says: env:NAME, file:PATH (its first line), or, with "-" or no
/// option, the terminal, with the echo off and `prompt` on standard error. Throws a Failure with
/// Exit::Pin when it cannot be had, is empty, or is no text.
void readPin(const std::optional<std::string>& source, const std::string& prompt, XString& pin);

/// The same, but without an option the PIN stays empty where the reader has keys of its own and
/// asks there.
void readPinOrLeaveToReader(const std::optional<std::string>& source, const std::string& prompt,
                            bool hasPinPad, XString& pin);

}  // namespace mervane::cli

#endif
