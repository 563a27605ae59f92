#ifndef MERVANE_LOCATE_SMALLFILE_H
#define MERVANE_LOCATE_SMALLFILE_H

#include <optional>
#include <string>

namespace mervane {

/// Reads a configuration file, 64 KiB at most. Nothing when it cannot be read or is not to be
/// trusted; `reason` then says why, and is empty if there is no such file. Not trusted are files,
/// and files in folders, that every user of the machine can change: what they name is loaded as
/// code.
std::optional<std::string> readSmallFile(const std::string& path, std::string& reason);

}  // namespace mervane

#endif
