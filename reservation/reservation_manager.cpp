#include "reservation/reservation_manager.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <utility>

#include "host/dov_msg.h"
#include "host/event_manager.h"
#include "host/fabric.h"
#include "host/hash_bytes.h"
#include "host/log.h"
#include "host/option_info.h"
#include "reservation/guid_list.h"
#include "reservation/hca_cursor.h"
#include "reservation/regular_file.h"
#include "reservation/reply.h"
#include "reservation/reservation_records.h"
#include "reservation/rollback.h"

// A record of the named operation. Levels 1 and 2 are always sent; the arguments of the others are not even evaluated
// unless the logger wants them. A macro, so that the record has the line, and the compiler checks the format.
#define RESERVE_LOG_FOR(operation, level, ...)                                                   \
    do {                                                                                         \
        if ((level) <= 2 || log_check_level("RESERVE", level) != 0)                              \
            log_send("RESERVE", level, "reservation_manager", __LINE__, operation, __VA_ARGS__); \
    } while (false)

#define RESERVE_LOG(level, ...) RESERVE_LOG_FOR(__func__, level, __VA_ARGS__)

using reservation_internal::CanBeRead;
using reservation_internal::CopyGuids;
using reservation_internal::Describe;
using reservation_internal::Difference;
using reservation_internal::GuidList;
using reservation_internal::GuidSpan;
using reservation_internal::HcaCursor;
using reservation_internal::OpenUnlessPipe;
using reservation_internal::ReplaceGuids;
using reservation_internal::Reply;
using reservation_internal::Rollback;
using reservation_internal::SmallestCommonGuid;
using reservation_internal::SortGuids;
using reservation_internal::Union;

namespace {

constexpr char kReservationFilePrefix[] = "reservation.";
constexpr size_t kMaxPathLength = 4095;
constexpr uint64_t kMinReservationFileSize = 16;
constexpr uint64_t kMaxReservationFileSize = uint64_t{1} << 37;    // more than 2^32 GUIDs take

GuidSpan GuidsOf(const ReservationInfo* reservation) { return {reservation->info.guids, reservation->info.num_guids}; }

bool IsNamed(const ReservationInfo* reservation, const char* key) {
    return std::strcmp(reservation->info.reservation_key, key) == 0;
}

// The list of a request, sorted in place and copied. One that is counted but not there is an absent one.
GuidList SortedCopy(uint64_t* guids, uint32_t count) {
    if (guids == nullptr) return {};
    SortGuids({guids, count});
    return {guids, guids + count};
}

// Erases the HCAs' entries, whoever owns them.
void EraseEntries(HcaCursor::Index& index, GuidSpan guids) {
    HcaCursor cursor(index);
    for (const uint64_t guid : guids) cursor.Erase(guid);
}

bool HaveSameKey(const ReservationInfo* one, const ReservationInfo* other) {
    return one == other || IsNamed(one, other->info.reservation_key);
}

// ---- Jobs ----

unsigned NumPlanes(const VeskJob* job) { return static_cast<uint8_t>(job->plane_trees.size()); }

// The trees of plane 0, as many as count.
std::span<const VeskTree> FirstPlaneTrees(const VeskJob* job) {
    if (job->plane_trees.empty()) return {};
    const std::vector<VeskTree>& trees = job->plane_trees.front();
    return {trees.data(), static_cast<uint8_t>(trees.size())};
}

// The first port of the job's first tree, or null.
const PortData* ReferencePort(const VeskJob* job) {
    if (job->plane_trees.empty() || job->plane_trees.front().empty()) return nullptr;
    const VeskTree& tree = job->plane_trees.front().front();
    return tree.ports.empty() ? nullptr : *tree.ports.begin();
}

// The job's name in a record. That memory runs out for it must not stop what is being recorded.
std::string NameOf(const VeskJob* job) noexcept try {
    return job->ext_job_id.ToString();
} catch (const std::bad_alloc&) {
    return "?";
}

const char* JobOrJobs(uint16_t count) { return count == 1 ? "job" : "jobs"; }

// ---- Files ----

std::string ReservationFilePath(const vesk_reservation_info& info, const std::string& dir) {
    return dir + "/" + kReservationFilePrefix + info.reservation_key;
}

bool HasReservationFileName(const char* name) {
    return std::strncmp(name, kReservationFilePrefix, std::strlen(kReservationFilePrefix)) == 0;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirPointer = std::unique_ptr<DIR, DirCloser>;

struct MessageReleaser {
    void operator()(vesk_dov_msg* msg) const { dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg); }
};
using MessagePointer = std::unique_ptr<vesk_dov_msg, MessageReleaser>;

// Calls `handle` with the path of every reservation file in `dir`, in the directory's order. The records are
// `operation`'s.
template <typename Handle>
bool ForEachReservationFile(const std::string& dir, const char* operation, Handle handle) {
    const DirPointer listing(opendir(dir.c_str()));
    if (listing == nullptr) {
        RESERVE_LOG_FOR(operation, 1, "Failed to open persistent directory %s - %s", dir.c_str(), strerror(errno));
        return false;
    }
    while (const dirent* entry = readdir(listing.get())) {
        if (!HasReservationFileName(entry->d_name)) continue;
        const std::string path = dir + "/" + entry->d_name;
        if (path.size() > kMaxPathLength) {
            RESERVE_LOG_FOR(operation, 2, "Path of reservation file is too long, skipping it: %s", path.c_str());
            continue;
        }
        handle(path);
    }
    return true;
}

std::string AutoReservationKey(uint16_t pkey) {
    char key[sizeof("reservation_0xffff")];
    std::snprintf(key, sizeof(key), "reservation_0x%x", static_cast<unsigned>(pkey));
    return key;
}

bool IsAutoMode() { return g_option_info->reservation_auto_by_pkeys && g_option_info->reservation_mode; }

}    // namespace

// ---- Registry ----

ReservationManager::ReservationManager(CommandManager* manager) : command_manager(manager) {}

ReservationManager::~ReservationManager() {
    for (const auto& [key, info] : reservations) delete info;
}

void ReservationManager::AddReservationToDB(ReservationInfo* info) {
    reservations.try_emplace(info->info.reservation_key, info);
    HcaCursor cursor(hca_infos);
    for (const uint64_t guid : GuidsOf(info)) cursor.InsertIfAbsent(guid, info);
}

