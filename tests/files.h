// Files that tests write and read.

#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

// A new directory, removed at the end with all that is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error(path_ + " cannot be made");
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }

private:
    std::string path_ = std::filesystem::temp_directory_path() / "reservation_test.XXXXXX";
};

inline std::string Content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void Write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}
