#include "ctl/input.h"

#include <iostream>
#include <sstream>

#include "ctl/errors.h"
#include "util/file.h"

namespace reservationctl {

Input ReadInput(const std::string& path) {
    if (path == "-") {
        std::ostringstream content;
        content << std::cin.rdbuf();
        return {"standard input", content.str()};
    }
    const absl::StatusOr<std::string> content = util::ReadWholeFile(path);
    if (!content.ok()) throw UsageError(std::string(content.status().message()));
    return {path, *content};
}

}    // namespace reservationctl
