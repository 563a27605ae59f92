#include "savefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "failure.h"
#include "output.h"

namespace mervane::cli {
namespace {

[[noreturn]] void cannotWrite(const std::string& path, int error) {
    throw CommandError{Exit::Module,
                       "The file " + printable(path) +
                           " cannot be written: " + std::system_category().message(error) + ".",
                       {}};
}

// 0, or the errno.
int writeAll(int descriptor, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count = ::write(descriptor, content.data(), content.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

int writeAndClose(int descriptor, std::string_view content) {
    const int error = writeAll(descriptor, content);
    return ::close(descriptor) != 0 && error == 0 ? errno : error;
}

// Writes beside the file, so that the new one takes its place in one step.
void replace(const std::string& path, mode_t mode, std::string_view content) {
    std::string fresh = path + ".XXXXXX";
    const int descriptor = ::mkostemp(fresh.data(), O_CLOEXEC);
    if (descriptor < 0) cannotWrite(path, errno);
    ::fchmod(descriptor, mode);
    int error = writeAndClose(descriptor, content);
    if (error == 0 && ::rename(fresh.c_str(), path.c_str()) != 0) error = errno;
    if (error == 0) return;
    ::unlink(fresh.c_str());
    cannotWrite(path, error);
}

}  // namespace

void saveFile(const std::string& path, std::string_view content) {
    if (path == "-") {
        std::cout << content;  // checked at the end of the program
        return;
    }
    // A symbolic link stays; what it leads to is replaced.
    std::error_code notThere;
    const auto canonical = std::filesystem::canonical(path, notThere).string();
    const std::string& target = notThere ? path : canonical;
    struct stat status {};
    const bool exists = ::stat(target.c_str(), &status) == 0;
    if (exists && S_ISDIR(status.st_mode)) cannotWrite(target, EISDIR);
    if (exists && !S_ISREG(status.st_mode)) {
        const int descriptor = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
        const int error = descriptor < 0 ? errno : writeAndClose(descriptor, content);
        if (error != 0) cannotWrite(target, error);
        return;
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    replace(target, exists ? status.st_mode & 0777U : 0666U & ~mask, content);
}

}  // namespace mervane::cli
