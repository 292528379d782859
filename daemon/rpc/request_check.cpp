#include "daemon/rpc/request_check.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "daemon/storage/reservation_files.h"

namespace reservationd {

namespace {

constexpr uint64_t kMaxPkey = 0xffff;
constexpr uint64_t kMaxByte = 0xff;

// The start of a key, fit for a message.
std::string Shown(std::string key) {
    constexpr size_t kMaxShown = 40;
    if (key.size() > kMaxShown) key = key.substr(0, kMaxShown) + "...";
    std::replace_if(
        key.begin(), key.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return key;
}

std::string FaultOfKeyField(const std::string& key) {
    const std::string fault = FaultOfKey(key);
    return fault.empty() ? "" : "key '" + Shown(key) + "' " + fault + ", so it cannot name a reservation file";
}

std::string FaultOfNumber(const char* field, uint64_t value, uint64_t min, uint64_t max) {
    if (value >= min && value <= max) return "";
    const std::string bound = value < min ? ", at least " + std::to_string(min) : ", at most " + std::to_string(max);
    return field + (" is " + std::to_string(value)) + bound + " is possible";
}

// The first fault that there is.
template <typename... Faults>
std::string FirstOf(std::string first, const Faults&... others) {
    ((first = first.empty() ? others : first), ...);
    return first;
}

}    // namespace

std::string FaultOf(const v1::CreateReservationRequest& request) {
    return FirstOf(FaultOfKeyField(request.key()), FaultOfNumber("pkey", request.pkey(), 0, kMaxPkey));
}

std::string FaultOf(const v1::UpdateReservationRequest& request) { return FaultOfKeyField(request.key()); }

std::string FaultOf(const v1::DeleteReservationRequest& request) { return FaultOfKeyField(request.key()); }

std::string FaultOf(const v1::GetReservationsRequest& request) { return FaultOfKeyField(request.key()); }

std::string FaultOf(const v1::BeginJobRequest& request) {
    return FirstOf(FaultOfNumber("job_id", request.job_id(), 1, UINT64_MAX),
                   FaultOfNumber("planes", request.planes(), 0, kMaxByte),
                   FaultOfNumber("trees", request.trees(), 0, kMaxByte));
}

std::string FaultOf(const v1::EndJobRequest& request) {
    return FaultOfNumber("job_id", request.job_id(), 1, UINT64_MAX);
}

std::string FaultOf(const v1::ListJobsRequest& request) { return FaultOfKeyField(request.reservation_key()); }

std::string FaultOf(const v1::ReportPortRequest& request) {
    std::string fault = FirstOf(FaultOfNumber("guid", request.guid(), 1, UINT64_MAX),
                                FaultOfNumber("port_num", request.port_num(), 0, kMaxByte));
    for (const uint32_t pkey : request.pkeys()) {
        fault = FirstOf(std::move(fault), FaultOfNumber("pkeys", pkey, 0, kMaxPkey));
    }
    return fault;
}

}    // namespace reservationd
