#ifndef MERVANE_FOUNDATION_SYSTEM_FILESYS_H
#define MERVANE_FOUNDATION_SYSTEM_FILESYS_H

#include "foundation/log/logbase.h"

namespace mervane {

struct FileSys {
    /// Whether a regular file (or a link to one) stands at the path. Others do not count: a FIFO
    /// would block whoever opens it. `log` and `exists` may be null; with `exists`, the result says
    /// whether the question could be answered and `exists` what the answer is.
    static bool fileExistsUtf8(const char* path, LogBase* log, bool* exists);
};

}  // namespace mervane

#endif