ReservationInfo* ReservationManager::GetReservationInfoByKey(const std::string& key) {
    const auto found = reservations.find(key);
    return found != reservations.end() ? found->second : nullptr;
}

ReservationInfo* ReservationManager::GetReservationByGuids(uint64_t* guids, uint32_t count) {
    if (count == 0 || guids == nullptr) {
        RESERVE_LOG(1, "Get Reservation By Guids: no GUID provided");
        return nullptr;
    }
    HcaCursor cursor(hca_infos);
    ReservationInfo* const reservation = cursor.FindOwner(guids[0]);
    if (reservation == nullptr) {
        RESERVE_LOG(3, "Get Reservation By Guids: guid=0x%lx not in any reservation", guids[0]);
        return nullptr;
    }
    const char* const key = reservation->info.reservation_key;
    for (uint32_t i = 1; i < count; ++i) {
        const ReservationInfo* const owner = cursor.FindOwner(guids[i]);
        if (owner == nullptr) {
            RESERVE_LOG(3, "Get Reservation By Guids: guid=0x%lx not found in reservation=%s", guids[i], key);
            return nullptr;
        }
        if (!HaveSameKey(owner, reservation)) {
            RESERVE_LOG(3,
                        "Get Reservation By Guids: two guids in two reservations, guid=0x%lx in reservation_key=%s, "
                        "guid=0x%lx in reservation_key=%s",
                        guids[0], key, guids[i], owner->info.reservation_key);
            return nullptr;
        }
    }
    return reservation;
}

void ReservationManager::CreateReservationId(ReservationInfo& info) {
    const char* const key = info.info.reservation_key;
    if (info.reservation_id != 0) {
        RESERVE_LOG(4, "CreateReservationId already exist, skip, key=%s, id=%lu", key, info.reservation_id);
        return;
    }
    uint64_t id = HashBytes(key);
    while (reservation_keys_by_id.contains(id)) ++id;
    reservation_keys_by_id.emplace(id, key);
    info.reservation_id = id;
    RESERVE_LOG(4, "CreateReservationId key=%s, id=%lu", key, id);
}

void ReservationManager::SetReservationId(ReservationInfo& info, uint64_t id) {
    RESERVE_LOG(4, "SetReservationId key=%s, id=%lu", info.info.reservation_key, id);
    info.reservation_id = id;
    reservation_keys_by_id.emplace(id, info.info.reservation_key);
}

// ---- Create ----

void ReservationManager::CreateReservation(const vesk_create_reservation& request, const dov_ep* ep,
                                           uint64_t transaction_id) {
    RESERVE_LOG(4, "Got a reservation request for app: %s, with num trees limit: %d", request.reservation_key,
                static_cast<int>(request.limits[VESK_LIMIT_NUM_TREES]));

    Reply reply(command_manager, ep, transaction_id, Reply::Failures::kCounted);
    reply.SetEntry(request.reservation_key);
    Describe(reply.entry, request);

    ReservationInfo* info = nullptr;
    reply.list.status = CreateOrReplace(request, info);
    if (info != nullptr) reply.entry.state = info->info.state;
}

// CreateReservation without the reply. `info` is the reservation when it has been created or replaced.
uint32_t ReservationManager::CreateOrReplace(const vesk_create_reservation& request, ReservationInfo*& info) {
    constexpr char kOperation[] = "CreateReservation";
    const char* const key = request.reservation_key;
    if (!g_option_info->reservation_mode) {
        RESERVE_LOG_FOR(kOperation, 2, "Reservation mode not enabled");
        return VESK_STATUS_MODE_DISABLED;
    }
    if (g_option_info->reservation_auto_by_pkeys) {
        RESERVE_LOG_FOR(kOperation, 3, "Reservation auto by pkeys is enabled, ignore create reservation request %s",
                        key);
        return VESK_STATUS_SUCCESS;
    }
    if (key[0] == '\0') {
        RESERVE_LOG_FOR(kOperation, 3,
                        "Could not create reservation with empty reservation_key because reservation_key is not valid");
        return VESK_STATUS_INVALID_KEY;
    }
    if (request.num_guids == 0 || request.guids == nullptr) {
        RESERVE_LOG_FOR(kOperation, 3,
                        "Could not create reservation with reservation_key: %s because num_guids is empty", key);
        return VESK_STATUS_INVALID_GUIDS;
    }
    SortGuids({request.guids, request.num_guids});

    std::unordered_set<ReservationInfo*> affected;
    uint32_t status = HandleAddedGuidsAndOtherReservations(key, request.num_guids, request.guids, affected);
    if (status != VESK_STATUS_SUCCESS) return status;

    ReservationInfo* target = GetReservationInfoByKey(key);
    if (target != nullptr) {
        status = InternalUpdateReservation(target, request);
        if (status != VESK_STATUS_SUCCESS) return status;
    } else {
        auto created = std::make_unique<ReservationInfo>();
        created->SetReservationInfo(request);
        target = created.release();
        EnterNewReservation(target, Announcement::kCreatedEvent);
    }
    PostUpdateReservation(target, affected);
    info = target;
    return VESK_STATUS_SUCCESS;
}

uint32_t ReservationManager::HandleAddedGuidsAndOtherReservations(const char* reservation_key, uint32_t num_guids,
                                                                  uint64_t* guids,
                                                                  std::unordered_set<ReservationInfo*>& affected) {
    HcaCursor cursor(hca_infos);
    const ReservationInfo* own = nullptr;    // the owner that is known to have this key
    for (uint32_t i = 0; i < num_guids; ++i) {
        const uint64_t guid = guids[i];
        if (guid == 0) {
            RESERVE_LOG(3, "Could not create/update reservation %s, invalid requested guid (0x0) detected",
                        reservation_key);
            return VESK_STATUS_INVALID_GUIDS;
        }
        if (i > 0 && guid == guids[i - 1]) {
            RESERVE_LOG(3, "Could not create/update reservation %s, request has duplicated guids (0x%lx)",
                        reservation_key, guid);
            return VESK_STATUS_DUPLICATE_GUID;
        }
        ReservationInfo* const owner = cursor.FindOwner(guid);
        if (owner == own || owner == nullptr || affected.contains(owner)) continue;
        if (IsNamed(owner, reservation_key)) {
            own = owner;
            continue;
        }
        const uint32_t status = CheckOwnerOfAddedGuid(reservation_key, guid, owner, affected);
        if (status != VESK_STATUS_SUCCESS) return status;
    }
    return VESK_STATUS_SUCCESS;
}

