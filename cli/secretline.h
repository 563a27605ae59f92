#ifndef MERVANE_CLI_SECRETLINE_H
#define MERVANE_CLI_SECRETLINE_H

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include <mervane/foundation/text/secret.h>

namespace mervane::cli {

/// A descriptor, closed with its scope.
class File {
  public:
    File(const char* path, int flags) : m_descriptor(::open(path, flags | O_CLOEXEC | O_NOCTTY)) {}
    ~File() {
        if (m_descriptor >= 0) ::close(m_descriptor);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    [[nodiscard]] int descriptor() const noexcept { return m_descriptor; }

  private:
    int m_descriptor;
};

/// The first line of what is read byte by byte, in memory that is wiped; no stream keeps a copy.
class SecretLine {
  public:
    SecretLine() = default;
    ~SecretLine() { wipe(m_bytes.data(), m_bytes.size()); }
    SecretLine(const SecretLine&) = delete;
    SecretLine& operator=(const SecretLine&) = delete;

    /// Once. `readByte` takes a char& and answers as ::read does.
    template <class ReadByte>
    void read(const ReadByte& readByte) {
        ssize_t count = 1;
        while (!m_ended && m_size < m_bytes.size()) {
            count = readByte(m_bytes[m_size]);
            m_ended = count <= 0 || m_bytes[m_size] == '\n' || m_bytes[m_size] == '\r';
            if (!m_ended) ++m_size;
        }
        m_failed = count < 0;
    }

    [[nodiscard]] std::string_view text() const noexcept { return {m_bytes.data(), m_size}; }
    [[nodiscard]] bool isWhole() const noexcept { return m_ended; }
    [[nodiscard]] bool hasFailed() const noexcept { return m_failed; }

  private:
    std::array<char, 256> m_bytes{};  // longer than any PIN that PKCS#11 tokens take
    std::size_t m_size = 0;
    bool m_ended = false;
    bool m_failed = false;
};

}  // namespace mervane::cli

#endif
