// A model of the reservation manager, made of maps and sets: it has the rules and nothing of the code. It takes the
// operations that the manager takes, and tells what the world then sees, every record of the log to the letter.

#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/reservation/test_daemon.h"

using GuidSet = std::set<uint64_t>;
using Lines = std::vector<std::string>;

// A call of the manager, or something that happens around it. Every kind looks at some of the fields: see kKinds in
// model_check.cpp.
struct Operation {
    std::string kind = "";
    std::string key = "";
    uint16_t pkey = 1;
    Guids guids = {};
    Guids more = {};
    Limits limits = kNoLimits;
    uint64_t job = 0;
    uint32_t planes = 1;
    uint32_t trees = 1;
    unsigned variant = 0;

    bool operator==(const Operation&) const = default;

    // The reservation id of a job that has one of its own.
    uint64_t OwnId() const { return job % 3 == 0 ? 0 : std::hash<std::string>()("A"); }

    // The file that is put there, with ~ before its name when it is not to look like a reservation's.
    std::string FileName() const { return (variant == 3 ? "~" : "") + key + (variant == 1 ? ".copy" : ""); }
    Description Stored() const {
        GuidSet stored(guids.begin(), guids.end());
        stored.erase(0);
        return {key, pkey, 2, {stored.begin(), stored.end()}, limits, 1};
    }
};