// Whether a GUID of another reservation may go to the one with this key; if so, its owner joins the affected ones.
uint32_t ReservationManager::CheckOwnerOfAddedGuid(const char* reservation_key, uint64_t guid,
                                                   const ReservationInfo* owner,
                                                   std::unordered_set<ReservationInfo*>& affected) {
    constexpr char kOperation[] = "HandleAddedGuidsAndOtherReservations";
    const char* const owner_key = owner->info.reservation_key;
    if (!g_option_info->reservation_allow_guid_override) {
        RESERVE_LOG_FOR(kOperation, 3,
                        "Could not create reservation with reservation key=%s, guid=0x%lx already reserved in key=%s",
                        reservation_key, guid, owner_key);
        return VESK_STATUS_GUID_RESERVED;
    }
    ReservationInfo* const other = GetReservationInfoByKey(owner_key);
    if (other == nullptr) {
        RESERVE_LOG_FOR(kOperation, 1, "-A- Could not find reservation that is affected by new one: %s", owner_key);
        return VESK_STATUS_SUCCESS;
    }
    if (!other->jobs.empty() && !g_option_info->reservation_allow_ending_jobs) {
        RESERVE_LOG_FOR(
            kOperation, 3,
            "Could not create reservation with reservation key=%s, guid=0x%lx already reserved in key=%s, and "
            "has active jobs",
            reservation_key, guid, owner_key);
        return VESK_STATUS_GUID_RESERVED;
    }
    affected.insert(other);
    return VESK_STATUS_SUCCESS;
}

void ReservationManager::InternalCreateNewReservation(ReservationInfo* info) {
    EnterNewReservation(info, Announcement::kNone);
}

void ReservationManager::EnterNewReservation(ReservationInfo* info, Announcement announcement) {
    constexpr char kOperation[] = "InternalCreateNewReservation";
    std::set<VeskJob*> attached_jobs;
    // Jobs can bring the id 0, and then another one.
    const bool had_id_zero = reservation_keys_by_id.contains(0);
    const size_t num_ids = reservation_keys_by_id.size();
    Rollback forget([&] {
        if (!had_id_zero) reservation_keys_by_id.erase(0);
        if (reservation_keys_by_id.size() > num_ids) reservation_keys_by_id.erase(info->reservation_id);
        ForgetNewReservation(info, attached_jobs);
    });
    info->SetResourceLimitation();
    AddReservationToDB(info);
    if (!g_option_info->reservation_auto_by_pkeys) AttachRunningJobs(info, attached_jobs);
    CreateReservationId(*info);

    const std::string limit =
        info->max_trees == RESERVATION_NO_TREES_LIMIT ? "no limit" : std::to_string(info->max_trees);
    RESERVE_LOG_FOR(kOperation, 3, "Reservation with key=%s, id=%lu, allocated with %d guids, num trees limit: %s",
                    info->info.reservation_key, info->reservation_id, static_cast<int>(info->info.num_guids),
                    limit.c_str());
    if (announcement == Announcement::kCreatedEvent) {
        g_event_manager->AddReservationCreatedEvent(info->info.reservation_key);
    }
    forget.Done();
}

// Takes a reservation whose creation has failed out of the registry again, and frees it.
void ReservationManager::ForgetNewReservation(ReservationInfo* info, const std::set<VeskJob*>& attached_jobs) noexcept {
    const std::unique_ptr<ReservationInfo> holder(info);
    for (VeskJob* job : attached_jobs) {
        ApplyJobReservationResourcesChange(info, false, job);
        job->reservation_accounted = false;
    }
    const auto entry = FindEntry(info->info.reservation_key);
    if (entry != reservations.end() && entry->second == info) reservations.erase(entry);
    HcaCursor cursor(hca_infos);
    for (const uint64_t guid : GuidsOf(info)) {
        if (cursor.FindOwner(guid) == info) cursor.Erase(guid);
    }
}

// The key's entry. Called where nothing may fail: without memory for a string, the key is looked for entry by entry.
std::map<std::string, ReservationInfo*>::iterator ReservationManager::FindEntry(const char* key) noexcept try {
    return reservations.find(key);
} catch (const std::bad_alloc&) {
    return std::find_if(reservations.begin(), reservations.end(),
                        [key](const auto& entry) { return entry.first == key; });
}

void ReservationManager::PostUpdateReservation(ReservationInfo* info,
                                               const std::unordered_set<ReservationInfo*>& affected) {
    CreateReservationInfoFile(info->info, g_option_info->persistent_dir);
    for (ReservationInfo* other : affected) {
        RESERVE_LOG(3, "Deleting reservation due to override of guids, reservation key: %s",
                    other->info.reservation_key);
        InternalDeleteReservation(other);
    }
    AddReservationToDB(info);
}

// ---- Info ----

void ReservationManager::ReservationInfoRequest(const vesk_reservation_info_request& request, const dov_ep* ep,
                                                uint64_t transaction_id) {
    std::vector<vesk_reservation_info> entries;
    Reply reply(command_manager, ep, transaction_id, Reply::Failures::kNotCounted);
    const auto describe = [&request](vesk_reservation_info& entry, const vesk_reservation_info& info) {
        entry.pkey = info.pkey;
        entry.state = info.state;
        if (request.with_details != 0) Describe(entry, info);
    };

    if (!g_option_info->reservation_mode) {
        RESERVE_LOG(3, "Reservation mode not enabled");
        reply.list.status = VESK_STATUS_MODE_DISABLED;
        return;
    }
    if (request.reservation_key[0] != '\0') {
        const ReservationInfo* info = GetReservationInfoByKey(request.reservation_key);
        if (info == nullptr) {
            RESERVE_LOG(4, "Could not find reservation for id=%s", request.reservation_key);
            reply.list.status = VESK_STATUS_NOT_FOUND;
            return;
        }
        reply.SetEntry(request.reservation_key);
        describe(reply.entry, info->info);
        return;
    }
    if (reservations.empty()) {
        RESERVE_LOG(4, "Reservation request, no reservations");
        return;
    }
    entries.resize(reservations.size());
    auto entry = entries.begin();
    for (const auto& [key, info] : reservations) {
        vesk_copy_key(entry->reservation_key, info->info.reservation_key);
        describe(*entry++, info->info);
    }
    reply.list.num_reservations = entries.size();
    reply.list.reservations = entries.data();
}

