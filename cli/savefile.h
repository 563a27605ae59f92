#ifndef MERVANE_CLI_SAVEFILE_H
#define MERVANE_CLI_SAVEFILE_H

#include <string>
#include <string_view>

namespace mervane::cli {

/// Writes a file whole or not at all: an existing one is replaced once the new one is complete.
/// Anything but a regular file (a pipe, a device) is written to; "-" is standard output. Throws a
/// CommandError with the reason.
void saveFile(const std::string& path, std::string_view content);

}  // namespace mervane::cli

#endif
