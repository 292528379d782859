#include "reservation/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace reservation_internal {

bool IsPipe(const std::string& path) {
    std::error_code error;
    return std::filesystem::status(path, error).type() == std::filesystem::file_type::fifo;
}

bool CanBeRead(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return false;
    struct stat status {};
    const bool is_pipe = fstat(file, &status) == 0 && S_ISFIFO(status.st_mode);
    close(file);
    return !is_pipe;
}

}    // namespace reservation_internal