// ---- Replace ----

uint32_t ReservationManager::InternalUpdateReservation(ReservationInfo* info, const vesk_create_reservation& request) {
    if (request.pkey != info->info.pkey) {
        RESERVE_LOG(3,
                    "Got a reservation update request with a different pkey than original (original: 0x%04x, new: "
                    "0x%04x), request is denied",
                    static_cast<unsigned>(info->info.pkey), static_cast<unsigned>(request.pkey));
        return VESK_STATUS_PKEY_MISMATCH;
    }
    const uint32_t status = info->CheckModifiedResources(request);
    if (status != VESK_STATUS_SUCCESS) {
        RESERVE_LOG(3,
                    "Got a reservation update request with different resources than original, request is denied. "
                    "Reservation key=%s",
                    request.reservation_key);
        return status;
    }
    const GuidSpan wanted_guids{request.guids, request.num_guids};
    GuidList removed_guids = Difference(GuidsOf(info), wanted_guids);
    GuidList added_guids = Difference(wanted_guids, GuidsOf(info));
    if (removed_guids.empty() && added_guids.empty()) {
        RESERVE_LOG(3,
                    "Got a reservation update request with same list of guids. There is nothing to update. Reservation "
                    "key=%s",
                    request.reservation_key);
        return VESK_STATUS_SUCCESS;
    }
    GuidList new_guids(wanted_guids.begin(), wanted_guids.end());
    return PerformUpdateAfterDataPreparation(info, new_guids, added_guids, removed_guids);
}

uint32_t ReservationManager::PerformUpdateAfterDataPreparation(ReservationInfo* info, GuidList& new_guids,
                                                               GuidList& added_guids, GuidList& removed_guids) {
    // What can run out of memory comes first, while nothing has been changed.
    HcaCursor::Index new_entries;
    for (const uint64_t guid : added_guids) new_entries.emplace_hint(new_entries.end(), guid, ReservationHCAInfo{info});
    std::unique_ptr<uint64_t[]> new_array(CopyGuids(new_guids));

    if (!removed_guids.empty()) {
        const uint32_t status = HandleRemovedGuidsAndActiveJobs(info, removed_guids);
        if (status != VESK_STATUS_SUCCESS) return status;
        EraseEntries(hca_infos, removed_guids);
    }
    HcaCursor(hca_infos).TakeAll(new_entries);
    RESERVE_LOG(3, "Update existing reservation, key=%s, new number of guids=%lu (Added: %lu, Deleted: %lu)",
                info->info.reservation_key, new_guids.size(), added_guids.size(), removed_guids.size());
    ReplaceGuids(info->info, std::move(new_array), new_guids.size());
    if (!g_option_info->reservation_auto_by_pkeys) {
        g_event_manager->AddReservationUpdatedEvent(info->info.reservation_key);
    }
    return VESK_STATUS_SUCCESS;
}

uint32_t ReservationManager::HandleRemovedGuidsAndActiveJobs(ReservationInfo* info, GuidList& removed_guids) {
    const char* const key = info->info.reservation_key;
    for (auto next = info->jobs.begin(); next != info->jobs.end();) {
        auto position = next++;
        if (!position->second.CheckAtLeastOneGuidInJob(removed_guids)) continue;

        VeskJob* const job = command_manager->FindJob(position->first, info->reservation_id, key);
        if (!g_option_info->reservation_allow_ending_jobs) {
            RESERVE_LOG(3,
                        "Removed guids from reservation are part of an existing job. Failing the request to modify the "
                        "reservation. Reservation id = %s, external job id = %s",
                        key, job != nullptr ? NameOf(job).c_str() : "0");
            return VESK_STATUS_GUIDS_USED_BY_JOB;
        }
        RemoveJob(info, position, job);
        if (job == nullptr) continue;
        RESERVE_LOG(
            3,
            "Removed guids from reservation are part of an existing job, the job will be stopped. Reservation id "
            "= %s, external job id = %s",
            key, NameOf(job).c_str());
        job->reservation_accounted = false;
        EndJob(job);
    }
    return VESK_STATUS_SUCCESS;
}

// ---- Update by delta ----

void ReservationManager::UpdateReservationByDelta(const vesk_update_reservation_by_delta& request, const dov_ep* ep,
                                                  uint64_t transaction_id) {
    const char* const key = request.reservation_key;
    RESERVE_LOG(4, "Got a reservation update request for app: %s, with num guids to add: %d, num guids to remove: %d",
                key, static_cast<int>(request.num_guids_to_add), static_cast<int>(request.num_guids_to_remove));

    Reply reply(command_manager, ep, transaction_id, Reply::Failures::kCounted);
    reply.SetEntry(key);
    if (!g_option_info->reservation_mode) {
        RESERVE_LOG(2, "Reservation mode not enabled");
        reply.list.status = VESK_STATUS_MODE_DISABLED;
        return;
    }
    if (g_option_info->reservation_auto_by_pkeys) {
        RESERVE_LOG(3, "Reservation auto by pkeys is enabled, ignore update reservation request %s", key);
        return;
    }
    reply.list.status = InternalUpdateReservationByDelta(request);
    if (reply.list.status != VESK_STATUS_SUCCESS) return;

    const ReservationInfo* info = GetReservationInfoByKey(key);
    Describe(reply.entry, info->info);
    reply.entry.state = info->info.state;
}

