// A file that a command reads whole.

#pragma once

#include <string>

namespace reservationctl {

struct Input {
    std::string name;    // for messages
    std::string content;
};

// The file at this path, or for "-" the standard input. Throws UsageError when it cannot be read.
Input ReadInput(const std::string& path);

}    // namespace reservationctl
