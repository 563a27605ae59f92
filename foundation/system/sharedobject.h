#ifndef MERVANE_FOUNDATION_SYSTEM_SHAREDOBJECT_H
#define MERVANE_FOUNDATION_SYSTEM_SHAREDOBJECT_H

#include <optional>
#include <string>

namespace mervane {

/// Why the file is no shared library that can be loaded into this process, in a few words ("cut
/// short: a segment ends at .."); nothing where no reason is seen. dlopen trusts the headers: where
/// they lead beyond the end of a file that was copied in part, or into zeros that were never
/// overwritten, it ends the process by a signal.
///
/// Looked at is what the loader maps and begins with: the ELF header, the program headers, the
/// dynamic section. Section headers may be cut off or stale. A file that passes may still be
/// refused by dlopen, with a reason, and contents that are damaged elsewhere are not seen.
///
/// A name without a slash is looked for on the loader's search path, except in its cache. Libraries
/// that this one needs are not looked at. A file that changes after the check, before dlopen or
/// while it is mapped, cannot be contained.
std::optional<std::string> whyNotLoadable(const char* path);

/// The path of the library that the loader finds by this name without a slash; empty if there is
/// none on its search path. Loads nothing, and does not know what only the loader's cache knows.
std::string findLibrary(const std::string& name);

}  // namespace mervane

#endif
