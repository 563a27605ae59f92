#include "locate/smallfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace mervane {
namespace {

constexpr std::size_t kMaxSize = 65536;

class Descriptor {
  public:
    // Does not wait for somebody to write into a FIFO.
    explicit Descriptor(const char* path)
        : m_number(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
    ~Descriptor() {
        if (m_number >= 0) ::close(m_number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    [[nodiscard]] int get() const noexcept { return m_number; }

  private:
    int m_number;
};

std::string errorText() {
    return std::generic_category().message(errno);
}

// In a folder with the sticky bit, such as /tmp, others may add files but not exchange them.
bool isOpenToAll(const struct stat& file) {
    return (file.st_mode & S_IWOTH) != 0 && (file.st_mode & S_ISVTX) == 0;
}

bool isOpenToAll(const std::string& folder) {
    struct stat found {};
    return ::stat(folder.c_str(), &found) == 0 && isOpenToAll(found);
}

bool isOwnerTrusted(const struct stat& file) {
    return file.st_uid == 0 || file.st_uid == ::geteuid();
}

}  // namespace

std::optional<std::string> readSmallFile(const std::string& path, std::string& reason) {
    reason.clear();
    const auto refuse = [&](std::string why) {
        reason = std::move(why);
        return std::nullopt;
    };
    const Descriptor file(path.c_str());
    if (file.get() < 0) {
        if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
        return refuse("cannot be read: " + errorText());
    }
    struct stat found {};
    if (::fstat(file.get(), &found) != 0) return refuse("cannot be read: " + errorText());
    if (!S_ISREG(found.st_mode)) return refuse("is no regular file");
    if (isOpenToAll(found) || isOpenToAll(path.substr(0, path.find_last_of('/'))))
        return refuse("can be changed by every user of this machine");
    if (!isOwnerTrusted(found)) return refuse("belongs to another user");
    std::string text;
    std::array<char, 4096> room;  // NOLINT(*-member-init): filled by read()
    while (text.size() <= kMaxSize) {
        const std::size_t wanted = std::min(room.size(), kMaxSize + 1 - text.size());
        const ssize_t got = ::read(file.get(), room.data(), wanted);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return refuse("cannot be read: " + errorText());
        if (got == 0) return text;
        text.append(room.data(), static_cast<std::size_t>(got));
    }
    return refuse("is larger than 64 KiB");
}

}  // namespace mervane
