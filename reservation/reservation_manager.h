// The reservation manager: which HCAs belong to which reservation, who may change that, and what the jobs in a
// reservation use of it.
//
// A reservation is a named set of HCA GUIDs under one partition key, with a limit on the reduction trees that its jobs
// may use together. The manager answers clients' requests, admits and counts jobs, keeps one file per reservation, and
// can make reservations by itself from the pkeys of the fabric's ports.
//
// It is called from one thread at a time, starts no threads and takes no locks; every operation runs to completion, its
// reply included. It throws nothing of its own: failures are status codes and log records (module "RESERVE"). What
// passes through is std::bad_alloc, and what the daemon's own objects throw; then the reply has gone out all the same,
// with the status set so far, and the registry is consistent.
//
// Everywhere below: GUIDs are HCA GUIDs, never 0. Statuses are VESK_STATUS_... The options are those of g_option_info,
// read at each use. A refused request changes nothing, except that its GUID arrays may have been sorted.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/command_manager.h"
#include "host/hca_port_key.h"
#include "host/job.h"
#include "messages/vesk_messages.h"

// ReservationInfo::max_trees of a reservation without a trees limit, and the largest limit that can be given.
inline constexpr uint32_t RESERVATION_NO_TREES_LIMIT = 24575;

// One job inside one reservation.
struct ReservationJobInfo {
    uint64_t job_id = 0;
    std::unordered_set<uint64_t> guids;    // of the HCAs that the job's trees span, each once

    // Whether at least one of `guids` is among the job's. False when there are none.
    bool CheckAtLeastOneGuidInJob(std::vector<uint64_t>& candidates);
};

// One reservation. A plain record: the manager changes the fields, and anybody may read them.
struct ReservationInfo {
    vesk_reservation_info info{};    // first, so that a reservation can stand for its description; `guids` is owned
    std::map<uint64_t, ReservationJobInfo> jobs;    // the jobs counted here, by job id
    uint64_t reservation_id = 0;    // 0: none yet
    uint32_t max_trees = 0;    // trees that the jobs may use together, per plane
    uint32_t used_trees = 0;    // trees that they use, over all planes

    // An empty reservation, for SetReservationInfo to fill.
    ReservationInfo() = default;

    // A copy of the description, its GUIDs included.
    explicit ReservationInfo(const vesk_reservation_info* source);

    ReservationInfo(const ReservationInfo&) = delete;
    ReservationInfo& operator=(const ReservationInfo&) = delete;
    ~ReservationInfo();

    // Fills an empty reservation from a create request, copying the GUIDs, and makes it active.
    void SetReservationInfo(const vesk_create_reservation& request);

    // Replaces the GUID list by a copy of `guids`.
    void UpdateReservationInfo(const std::vector<uint64_t>& guids);

    // VESK_STATUS_LIMITS_MISMATCH when a limit that the request gives differs from the reservation's, else 0.
    uint32_t CheckModifiedResources(const vesk_create_reservation& request);

    // Sets max_trees: the reservation's own number of trees, at most RESERVATION_NO_TREES_LIMIT; when it gives none,
    // the option reservation_default_num_trees as it stands.
    void SetResourceLimitation();
};

// One reserved HCA.
struct ReservationHCAInfo {
    ReservationInfo* reservation =
        nullptr;    // the one owner; not owned. Null: an entry of nobody, as if there were none
    uint16_t num_jobs = 0;    // running jobs on the HCA, one for each port; kept only while max_jobs_per_hca is set
};

class ReservationManager {
public:
    // Sends replies, finds jobs and ends them. Not owned; not null; must outlive the manager.
    CommandManager* command_manager;

    // The registry: every reservation by its key (owning), every reserved GUID, and every id in use with the key of the
    // reservation that got it first. A GUID has at most one owner, and an owner always lists it. A reservation may list
    // a GUID that it does not own: when two loaded files share it, the one loaded first owns it.
    std::map<std::string, ReservationInfo*> reservations;
    std::map<uint64_t, ReservationHCAInfo> hca_infos;
    std::unordered_map<uint64_t, std::string> reservation_keys_by_id;

    explicit ReservationManager(CommandManager* command_manager);
    ReservationManager(const ReservationManager&) = delete;
    ReservationManager& operator=(const ReservationManager&) = delete;

    // Frees the reservations. It sends no events, ends no jobs and leaves the files.
    virtual ~ReservationManager();

    // ---- Registry ----

    // Enters the reservation under its key and its GUIDs. What is there already stays: the key's reservation, and a
    // GUID's owner. Repeating it is harmless.
    void AddReservationToDB(ReservationInfo* info);

    // The reservation with exactly this key, or null.
    ReservationInfo* GetReservationInfoByKey(const std::string& key);

