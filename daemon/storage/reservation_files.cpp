#include "daemon/storage/reservation_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "daemon/log_sink.h"

namespace reservationd {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "reservation.";
constexpr size_t kMaxFileNameLength = 255;

[[noreturn]] void Fail(const std::string& path, const char* what) {
    throw std::system_error(errno, std::generic_category(), path + ": " + what);
}

class File {
public:
    File(const std::string& path, int flags) : path_(path), file_(open(path.c_str(), flags | O_CLOEXEC, 0666)) {
        if (file_ < 0) Fail(path, "cannot be opened");
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() { close(file_); }

    void Write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = write(file_, bytes.data(), bytes.size());
            if (written < 0) Fail(path_, "cannot be written");
            bytes.remove_prefix(static_cast<size_t>(written));
        }
    }

    void Sync() {
        if (fsync(file_) != 0) Fail(path_, "cannot be written");
    }

private:
    const std::string& path_;
    int file_;
};

bool FileHolds(const std::string& path, const std::string& expected) {
    std::error_code error;
    if (fs::file_size(path, error) != expected.size() || error) return false;
    std::string content(expected.size(), '\0');
    std::ifstream file(path, std::ios::binary);
    return file.read(content.data(), static_cast<std::streamsize>(content.size())) && content == expected;
}

// Renames a file, over another one or not. Exchanging the two first spares the wait for the disk that some file systems
// put into renaming one file over another; those that cannot exchange just rename.
void Rename(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0) {
        fs::remove(from);
    } else {
        fs::rename(from, to);
    }
}

// The number of bytes of the character at the start of the text, which is not empty; 0 when it is not UTF-8.
size_t LengthOfCharacter(std::string_view text) {
    const auto byte = [text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    const unsigned lead = byte(0);
    if (lead < 0x80) return 1;
    const size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (lead < 0xc2 || lead > 0xf4) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    // Neither longer than need be, nor half a surrogate pair, nor beyond the last character.
    const bool is_wrong = (lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xed && byte(1) >= 0xa0) ||
                          (lead == 0xf0 && byte(1) < 0x90) || (lead == 0xf4 && byte(1) >= 0x90);
    return is_wrong ? 0 : length;
}

bool IsUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = LengthOfCharacter(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

}    // namespace

std::string FaultOfKey(std::string_view key) {
    if (key.find('/') != std::string_view::npos) return "contains a slash";
    if (std::any_of(key.begin(), key.end(), IsControl)) return "contains a control character";
    if (!IsUtf8(key)) return "is not UTF-8";
    constexpr size_t kMaxKeyLength = kMaxFileNameLength - kPrefix.size();
    if (key.size() <= kMaxKeyLength) return "";
    return "has " + std::to_string(key.size()) + " bytes, a file name holds " + std::to_string(kMaxKeyLength);
}

ReservationFiles::ReservationFiles(const std::string& dir) : dir_(dir), staging_dir_(dir + "/.staging") {
    fs::create_directory(staging_dir_);
    EmptyStaging();
}

void ReservationFiles::EmptyStaging() {
    for (const fs::directory_entry& entry : fs::directory_iterator(staging_dir_)) fs::remove_all(entry.path());
}

void ReservationFiles::PrepareToLoad(
    const std::set<std::string>& stored_keys,
    const std::function<std::optional<std::string>(const std::string& path)>& read_key) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir_)) {
        std::string name = entry.path().filename();
        if (name.starts_with(kPrefix)) names.push_back(std::move(name));
    }
    for (const std::string& name : names) {
        const std::string path = dir_ + "/" + name;
        const std::optional<std::string> key = read_key(path);
        if (!key) continue;
        const std::string fault = FaultOfKey(*key);
        if (!fault.empty()) {
            SetAside(name, "its key " + fault);
        } else if (PathOf(*key) == path) {
            continue;
        } else if (stored_keys.contains(*key) || fs::exists(PathOf(*key))) {
            SetAside(name, "it holds " + *key + ", which has a file of its own");
        } else {
            WriteLog(kLogWarning, "Reservation file " + path + " holds " + *key + ". It is renamed to " + PathOf(*key));
            fs::rename(path, PathOf(*key));
        }
    }
}

void ReservationFiles::SetAside(const std::string& name, const std::string& reason) {
    const std::string ignored_dir = dir_ + "/ignored";
    fs::create_directory(ignored_dir);
    std::string new_path = ignored_dir + "/" + name;
    while (fs::exists(new_path)) new_path += "~";
    WriteLog(kLogWarning, "Reservation file " + dir_ + "/" + name + " is moved to " + new_path + ": " + reason);
    fs::rename(dir_ + "/" + name, new_path);
}

bool ReservationFiles::Holds(const std::string& key, const std::optional<std::string>& record) const {
    const std::string path = PathOf(key);
    return record ? FileHolds(path, *record) : !fs::exists(fs::symlink_status(path));
}

void ReservationFiles::Write(const std::string& key, const std::optional<std::string>& record) {
    const std::string path = PathOf(key);
    const std::string staged_path = staging_dir_ + "/" + std::string(kPrefix) + key;
    if (!record) {
        fs::remove(path);
        return;
    }
    if (!FileHolds(staged_path, *record)) {
        fs::remove(staged_path);
        File(staged_path, O_WRONLY | O_CREAT | O_EXCL).Write(*record);
    }
    Rename(staged_path, path);
}

void ReservationFiles::Sync(const std::set<std::string>& keys) {
    for (const std::string& key : keys) {
        const std::string path = PathOf(key);
        if (fs::exists(path)) File(path, O_RDONLY | O_NONBLOCK).Sync();
    }
    File(dir_, O_RDONLY | O_DIRECTORY).Sync();
}

std::string ReservationFiles::PathOf(const std::string& key) const { return dir_ + "/" + std::string(kPrefix) + key; }

}    // namespace reservationd
