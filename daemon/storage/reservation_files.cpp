#include "daemon/storage/reservation_files.h"

#include <absl/strings/str_cat.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include "util/limits.h"

namespace reservationd {
namespace {

constexpr size_t kMaxSpares = 1024;
constexpr mode_t kFileMode = 0666;    // less the umask

[[noreturn]] void Fail(const std::string& path, const char* what) {
    throw std::system_error(errno, std::generic_category(), path + ": " + what);
}

FileStamp StampOf(const struct stat& status) {
    return {static_cast<uint64_t>(status.st_size),
            int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
}

int OpenDirectory(int parent, const std::string& name, const std::string& path, int flags) {
    const int file = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    if (file < 0) Fail(path, "cannot be opened as a directory");
    return file;
}

int MakeDirectory(int parent, const std::string& name, const std::string& path) {
    if (mkdirat(parent, name.c_str(), 0777) != 0 && errno != EEXIST) Fail(path, "cannot be made");
    return OpenDirectory(parent, name, path, O_NOFOLLOW);
}

// Calls `handle` with the name of each entry.
template <typename Handle>
void ForEachEntry(int dir, const std::string& path, Handle handle) {
    const int file = OpenDirectory(dir, ".", path, 0);    // of its own: it has a position
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(file), &closedir);
    if (listing == nullptr) {
        close(file);
        Fail(path, "cannot be read");
    }
    errno = 0;
    while (const dirent* entry = readdir(listing.get())) {
        handle(entry->d_name);
        errno = 0;
    }
    if (errno != 0) Fail(path, "cannot be read");
}

}    // namespace

std::string FileNameOf(const std::string& key) { return std::string(util::kReservationFilePrefix) + key; }
std::string KeyInFileName(const std::string& name) { return name.substr(util::kReservationFilePrefix.size()); }

// A file that is open.
class ReservationFiles::File {
public:
    File(int dir, const std::string& name, const std::string& path, int flags)
        : path_(path), file_(openat(dir, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, kFileMode)) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() {
        if (file_ >= 0) close(file_);
    }

    bool is_open() const { return file_ >= 0; }
    int number() const { return file_; }

    struct stat Status() const {
        struct stat status {};
        if (fstat(file_, &status) != 0) Fail(path_, "cannot be looked at");
        return status;
    }

    // Makes the file hold this text and nothing else.
    void Overwrite(const std::string& text) {
        size_t done = 0;
        while (done < text.size()) {
            const ssize_t written = pwrite(file_, text.data() + done, text.size() - done, static_cast<off_t>(done));
            if (written < 0 && errno != EINTR) Fail(path_, "cannot be written");
            done += static_cast<size_t>(std::max<ssize_t>(written, 0));
        }
        if (ftruncate(file_, static_cast<off_t>(text.size())) != 0) Fail(path_, "cannot be written");
    }

    // Appends up to `count` bytes to the text. False: they cannot be read.
    bool Read(size_t count, std::string& text) const {
        const size_t end = text.size() + count;
        for (size_t size = text.size(); size < end; size = text.size()) {
            text.resize(end);
            const ssize_t length = read(file_, text.data() + size, end - size);
            text.resize(size + static_cast<size_t>(std::max<ssize_t>(length, 0)));
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) return length == 0;
        }
        return true;
    }

private:
    const std::string path_;
    int file_;
};

ReservationFiles::ReservationFiles(const std::string& dir)
    : dir_(dir), dir_file_(OpenDirectory(AT_FDCWD, dir, dir, 0)) {
    staging_file_ = MakeDirectory(dir_file_, ".staging", dir_ + "/.staging");
    std::vector<std::string> names;
    ForEachEntry(staging_file_, dir_ + "/.staging", [&](const char* name) { names.emplace_back(name); });
    for (const std::string& name : names) unlinkat(staging_file_, name.c_str(), 0);
}

ReservationFiles::~ReservationFiles() {
    for (const std::string& spare : spares_) unlinkat(staging_file_, spare.c_str(), 0);
    close(staging_file_);
    close(dir_file_);
}