    // The one reservation that owns all of these `count` GUIDs, in any order and repeated or not; null when there is
    // none, or no GUID.
    ReservationInfo* GetReservationByGuids(uint64_t* guids, uint32_t count);

    // Gives the reservation an id, unless it has one: its key's hash, or the next free number.
    void CreateReservationId(ReservationInfo& info);

    // Gives the reservation this id, whatever id it has.
    void SetReservationId(ReservationInfo& info, uint64_t id);

    // ---- Requests of clients ----
    //
    // Each sends exactly one reply to `ep`, which is not looked at, with `transaction_id`.

    // Creates a reservation, or replaces the GUID list of the one with this key. Sorts the request's GUIDs in place.
    // Taking GUIDs from another reservation deletes that one whole, where the options allow it. The reply's one entry
    // echoes the request; its state is the reservation's on success and 0 otherwise. Statuses: 0, 2, 6, 7, 8, 11, 12,
    // 13, 14. A nonzero one is counted in g_fabric. With automatic reservations: ignored, 0.
    void CreateReservation(const vesk_create_reservation& request, const dov_ep* ep, uint64_t transaction_id);

    // Adds GUIDs to a reservation and removes GUIDs from it, or does neither. Sorts both arrays in place. A reservation
    // that loses its last GUID stays. The reply's one entry carries the key and, on success, the whole reservation.
    // Statuses: 0, 2, 6, 7, 8, 11, 14. A nonzero one is counted in g_fabric. With automatic reservations: ignored, 0.
    void UpdateReservationByDelta(const vesk_update_reservation_by_delta& request, const dov_ep* ep,
                                  uint64_t transaction_id);

    // Deletes a reservation, with its jobs where the options allow it. The reply, which goes out before the deletion,
    // has an entry with the reservation as it was, state VESK_STATE_DELETED on success and 0 otherwise. Statuses: 0, 9,
    // 10, 11. With automatic reservations: ignored, 0 and no entry.
    void DeleteReservation(const vesk_delete_reservation& request, const dov_ep* ep, uint64_t transaction_id);

    // Describes one reservation or all of them, in the order of their keys. An entry's `guids` is the stored array
    // itself. Statuses: 0, 9, 11.
    void ReservationInfoRequest(const vesk_reservation_info_request& request, const dov_ep* ep,
                                uint64_t transaction_id);

    // ---- Operations that the requests share ----

    // Whether the reservation with this key may hold these ascending GUIDs: 0, 2, 6 or 8. Puts the other reservations
    // that would lose GUIDs into `affected`; changes nothing else.
    uint32_t HandleAddedGuidsAndOtherReservations(const char* reservation_key, uint32_t num_guids, uint64_t* guids,
                                                  std::unordered_set<ReservationInfo*>& affected);

    // Enters a reservation whose key is not in the registry yet: trees limit, indexes, running jobs, id. Takes
    // ownership of `info`, also when it throws: then the reservation is gone again. No reply, event or file.
    void InternalCreateNewReservation(ReservationInfo* info);

    // Ends a create or a change: writes the file, deletes the affected reservations, claims the GUIDs that they held.
    void PostUpdateReservation(ReservationInfo* info, const std::unordered_set<ReservationInfo*>& affected);

    // Replaces the reservation's GUID list by the request's, which is sorted and checked: 0, 12, 13 or 14.
    uint32_t InternalUpdateReservation(ReservationInfo* info, const vesk_create_reservation& request);

    // UpdateReservationByDelta without the reply: 0, 2, 6, 7, 8 or 14. It does not look at the modes.
    uint32_t InternalUpdateReservationByDelta(const vesk_update_reservation_by_delta& request);

    // Gives the reservation `new_guids` as its list: 0 or 14. All three lists are ascending; the added GUIDs are those
    // that are new in it, the removed ones those that are not in it any more. Ends the jobs that lose HCAs, or
    // answers 14.
    uint32_t PerformUpdateAfterDataPreparation(ReservationInfo* info, std::vector<uint64_t>& new_guids,
                                               std::vector<uint64_t>& added_guids,
                                               std::vector<uint64_t>& removed_guids);

    // Ends the jobs that use one of these GUIDs, where the option allows it: 0, or 14 with nothing changed.
    uint32_t HandleRemovedGuidsAndActiveJobs(ReservationInfo* info, std::vector<uint64_t>& removed_guids);

    // Takes a registered reservation out, with its jobs and its file, and frees it.
    void InternalDeleteReservation(ReservationInfo* info);

    // Ends the reservation's jobs. One that the job manager does not know any more is just forgotten.
    void RemoveReservationJobs(ReservationInfo* info);

    // ---- Jobs ----

    // The reservation that owns every HCA of the job's trees in plane 0. Null, and one record, when there is none, the
    // job has no such trees, or reservation mode is off.
    ReservationInfo* GetReservationByJob(const VeskJob* job);