uint32_t ReservationManager::InternalUpdateReservationByDelta(const vesk_update_reservation_by_delta& request) {
    const char* const key = request.reservation_key;
    RESERVE_LOG(
        4, "Got an internal reservation update request for app: %s, with num guids to add: %d, num guids to remove: %d",
        key, static_cast<int>(request.num_guids_to_add), static_cast<int>(request.num_guids_to_remove));

    if (request.num_guids_to_add == 0 && request.num_guids_to_remove == 0) {
        RESERVE_LOG(3, "Did not update reservation %s because both lists of added and removed guids are empty", key);
        return VESK_STATUS_INVALID_GUIDS;
    }
    ReservationInfo* const info = GetReservationInfoByKey(key);
    if (info == nullptr) {
        RESERVE_LOG(3, "Could not update reservation %s, because could not find such an existing reservation", key);
        return VESK_STATUS_INVALID_KEY;
    }
    const uint32_t num_held = info->info.num_guids;
    if (request.num_guids_to_remove > num_held) {
        RESERVE_LOG(
            3,
            "Did not update reservation %s because number of removed guids (%d) is larger than current number of "
            "guids (%d)",
            key, static_cast<int>(request.num_guids_to_remove), static_cast<int>(num_held));
        return VESK_STATUS_INVALID_GUIDS;
    }
    GuidList removed_guids = SortedCopy(request.guids_to_remove, request.num_guids_to_remove);
    GuidList added_guids = SortedCopy(request.guids_to_add, request.num_guids_to_add);
    const uint64_t* const common = SmallestCommonGuid(GuidsOf(info), added_guids);
    if (common != nullptr) {
        RESERVE_LOG(
            3,
            "Did not update reservation %s because requested guids to add include guids that are already in the "
            "reservation (0x%lx)",
            key, *common);
        return VESK_STATUS_DUPLICATE_GUID;
    }
    const GuidList kept_guids = Difference(GuidsOf(info), removed_guids);
    if (num_held - kept_guids.size() != removed_guids.size()) {
        RESERVE_LOG(3,
                    "Did not update reservation %s because list of removed guids is invalid (either has duplicates or "
                    "guids that are not part of the reservation)",
                    key);
        return VESK_STATUS_INVALID_GUIDS;
    }
    GuidList new_guids = Union(kept_guids, added_guids);

    std::unordered_set<ReservationInfo*> affected;
    uint32_t status = HandleAddedGuidsAndOtherReservations(key, static_cast<uint32_t>(added_guids.size()),
                                                           added_guids.data(), affected);
    if (status != VESK_STATUS_SUCCESS) return status;
    status = PerformUpdateAfterDataPreparation(info, new_guids, added_guids, removed_guids);
    if (status != VESK_STATUS_SUCCESS) return status;
    PostUpdateReservation(info, affected);
    return VESK_STATUS_SUCCESS;
}

// ---- Delete ----

void ReservationManager::DeleteReservation(const vesk_delete_reservation& request, const dov_ep* ep,
                                           uint64_t transaction_id) {
    const char* const key = request.reservation_key;
    Reply reply(command_manager, ep, transaction_id, Reply::Failures::kNotCounted);
    if (!g_option_info->reservation_mode) {
        RESERVE_LOG(2, "Reservation mode not enabled");
        reply.list.status = VESK_STATUS_MODE_DISABLED;
        return;
    }
    if (g_option_info->reservation_auto_by_pkeys) {
        RESERVE_LOG(3, "Reservation auto by pkeys is enabled, ignore delete reservation request %s", key);
        return;
    }
    reply.SetEntry(key);
    ReservationInfo* const info = GetReservationInfoByKey(key);
    if (info == nullptr) {
        reply.list.status = VESK_STATUS_NOT_FOUND;
        RESERVE_LOG(3, "Could not delete reservation with reservation id=%s, reservation not found", key);
        return;
    }
    Describe(reply.entry, info->info);
    if (!info->jobs.empty() && !g_option_info->reservation_allow_ending_jobs) {
        reply.list.status = VESK_STATUS_HAS_JOBS;
        RESERVE_LOG(3, "Could not delete reservation with reservation id=%s, reservation has active jobs", key);
        return;
    }
    // The reply points to the GUIDs that the deletion frees.
    reply.entry.state = VESK_STATE_DELETED;
    reply.Send();
    InternalDeleteReservation(info);
}

void ReservationManager::InternalDeleteReservation(ReservationInfo* info) {
    RemoveReservationJobs(info);
    const std::unique_ptr<ReservationInfo> holder(info);
    reservation_keys_by_id.erase(info->reservation_id);
    const auto entry = FindEntry(info->info.reservation_key);
    if (entry != reservations.end()) reservations.erase(entry);
    EraseEntries(hca_infos, GuidsOf(info));
    DeleteReservationInfoFile(info->info, g_option_info->persistent_dir);
    RESERVE_LOG(3, "Reservation with key=%s, id=%lu deleted", info->info.reservation_key, info->reservation_id);
    g_event_manager->AddReservationRemovedEvent(info->info.reservation_key);
}

void ReservationManager::RemoveReservationJobs(ReservationInfo* info) {
    const char* const key = info->info.reservation_key;
    for (auto next = info->jobs.begin(); next != info->jobs.end();) {
        auto position = next++;
        VeskJob* const job = command_manager->FindJob(position->first, info->reservation_id, key);
        RemoveJob(info, position, job);
        if (job == nullptr) continue;
        job->reservation_accounted = false;
        RESERVE_LOG(3, "Delete reservation id=%s, send job error external job id=%s", key, NameOf(job).c_str());
        EndJob(job);
    }
}

// ---- Jobs ----

