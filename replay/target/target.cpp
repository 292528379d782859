#include "replay/target/target.h"

#include <absl/strings/str_cat.h>

namespace replay {

void ExpectNone(std::vector<std::string>& failed, uint64_t count, const std::string& what) {
    if (count != 0) failed.push_back(absl::StrCat(count, " ", what));
}

}    // namespace replay
