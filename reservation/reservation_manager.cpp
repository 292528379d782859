#include "reservation/reservation_manager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <tuple>
#include <utility>

#include "host/dov_msg.h"
#include "host/event_manager.h"
#include "host/fabric.h"
#include "host/hash_bytes.h"
#include "host/log.h"
#include "host/option_info.h"

// A record of the named operation. Levels 1 and 2 are always sent; the arguments of the others are not even evaluated
// unless the logger wants them. A macro, so that the record has the line, and the compiler checks the format.
#define RESERVE_LOG_FOR(operation, level, ...)                                                   \
    do {                                                                                         \
        if ((level) <= 2 || log_check_level("RESERVE", level) != 0)                              \
            log_send("RESERVE", level, "reservation_manager", __LINE__, operation, __VA_ARGS__); \
    } while (false)

#define RESERVE_LOG(level, ...) RESERVE_LOG_FOR(__func__, level, __VA_ARGS__)

namespace {

constexpr char kReservationFilePrefix[] = "reservation.";
constexpr size_t kMaxPathLength = 4095;
constexpr uint64_t kMinReservationFileSize = 16;
constexpr uint64_t kMaxReservationFileSize = uint64_t{1} << 37;    // more than 2^32 GUIDs take

using GuidList = std::vector<uint64_t>;

// ---- Undoing and replying, whichever way an operation is left ----

// Calls `undo` when it goes out of scope, unless what it guards is done.
template <typename Undo>
class Rollback {
public:
    explicit Rollback(Undo undo) : undo_(std::move(undo)) {}
    Rollback(const Rollback&) = delete;
    Rollback& operator=(const Rollback&) = delete;
    ~Rollback() {
        if (!done_) undo_();
    }
    void Done() { done_ = true; }

private:
    Undo undo_;
    bool done_ = false;
};

// The one reply of a request. It goes out when it is sent or, at the latest, when it goes out of scope, with what the
// list holds by then. What the sending throws is swallowed: the request is over by then.
class Reply {
public:
    enum class Failures { kCounted, kNotCounted };

    Reply(const CommandManager* command_manager, const dov_ep* ep, uint64_t transaction_id, Failures failures)
        : command_manager_(command_manager), ep_(ep), transaction_id_(transaction_id), failures_(failures) {}
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    ~Reply() { Send(); }

    // Makes `entry` the list's only one.
    void AddEntry() {
        list.num_reservations = 1;
        list.reservations = &entry;
    }

    void Send() noexcept {
        if (sent_) return;
        sent_ = true;
        try {
            command_manager_->SendReservationInfoList(ep_, list, transaction_id_);
        } catch (...) {
        }
        if (failures_ == Failures::kCounted && list.status != VESK_STATUS_SUCCESS)
            ++g_fabric->failed_reservation_requests;
    }

