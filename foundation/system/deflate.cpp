#include "foundation/system/deflate.h"

#include <algorithm>
#include <utility>

#include <zlib.h>

namespace mervane {
namespace {

// Calls inflateEnd() on every way out.
class InflateStream {
  public:
    // -15: raw deflate with the largest window, which reads streams of any smaller one (zlib.h,
    // inflateInit2).
    InflateStream() noexcept : m_ready(::inflateInit2(&m_stream, -15) == Z_OK) {}
    ~InflateStream() {
        if (m_ready) ::inflateEnd(&m_stream);
    }
    InflateStream(const InflateStream&) = delete;
    InflateStream& operator=(const InflateStream&) = delete;

    [[nodiscard]] bool isReady() const noexcept { return m_ready; }

    // Z_STREAM_END if the whole input is one stream that fits `out`. `size`: bytes written.
    int run(std::span<const std::uint8_t> in, std::span<std::uint8_t> out,
            std::size_t& size) noexcept {
        m_stream.next_in = const_cast<Bytef*>(in.data());  // zlib only reads it
        m_stream.avail_in = static_cast<uInt>(in.size());
        m_stream.next_out = out.data();
        m_stream.avail_out = static_cast<uInt>(out.size());
        const int result = ::inflate(&m_stream, Z_FINISH);
        size = out.size() - m_stream.avail_out;
        return result == Z_STREAM_END && m_stream.avail_in != 0 ? Z_DATA_ERROR : result;
    }

  private:
    z_stream m_stream{};
    bool m_ready;
};

}  // namespace

bool MervaneDeflate::inflateDb(bool zlibHeader, const DataBuffer& in, DataBuffer& out, bool append,
                               const _mvIoParams&, std::size_t maxSize, LogBase& log) {
    InflateStream stream;
    DataBuffer inflated;
    std::size_t size = 0;
    // One byte more than allowed, to tell a stream that just fits from one that is too large.
    const int result = zlibHeader || !stream.isReady()
                           ? Z_STREAM_ERROR
                           : stream.run(in.span(), inflated.resized(maxSize + 1), size);
    if (result != Z_STREAM_END || size > maxSize) {
        log.LogError(size > maxSize ? "The compressed data is too large when inflated."
                                    : "The compressed data cannot be inflated.");
        log.LogDataLong("zlibResult", result);
        return false;
    }
    inflated.resized(size);
    if (append) {
        out.append(inflated.span());
    } else {
        out = std::move(inflated);
    }
    return true;
}

}  // namespace mervane
