#include "util/file.h"

#include <absl/cleanup/cleanup.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace util {
namespace {

enum class Sync { kNo, kYes };

absl::Status ReadError(const std::string& path) { return absl::ErrnoToStatus(errno, path + ": cannot be read"); }

absl::Status WriteError(const std::string& path) { return absl::ErrnoToStatus(errno, path + ": cannot be written"); }

absl::Status WriteAll(int file, const std::string& path, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(file, content.data(), content.size());
        if (written < 0 && errno != EINTR) return WriteError(path);
        if (written > 0) content.remove_prefix(static_cast<size_t>(written));
    }
    return absl::OkStatus();
}

absl::Status Write(const std::string& path, std::string_view content, Sync sync) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) return WriteError(path);
    absl::Status status = WriteAll(file, path, content);
    if (status.ok() && sync == Sync::kYes && fsync(file) != 0) status = WriteError(path);
    if (close(file) != 0 && status.ok()) status = WriteError(path);
    return status;
}

}    // namespace

absl::StatusOr<std::string> ReadWholeFile(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return ReadError(path);
    const absl::Cleanup close_file = [file] { close(file); };
    std::string content;
    std::array<char, 64 * 1024> buffer;
    while (true) {
        const ssize_t length = read(file, buffer.data(), buffer.size());
        if (length == 0) return content;
        if (length < 0 && errno != EINTR) return ReadError(path);
        if (length > 0) content.append(buffer.data(), static_cast<size_t>(length));
    }
}

absl::Status WriteWholeFile(const std::string& path, std::string_view content) {
    return Write(path, content, Sync::kNo);
}

absl::Status ReplaceWholeFile(const std::string& path, std::string_view content) {
    const std::string temporary = path + ".tmp";
    absl::Status status = Write(temporary, content, Sync::kYes);
    if (status.ok() && std::rename(temporary.c_str(), path.c_str()) != 0) status = WriteError(path);
    if (!status.ok()) unlink(temporary.c_str());
    return status;
}

}    // namespace util