ReservationInfo* ReservationManager::GetReservationByJob(const VeskJob* job) {
    if (!g_option_info->reservation_mode) {
        RESERVE_LOG(3, "Reservation mode not enabled");
        return nullptr;
    }
    const PortData* const reference_port = ReferencePort(job);
    if (reference_port == nullptr) {
        RESERVE_LOG(3, "Could not get reservation for external_job_id=%s, the job has no tree with a port",
                    NameOf(job).c_str());
        return nullptr;
    }
    HcaCursor cursor(hca_infos);
    ReservationInfo* const reservation = cursor.FindOwner(reference_port->guid);
    if (reservation == nullptr) {
        RESERVE_LOG(3, "Could not get reservation for external_job_id=%s, guid=0x%lx not in any reservation",
                    NameOf(job).c_str(), reference_port->guid);
        return nullptr;
    }
    for (const VeskTree& tree : FirstPlaneTrees(job)) {
        for (const PortData* port : tree.ports) {
            const ReservationInfo* const owner = cursor.FindOwner(port->guid);
            if (owner == nullptr) {
                RESERVE_LOG(3,
                            "Could not get reservation for external_job_id=%s, guid=0x%lx not found in reservation=%s",
                            NameOf(job).c_str(), port->guid, reservation->info.reservation_key);
                return nullptr;
            }
            if (!HaveSameKey(owner, reservation)) {
                RESERVE_LOG(3,
                            "Could not get reservation for external_job_id=%s, job guids in different reservations, "
                            "guid=0x%lx in reservation_key=%s, guid=0x%lx in reservation_key=%s",
                            NameOf(job).c_str(), reference_port->guid, reservation->info.reservation_key, port->guid,
                            owner->info.reservation_key);
                return nullptr;
            }
        }
    }
    return reservation;
}

int ReservationManager::ValidateReservationResources(ReservationInfo* reservation, JobResource& resource,
                                                     const VeskJob* job) {
    constexpr char kOperation[] = "ValidateReservationResources";
    const unsigned planes = NumPlanes(job);
    const uint32_t allowed = planes * reservation->max_trees;
    const uint32_t needed = resource.requested_trees + reservation->used_trees;
    if (needed > allowed) {
        RESERVE_LOG(
            3,
            "External Job ID: %s, exceeded resource limitation. App id: %s, is allowed to have %u trees (counted "
            "as %u with %u planes), already using %u trees, trying to add an additional %u",
            NameOf(job).c_str(), reservation->info.reservation_key, reservation->max_trees, allowed, planes,
            reservation->used_trees, static_cast<unsigned>(resource.requested_trees));
        return VESK_ADMISSION_REFUSED;
    }
    const uint16_t max_jobs = g_option_info->max_jobs_per_hca;
    if (max_jobs == 0) return 0;

    HcaCursor cursor(hca_infos);
    const auto has_room = [&](const PortData* port) {
        const ReservationHCAInfo* const hca = cursor.Find(port->guid);
        if (hca == nullptr) {
            RESERVE_LOG_FOR(kOperation, 1, "-A- Job port guid not found in reservation info, guid: 0x%016lx",
                            port->guid);
            return false;
        }
        if (hca->num_jobs < max_jobs) return true;
        RESERVE_LOG_FOR(
            kOperation, 3,
            "External Job ID: %s, exceeded resource limitation. HCA guid 0x%016lx is already used by %u %s, "
            "allowed max number of jobs is: %u",
            NameOf(job).c_str(), port->guid, static_cast<unsigned>(hca->num_jobs), JobOrJobs(hca->num_jobs),
            static_cast<unsigned>(max_jobs));
        return false;
    };
    return job->AllOfPorts(std::cref(has_room)) ? 0 : VESK_ADMISSION_REFUSED;
}

void ReservationManager::AddJob(ReservationInfo* reservation, VeskJob* job) {
    const uint64_t job_id = job->ext_job_id.job_id;
    RESERVE_LOG(4, "AddJob to reservation, external_job_id=%lu, reservation_key=%s", job_id,
                reservation->info.reservation_key);

    const std::span<const VeskTree> trees = FirstPlaneTrees(job);
    ReservationJobInfo entry{job_id, {}};
    if (!trees.empty()) entry.guids.reserve(trees.front().ports.size());
    for (const VeskTree& tree : trees) {
        for (const PortData* port : tree.ports) entry.guids.insert(port->guid);
    }
    reservation->jobs.try_emplace(job_id, std::move(entry));
    ApplyJobReservationResourcesChange(reservation, true, job);
    job->reservation_accounted = true;
}

void ReservationManager::RemoveJob(ReservationInfo* reservation, const VeskJob* job) {
    RESERVE_LOG(4, "Remove Job from reservation, external_job_id=%lu, reservation_key=%s", job->ext_job_id.job_id,
                reservation->info.reservation_key);
    reservation->jobs.erase(job->ext_job_id.job_id);
    ApplyJobReservationResourcesChange(reservation, false, job);
}

void ReservationManager::RemoveJob(ReservationInfo* reservation,
                                   std::map<uint64_t, ReservationJobInfo>::iterator& position, const VeskJob* job) {
    RESERVE_LOG(4, "Remove Job from reservation, client_job_id=%lu, reservation_key=%s,", position->second.job_id,
                reservation->info.reservation_key);
    reservation->jobs.erase(position);
    if (job != nullptr) ApplyJobReservationResourcesChange(reservation, false, job);
}

void ReservationManager::ApplyJobReservationResourcesChange(ReservationInfo* reservation, bool is_added,
                                                            const VeskJob* job) {
    constexpr char kOperation[] = "ApplyJobReservationResourcesChange";
    const unsigned planes = NumPlanes(job);
    const uint32_t num_trees = planes * static_cast<uint32_t>(FirstPlaneTrees(job).size());
    reservation->used_trees += is_added ? num_trees : -num_trees;
    RESERVE_LOG(4,
                "Updated reservation number of trees, reservation_key=%s, external_job_id=%lu, is_added: %u, change in "
                "number of trees: %d, new total trees: %u (with %u planes)",
                reservation->info.reservation_key, job->ext_job_id.job_id, static_cast<unsigned>(is_added),
                static_cast<int>(num_trees), reservation->used_trees, planes);
    if (g_option_info->max_jobs_per_hca == 0) return;

    HcaCursor cursor(hca_infos);
    const auto count = [&](const PortData* port) {
        ReservationHCAInfo* const hca = cursor.Find(port->guid);
        if (hca == nullptr) {
            RESERVE_LOG_FOR(kOperation, 1, "-A- Job port guid not found in reservation info, guid: 0x%016lx",
                            port->guid);
            return;
        }
        hca->num_jobs = static_cast<uint16_t>(hca->num_jobs + (is_added ? 1 : -1));
        RESERVE_LOG_FOR(kOperation, 4, "HCA guid 0x%016lx, part of External Job ID: %s, is now part of %u %s",
                        port->guid, NameOf(job).c_str(), static_cast<unsigned>(hca->num_jobs),
                        JobOrJobs(hca->num_jobs));
    };
    job->ForEachPort(std::cref(count));
}