// Every record of the log: its level, operation, text. Each % is an argument; ^ a newline
// that ends the text.
constexpr char kRecords[] = R"(
4 CreateReservation: Got a reservation request for app: %, with num trees limit: %
2 CreateReservation: Reservation mode not enabled
3 CreateReservation: Reservation auto by pkeys is enabled, ignore create reservation request %
3 CreateReservation: Could not create reservation with empty reservation_key because reservation_key is not valid
3 CreateReservation: Could not create reservation with reservation_key: % because num_guids is empty
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation %, invalid requested guid (0x0) detected
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation %, request has duplicated guids (0x%)
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=%, guid=0x% already reserved in key=%
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=%, guid=0x% already reserved in key=%, and has active jobs
4 SetReservationId: SetReservationId key=%, id=%
4 CreateReservationId: CreateReservationId already exist, skip, key=%, id=%
4 CreateReservationId: CreateReservationId key=%, id=%
3 InternalCreateNewReservation: Reservation with key=%, id=%, allocated with % guids, num trees limit: %
3 PostUpdateReservation: Deleting reservation due to override of guids, reservation key: %
3 ReservationInfoRequest: Reservation mode not enabled
4 ReservationInfoRequest: Could not find reservation for id=%
4 ReservationInfoRequest: Reservation request, no reservations
3 InternalUpdateReservation: Got a reservation update request with a different pkey than original (original: 0x%, new: 0x%), request is denied
3 InternalUpdateReservation: Got a reservation update request with different resources than original, request is denied. Reservation key=%
3 InternalUpdateReservation: Got a reservation update request with same list of guids. There is nothing to update. Reservation key=%
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=%, new number of guids=% (Added: %, Deleted: %)
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job. Failing the request to modify the reservation. Reservation id = %, external job id = %
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job, the job will be stopped. Reservation id = %, external job id = %
4 UpdateReservationByDelta: Got a reservation update request for app: %, with num guids to add: %, num guids to remove: %
2 UpdateReservationByDelta: Reservation mode not enabled
3 UpdateReservationByDelta: Reservation auto by pkeys is enabled, ignore update reservation request %
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: %, with num guids to add: %, num guids to remove: %
3 InternalUpdateReservationByDelta: Did not update reservation % because both lists of added and removed guids are empty
3 InternalUpdateReservationByDelta: Could not update reservation %, because could not find such an existing reservation
3 InternalUpdateReservationByDelta: Did not update reservation % because number of removed guids (%) is larger than current number of guids (%)
3 InternalUpdateReservationByDelta: Did not update reservation % because requested guids to add include guids that are already in the reservation (0x%)
3 InternalUpdateReservationByDelta: Did not update reservation % because list of removed guids is invalid (either has duplicates or guids that are not part of the reservation)
2 DeleteReservation: Reservation mode not enabled
3 DeleteReservation: Reservation auto by pkeys is enabled, ignore delete reservation request %
3 DeleteReservation: Could not delete reservation with reservation id=%, reservation not found
3 DeleteReservation: Could not delete reservation with reservation id=%, reservation has active jobs
3 InternalDeleteReservation: Reservation with key=%, id=% deleted
3 RemoveReservationJobs: Delete reservation id=%, send job error external job id=%
3 GetReservationByGuids: Get Reservation By Guids: guid=0x% not in any reservation
3 GetReservationByGuids: Get Reservation By Guids: guid=0x% not found in reservation=%
3 GetReservationByGuids: Get Reservation By Guids: two guids in two reservations, guid=0x% in reservation_key=%, guid=0x% in reservation_key=%
1 GetReservationByGuids: Get Reservation By Guids: no GUID provided
3 GetReservationByJob: Reservation mode not enabled
3 GetReservationByJob: Could not get reservation for external_job_id=%, the job has no tree with a port
3 GetReservationByJob: Could not get reservation for external_job_id=%, guid=0x% not in any reservation
3 GetReservationByJob: Could not get reservation for external_job_id=%, guid=0x% not found in reservation=%
3 GetReservationByJob: Could not get reservation for external_job_id=%, job guids in different reservations, guid=0x% in reservation_key=%, guid=0x% in reservation_key=%
3 ValidateReservationResources: External Job ID: %, exceeded resource limitation. App id: %, is allowed to have % trees (counted as % with % planes), already using % trees, trying to add an additional %
1 ValidateReservationResources: -A- Job port guid not found in reservation info, guid: 0x%
3 ValidateReservationResources: External Job ID: %, exceeded resource limitation. HCA guid 0x% is already used by %, allowed max number of jobs is: %
4 AddJob: AddJob to reservation, external_job_id=%, reservation_key=%
4 RemoveJob: Remove Job from reservation, external_job_id=%, reservation_key=%
4 RemoveJob: Remove Job from reservation, client_job_id=%, reservation_key=%,
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=%, external_job_id=%, is_added: %, change in number of trees: %, new total trees: % (with % planes)
1 ApplyJobReservationResourcesChange: -A- Job port guid not found in reservation info, guid: 0x%
4 ApplyJobReservationResourcesChange: HCA guid 0x%, part of External Job ID: %, is now part of %
2 HandleAlreadyRunningJobs: Detected a mismatch of reservations for external_job_id %. Ending the job.
3 HandleAlreadyRunningJobs: Job external job ID % belongs to new reservation: %
2 HandleAlreadyRunningJobs: Reservation internal ID and job's reservation ID doesn't match. Reservation: key %, ID %. Job: External job ID %, reservation key %, reservation ID %
4 HandleAlreadyRunningJobsForAllReservations: Handling already running jobs for reservation: %
2 CreateReservationInfoFile: File DIR/reservation.% could not be opened^
3 DeleteFile: Delete file at DIR/reservation.%^
3 BuildDataFromReservationFile: parsing reservation file DIR/reservation.%^
1 BuildDataFromReservationFile: Reservation file UNPACK failed: DIR/reservation.%^
3 ReadPersistentReservationInfoFiles: Checking persistent directory for reservation files^
2 ReadPersistentReservationInfoFiles: Reservation file DIR/reservation.% is ignored, its key is already loaded: %
3 DeleteAllPersistentReservationFiles: Deleting all persistent reservation files from directory: DIR^
4 DeleteAllPersistentReservationFiles: Deleted reservation file: DIR/reservation.%
3 DeleteAllPersistentReservationFiles: Deleted % persistent reservation files
5 UpdateReservationWithGuidPkeys: Reservation auto by pkeys is disabled, ignore update reservation request 0x%/1
4 UpdateReservationWithGuidPkeys: Update Reservation With Guid Pkeys: pkey changed from 0x% to 0x% for guid 0x%
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: adding guid 0x% to existing reservation %
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: creating new reservation % for guid 0x%
)";

class Model {
public:
    struct Reservation : Description {
        std::map<uint64_t, GuidSet> jobs;    // with their GUIDs
        uint64_t id = 0;
        uint32_t max_trees = 0;
        uint32_t used_trees = 0;
    };

    std::map<std::string, Reservation> reservations;

    // The process has loaded stored reservations.
    bool has_loaded = false;

    // The order in which reservations or files come where any would do.
    Lines order;

