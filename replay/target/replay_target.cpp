#include "replay/target/replay_target.h"

void ExpectNone(std::vector<std::string>& failed, uint64_t count, const std::string& what) {
    if (count != 0) failed.push_back(std::to_string(count) + " " + what);
}
