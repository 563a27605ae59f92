#include "foundation/system/filesys.h"

#include <filesystem>
#include <system_error>

namespace mervane {

bool FileSys::fileExistsUtf8(const char* path, LogBase* log, bool* exists) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    // file_type::none: status() itself failed, for example for lack of permission on a folder.
    const bool known = status.type() != std::filesystem::file_type::none;
    if (!known && log != nullptr) log->LogData("fileStatus", error.message());
    const bool isFile = std::filesystem::is_regular_file(status);
    if (exists == nullptr) return isFile;
    *exists = isFile;
    return known;
}

}  // namespace mervane
