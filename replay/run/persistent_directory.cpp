#include "replay/run/persistent_directory.h"

#include <absl/strings/str_cat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "replay/input_error.h"
#include "replay/run/checkpoint.h"
#include "replay/target/in_process_target.h"

namespace replay {

PersistentDirectory::PersistentDirectory(std::string path) : path_(std::move(path)), is_temporary_(path_.empty()) {
    std::error_code error;
    if (is_temporary_) {
        const std::filesystem::path parent = std::filesystem::temp_directory_path(error);
        if (error) throw InputError(absl::StrCat("TMPDIR: cannot be used: ", error.message()));
        path_ = parent / "reservation-replay.XXXXXX";
        if (mkdtemp(path_.data()) == nullptr) throw InputError(absl::StrCat(path_, ": ", std::strerror(errno)));
    } else if (!std::filesystem::is_directory(path_, error)) {
        std::filesystem::create_directory(path_, error);
        if (error) {
            throw InputError(absl::StrCat("--persistent-dir: ", path_, ": cannot be made: ", error.message()));
        }
    }
}

PersistentDirectory::~PersistentDirectory() {
    std::error_code ignored;
    if (is_temporary_) std::filesystem::remove_all(path_, ignored);
}

void PersistentDirectory::CheckIsUnused() const {
    if (std::filesystem::exists(CheckpointPath(path_))) {
        throw InputError(
            absl::StrCat("--persistent-dir: ", path_, " holds a stopped replay; go on with it by --resume"));
    }
    const std::vector<std::string> files = ReservationFilesIn(path_);
    if (!files.empty()) {
        throw InputError(absl::StrCat("--persistent-dir: ", path_, " holds reservations already: ", files.front()));
    }
}

}    // namespace replay
