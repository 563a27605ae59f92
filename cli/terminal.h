#ifndef MERVANE_CLI_TERMINAL_H
#define MERVANE_CLI_TERMINAL_H

#include <string>

#include "secretline.h"

namespace mervane::cli {

/// A signal that came at a prompt and would have ended the program. It is thrown through the whole
/// program, so that whatever holds a PIN is wiped on the way; guardPins raises the signal again.
struct Interrupted {
    int signal;
};

/// Asks on the terminal, wherever standard error goes, with the echo off. False when there is no
/// terminal. However it ends, the terminal is as it was.
bool askUnseen(const std::string& prompt, SecretLine& answer);

}  // namespace mervane::cli

#endif
