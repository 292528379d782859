// Opening files in a directory where anything may lie, without waiting for anybody.

#pragma once

#include <cerrno>
#include <ios>
#include <string>

namespace reservation_internal {

// Whether opening the path could wait for another process.
bool IsPipe(const std::string& path);

// Whether OpenUnlessPipe would open the file for reading. It makes no stream, which would take longer than the rest of
// a deletion.
bool CanBeRead(const std::string& path);

// Opens a binary file. A pipe is not opened: the stream fails, with errno EINVAL.
template <typename Stream>
void OpenUnlessPipe(Stream& file, const std::string& path, std::ios_base::openmode mode) {
    if (IsPipe(path)) {
        errno = EINVAL;
        file.setstate(std::ios_base::failbit);
        return;
    }
    file.open(path, mode | std::ios_base::binary);
}

}    // namespace reservation_internal
