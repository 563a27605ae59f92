#ifndef MERVANE_FOUNDATION_SYSTEM_DEFLATE_H
#define MERVANE_FOUNDATION_SYSTEM_DEFLATE_H

#include <cstddef>

#include "foundation/log/logbase.h"
#include "foundation/text/databuffer.h"

namespace mervane {

// Inflates the card database, which the library carries as base64 of a raw deflate stream.
//
// A few hundred bytes of deflate can expand a thousandfold, so the caller names the largest result
// it accepts and that much is allocated once, up front: no growing buffer, no size taken from the
// stream. The output is replaced only when the whole stream is good. There is no checksum in raw
// deflate; the loader compares a CRC-32 of its own (pkcs11/carddata).

/// Parameters of a long-running operation. Empty: no progress monitor is attached.
struct _mvIoParams {};

struct MervaneDeflate {
    /// Inflates one raw deflate stream (RFC 1951, without zlib or gzip header). The result replaces
    /// the content of `out`, or with `append` follows it. Returns false, logs an error line and
    /// leaves `out` untouched if the stream is broken, cut short, followed by other bytes, or
    /// larger than `maxSize` bytes when inflated, or if `zlibHeader` is true, which is not
    /// supported.
    static bool inflateDb(bool zlibHeader, const DataBuffer& in, DataBuffer& out, bool append,
                          const _mvIoParams& ioParams, std::size_t maxSize, LogBase& log);
};

}  // namespace mervane

#endif
