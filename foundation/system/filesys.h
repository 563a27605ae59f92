#ifndef MERVANE_FOUNDATION_SYSTEM_FILESYS_H
#define MERVANE_FOUNDATION_SYSTEM_FILESYS_H

#include "foundation/log/logbase.h"

namespace mervane {

struct FileSys {
    /// Whether `path` names a regular file, or a link to one. Nothing else counts: opening a FIFO
    /// would block. With `exists` null, returns the answer. Otherwise stores the answer there and
    /// returns whether it could be found out. `log`, which may be null, gets the reason if not.
    static bool fileExistsUtf8(const char* path, LogBase* log, bool* exists);
};

}  // namespace mervane

#endif