    vesk_reservation_info_list list{};
    vesk_reservation_info entry{};

private:
    const CommandManager* command_manager_;
    const dov_ep* ep_;
    uint64_t transaction_id_;
    Failures failures_;
    bool sent_ = false;
};

// ---- GUID lists ----

uint64_t* CopyOfGuids(const uint64_t* guids, size_t count) {
    if (count == 0) return nullptr;
    auto* copy = new uint64_t[count];
    std::copy_n(guids, count, copy);
    return copy;
}

// Most requests arrive sorted.
void SortGuids(uint64_t* guids, uint32_t count) {
    if (!std::is_sorted(guids, guids + count)) std::sort(guids, guids + count);
}

// The first GUID of an ascending list that is not below `guid`. Steps grow from its start, near which it mostly is, so
// that going through a list costs no more than its length, and far less when few GUIDs are looked for in a long one.
const uint64_t* SkipBelow(const uint64_t* first, const uint64_t* last, uint64_t guid) {
    ptrdiff_t step = 1;
    for (; step < last - first && first[step] < guid; step *= 2) first += step;
    return std::lower_bound(first, first + std::min(step, last - first), guid);
}

// The GUIDs of `left` that are not in `right`; both ascending.
GuidList Difference(const uint64_t* left, size_t num_left, const uint64_t* right, size_t num_right) {
    const uint64_t* const left_end = left + num_left;
    const uint64_t* const right_end = right + num_right;
    GuidList difference;
    difference.reserve(std::max(num_left, num_right));
    while (left != left_end) {
        std::tie(left, right) = std::mismatch(left, left_end, right, right_end);
        if (left == left_end) break;
        right = SkipBelow(right, right_end, *left);
        const uint64_t* const common = right != right_end ? SkipBelow(left, left_end, *right) : left_end;
        difference.insert(difference.end(), left, common);
        left = common;
    }
    return difference;
}

GuidList Merged(const GuidList& left, const GuidList& right) {
    GuidList merged;
    merged.reserve(left.size() + right.size());
    const uint64_t* next = left.data();
    const uint64_t* const end = next + left.size();
    for (const uint64_t guid : right) {
        const uint64_t* const place = SkipBelow(next, end, guid);
        merged.insert(merged.end(), next, place);
        merged.push_back(guid);
        next = place;
    }
    merged.insert(merged.end(), next, end);
    return merged;
}

// The smallest GUID that both ascending lists hold, or null.
const uint64_t* SmallestCommonGuid(const vesk_reservation_info& info, const GuidList& guids) {
    const uint64_t* held = info.guids;
    const uint64_t* const held_end = info.guids + info.num_guids;
    for (const uint64_t guid : guids) {
        held = SkipBelow(held, held_end, guid);
        if (held != held_end && *held == guid) return held;
    }
    return nullptr;
}

// Follows GUIDs through the index of reserved HCAs. GUIDs come ascending nearly always, and neighbours in a request are
// neighbours in the index: a GUID is looked for two steps on, and searched for from the root when it is not there. The
// index must not be changed but through the walk while it is used.
class HcaWalk {
public:
    using Index = std::map<uint64_t, ReservationHCAInfo>;

    explicit HcaWalk(Index& index) : index_(index), place_(index.begin()) {}

    // The GUID's record, or null.
    ReservationHCAInfo* Find(uint64_t guid) { return Reach(guid) ? &place_->second : nullptr; }

    // The GUID's owner, which is `owner` when it had none. The place stays behind a new entry, as the next GUID belongs
    // there: to step over the last entry is to climb the whole tree.
    ReservationInfo* Claim(uint64_t guid, ReservationInfo* owner) {
        if (Reach(guid)) return place_->second.reservation;
        return index_.emplace_hint(place_, guid, ReservationHCAInfo{owner})->second.reservation;
    }

    // Erases what Find has just found.
    void EraseFound() { place_ = index_.erase(place_); }

private:
    static constexpr int kSteps = 2;    // past one HCA of another reservation

    // Goes to the first entry that is not below the GUID, and tells whether it is the GUID's.
    bool Reach(uint64_t guid) {
        for (int steps = guid >= guid_ ? kSteps : 0; steps > 0 && IsBelow(guid); --steps) ++place_;
        if (guid < guid_ || IsBelow(guid)) place_ = index_.lower_bound(guid);
        guid_ = guid;
        return place_ != index_.end() && place_->first == guid;
    }

    bool IsBelow(uint64_t guid) const { return place_ != index_.end() && place_->first < guid; }

