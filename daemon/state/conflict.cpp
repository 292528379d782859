#include "daemon/state/conflict.h"

#include <algorithm>

#include "host/option_info.h"

namespace reservationd {
namespace {

void AddJobs(const ReservationInfo& reservation, v1::Conflict& conflict) {
    for (const auto& [job_id, job] : reservation.jobs) conflict.add_job_ids(job_id);
}

bool MayBeTakenFrom(const ReservationInfo& owner) {
    return g_option_info->reservation_allow_guid_override &&
           (owner.jobs.empty() || g_option_info->reservation_allow_ending_jobs);
}

// The first GUID to add that another reservation holds and may not lose.
v1::Conflict FindReservedGuid(const ReservationManager& manager, const WantedChange& change) {
    v1::Conflict conflict;
    for (const uint64_t guid : change.added_guids) {
        const auto hca = manager.hca_infos.find(guid);
        if (hca == manager.hca_infos.end()) continue;
        const ReservationInfo& owner = *hca->second.reservation;
        if (owner.info.reservation_key == change.key || MayBeTakenFrom(owner)) continue;
        conflict.set_guid(guid);
        conflict.set_reservation_key(owner.info.reservation_key);
        AddJobs(owner, conflict);
        break;
    }
    return conflict;
}

// The first GUID to add that is named twice or, for a delta, that the reservation has already.
v1::Conflict FindDuplicateGuid(const ReservationManager& manager, const WantedChange& change) {
    v1::Conflict conflict;
    const auto twice = std::adjacent_find(change.added_guids.begin(), change.added_guids.end());
    const auto held = std::find_if(change.added_guids.begin(), change.added_guids.end(), [&](uint64_t guid) {
        const auto hca = manager.hca_infos.find(guid);
        return hca != manager.hca_infos.end() && hca->second.reservation->info.reservation_key == change.key;
    });
    if (twice != change.added_guids.end()) {
        conflict.set_guid(*twice);
    } else if (held != change.added_guids.end()) {
        conflict.set_guid(*held);
        conflict.set_reservation_key(change.key);
    }
    return conflict;
}

// The jobs that use GUIDs to remove, and the first such GUID.
v1::Conflict FindUsedGuid(const ReservationInfo& reservation, const WantedChange& change) {
    v1::Conflict conflict;
    conflict.set_reservation_key(change.key);
    for (const auto& [job_id, job] : reservation.jobs) {
        const auto used = std::find_if(change.removed_guids.begin(), change.removed_guids.end(),
                                       [&guids = job.guids](uint64_t guid) { return guids.contains(guid); });
        if (used == change.removed_guids.end()) continue;
        if (conflict.guid() == 0 || *used < conflict.guid()) conflict.set_guid(*used);
        conflict.add_job_ids(job_id);
    }
    return conflict;
}

// The first GUID to remove that the reservation, if there is one, does not have.
v1::Conflict FindMissingGuid(const ReservationManager& manager, const WantedChange& change) {
    v1::Conflict conflict;
    const auto reservation = manager.reservations.find(change.key);
    if (reservation == manager.reservations.end()) return conflict;
    const vesk_reservation_info& info = reservation->second->info;
    const auto missing = std::find_if(change.removed_guids.begin(), change.removed_guids.end(), [&](uint64_t guid) {
        return !std::binary_search(info.guids, info.guids + info.num_guids, guid);
    });
    if (missing != change.removed_guids.end()) conflict.set_guid(*missing);
    return conflict;
}

v1::Conflict FindRunningJobs(const ReservationInfo& reservation, const WantedChange& change) {
    v1::Conflict conflict;
    conflict.set_reservation_key(change.key);
    AddJobs(reservation, conflict);
    return conflict;
}

}    // namespace

v1::Conflict FindConflict(const ReservationManager& manager, v1::Status status, const WantedChange& change) {
    if (status == v1::STATUS_GUID_RESERVED) return FindReservedGuid(manager, change);
    if (status == v1::STATUS_DUPLICATE_GUID) return FindDuplicateGuid(manager, change);
    if (status == v1::STATUS_GUIDS_USED_BY_JOB) return FindUsedGuid(*manager.reservations.at(change.key), change);
    if (status == v1::STATUS_HAS_JOBS) return FindRunningJobs(*manager.reservations.at(change.key), change);
    if (status == v1::STATUS_INVALID_GUIDS) return FindMissingGuid(manager, change);
    return {};
}

v1::Conflict FindForeignGuid(const ReservationManager& manager,
                             const google::protobuf::RepeatedField<uint64_t>& guids) {
    v1::Conflict conflict;
    const ReservationInfo* first_owner = nullptr;
    for (const uint64_t guid : guids) {
        const auto hca = manager.hca_infos.find(guid);
        const ReservationInfo* const owner = hca != manager.hca_infos.end() ? hca->second.reservation : nullptr;
        if (first_owner == nullptr) first_owner = owner;
        if (owner != nullptr && owner == first_owner) continue;
        conflict.set_guid(guid);
        if (owner != nullptr) conflict.set_reservation_key(owner->info.reservation_key);
        break;
    }
    return conflict;
}

}    // namespace reservationd
