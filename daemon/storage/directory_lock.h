// Keeps a persistent directory to one daemon.

#pragma once

#include <string>

namespace reservationd {

class DirectoryLock {
public:
    // Locks the directory until the object, or the process, ends. Throws std::runtime_error when the lock file cannot
    // be opened, or another process holds the lock: the message names its process id.
    explicit DirectoryLock(const std::string& dir);
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;
    ~DirectoryLock();

private:
    int file_;
};

}    // namespace reservationd