    // What was seen since the last call, as TestDaemon tells it.
    std::string Take() { return std::exchange(seen_, {}); }

    std::string State() const {
        std::ostringstream text;
        for (const auto& [name, file] : files_) {
            if (file) text << (name.starts_with('~') ? "" : "reservation.") << name << ": " << file->Text() << "\n";
        }
        for (const auto& [key, reservation] : reservations) {
            text << reservation.Text() << " id " << reservation.id << " trees " << reservation.used_trees << "/"
                 << reservation.max_trees << " jobs";
            for (const auto& [id, guids] : reservation.jobs) text << " " << id << " on " << Listed(guids);
            text << "\n";
        }
        for (const auto& [guid, hca] : hcas_) text << Hex(guid) << " of " << hca.owner << " " << hca.num_jobs << "\n";
        for (const auto& [id, key] : keys_by_id_) text << id << " is " << key << "\n";
        for (const Job& job : jobs_) text << job.Name() << (job.accounted ? " accounted" : "") << "\n";
        text << num_failed_ << " failed, files" << FileNames();
        return text.str();
    }

    static void Switch(OptionInfo& options, const std::string& option) {
        const auto flip = [&](bool& flag) { flag = !flag; };
        if (option == "mode") flip(options.reservation_mode);
        if (option == "auto") flip(options.reservation_auto_by_pkeys);
        if (option == "override") flip(options.reservation_allow_guid_override);
        if (option == "ending_jobs") flip(options.reservation_allow_ending_jobs);
        if (option == "load") flip(options.load_persistent_reservations);
        if (option == "jobs_per_hca") options.max_jobs_per_hca = static_cast<uint16_t>(2 - options.max_jobs_per_hca);
        if (option == "trees") options.reservation_default_num_trees ^= ~30000u;
    }
    void Switch(const Operation& operation) { Switch(options_, operation.key); }
    void Level(const Operation& operation) { log_level_ = static_cast<int>(operation.variant); }

    // ---- Requests ----

    void Create(const Operation& operation) {
        Log("CreateReservation: Got", operation.key, static_cast<int>(operation.limits[3]));
        Description request{operation.key, operation.pkey, 0, ArrayOf(operation, operation.guids), operation.limits};
        const uint32_t status = CreateOrReplace(request);
        Reply(status, {request});
        if (status != 0) ++num_failed_;
    }

    void Delta(const Operation& operation) {
        Guids to_add = operation.guids, to_remove = operation.more;
        Log(" UpdateReservationByDelta: Got", operation.key, to_add.size(), to_remove.size());
        const bool is_ignored = !options_.reservation_mode || IsAuto();
        const uint32_t status = is_ignored ? Ignore("UpdateReservationByDelta", operation.key)
                                           : ApplyDelta(operation.key, to_add, to_remove, operation.variant == 1);
        const Description nothing{operation.key};
        Reply(status, {is_ignored || status != 0 ? nothing : reservations[operation.key]});
        if (operation.variant != 1) See("sent " + Listed(to_add) + " " + Listed(to_remove));
        if (status != 0) ++num_failed_;
    }

    void Delete(const Operation& operation) {
        const std::string& key = operation.key;
        if (!options_.reservation_mode || IsAuto()) return Reply(Ignore("DeleteReservation", key), {});
        if (!reservations.contains(key)) return Reply(Refuse(9, "reservation not found", key), {Description{key}});
        Description entry = reservations[key];
        entry.state = 0;
        if (!reservations[key].jobs.empty() && !options_.reservation_allow_ending_jobs)
            return Reply(Refuse(10, "reservation has active jobs", key), {entry});
        entry.state = 3;
        Reply(0, {entry});
        Erase(key);
    }

    void Info(const Operation& operation) {
        const std::string& key = operation.key;
        if (!options_.reservation_mode) return Reply(Refuse(11, "InfoRequest: Reservation mode"), {});
        std::vector<Description> entries;
        for (const auto& [each, reservation] : reservations) {
            if (!key.empty() && each != key) continue;
            const Description brief{each, reservation.pkey, reservation.state};
            entries.push_back(operation.variant != 0 ? reservation : brief);
        }
        if (entries.empty()) key.empty() ? Log("no reservations") : Log("find reservation for id=", key);
        Reply(entries.empty() && !key.empty() ? 9 : 0, entries);
    }