void ReservationManager::HandleAlreadyRunningJobs(ReservationInfo* reservation) {
    std::set<VeskJob*> attached_jobs;
    AttachRunningJobs(reservation, attached_jobs);
}

// HandleAlreadyRunningJobs, which also tells the jobs that it has counted, as far as it got.
void ReservationManager::AttachRunningJobs(ReservationInfo* reservation, std::set<VeskJob*>& attached_jobs) {
    constexpr char kOperation[] = "HandleAlreadyRunningJobs";
    const char* const key = reservation->info.reservation_key;
    std::set<VeskJob*> jobs;
    command_manager->GetJobsByReservationKey(jobs, key);
    for (auto next = jobs.begin(); next != jobs.end();) {
        const auto position = next++;
        VeskJob* const job = *position;
        if (GetReservationByJob(job) != reservation) {
            RESERVE_LOG_FOR(kOperation, 2,
                            "Detected a mismatch of reservations for external_job_id %s. Ending the job.",
                            NameOf(job).c_str());
            EndJob(job);
            continue;
        }
        RESERVE_LOG_FOR(kOperation, 3, "Job external job ID %s belongs to new reservation: %s", NameOf(job).c_str(),
                        key);
        AddJob(reservation, job);
        attached_jobs.insert(jobs.extract(position));

        const VeskExtJobId& id = job->ext_job_id;
        if (reservation->reservation_id == 0) SetReservationId(*reservation, id.reservation_id);
        if (reservation->reservation_id != id.reservation_id) {
            RESERVE_LOG_FOR(
                kOperation, 2,
                "Reservation internal ID and job's reservation ID doesn't match. Reservation: key %s, ID %lu. Job: "
                "External job ID %lu, reservation key %s, reservation ID %lu",
                key, reservation->reservation_id, id.job_id, id.reservation_key.c_str(), id.reservation_id);
        }
    }
}

void ReservationManager::HandleAlreadyRunningJobsForAllReservations() {
    for (const auto& [key, info] : reservations) {
        if (info == nullptr) continue;
        RESERVE_LOG(4, "Handling already running jobs for reservation: %s", key.c_str());
        HandleAlreadyRunningJobs(info);
    }
}

void ReservationManager::EndJob(VeskJob* job) {
    command_manager->HandleJobError(job, VESK_ERROR_RESERVATION_LOST, VESK_ERROR_TYPE_NONE, false, false);
    command_manager->SendEndJob(nullptr, job);
}

// ---- Files ----

void ReservationManager::CreateReservationInfoFile(const vesk_reservation_info& info, const std::string& dir) try {
    const std::string path = ReservationFilePath(info, dir);

    // Unbuffered, so that the check after the write sees a full disk.
    std::ofstream file;
    file.rdbuf()->pubsetbuf(nullptr, 0);
    OpenUnlessPipe(file, path, std::ios_base::out | std::ios_base::trunc);
    if (!file.good()) {
        RESERVE_LOG(2, "File %s could not be opened\n", path.c_str());
        return;
    }
    vesk_dov_msg msg{};
    msg.data = const_cast<vesk_reservation_info*>(&info);
    char* buffer = nullptr;
    uint64_t length = 0;
    const int result = dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, &msg, &buffer, &length);
    const std::unique_ptr<char, decltype(&std::free)> holder(buffer, &std::free);
    if (result != 0 || buffer == nullptr) {
        RESERVE_LOG(1, "Create reservation info file failed %s\n", path.c_str());
        return;
    }
    file.write(buffer, static_cast<std::streamsize>(length));
    if (file.fail()) RESERVE_LOG(2, "Failed to write to File %s\n", path.c_str());
} catch (const std::bad_alloc&) {
    RESERVE_LOG(1, "Not enough memory to write the reservation file of %s\n", info.reservation_key);
}

void ReservationManager::UpdateReservationInfoFile(const vesk_reservation_info& info, const std::string& dir) {
    DeleteReservationInfoFile(info, dir);
    CreateReservationInfoFile(info, dir);
}

void ReservationManager::DeleteReservationInfoFile(const vesk_reservation_info& info, const std::string& dir) try {
    DeleteFile(ReservationFilePath(info, dir));
} catch (const std::bad_alloc&) {
    RESERVE_LOG(1, "Not enough memory to delete the reservation file of %s\n", info.reservation_key);
}

void ReservationManager::DeleteFile(const std::string& path) const {
    if (!CanBeRead(path)) return;
    RESERVE_LOG(3, "Delete file at %s\n", path.c_str());
    unlink(path.c_str());
}

int ReservationManager::BuildDataFromReservationFile(const char* path, vesk_dov_msg*& msg) const {
    std::ifstream file;
    OpenUnlessPipe(file, path, std::ios_base::in | std::ios_base::ate);
    if (file.fail()) {
        RESERVE_LOG(1, "Reservation file %s could not be opened - %s\n", path, strerror(errno));
        return -1;
    }
    const auto size = static_cast<uint64_t>(static_cast<std::streamoff>(file.tellg()));
    if (size < kMinReservationFileSize) {
        RESERVE_LOG(1, "Size of reservation file is too low[%lu], file: %s\n", size, path);
        return -1;
    }
    // A directory may report any size.
    const bool is_too_large = size > kMaxReservationFileSize;
    std::unique_ptr<char[]> buffer;
    try {
        file.seekg(0);
        file.exceptions(std::ios_base::failbit | std::ios_base::badbit);
        if (!is_too_large) buffer = std::make_unique_for_overwrite<char[]>(size + 1);
        RESERVE_LOG(3, "parsing reservation file %s\n", path);
        if (is_too_large) file.setstate(std::ios_base::failbit);
        file.read(buffer.get(), static_cast<std::streamsize>(size));
        file.close();
    } catch (const std::ios_base::failure& failure) {
        RESERVE_LOG(1, "Failed to read Reservation file %s - %s\n", path, failure.what());
        return -1;
    }
    buffer[size] = '\0';
    const int result = dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, buffer.get(), &msg);
    MessagePointer decoded(result == 0 ? msg : nullptr);
    if (decoded == nullptr || !dov_msg_fills(VESK_MSG_TYPE_RESERVATION_INFO, buffer.get(), size)) {
        RESERVE_LOG(1, "Reservation file UNPACK failed: %s\n", path);
        return -1;
    }
    msg = decoded.release();
    return 0;
}