std::vector<FoundFile> ReservationFiles::List() const {
    std::vector<FoundFile> found;
    ForEachEntry(dir_file_, dir_, [&](std::string name) {
        if (!name.starts_with(util::kReservationFilePrefix)) return;
        struct stat status {};
        if (fstatat(dir_file_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
        found.push_back({std::move(name), StampOf(status), S_ISREG(status.st_mode)});
    });
    std::sort(found.begin(), found.end(), [](const FoundFile& a, const FoundFile& b) { return a.name < b.name; });
    return found;
}

absl::StatusOr<std::string> ReservationFiles::Read(const std::string& name, size_t max_size,
                                                   std::string_view start) const {
    const auto system_error = [] { return absl::UnavailableError(absl::StrCat("cannot be read: ", strerror(errno))); };
    const File file(dir_file_, name, PathOf(name), O_RDONLY | O_NONBLOCK);
    if (!file.is_open()) return system_error();
    const struct stat status = file.Status();
    if (!S_ISREG(status.st_mode)) return absl::InvalidArgumentError("is not a regular file");
    std::string text;
    if (!file.Read(start.size(), text)) return system_error();
    if (text != start) return absl::InvalidArgumentError("holds no reservation");
    if (static_cast<uint64_t>(status.st_size) > max_size) {
        return absl::OutOfRangeError(absl::StrCat("is larger than ", max_size, " bytes"));
    }
    if (!file.Read(static_cast<size_t>(status.st_size) - text.size(), text)) return system_error();
    return text;
}

// A file is written aside and exchanged with the one of its name. What that held is then written over by the next
// text: freeing and searching an inode for each writing is most of the work on ext4.
FileStamp ReservationFiles::Write(const std::string& name, const std::string& text) {
    if (!TakeSpare(text)) {
        spares_.push_back(std::to_string(num_staged_++));
        File file(staging_file_, spares_.back(), StagedPathOf(spares_.back()), O_WRONLY | O_CREAT | O_TRUNC);
        if (!file.is_open()) Fail(StagedPathOf(spares_.back()), "cannot be opened");
        file.Overwrite(text);
        mode_ = file.Status().st_mode;
    }
    const std::string spare = spares_.back();
    const FileStamp stamp = StampOf(StatusOfStaged(spare));
    spares_.pop_back();
    if (renameat2(staging_file_, spare.c_str(), dir_file_, name.c_str(), RENAME_EXCHANGE) == 0) {
        KeepOrDelete(spare);
    } else if (renameat(staging_file_, spare.c_str(), dir_file_, name.c_str()) != 0) {
        spares_.push_back(spare);
        Fail(PathOf(name), "cannot be written");
    }
    return stamp;
}

// Writes the text into the last of the spare files that can be written over; the others are deleted. False: none can.
bool ReservationFiles::TakeSpare(const std::string& text) {
    while (!spares_.empty()) {
        const std::string& spare = spares_.back();
        File file(staging_file_, spare, StagedPathOf(spare), O_WRONLY);
        // Somebody may still read the file, or have linked it as a backup. A write lease is given when nobody has it
        // open.
        const bool is_ours = file.is_open() && file.Status().st_nlink == 1 &&
                             fcntl(file.number(), F_SETLEASE, F_WRLCK) == 0 &&
                             fcntl(file.number(), F_SETLEASE, F_UNLCK) == 0;
        if (is_ours) {
            file.Overwrite(text);
            return true;
        }
        unlinkat(staging_file_, spare.c_str(), 0);
        spares_.pop_back();
    }
    return false;
}

void ReservationFiles::KeepOrDelete(const std::string& spare) {
    const struct stat status = StatusOfStaged(spare);
    if (status.st_mode == mode_ && status.st_uid == geteuid()) {
        spares_.push_back(spare);
    } else {
        unlinkat(staging_file_, spare.c_str(), 0);
    }
}

struct stat ReservationFiles::StatusOfStaged(const std::string& name) const {
    struct stat status {};
    if (fstatat(staging_file_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        Fail(StagedPathOf(name), "cannot be looked at");
    }
    return status;
}

void ReservationFiles::Remove(const std::string& name) {
    const std::string spare = std::to_string(num_staged_);
    if (spares_.size() < kMaxSpares && renameat(dir_file_, name.c_str(), staging_file_, spare.c_str()) == 0) {
        ++num_staged_;
        return KeepOrDelete(spare);
    }
    if (unlinkat(dir_file_, name.c_str(), 0) != 0 && errno != ENOENT) Fail(PathOf(name), "cannot be deleted");
}

std::string ReservationFiles::SetAside(const std::string& name) {
    const std::string ignored_dir = PathOf("ignored");
    const int ignored_file = MakeDirectory(dir_file_, "ignored", ignored_dir);
    std::string new_name = name;
    int result = 0;
    for (int i = 1;; ++i) {
        result = renameat2(dir_file_, name.c_str(), ignored_file, new_name.c_str(), RENAME_NOREPLACE);
        if (result == 0 || errno != EEXIST) break;
        constexpr size_t kMaxKeptName = 240;    // bytes of the name, so that the number fits
        new_name = absl::StrCat(name.substr(0, kMaxKeptName), "~", i);
    }
    const int rename_error = errno;
    close(ignored_file);
    errno = rename_error;
    if (result != 0) Fail(PathOf(name), "cannot be moved to ignored");
    return ignored_dir + "/" + new_name;
}

void ReservationFiles::Sync() {
    if (syncfs(dir_file_) != 0) Fail(dir_, "cannot be written to the disk");
}

}    // namespace reservationd