    // ---- Jobs ----

    void Run(const Operation& operation) {
        const Guids& guids = operation.guids;
        const Guids& more = operation.more;
        if (RunningJob(operation.job) != nullptr) return;
        Job job{operation.job, std::hash<std::string>()(operation.key), operation.key, operation.planes % 256,
                operation.planes > 0 ? operation.trees % 256 : 0};
        if (reservations.contains(job.key)) job.reservation_id = reservations[job.key].id;
        if ((operation.variant & 2) != 0) job.reservation_id = operation.OwnId();
        const Guids first = Sorted(guids), second = Sorted(more);
        if (operation.planes > 0 && operation.trees > 0 && !guids.empty()) job.reference = first.front();
        if (job.trees > 0) job.guids = first;
        if (job.trees > 1) job.guids.insert(job.guids.end(), second.begin(), second.end());
        job.ports = guids;
        job.ports.insert(job.ports.end(), more.begin(), more.end());
        jobs_.push_back(job);
        if ((operation.variant & 1) == 0) return;
        Reservation* const found = FindByJob(job);
        See("found " + (found != nullptr ? found->key : "nothing"));
        if (found == nullptr) return;
        const bool is_valid = Validate(*found, job);
        See(is_valid ? "validated 0" : "validated 11");
        if (is_valid) AddJob(*found, jobs_.back());
    }

    void Add(const Operation& operation) {
        Job* const job = RunningJob(operation.job);
        if (job != nullptr && reservations.contains(operation.key)) AddJob(reservations[operation.key], *job);
    }

    void End(const Operation& operation) {
        const Job* const job = RunningJob(operation.job);
        if (job != nullptr && operation.variant == 0 && reservations.contains(operation.key)) {
            Log("Remove Job from reservation, external", job->id, operation.key);
            reservations[operation.key].jobs.erase(job->id);
            Count(reservations[operation.key], *job, -1);
        }
        Forget(operation.job);
    }

    void Reconcile(const Operation&) {
        for (auto& [key, reservation] : reservations) {
            Log("Handling already running", key);
            Reconcile(reservation);
        }
    }

    void Find(const Operation& operation) {
        const Guids guids = ArrayOf(operation, operation.guids);
        if (guids.empty()) Log("no GUID provided");
        const auto log = [&](std::string_view fragment, const auto&... arguments) {
            Log("By Guids: " + std::string(fragment), arguments...);
        };
        const auto owner = OwnerOfAll(guids, "two guids", log);
        See("found " + owner.value_or("nothing"));
    }

    // ---- Files, restarts and pkeys ----

    void Put(const Operation& operation) {
        const Description record = operation.Stored();
        DeleteFile(record.key);
        WriteFile(record);
        if (files_.erase(record.key) == 0) return;
        files_[operation.FileName()] = operation.variant != 2 ? std::optional(record) : std::nullopt;
    }

    void Restart(const Operation&) {
        reservations.clear();
        hcas_.clear();
        keys_by_id_.clear();
        std::set<std::string> names;
        for (const auto& [name, file] : files_) {
            if (!name.starts_with('~')) names.insert(name);
        }
        if (IsAuto()) {
            Log("Deleting all persistent");
            for (const std::string& name : InOrder(names)) {
                DeleteFile(name);
                Log("Deleted reservation file", name);
            }
            Log("Deleted %", names.size());
        } else if (!has_loaded) {
            Log("Checking persistent");
            for (const std::string& name : InOrder(names)) Load(name);
        }
        has_loaded = true;
    }

    void Report(const Operation& operation) {
        for (const uint64_t guid : operation.guids) Report(guid, operation.more);
    }

private:
    struct Hca {
        std::string owner;
        uint16_t num_jobs = 0;
    };

    struct Job {
        uint64_t id;
        uint64_t reservation_id;
        std::string key;
        uint32_t planes;
        uint32_t trees;
        std::optional<uint64_t> reference = {};
        Guids guids = {};    // of the trees of plane 0, tree by tree
        Guids ports = {};
        bool accounted = false;

        std::string Name() const { return (key.empty() ? "default" : key) + "_" + std::to_string(id); }
    };

    void See(const std::string& line) { seen_ += line + "\n"; }

