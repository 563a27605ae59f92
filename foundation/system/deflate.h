#ifndef MERVANE_FOUNDATION_SYSTEM_DEFLATE_H
#define MERVANE_FOUNDATION_SYSTEM_DEFLATE_H

#include <cstddef>

#include "foundation/log/logbase.h"
#include "foundation/text/databuffer.h"

namespace mervane {

/// Input and output parameters of a long operation; no progress monitor is attached to it.
struct _mvIoParams {};

struct MervaneDeflate {
    /// Inflates a whole raw deflate stream (RFC 1951, no zlib or gzip header) into `out`, replacing
    /// its content. `zlibHeader` must be false, the form that is supported; `append` adds to `out`
    /// instead. A stream that is broken, cut short, followed by other bytes, or larger than
    /// `maxSize` bytes when inflated gives false and an error line, with `out` untouched.
    static bool inflateDb(bool zlibHeader, const DataBuffer& in, DataBuffer& out, bool append,
                          const _mvIoParams& ioParams, std::size_t maxSize, LogBase& log);
};

}  // namespace mervane

#endif
