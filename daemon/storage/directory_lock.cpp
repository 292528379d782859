#include "daemon/storage/directory_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace reservationd {
namespace {

std::string HolderOf(int file) {
    std::array<char, 32> text{};
    const ssize_t length = pread(file, text.data(), text.size() - 1, 0);
    const std::string pid(text.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return pid.empty() ? "another process" : "process " + pid.substr(0, pid.find('\n'));
}

}    // namespace

DirectoryLock::DirectoryLock(const std::string& dir) {
    const std::string path = dir + "/reservationd.lock";
    file_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (file_ < 0) throw std::runtime_error(path + ": cannot be opened: " + std::strerror(errno));

    // A lock that ends with its holder, whichever way that ends.
    if (flock(file_, LOCK_EX | LOCK_NB) != 0) {
        const std::string message = dir + " is in use by " + HolderOf(file_) + " (" + path + ")";
        close(file_);
        throw std::runtime_error(message);
    }
    // For the message above only: without it, a daemon on a full disk is just as locked.
    const std::string pid = std::to_string(getpid()) + "\n";
    [[maybe_unused]] const bool is_named =
        ftruncate(file_, 0) == 0 && pwrite(file_, pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size());
}

DirectoryLock::~DirectoryLock() { close(file_); }

}    // namespace reservationd
