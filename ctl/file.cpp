#include "ctl/file.h"

#include <fstream>
#include <iostream>
#include <sstream>

#include "ctl/errors.h"

namespace reservationctl {

std::string ReadFile(const std::string& path) {
    const bool is_standard_input = path == "-";
    std::ifstream file;
    if (!is_standard_input) file.open(path, std::ios::binary);
    std::istream& input = is_standard_input ? std::cin : file;
    std::ostringstream text;
    if (!input || !(text << input.rdbuf())) {
        throw UsageError((is_standard_input ? "standard input" : path) + ": cannot be read, or is empty");
    }
    return text.str();
}

}    // namespace reservationctl