    // Logs the one record that has this fragment.
    void Log(std::string_view fragment, const auto&... arguments) {
        static const std::string_view records = kRecords;
        const size_t at = records.find(fragment);
        if (at == records.npos || records.find(fragment, at + 1) != records.npos)
            throw std::logic_error(fragment.data());
        const size_t start = records.rfind('\n', at) + 1;
        std::string text(records.substr(start, records.find('\n', at) - start));
        (Replace(text, arguments), ...);
        if (text.ends_with('^')) text.back() = '\n';
        if (text[0] - '0' <= std::max(log_level_, 2)) See(text);
    }
    static void Replace(std::string& text, const auto& argument) {
        std::ostringstream stream;
        stream << argument;
        text.replace(text.find('%'), 1, stream.str());
    }
    uint32_t Refuse(uint32_t status, std::string_view fragment, const auto&... arguments) {
        Log(fragment, arguments...);
        return status;
    }
    static Guids ArrayOf(const Operation& operation, const Guids& guids) {
        return operation.variant == 1 ? Guids() : guids;
    }
    uint32_t Ignore(const std::string& operation, const std::string& key) {
        if (!options_.reservation_mode) return Refuse(11, operation + ": Reservation mode");
        return Refuse(0, operation + ": Reservation auto", key);
    }
    bool IsAuto() const { return options_.reservation_mode && options_.reservation_auto_by_pkeys; }
    void Event(const std::string& event, const std::string& key) { See(event + " " + key + "; files" + FileNames()); }

    void Reply(uint32_t status, const std::vector<Description>& entries) {
        std::string line;
        for (const Description& entry : entries) line += (line.empty() ? " " : "; ") + entry.Text();
        See("reply " + std::to_string(status) + ":" + line);
    }

    std::string FileNames() const {
        std::string text;
        for (const auto& [name, file] : files_) text += " " + name;
        return text;
    }

    Lines InOrder(const std::set<std::string>& names) const {
        Lines ordered(names.begin(), names.end());
        const auto place = [&](const std::string& name) { return std::find(order.begin(), order.end(), name); };
        std::stable_sort(ordered.begin(), ordered.end(), [&](auto& a, auto& b) { return place(a) < place(b); });
        return ordered;
    }

    static Guids Sorted(Guids guids) {
        std::sort(guids.begin(), guids.end());
        return guids;
    }

    static Guids Without(Guids guids, const Guids& others) {
        std::erase_if(guids, [&](auto guid) { return std::count(others.begin(), others.end(), guid) != 0; });
        return guids;
    }

    uint32_t CreateOrReplace(Description& request) {
        const std::string& key = request.key;
        if (!options_.reservation_mode || IsAuto()) return Ignore("CreateReservation", key);
        if (key.empty()) return Refuse(7, "empty reservation_key");
        if (request.guids.empty()) return Refuse(8, "num_guids is empty", key);
        request.guids = Sorted(request.guids);
        std::set<std::string> robbed;
        uint32_t status = CheckAdded(request.key, request.guids, robbed);
        if (status == 0 && reservations.contains(request.key)) {
            status = Replace(reservations[request.key], request);
        } else if (status == 0) {
            request.state = 1;
            Enter(request);
            Event("created", request.key);
        }
        if (status != 0) return status;
        Finish(reservations[request.key], robbed);
        request.state = reservations[request.key].state;
        return 0;
    }

    uint32_t CheckAdded(const std::string& key, const Guids& guids, std::set<std::string>& robbed) {
        for (size_t i = 0; i < guids.size(); ++i) {
            if (guids[i] == 0) return Refuse(8, "invalid requested guid", key);
            if (i > 0 && guids[i] == guids[i - 1]) return Refuse(2, "duplicated guids", key, Hex(guids[i]));
            const std::string owner = hcas_.contains(guids[i]) ? hcas_[guids[i]].owner : key;
            if (owner == key) continue;
            const bool may_end = options_.reservation_allow_ending_jobs || reservations[owner].jobs.empty();
            if (!options_.reservation_allow_guid_override)
                return Refuse(6, "already reserved in key=%\n", key, Hex(guids[i]), owner);
            if (!may_end) return Refuse(6, "and has active jobs", key, Hex(guids[i]), owner);
            robbed.insert(owner);
        }
        return 0;
    }

