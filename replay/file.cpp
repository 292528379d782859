#include "replay/file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

std::string Failure(const std::string& path, const char* what, int error) {
    return path + ": " + what + ": " + std::strerror(error);
}

// 0, or the errno of what failed.
int WriteAndSync(int descriptor, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written < 0 && errno != EINTR) return errno;
        if (written > 0) content.remove_prefix(static_cast<size_t>(written));
    }
    return fsync(descriptor) == 0 ? 0 : errno;
}

}    // namespace

std::string ReadFile(const std::string& path) {
    if (std::filesystem::is_directory(std::filesystem::status(path)))
        throw InputError(Failure(path, "cannot be read", EISDIR));
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) throw InputError(Failure(path, "cannot be read", errno));
    std::ostringstream content;
    content << file.rdbuf();
    if (file.bad() || content.bad()) throw InputError(Failure(path, "cannot be read", EIO));
    return content.str();
}

void ReplaceFile(const std::string& path, std::string_view content) {
    const std::string temporary = path + ".tmp";
    const int descriptor = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (descriptor < 0) throw std::runtime_error(Failure(temporary, "cannot be written", errno));
    int error = WriteAndSync(descriptor, content);
    if (close(descriptor) != 0 && error == 0) error = errno;
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error == 0) return;
    unlink(temporary.c_str());
    throw std::runtime_error(Failure(path, "cannot be written", error));
}

std::string Printable(std::string_view text) {
    std::string printable(text);
    std::replace_if(
        printable.begin(), printable.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return printable;
}