    // Whether the job may be added to its reservation: 0, or VESK_ADMISSION_REFUSED when it would exceed the trees
    // limit (once for each plane) or a port's HCA has its fill of jobs.
    int ValidateReservationResources(ReservationInfo* reservation, JobResource& resource, const VeskJob* job);

    // Counts the job in its reservation and sets its reservation_accounted. Nothing is validated. A job that is there
    // already is counted again, so every AddJob needs one RemoveJob.
    void AddJob(ReservationInfo* reservation, VeskJob* job);

    // Takes a job that ended out of its reservation. Its counts go even if its entry is not there.
    void RemoveJob(ReservationInfo* reservation, const VeskJob* job);

    // Takes out the entry at `position`, which is invalid afterwards, and the job's counts unless `job` is null.
    void RemoveJob(ReservationInfo* reservation, std::map<uint64_t, ReservationJobInfo>::iterator& position,
                   const VeskJob* job);

    // Adds the job's trees and HCAs to the counts, or takes them off.
    void ApplyJobReservationResourcesChange(ReservationInfo* reservation, bool is_added, const VeskJob* job);

    // Counts the jobs that run under the reservation's key already, and ends those whose HCAs are not all in it. Call
    // it when none of them is counted yet.
    void HandleAlreadyRunningJobs(ReservationInfo* reservation);
    void HandleAlreadyRunningJobsForAllReservations();

    // ---- Files ----
    //
    // The file of a reservation is "DIR/reservation.KEY", the key taken verbatim, and holds its packed description (see
    // dov_msg_pack). Writing truncates it first: a crash in the middle leaves a damaged file. Only reading reports
    // failures; the others are logged.
    //
    // All that the manager would store or remove goes through the first three. A host that keeps reservations elsewhere
    // overrides them; `dir` is persistent_dir, and `info` lives until the call returns.

    virtual void CreateReservationInfoFile(const vesk_reservation_info& info, const std::string& dir);
    virtual void UpdateReservationInfoFile(const vesk_reservation_info& info, const std::string& dir);
    virtual void DeleteReservationInfoFile(const vesk_reservation_info& info, const std::string& dir);

    // Deletes the file if it can be opened for reading.
    void DeleteFile(const std::string& path) const;

    // Reads one file: 0, with a new message in `msg` that the caller releases (its data may be null), or -1 when it
    // cannot be read or is damaged, with `msg` not to be used. A lack of memory is no damage: std::bad_alloc passes
    // through.
    int BuildDataFromReservationFile(const char* path, vesk_dov_msg*& msg) const;

    // Loads the reservations stored in persistent_dir, and deletes the files that are damaged; or deletes all of them
    // unread when load_persistent_reservations is off. Only the first call in a process does anything. Two files with
    // one key: the first stays, the other is left alone. With automatic reservations nothing is loaded and the files
    // stay.
    void ReadPersistentReservationInfoFiles();

    // With automatic reservations: deletes every reservation file in persistent_dir. Otherwise does nothing.
    void DeleteAllPersistentReservationFiles() const;

    // 0: the directory can be opened; 1: it does not exist; -1: anything else.
    int ChechIfDirExists(const std::string& dir) const;

    // ---- Automatic reservations ----

    // Takes the complete pkey set that a port now carries, and moves its HCA into the reservation of the smallest one,
    // which is made when it is missing; out of every reservation when the set is empty. A reservation that loses its
    // last HCA is deleted. Without reservation_mode and reservation_auto_by_pkeys: does nothing.
    void UpdateReservationWithGuidPkeys(HcaPortKey port_key, const std::set<uint16_t>& pkeys);

    // Its two steps: for a GUID that is in no reservation, and for one that is in `reservation`.
    void AddOrCreateReservationForGuid(uint64_t guid, uint16_t pkey);
    void RemoveGuidFromReservation(ReservationInfo* reservation, uint64_t guid);

private:
    enum class Announcement { kNone, kCreatedEvent };

    void EnterNewReservation(ReservationInfo* info, Announcement announcement);
    void ForgetNewReservation(ReservationInfo* info, const std::set<VeskJob*>& attached_jobs) noexcept;
    std::map<std::string, ReservationInfo*>::iterator FindEntry(const char* key) noexcept;
    void AttachRunningJobs(ReservationInfo* reservation, std::set<VeskJob*>& attached_jobs);
    uint32_t CreateOrReplace(const vesk_create_reservation& request, ReservationInfo*& info);
    uint32_t CheckOwnerOfAddedGuid(const char* reservation_key, uint64_t guid, const ReservationInfo* owner,
                                   std::unordered_set<ReservationInfo*>& affected);
    void EndJob(VeskJob* job);
    void LoadReservationFile(const std::string& path, const char* operation);
};