    uint32_t Replace(Reservation& reservation, const Description& request) {
        if (request.pkey != reservation.pkey)
            return Refuse(12, "different pkey", Hex(reservation.pkey, 4), Hex(request.pkey, 4));
        for (size_t i = 0; i < request.limits.size(); ++i) {
            if (request.limits[i] == ~0u || request.limits[i] == reservation.limits[i]) continue;
            return Refuse(13, "different resources", request.key);
        }
        if (request.guids == reservation.guids) return Refuse(0, "nothing to update", request.key);
        return Change(reservation, request.guids, Without(reservation.guids, request.guids));
    }

    // Without arrays, only the lists' sizes count.
    uint32_t ApplyDelta(const std::string& key, Guids& to_add, Guids& to_remove, bool without_arrays = false) {
        Log("Got an internal", key, to_add.size(), to_remove.size());
        if (to_add.empty() && to_remove.empty()) return Refuse(8, "both lists", key);
        if (!reservations.contains(key)) return Refuse(7, "because could not find", key);
        const Guids held = reservations[key].guids;
        if (to_remove.size() > held.size()) return Refuse(8, "is larger than", key, to_remove.size(), held.size());
        to_remove = without_arrays ? Guids() : Sorted(to_remove);
        to_add = without_arrays ? Guids() : Sorted(to_add);
        for (const uint64_t guid : to_add) {
            if (std::count(held.begin(), held.end(), guid) == 0) continue;
            return Refuse(2, "already in the reservation", key, Hex(guid));
        }
        Guids guids = Without(held, to_remove);
        if (held.size() - guids.size() != to_remove.size()) return Refuse(8, "removed guids is invalid", key);
        guids.insert(guids.end(), to_add.begin(), to_add.end());
        guids = Sorted(guids);
        std::set<std::string> robbed;
        uint32_t status = CheckAdded(key, to_add, robbed);
        if (status == 0) status = Change(reservations[key], guids, to_remove);
        if (status == 0) Finish(reservations[key], robbed);
        return status;
    }

    void Enter(const Description& record) {
        Reservation& reservation = reservations[record.key];
        static_cast<Description&>(reservation) = record;
        const bool falls_back = record.limits[3] == ~0u && options_.reservation_default_num_trees != ~0u;
        reservation.max_trees =
            falls_back ? options_.reservation_default_num_trees : std::min(record.limits[3], 24575u);
        Claim(record);
        if (!options_.reservation_auto_by_pkeys) Reconcile(reservation);
        if (reservation.id == 0) {
            reservation.id = std::hash<std::string>()(record.key);
            while (keys_by_id_.contains(reservation.id)) ++reservation.id;
            keys_by_id_[reservation.id] = record.key;
            Log("CreateReservationId key", record.key, reservation.id);
        } else {
            Log("already exist", record.key, reservation.id);
        }
        const uint32_t limit = reservation.max_trees;
        Log("allocated with", record.key, reservation.id, record.guids.size(),
            limit == 24575 ? "no limit" : std::to_string(limit));
    }

    void Claim(const Description& record) {
        for (const uint64_t guid : record.guids) hcas_.try_emplace(guid, Hca{record.key});
    }

    uint32_t Change(Reservation& reservation, const Guids& guids, const Guids& removed) {
        const auto jobs = reservation.jobs;
        for (const auto& [id, used] : jobs) {
            if (Without({used.begin(), used.end()}, removed).size() == used.size()) continue;
            const Job* const job = FindJob(reservation, id);
            if (!options_.reservation_allow_ending_jobs)
                return Refuse(14, "existing job. Failing", reservation.key, job != nullptr ? job->Name() : "0");
            StopJob(reservation, id, "existing job, the job will be stopped");
        }
        const Guids added = Without(guids, reservation.guids);
        for (const uint64_t guid : removed) hcas_.erase(guid);
        for (const uint64_t guid : added) hcas_.try_emplace(guid, Hca{reservation.key});
        reservation.guids = guids;
        Log("Update existing reservation", reservation.key, guids.size(), added.size(), removed.size());
        if (!options_.reservation_auto_by_pkeys) Event("updated", reservation.key);
        return 0;
    }

    void Finish(const Reservation& reservation, const std::set<std::string>& robbed) {
        WriteFile(reservation);
        for (const std::string& key : InOrder(robbed)) {
            Log("override of guids", key);
            Erase(key);
        }
        Claim(reservation);
    }

