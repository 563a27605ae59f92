#ifndef MERVANE_FOUNDATION_TEXT_DATABUFFER_H
#define MERVANE_FOUNDATION_TEXT_DATABUFFER_H

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace mervane {

/// An owned byte buffer.
class DataBuffer {
  public:
    DataBuffer() = default;
    /// A copy of these bytes.
    explicit DataBuffer(std::span<const std::uint8_t> bytes)
        : m_bytes(bytes.begin(), bytes.end()) {}

    /// The bytes; valid until the buffer changes.
    [[nodiscard]] std::span<const std::uint8_t> span() const noexcept { return m_bytes; }
    /// @{
    /// Same as std::vector's size(), empty(), == and clear().
    [[nodiscard]] std::size_t getSize() const noexcept { return m_bytes.size(); }
    [[nodiscard]] bool isEmpty() const noexcept { return m_bytes.empty(); }
    [[nodiscard]] bool equals(const DataBuffer& other) const noexcept {
        return m_bytes == other.m_bytes;
    }

    void clear() noexcept { m_bytes.clear(); }
    /// @}
    /// @{
    /// Replaces the content, or adds to its end. `bytes` must not lie within this buffer.
    void assign(std::span<const std::uint8_t> bytes) { m_bytes.assign(bytes.begin(), bytes.end()); }
    void append(std::span<const std::uint8_t> bytes) {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    }
    void appendByte(std::uint8_t byte) { m_bytes.push_back(byte); }
    /// @}

    /// Appends the bytes that `text` encodes. Encoding 1 is base64; any other returns false, as
    /// does malformed text, whose bytes up to the fault are appended.
    bool appendEncodedById(std::string_view text, int encodingId);

    /// Resizes to exactly `size` bytes and returns them to be filled in; new bytes are zero.
    std::span<std::uint8_t> resized(std::size_t size) {
        m_bytes.resize(size);
        return m_bytes;
    }

  private:
    std::vector<std::uint8_t> m_bytes;
};

}  // namespace mervane

#endif
