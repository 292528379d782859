// The directory of the reservation files and the checkpoint of a replay in this process.

#pragma once

#include <string>

namespace replay {

class PersistentDirectory {
public:
    // Makes the directory when it is missing. An empty path: makes a temporary one below TMPDIR, which the destructor
    // removes with all that is in it. Throws InputError.
    explicit PersistentDirectory(std::string path);
    PersistentDirectory(const PersistentDirectory&) = delete;
    PersistentDirectory& operator=(const PersistentDirectory&) = delete;
    ~PersistentDirectory();

    const std::string& path() const { return path_; }

    // Throws InputError when there is a checkpoint or a reservation.
    void CheckIsUnused() const;

    // A temporary directory will not be removed.
    void Keep() { is_temporary_ = false; }

private:
    std::string path_;
    bool is_temporary_;
};

}    // namespace replay