    void Erase(const std::string key) {
        const auto jobs = reservations[key].jobs;
        for (const auto& [job, guids] : jobs) StopJob(reservations[key], job, "send job error");
        const uint64_t id = reservations[key].id;
        keys_by_id_.erase(id);
        for (const uint64_t guid : reservations[key].guids) hcas_.erase(guid);
        reservations.erase(key);
        DeleteFile(key);
        Log("% deleted", key, id);
        Event("removed", key);
    }

    Job* RunningJob(uint64_t id) {
        const auto found = std::find_if(jobs_.begin(), jobs_.end(), [&](const Job& job) { return job.id == id; });
        return found != jobs_.end() ? &*found : nullptr;
    }

    void Forget(uint64_t id) {
        std::erase_if(jobs_, [&](const Job& job) { return job.id == id; });
    }

    // The one that the reservation's entry is about.
    Job* FindJob(const Reservation& reservation, uint64_t id) {
        Job* const job = RunningJob(id);
        const bool is_it = job != nullptr && job->key == reservation.key && job->reservation_id == reservation.id;
        return is_it ? job : nullptr;
    }

    // The owner of all these GUIDs. `two`: how the record of two owners begins.
    std::optional<std::string> OwnerOfAll(const Guids& guids, const std::string& two, const auto& log) {
        std::optional<std::string> owner;
        for (const uint64_t guid : guids) {
            if (!hcas_.contains(guid)) {
                owner ? log("guid=0x% not found in", Hex(guid), *owner) : log("guid=0x% not in any", Hex(guid));
                return std::nullopt;
            }
            if (!owner) owner = hcas_[guid].owner;
            if (hcas_[guid].owner == *owner) continue;
            log(two, Hex(guids[0]), *owner, Hex(guid), hcas_[guid].owner);
            return std::nullopt;
        }
        return owner;
    }

    Reservation* FindByJob(const Job& job) {
        if (!options_.reservation_mode) return Log("ByJob: Reservation mode"), nullptr;
        if (!job.reference) return Log("no tree with a port", job.Name()), nullptr;
        const auto log = [&](std::string_view fragment, const auto&... arguments) {
            Log("id=%, " + std::string(fragment), job.Name(), arguments...);
        };
        Guids guids = job.guids;
        guids.insert(guids.begin(), *job.reference);
        const auto owner = OwnerOfAll(guids, "job guids in different", log);
        return owner ? &reservations[*owner] : nullptr;
    }

    bool Validate(const Reservation& reservation, const Job& job) {
        const uint32_t requested = job.planes * job.trees, allowed = job.planes * reservation.max_trees;
        if (requested + reservation.used_trees > allowed) {
            Log("App id", job.Name(), reservation.key, reservation.max_trees, allowed, job.planes,
                reservation.used_trees, requested);
            return false;
        }
        const unsigned max_jobs = options_.max_jobs_per_hca;
        for (const uint64_t guid : max_jobs > 0 ? job.ports : Guids()) {
            if (!hcas_.contains(guid)) return Log("ValidateReservationResources: -A-", Hex(guid, 16)), false;
            if (hcas_[guid].num_jobs < max_jobs) continue;
            Log("is already used", job.Name(), Hex(guid, 16), Jobs(hcas_[guid].num_jobs), max_jobs);
            return false;
        }
        return true;
    }

    static std::string Jobs(unsigned count) { return std::to_string(count) + (count == 1 ? " job" : " jobs"); }

    void AddJob(Reservation& reservation, Job& job) {
        Log("AddJob to", job.id, reservation.key);
        reservation.jobs.try_emplace(job.id, job.guids.begin(), job.guids.end());
        Count(reservation, job, 1);
        job.accounted = true;
    }

    void Count(Reservation& reservation, const Job& job, int sign) {
        const uint32_t change = job.planes * job.trees;
        reservation.used_trees += static_cast<uint32_t>(sign) * change;
        Log("Updated reservation number", reservation.key, job.id, sign > 0, change, reservation.used_trees,
            job.planes);
        for (const uint64_t guid : options_.max_jobs_per_hca > 0 ? job.ports : Guids()) {
            if (!hcas_.contains(guid)) {
                Log("ApplyJobReservationResourcesChange: -A-", Hex(guid, 16));
                continue;
            }
            hcas_[guid].num_jobs = static_cast<uint16_t>(hcas_[guid].num_jobs + sign);
            Log("is now part", Hex(guid, 16), job.Name(), Jobs(hcas_[guid].num_jobs));
        }
    }

