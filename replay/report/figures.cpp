#include "replay/report/figures.h"

namespace replay {

namespace {

uint64_t Sum(const std::map<std::string, uint64_t>& counts) {
    uint64_t sum = 0;
    for (const auto& [name, count] : counts) sum += count;
    return sum;
}

}    // namespace

uint64_t Figures::NumRefused() const { return Sum(refused); }

uint64_t Figures::NumOperations() const {
    uint64_t sum = 0;
    for (const auto& [kind, by_status] : operations) sum += Sum(by_status);
    return sum;
}

uint64_t Figures::NumOperations(const std::string& kind) const {
    const auto by_status = operations.find(kind);
    return by_status == operations.end() ? 0 : Sum(by_status->second);
}

uint64_t Figures::NumFailures(const std::string& kind) const {
    const auto by_status = operations.find(kind);
    if (by_status == operations.end()) return 0;
    const auto success = by_status->second.find("success");
    return Sum(by_status->second) - (success == by_status->second.end() ? 0 : success->second);
}

}    // namespace replay