void ReservationManager::ReadPersistentReservationInfoFiles() {
    static bool already_ran = false;
    const std::string dir = g_option_info->persistent_dir;
    if (already_ran) return;
    already_ran = true;
    if (IsAutoMode()) return;

    RESERVE_LOG(3, "Checking persistent directory for reservation files\n");
    if (ChechIfDirExists(dir) != 0) return;
    const char* const operation = __func__;
    ForEachReservationFile(dir, operation, [this, operation](const std::string& path) {
        if (g_option_info->load_persistent_reservations) {
            LoadReservationFile(path, operation);
        } else {
            DeleteFile(path);
        }
    });
}

// Without the memory for it, the file is neither loaded nor deleted: that says nothing about the file.
void ReservationManager::LoadReservationFile(const std::string& path, const char* operation) try {
    vesk_dov_msg* msg = nullptr;
    if (BuildDataFromReservationFile(path.c_str(), msg) != 0) {
        DeleteFile(path);
        return;
    }
    const MessagePointer holder(msg);
    if (msg->data == nullptr) {
        RESERVE_LOG_FOR(operation, 2, "No data in reservation file %s", path.c_str());
        DeleteFile(path);
        return;
    }
    const auto* info = static_cast<const vesk_reservation_info*>(msg->data);
    if (GetReservationInfoByKey(info->reservation_key) != nullptr) {
        RESERVE_LOG_FOR(operation, 2, "Reservation file %s is ignored, its key is already loaded: %s", path.c_str(),
                        info->reservation_key);
        return;
    }
    InternalCreateNewReservation(new ReservationInfo(info));
} catch (const std::bad_alloc&) {
    RESERVE_LOG_FOR(operation, 1, "Not enough memory to load reservation file %s", path.c_str());
}

void ReservationManager::DeleteAllPersistentReservationFiles() const {
    const std::string dir = g_option_info->persistent_dir;
    if (!IsAutoMode()) return;

    RESERVE_LOG(3, "Deleting all persistent reservation files from directory: %s\n", dir.c_str());
    const char* const operation = __func__;
    int count = 0;
    const auto purge = [&](const std::string& path) {
        DeleteFile(path);
        RESERVE_LOG_FOR(operation, 4, "Deleted reservation file: %s", path.c_str());
        ++count;
    };
    if (ChechIfDirExists(dir) == 0 && !ForEachReservationFile(dir, operation, purge)) return;
    RESERVE_LOG(3, "Deleted %d persistent reservation files", count);
}

int ReservationManager::ChechIfDirExists(const std::string& dir) const {
    const DirPointer listing(opendir(dir.c_str()));
    if (listing != nullptr) return 0;
    if (errno == ENOENT) {
        RESERVE_LOG(3, "Persistent directory at %s does not exist", dir.c_str());
        return 1;
    }
    RESERVE_LOG(1, "Failed to open directory: %s - %s\n", dir.c_str(), strerror(errno));
    return -1;
}

// ---- Automatic reservations ----

void ReservationManager::UpdateReservationWithGuidPkeys(HcaPortKey port_key, const std::set<uint16_t>& pkeys) {
    if (!IsAutoMode()) {
        RESERVE_LOG(5, "Reservation auto by pkeys is disabled, ignore update reservation request %s",
                    port_key.ToString().c_str());
        return;
    }
    const uint64_t guid = port_key.guid;
    const auto found = hca_infos.find(guid);
    ReservationInfo* const holder = found != hca_infos.end() ? found->second.reservation : nullptr;
    if (pkeys.empty()) {
        if (holder != nullptr) RemoveGuidFromReservation(holder, guid);
        return;
    }
    const uint16_t pkey = *pkeys.begin();
    if (holder != nullptr) {
        if (holder->info.pkey == pkey) return;
        RESERVE_LOG(4, "Update Reservation With Guid Pkeys: pkey changed from 0x%x to 0x%x for guid 0x%lx",
                    static_cast<unsigned>(holder->info.pkey), static_cast<unsigned>(pkey), guid);
        RemoveGuidFromReservation(holder, guid);
    }
    AddOrCreateReservationForGuid(guid, pkey);
}

void ReservationManager::AddOrCreateReservationForGuid(uint64_t guid, uint16_t pkey) {
    const std::string key = AutoReservationKey(pkey);
    if (GetReservationInfoByKey(key) != nullptr) {
        RESERVE_LOG(4, "Update Reservation With Guid Pkeys: adding guid 0x%lx to existing reservation %s", guid,
                    key.c_str());
        vesk_update_reservation_by_delta delta{};
        vesk_copy_key(delta.reservation_key, key.c_str());
        delta.num_guids_to_add = 1;
        delta.guids_to_add = &guid;
        InternalUpdateReservationByDelta(delta);
        return;
    }
    RESERVE_LOG(4, "Update Reservation With Guid Pkeys: creating new reservation %s for guid 0x%lx", key.c_str(), guid);
    vesk_reservation_info record{};
    vesk_copy_key(record.reservation_key, key.c_str());
    record.pkey = pkey;
    record.state = VESK_STATE_ACTIVE;
    record.num_guids = 1;
    record.guids = &guid;
    std::fill(std::begin(record.limits), std::end(record.limits), VESK_LIMIT_NOT_GIVEN);
    record.auto_created = 1;
    auto* const info = new ReservationInfo(&record);
    InternalCreateNewReservation(info);
    PostUpdateReservation(info, {});
    g_event_manager->AddReservationCreatedEvent(key.c_str());
}

void ReservationManager::RemoveGuidFromReservation(ReservationInfo* reservation, uint64_t guid) {
    if (reservation->info.num_guids == 1) {
        InternalDeleteReservation(reservation);
        return;
    }
    vesk_update_reservation_by_delta delta{};
    vesk_copy_key(delta.reservation_key, reservation->info.reservation_key);
    delta.num_guids_to_remove = 1;
    delta.guids_to_remove = &guid;
    InternalUpdateReservationByDelta(delta);
}
