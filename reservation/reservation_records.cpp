#include "reservation/reservation_records.h"

#include <algorithm>
#include <utility>

#include "host/option_info.h"
#include "reservation/guid_list.h"
#include "reservation/reservation_manager.h"

namespace reservation_internal {

void ReplaceGuids(vesk_reservation_info& info, std::unique_ptr<uint64_t[]> guids, size_t count) noexcept {
    delete[] std::exchange(info.guids, guids.release());
    info.num_guids = static_cast<uint32_t>(count);
}

}    // namespace reservation_internal

using reservation_internal::CopyGuids;
using reservation_internal::CopyLimits;

bool ReservationJobInfo::CheckAtLeastOneGuidInJob(std::vector<uint64_t>& candidates) {
    return std::any_of(candidates.begin(), candidates.end(), [this](uint64_t guid) { return guids.contains(guid); });
}

ReservationInfo::ReservationInfo(const vesk_reservation_info* source) {
    vesk_copy_key(info.reservation_key, source->reservation_key);
    info.pkey = source->pkey;
    info.state = source->state;
    info.guids = CopyGuids({source->guids, source->num_guids});
    info.num_guids = source->num_guids;
    CopyLimits(info, *source);
}

ReservationInfo::~ReservationInfo() { delete[] info.guids; }

void ReservationInfo::SetReservationInfo(const vesk_create_reservation& request) {
    vesk_copy_key(info.reservation_key, request.reservation_key);
    info.pkey = request.pkey;
    info.guids = CopyGuids({request.guids, request.num_guids});
    info.num_guids = request.num_guids;
    CopyLimits(info, request);
    info.state = VESK_STATE_ACTIVE;
}

void ReservationInfo::UpdateReservationInfo(const std::vector<uint64_t>& guids) {
    std::unique_ptr<uint64_t[]> copy(CopyGuids(guids));
    reservation_internal::ReplaceGuids(info, std::move(copy), guids.size());
}

uint32_t ReservationInfo::CheckModifiedResources(const vesk_create_reservation& request) {
    for (size_t i = 0; i < VESK_NUM_LIMITS; ++i) {
        if (request.limits[i] == VESK_LIMIT_NOT_GIVEN) continue;
        if (request.limits[i] != info.limits[i]) return VESK_STATUS_LIMITS_MISMATCH;
    }
    return VESK_STATUS_SUCCESS;
}

void ReservationInfo::SetResourceLimitation() {
    const uint32_t num_trees = info.limits[VESK_LIMIT_NUM_TREES];
    const uint32_t default_num_trees = g_option_info->reservation_default_num_trees;
    if (num_trees != VESK_LIMIT_NOT_GIVEN) {
        max_trees = std::min(num_trees, RESERVATION_NO_TREES_LIMIT);
    } else {
        max_trees = default_num_trees == VESK_LIMIT_NOT_GIVEN ? RESERVATION_NO_TREES_LIMIT : default_num_trees;
    }
}
