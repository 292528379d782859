// The reservation files in the persistent directory: what operators see of the reservations, and may put there.

#pragma once

#include <absl/status/statusor.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace reservationd {

// The name of a key's file, and the key that a file's name asks for.
std::string FileNameOf(const std::string& key);
std::string KeyInFileName(const std::string& name);

// What tells one writing of a file from another one without reading it.
struct FileStamp {
    uint64_t size = 0;    // bytes
    int64_t mtime_nanos = 0;    // since 1970

    bool operator==(const FileStamp&) const = default;
};

struct FoundFile {
    std::string name;    // in the persistent directory; begins with util::kReservationFilePrefix
    FileStamp stamp;
    bool is_regular = false;    // no directory, link, pipe or device
};

// Follows no symbolic link inside the directory. Used by one thread at a time. What fails throws std::system_error,
// which names the file, unless it says otherwise.
class ReservationFiles {
public:
    // Opens the directory, makes the directory ".staging" in it, and deletes the files left there.
    explicit ReservationFiles(const std::string& dir);
    ReservationFiles(const ReservationFiles&) = delete;
    ReservationFiles& operator=(const ReservationFiles&) = delete;
    ~ReservationFiles();

    // Every entry whose name begins as a reservation file's does, by name.
    std::vector<FoundFile> List() const;

    // Reads a regular file of at most `max_size` bytes whose text begins with `start`. Otherwise tells why not, as the
    // end of a sentence ("is larger than 10 bytes"); a file that does not begin so is not read any further.
    absl::StatusOr<std::string> Read(const std::string& name, size_t max_size, std::string_view start) const;

    // Gives the file this text. Nobody sees a part of it: who opens the file gets the old text or the new one.
    FileStamp Write(const std::string& name, const std::string& text);

    // Deletes the file, if it is there.
    void Remove(const std::string& name);

    // Moves the entry into the directory "ignored", which is made for it, and returns its path there.
    std::string SetAside(const std::string& name);

    // Returns when everything written and deleted so far would survive a loss of power.
    void Sync();

    const std::string& dir() const { return dir_; }

private:
    class File;

    bool TakeSpare(const std::string& text);
    void KeepOrDelete(const std::string& spare);
    struct stat StatusOfStaged(const std::string& name) const;
    std::string PathOf(const std::string& name) const { return dir_ + "/" + name; }
    std::string StagedPathOf(const std::string& name) const { return dir_ + "/.staging/" + name; }

    const std::string dir_;
    int dir_file_ = -1;
    int staging_file_ = -1;
    std::vector<std::string> spares_;    // names in .staging of files of ours that may be written over
    mode_t mode_ = 0;    // of the files made here; 0 before the first one
    uint64_t num_staged_ = 0;    // names given in .staging so far
};

}    // namespace reservationd
