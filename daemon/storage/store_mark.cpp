#include "daemon/storage/store_mark.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "daemon/storage/store.h"

namespace reservationd {
namespace {

// "ID REVISION\n", of the same length always, so that one mark covers another one whole.
constexpr size_t kIdSize = 32;
constexpr char kFormat[] = "%-32.32s %020llu\n";
constexpr size_t kSize = kIdSize + 1 + 20 + 1;

}    // namespace

std::optional<Mark> StoreMark::Read(const std::string& path) {
    std::ifstream file(path);
    Mark mark;
    const bool is_mark = file >> mark.store_id >> mark.revision && mark.store_id.size() == kIdSize;
    return is_mark ? std::optional(mark) : std::nullopt;
}

StoreMark::StoreMark(const std::string& path)
    : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666)) {
    if (file_ < 0) throw StoreError(path + ": the mark of the store cannot be opened: " + std::strerror(errno));
}

StoreMark::~StoreMark() { close(file_); }

void StoreMark::Write(const Mark& mark) noexcept {
    std::array<char, kSize + 1> text{};
    std::snprintf(text.data(), text.size(), kFormat, mark.store_id.c_str(),
                  static_cast<unsigned long long>(mark.revision));
    [[maybe_unused]] const ssize_t written = pwrite(file_, text.data(), kSize, 0);
}

}    // namespace reservationd