    // The job leaves a reservation in which it cannot go on.
    void StopJob(Reservation& reservation, uint64_t id, std::string_view record) {
        Log("client_job_id", id, reservation.key);
        reservation.jobs.erase(id);
        Job* const job = FindJob(reservation, id);
        if (job == nullptr) return;
        Count(reservation, *job, -1);
        job->accounted = false;
        Log(record, reservation.key, job->Name());
        Fail(*job);
    }

    void Fail(const Job& job) {
        See("error " + job.Name() + " 8 0 0 0");
        See("end " + job.Name() + (job.accounted ? " accounted" : ""));
        Forget(job.id);
    }

    void Reconcile(Reservation& reservation) {
        const std::vector<Job> jobs = jobs_;
        for (const Job& job : jobs) {
            if (job.key != reservation.key) continue;
            if (FindByJob(job) != &reservation) {
                Log("Detected a mismatch", job.Name());
                Fail(job);
                continue;
            }
            Log("belongs to new", job.Name(), reservation.key);
            AddJob(reservation, *RunningJob(job.id));
            if (reservation.id == 0) {
                reservation.id = job.reservation_id;
                keys_by_id_.try_emplace(reservation.id, job.key);
                Log("SetReservationId key", reservation.key, reservation.id);
            }
            if (reservation.id == job.reservation_id) continue;
            Log("doesn't match", reservation.key, reservation.id, job.id, job.key, job.reservation_id);
        }
    }

    void WriteFile(const Description& record) {
        const bool can_be_written = record.key.size() <= 243 && record.key.find('/') == std::string::npos;
        can_be_written ? void(files_[record.key] = record) : Log("could not be opened", record.key);
    }

    void DeleteFile(const std::string& name) {
        if (files_.erase(name) != 0) Log("Delete file at", name);
    }

    void Load(const std::string& name) {
        if (!options_.load_persistent_reservations) return DeleteFile(name);
        Log("parsing reservation file", name);
        const std::optional<Description>& file = files_[name];
        if (!file) return Log("UNPACK failed", name), DeleteFile(name);
        if (!reservations.contains(file->key)) return Enter(*file);
        Log("its key is already loaded", name, file->key);
    }

    void Report(uint64_t guid, const Guids& pkeys) {
        if (!IsAuto()) return Log("Reservation auto by pkeys is disabled", Hex(guid, 16));
        const bool is_held = hcas_.contains(guid);
        const std::string holder = is_held ? hcas_[guid].owner : "";
        if (pkeys.empty()) return is_held ? Remove(holder, guid) : void();
        const auto pkey = static_cast<uint16_t>(*std::min_element(pkeys.begin(), pkeys.end()));
        if (is_held && reservations[holder].pkey == pkey) return;
        if (is_held) {
            Log("pkey changed", Hex(reservations[holder].pkey), Hex(pkey), Hex(guid));
            Remove(holder, guid);
        }
        const std::string key = "reservation_0x" + Hex(pkey);
        Guids none, to_add{guid};
        if (reservations.contains(key)) {
            Log("adding guid", Hex(guid), key);
            return void(ApplyDelta(key, to_add, none));
        }
        Log("creating new", key, Hex(guid));
        Enter({key, pkey, 1, to_add, kNoLimits, 1});
        Finish(reservations[key], {});
        Event("created", key);
    }

    void Remove(const std::string& holder, uint64_t guid) {
        Guids none, to_remove{guid};
        if (reservations[holder].guids.size() == 1) return Erase(holder);
        ApplyDelta(holder, none, to_remove);
    }

    OptionInfo options_{.reservation_mode = true};
    std::map<uint64_t, Hca> hcas_;
    std::map<uint64_t, std::string> keys_by_id_;
    std::map<std::string, std::optional<Description>> files_;    // nothing in a damaged one
    std::vector<Job> jobs_;    // those that run, in the order in which they started
    uint64_t num_failed_ = 0;
    int log_level_ = 5;
    std::string seen_;
};