    Index& index_;
    Index::iterator place_;    // the first entry that is not below guid_
    uint64_t guid_ = 0;
};

// ---- Records ----

template <typename To, typename From>
void CopyLimits(To& to, const From& from) {
    std::copy(std::begin(from.limits), std::end(from.limits), std::begin(to.limits));
    to.auto_created = from.auto_created;
}

// Describes a reservation, or a request for one, in a reply: all but key and state. The GUIDs stay where they are.
template <typename Record>
void Describe(vesk_reservation_info& entry, const Record& record) {
    entry.pkey = record.pkey;
    entry.num_guids = record.num_guids;
    entry.guids = record.guids;
    CopyLimits(entry, record);
}

bool HaveSameKey(const ReservationInfo* one, const ReservationInfo* other) {
    return one == other || std::strcmp(one->info.reservation_key, other->info.reservation_key) == 0;
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

// Whether opening the file could wait for somebody.
bool IsPipe(const std::string& path) {
    std::error_code error;
    return std::filesystem::status(path, error).type() == std::filesystem::file_type::fifo;
}

// Opens a file, unless it is a pipe.
template <typename Stream>
void Open(Stream& file, const std::string& path, std::ios_base::openmode mode) {
    if (IsPipe(path)) {
        errno = EINVAL;
        file.setstate(std::ios_base::failbit);
        return;
    }
    file.open(path, mode | std::ios_base::binary);
}

// Whether Open opens the file for reading. It makes no stream, which would take longer than the rest of a deletion, and
// does not wait for a pipe's writer.
bool CanBeRead(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return false;
    struct stat status {};
    const bool is_pipe = fstat(file, &status) == 0 && S_ISFIFO(status.st_mode);
    close(file);
    return !is_pipe;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirPointer = std::unique_ptr<DIR, DirCloser>;

struct MessageReleaser {
    void operator()(vesk_dov_msg* msg) const { dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg); }
};

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

// ---- ReservationJobInfo, ReservationInfo ----

bool ReservationJobInfo::CheckAtLeastOneGuidInJob(const GuidList& candidates) const {
    return std::any_of(candidates.begin(), candidates.end(), [this](uint64_t guid) { return guids.contains(guid); });
}

ReservationInfo::ReservationInfo(const vesk_reservation_info* source) {
    vesk_copy_key(info.reservation_key, source->reservation_key);
    info.pkey = source->pkey;
    info.state = source->state;
    info.guids = CopyOfGuids(source->guids, source->num_guids);
    info.num_guids = source->num_guids;
    CopyLimits(info, *source);
}

ReservationInfo::~ReservationInfo() { delete[] info.guids; }

void ReservationInfo::SetReservationInfo(const vesk_create_reservation& request) {
    vesk_copy_key(info.reservation_key, request.reservation_key);
    info.pkey = request.pkey;
    info.guids = CopyOfGuids(request.guids, request.num_guids);
    info.num_guids = request.num_guids;
    CopyLimits(info, request);
    info.state = VESK_STATE_ACTIVE;
}

void ReservationInfo::UpdateReservationInfo(const GuidList& guids) {
    uint64_t* const copy = CopyOfGuids(guids.data(), guids.size());
    delete[] info.guids;
    info.guids = copy;
    info.num_guids = static_cast<uint32_t>(guids.size());
    owns_all_guids = false;
}

uint32_t ReservationInfo::CheckModifiedResources(const vesk_create_reservation& request) const {
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

// ---- Registry ----

ReservationManager::ReservationManager(CommandManager* manager) : command_manager(manager) {}

ReservationManager::~ReservationManager() {
    for (const auto& [key, info] : reservations) delete info;
}

void ReservationManager::AddReservationToDB(ReservationInfo* info) {
    if (reservations.find(info->info.reservation_key) == reservations.end()) {
        reservations.emplace(info->info.reservation_key, info);
    }
    info->owns_all_guids = IndexGuids(info, info->info.guids, info->info.num_guids);
}

// Gives the reservation those of the GUIDs that have no owner. Tells whether it owns all of them now and they ascend,
// as all GUIDs do but those from a file that somebody else has written.
bool ReservationManager::IndexGuids(ReservationInfo* info, const uint64_t* guids, size_t count) {
    HcaWalk walk(hca_infos);
    bool owns_all = true;
    for (size_t i = 0; i < count; ++i) {
        owns_all &= walk.Claim(guids[i], info) == info;
        owns_all &= i == 0 || guids[i - 1] < guids[i];
    }
    return owns_all;
}

// Takes the GUIDs out of the index: all of them, or those that `owner` has when it is given.
void ReservationManager::UnindexGuids(const uint64_t* guids, size_t count, const ReservationInfo* owner) {
    HcaWalk walk(hca_infos);
    for (size_t i = 0; i < count; ++i) {
        const ReservationHCAInfo* hca = walk.Find(guids[i]);
        if (hca == nullptr || (owner != nullptr && hca->reservation != owner)) continue;
        hca->reservation->owns_all_guids = false;
        walk.EraseFound();
    }
}

ReservationInfo* ReservationManager::GetReservationInfoByKey(const std::string& key) {
    const auto found = reservations.find(key);
    return found != reservations.end() ? found->second : nullptr;
}

ReservationInfo* ReservationManager::GetReservationByGuids(const uint64_t* guids, uint32_t count) {
    if (count == 0 || guids == nullptr) {
        RESERVE_LOG(1, "Get Reservation By Guids: no GUID provided");
        return nullptr;
    }
    HcaWalk walk(hca_infos);
    const ReservationHCAInfo* first = walk.Find(guids[0]);
    if (first == nullptr) {
        RESERVE_LOG(3, "Get Reservation By Guids: guid=0x%lx not in any reservation", guids[0]);
        return nullptr;
    }
    ReservationInfo* const reservation = first->reservation;
    const char* const key = reservation->info.reservation_key;
    for (uint32_t i = 1; i < count; ++i) {
        const ReservationHCAInfo* hca = walk.Find(guids[i]);
        if (hca == nullptr) {
            RESERVE_LOG(3, "Get Reservation By Guids: guid=0x%lx not found in reservation=%s", guids[i], key);
            return nullptr;
        }
        if (!HaveSameKey(hca->reservation, reservation)) {
            RESERVE_LOG(3,
                        "Get Reservation By Guids: two guids in two reservations, guid=0x%lx in reservation_key=%s, "
                        "guid=0x%lx in reservation_key=%s",
                        guids[0], key, guids[i], hca->reservation->info.reservation_key);
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
    reply.AddEntry();
    vesk_copy_key(reply.entry.reservation_key, request.reservation_key);
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
    SortGuids(request.guids, request.num_guids);

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
        InternalCreateNewReservation(target);
        g_event_manager->AddReservationCreatedEvent(key);
    }
    PostUpdateReservation(target, affected);
    info = target;
    return VESK_STATUS_SUCCESS;
}

uint32_t ReservationManager::HandleAddedGuidsAndOtherReservations(const char* reservation_key, uint32_t num_guids,
                                                                  const uint64_t* guids,
                                                                  std::unordered_set<ReservationInfo*>& affected) {
    // What the reservation is known to own already is not looked up.
    const ReservationInfo* const holder = GetReservationInfoByKey(reservation_key);
    const bool owns_all = holder != nullptr && holder->owns_all_guids;
    const uint64_t* held = owns_all ? holder->info.guids : nullptr;
    const uint64_t* const held_end = owns_all ? held + holder->info.num_guids : nullptr;

    HcaWalk walk(hca_infos);
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
        held = SkipBelow(held, held_end, guid);
        if (held != held_end && *held == guid) continue;
        const ReservationHCAInfo* hca = walk.Find(guid);
        if (hca == nullptr || affected.contains(hca->reservation)) continue;

        const uint32_t status = CheckOwnerOfAddedGuid(reservation_key, guid, hca->reservation, affected);
        if (status != VESK_STATUS_SUCCESS) return status;
    }
    return VESK_STATUS_SUCCESS;
}

// Whether a GUID that `owner` holds may go to the reservation with this key; if so, `owner` joins the affected ones.
uint32_t ReservationManager::CheckOwnerOfAddedGuid(const char* reservation_key, uint64_t guid,
                                                   const ReservationInfo* owner,
                                                   std::unordered_set<ReservationInfo*>& affected) {
    constexpr char kOperation[] = "HandleAddedGuidsAndOtherReservations";
    const char* const owner_key = owner->info.reservation_key;
    if (std::strcmp(owner_key, reservation_key) == 0) return VESK_STATUS_SUCCESS;

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
    Rollback forget([this, info] { ForgetNewReservation(info); });
    info->SetResourceLimitation();
    AddReservationToDB(info);
    if (!g_option_info->reservation_auto_by_pkeys) HandleAlreadyRunningJobs(info);
    CreateReservationId(*info);
    forget.Done();

    const std::string limit =
        info->max_trees == RESERVATION_NO_TREES_LIMIT ? "no limit" : std::to_string(info->max_trees);
    RESERVE_LOG(3, "Reservation with key=%s, id=%lu, allocated with %d guids, num trees limit: %s",
                info->info.reservation_key, info->reservation_id, static_cast<int>(info->info.num_guids),
                limit.c_str());
}

// Undoes the entering of a reservation that did not get through.
void ReservationManager::ForgetNewReservation(ReservationInfo* info) noexcept {
    const std::unique_ptr<ReservationInfo> owner(info);
    for (const auto& [job_id, entry] : info->jobs) {
        VeskJob* job = command_manager->FindJob(job_id, info->reservation_id, info->info.reservation_key);
        if (job != nullptr) job->reservation_accounted = false;
    }
    UnregisterReservation(info, info);
}

void ReservationManager::PostUpdateReservation(ReservationInfo* info,
                                               const std::unordered_set<ReservationInfo*>& affected) {
    CreateReservationInfoFile(info->info, g_option_info->persistent_dir);
    for (ReservationInfo* other : affected) {
        RESERVE_LOG(3, "Deleting reservation due to override of guids, reservation key: %s",
                    other->info.reservation_key);
        InternalDeleteReservation(other);
    }
    if (!info->owns_all_guids) AddReservationToDB(info);
}

// ---- Info ----

void ReservationManager::ReservationInfoRequest(const vesk_reservation_info_request& request, const dov_ep* ep,
                                                uint64_t transaction_id) {
    std::vector<vesk_reservation_info> entries;
    Reply reply(command_manager, ep, transaction_id, Reply::Failures::kNotCounted);
    const auto describe = [&request](vesk_reservation_info& entry, const vesk_reservation_info& info) {
        vesk_copy_key(entry.reservation_key, info.reservation_key);
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
        reply.AddEntry();
        describe(reply.entry, info->info);
        return;
    }
    if (reservations.empty()) {
        RESERVE_LOG(4, "Reservation request, no reservations");
        return;
    }
    entries.resize(reservations.size());
    auto entry = entries.begin();
    for (const auto& [key, info] : reservations) describe(*entry++, info->info);
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
    const GuidList removed_guids = Difference(info->info.guids, info->info.num_guids, request.guids, request.num_guids);
    const GuidList added_guids = Difference(request.guids, request.num_guids, info->info.guids, info->info.num_guids);
    if (removed_guids.empty() && added_guids.empty()) {
        RESERVE_LOG(3,
                    "Got a reservation update request with same list of guids. There is nothing to update. Reservation "
                    "key=%s",
                    request.reservation_key);
        return VESK_STATUS_SUCCESS;
    }
    const GuidList new_guids(request.guids, request.guids + request.num_guids);
    return PerformUpdateAfterDataPreparation(info, new_guids, added_guids, removed_guids);
}

uint32_t ReservationManager::PerformUpdateAfterDataPreparation(ReservationInfo* info, const GuidList& new_guids,
                                                               const GuidList& added_guids,
                                                               const GuidList& removed_guids) {
    if (!removed_guids.empty()) {
        const uint32_t status = HandleRemovedGuidsAndActiveJobs(info, removed_guids);
        if (status != VESK_STATUS_SUCCESS) return status;
    }

    // What can run out of memory comes first, so that it can be undone.
    Rollback unindex([&] { UnindexGuids(added_guids.data(), added_guids.size(), info); });
    const bool owned_all = info->owns_all_guids;
    const bool owns_added = IndexGuids(info, added_guids.data(), added_guids.size());
    info->UpdateReservationInfo(new_guids);
    unindex.Done();
    UnindexGuids(removed_guids.data(), removed_guids.size(), nullptr);
    info->owns_all_guids = owned_all && owns_added;

    RESERVE_LOG(3, "Update existing reservation, key=%s, new number of guids=%lu (Added: %lu, Deleted: %lu)",
                info->info.reservation_key, new_guids.size(), added_guids.size(), removed_guids.size());
    if (!g_option_info->reservation_auto_by_pkeys) {
        g_event_manager->AddReservationUpdatedEvent(info->info.reservation_key);
    }
    return VESK_STATUS_SUCCESS;
}

uint32_t ReservationManager::HandleRemovedGuidsAndActiveJobs(ReservationInfo* info, const GuidList& removed_guids) {
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
    reply.AddEntry();
    vesk_copy_key(reply.entry.reservation_key, key);

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

    // A list without a pointer is an absent one, whatever its count says.
    const uint32_t num_to_add = request.guids_to_add != nullptr ? request.num_guids_to_add : 0;
    const uint32_t num_to_remove = request.guids_to_remove != nullptr ? request.num_guids_to_remove : 0;
    if (num_to_add == 0 && num_to_remove == 0) {
        RESERVE_LOG(3, "Did not update reservation %s because both lists of added and removed guids are empty", key);
        return VESK_STATUS_INVALID_GUIDS;
    }
    ReservationInfo* const info = GetReservationInfoByKey(key);
    if (info == nullptr) {
        RESERVE_LOG(3, "Could not update reservation %s, because could not find such an existing reservation", key);
        return VESK_STATUS_INVALID_KEY;
    }
    const uint32_t num_held = info->info.num_guids;
    if (num_to_remove > num_held) {
        RESERVE_LOG(
            3,
            "Did not update reservation %s because number of removed guids (%d) is larger than current number of "
            "guids (%d)",
            key, static_cast<int>(num_to_remove), static_cast<int>(num_held));
        return VESK_STATUS_INVALID_GUIDS;
    }
    SortGuids(request.guids_to_remove, num_to_remove);
    SortGuids(request.guids_to_add, num_to_add);
    const GuidList removed_guids(request.guids_to_remove, request.guids_to_remove + num_to_remove);
    const GuidList added_guids(request.guids_to_add, request.guids_to_add + num_to_add);

    const uint64_t* const common = SmallestCommonGuid(info->info, added_guids);
    if (common != nullptr) {
        RESERVE_LOG(
            3,
            "Did not update reservation %s because requested guids to add include guids that are already in the "
            "reservation (0x%lx)",
            key, *common);
        return VESK_STATUS_DUPLICATE_GUID;
    }
    const GuidList kept_guids = Difference(info->info.guids, num_held, removed_guids.data(), removed_guids.size());
    if (num_held - kept_guids.size() != removed_guids.size()) {
        RESERVE_LOG(3,
                    "Did not update reservation %s because list of removed guids is invalid (either has duplicates or "
                    "guids that are not part of the reservation)",
                    key);
        return VESK_STATUS_INVALID_GUIDS;
    }
    const GuidList new_guids = Merged(kept_guids, added_guids);

    std::unordered_set<ReservationInfo*> affected;
    uint32_t status = HandleAddedGuidsAndOtherReservations(key, num_to_add, request.guids_to_add, affected);
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
    reply.AddEntry();
    vesk_copy_key(reply.entry.reservation_key, key);
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
    const std::unique_ptr<ReservationInfo> owner(info);
    UnregisterReservation(info, nullptr);
    DeleteReservationInfoFile(info->info, g_option_info->persistent_dir);
    RESERVE_LOG(3, "Reservation with key=%s, id=%lu deleted", info->info.reservation_key, info->reservation_id);
    g_event_manager->AddReservationRemovedEvent(info->info.reservation_key);
}

// Takes the reservation out of the three indexes. Its GUIDs go, all of them or only those that `guid_owner` has.
void ReservationManager::UnregisterReservation(const ReservationInfo* info,
                                               const ReservationInfo* guid_owner) noexcept {
    reservation_keys_by_id.erase(info->reservation_id);
    const auto found = reservations.find(info->info.reservation_key);
    if (found != reservations.end()) reservations.erase(found);
    UnindexGuids(info->info.guids, info->info.num_guids, guid_owner);
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
    HcaWalk walk(hca_infos);
    const ReservationHCAInfo* const reference = walk.Find(reference_port->guid);
    if (reference == nullptr) {
        RESERVE_LOG(3, "Could not get reservation for external_job_id=%s, guid=0x%lx not in any reservation",
                    NameOf(job).c_str(), reference_port->guid);
        return nullptr;
    }
    ReservationInfo* const reservation = reference->reservation;
    for (const VeskTree& tree : FirstPlaneTrees(job)) {
        for (const PortData* port : tree.ports) {
            const ReservationHCAInfo* const hca = walk.Find(port->guid);
            if (hca == nullptr) {
                RESERVE_LOG(3,
                            "Could not get reservation for external_job_id=%s, guid=0x%lx not found in reservation=%s",
                            NameOf(job).c_str(), port->guid, reservation->info.reservation_key);
                return nullptr;
            }
            if (!HaveSameKey(hca->reservation, reservation)) {
                RESERVE_LOG(3,
                            "Could not get reservation for external_job_id=%s, job guids in different reservations, "
                            "guid=0x%lx in reservation_key=%s, guid=0x%lx in reservation_key=%s",
                            NameOf(job).c_str(), reference_port->guid, reservation->info.reservation_key, port->guid,
                            hca->reservation->info.reservation_key);
                return nullptr;
            }
        }
    }
    return reservation;
}

int ReservationManager::ValidateReservationResources(ReservationInfo* reservation, const JobResource& resource,
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

    HcaWalk walk(hca_infos);
    const auto has_room = [&](const PortData* port) {
        const ReservationHCAInfo* const hca = walk.Find(port->guid);
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

    HcaWalk walk(hca_infos);
    const auto count = [&](const PortData* port) {
        ReservationHCAInfo* const hca = walk.Find(port->guid);
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
    const char* const key = reservation->info.reservation_key;
    std::set<VeskJob*> jobs;
    command_manager->GetJobsByReservationKey(jobs, key);
    for (VeskJob* job : jobs) {
        if (GetReservationByJob(job) != reservation) {
            RESERVE_LOG(2, "Detected a mismatch of reservations for external_job_id %s. Ending the job.",
                        NameOf(job).c_str());
            EndJob(job);
            continue;
        }
        RESERVE_LOG(3, "Job external job ID %s belongs to new reservation: %s", NameOf(job).c_str(), key);
        AddJob(reservation, job);

        const VeskExtJobId& id = job->ext_job_id;
        if (reservation->reservation_id == 0) SetReservationId(*reservation, id.reservation_id);
        if (reservation->reservation_id != id.reservation_id) {
            RESERVE_LOG(
                2,
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
    Open(file, path, std::ios_base::out | std::ios_base::trunc);
    if (!file.good()) {
        RESERVE_LOG(2, "File %s could not be opened\n", path.c_str());
        return;
    }
    vesk_dov_msg msg{};
    msg.data = const_cast<vesk_reservation_info*>(&info);
    char* buffer = nullptr;
    uint64_t length = 0;
    const int result = dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, &msg, &buffer, &length);
    const std::unique_ptr<char, decltype(&std::free)> owner(buffer, &std::free);
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
    Open(file, path, std::ios_base::in | std::ios_base::ate);
    if (file.fail()) {
        RESERVE_LOG(1, "Reservation file %s could not be opened - %s\n", path, strerror(errno));
        return -1;
    }
    const auto size = static_cast<uint64_t>(static_cast<std::streamoff>(file.tellg()));
    if (size < kMinReservationFileSize) {
        RESERVE_LOG(1, "Size of reservation file is too low[%lu], file: %s\n", size, path);
        return -1;
    }
    std::unique_ptr<char[]> buffer;
    try {
        file.seekg(0);
        file.exceptions(std::ios_base::failbit | std::ios_base::badbit);
        // A directory may report any size.
        if (size > kMaxReservationFileSize) file.setstate(std::ios_base::failbit);
        buffer = std::make_unique_for_overwrite<char[]>(size + 1);
        RESERVE_LOG(3, "parsing reservation file %s\n", path);
        file.read(buffer.get(), static_cast<std::streamsize>(size));
        file.close();
    } catch (const std::ios_base::failure& failure) {
        RESERVE_LOG(1, "Failed to read Reservation file %s - %s\n", path, failure.what());
        return -1;
    }
    // A NUL ends the text for the decoder, and none occurs in what was packed: the first one must be the buffer's own.
    buffer[size] = '\0';
    const bool has_nul = std::strlen(buffer.get()) != size;
    if (has_nul || dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, buffer.get(), &msg) != 0 || msg == nullptr) {
        RESERVE_LOG(1, "Reservation file UNPACK failed: %s\n", path);
        return -1;
    }
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

void ReservationManager::LoadReservationFile(const std::string& path, const char* operation) {
    vesk_dov_msg* msg = nullptr;
    if (BuildDataFromReservationFile(path.c_str(), msg) != 0) {
        DeleteFile(path);
        return;
    }
    const std::unique_ptr<vesk_dov_msg, MessageReleaser> owner(msg);
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
