// Hosts a ReservationManager: supplies its options and the running jobs, answers the service's requests with it, and
// collects what changed, to be committed.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/state/conflict.h"
#include "daemon/state/job_table.h"
#include "daemon/state/manager_scope.h"
#include "daemon/storage/store.h"
#include "host/command_manager.h"
#include "host/event_manager.h"
#include "host/log.h"
#include "host/option_info.h"
#include "reservation/reservation_manager.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Changes to be committed together. A null value: the reservation or the job is gone.
struct StateChanges {
    std::map<std::string, std::optional<StoredReservation>> reservations;    // by key
    std::map<uint64_t, std::optional<std::string>> jobs;    // by id; a serialized v1::Job
    std::vector<v1::Event> events;    // in order, without sequence numbers
};

// Used by one thread at a time. Several can be used at once while they share their options; otherwise operations wait
// for each other, as ManagerScopes do.
//
// REQUIRES of every request: its key and its numbers have been checked.
class ReservationState : private CommandManager, private EventManager {
public:
    using LogFunction = std::function<void(const LogRecord&)>;

    // Starts without reservations and jobs. `log` receives the manager's records; it may be empty. `failed_requests`:
    // refused requests counted so far.
    ReservationState(const OptionInfo& options, LogFunction log, uint64_t failed_requests = 0);
    ReservationState(std::shared_ptr<OptionInfo> options, LogFunction log, uint64_t failed_requests = 0);
    ReservationState(const ReservationState&) = delete;
    ReservationState& operator=(const ReservationState&) = delete;
    ~ReservationState() override;

    // ---- Requests. Each fills `reply`, which comes empty. ----

    // Whether one is a dry run is not looked at: that is tried in a state made by a ScratchCopy. The first two are
    // refused while they want free nodes: those are to be picked before (free_nodes.h).
    void CreateReservation(const v1::CreateReservationRequest& request, v1::ReservationReply* reply);
    void UpdateReservation(const v1::UpdateReservationRequest& request, v1::ReservationReply* reply);
    void DeleteReservation(const v1::DeleteReservationRequest& request, v1::ReservationReply* reply);
    // Without `version`, which is the engine's to know.
    void GetReservations(const v1::GetReservationsRequest& request, v1::ReservationReply* reply);
    void BeginJob(const v1::BeginJobRequest& request, v1::BeginJobReply* reply);
    void EndJob(const v1::EndJobRequest& request, v1::EndJobReply* reply);
    void ListJobs(const v1::ListJobsRequest& request, v1::ListJobsReply* reply);
    void ReportPort(const v1::ReportPortRequest& request, v1::ReportPortReply* reply);
    void Describe(v1::DaemonInfo* info) const;    // the options and the counts

    // Lets the options hold from now on, and what HCAs derive from them; reservations follow by SetTreesLimits. When
    // reservations come into use by that, jobs are counted or end as by Restore.
    void SetOptions(const OptionInfo& options);

    // Gives some thousand reservations the default trees limit that holds now, in a millisecond or two. False: all have
    // it.
    bool SetTreesLimits();

    // ---- Storing and restoring ----

    // What changed since the last call.
    StateChanges TakeChanges();

    // Events since that call.
    size_t num_new_events() const { return changes_.events.size(); }

    // Adds a stored job, which is in no reservation's counts yet. REQUIRES: the job is not there, and neither is its
    // reservation. Throws std::runtime_error when it is damaged.
    void AddJob(uint64_t job_id, const std::string& packed);

    // Enters a stored reservation as it was, which is no change, and counts its jobs. A job that uses HCAs which the
    // reservation does not own is ended; while reservations are not in use, or follow the ports' pkeys, it waits
    // instead. REQUIRES: there is none with its key. Throws std::runtime_error when it is damaged.
    void Restore(const std::string& key, const StoredReservation& stored);

    // Enters a reservation that has come from outside, or back. `id`: that it had; 0: none. Otherwise as Restore.
    void Adopt(const std::string& key, const std::string& packed, uint64_t id, v1::Event::Kind kind);

    // Notes that a stored reservation is not restored: it is gone.
    void Drop(const std::string& key);

    // The reservation that this HCA is in, or null.
    const ReservationInfo* FindOwner(uint64_t guid) const { return OwnerOf(guid); }

    // When the reservation with this key was created; 0: not known.
    int64_t CreatedUnixMillis(const std::string& key) const;

    // Create and update requests refused so far.
    uint64_t failed_requests() const { return failed_requests_; }

private:
    friend class ScratchCopy;
    class RecordingManager;

    void SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list,
                                 uint64_t transaction_id) const override;
    void HandleJobError(VeskJob* job, vesk_error_value value, vesk_error_type type, bool, bool) override;
    void SendEndJob(dov_ep* ep, const VeskJob* job) override;
    VeskJob* FindJob(uint64_t job_id, uint64_t reservation_id, const char* reservation_key) override;
    void GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const override;
    void AddReservationCreatedEvent(const char* key) override;
    void AddReservationUpdatedEvent(const char* key) override;
    void AddReservationRemovedEvent(const char* key) override;

    template <typename Operation>
    void RunRequest(v1::ReservationReply* reply, const WantedChange& change, Operation operation);
    void DescribeConsequences(const std::string& key, size_t first_event, v1::ReservationReply* reply) const;
    void ListReservations(const v1::GetReservationsRequest& request, v1::ReservationReply* reply) const;
    void Describe(const vesk_reservation_info& entry, v1::Reservation* reservation) const;
    void ReplyToRepeatedBegin(const v1::Job& running, const v1::Job& wanted, v1::BeginJobReply* reply) const;
    v1::BeginJobReply::Result Admit(std::unique_ptr<Job> job, v1::BeginJobReply* reply);
    void RemoveJob(uint64_t job_id);
    std::unique_ptr<Job> ExtractJob(uint64_t job_id);
    void TakeUpJobsOf(ReservationInfo* reservation);
    void CountJobsOf(ReservationInfo* reservation);
    template <typename Change>
    void ForEachCountedJob(Change change);
    void AddReservationEvent(v1::Event::Kind kind, const std::string& key);
    void AddJobEvent(v1::Event::Kind kind, const VeskJob& job);
    void Enter(std::unique_ptr<ReservationInfo> reservation, uint64_t id);
    ReservationInfo* OwnerOf(uint64_t guid) const;

    ManagerContext context_;
    uint64_t failed_requests_;
    JobTable jobs_;
    // The manager may look at a job until the operation that ended it is over: kept until TakeChanges.
    std::vector<std::unique_ptr<Job>> ended_jobs_;
    std::unordered_map<std::string, int64_t> created_unix_millis_;    // by key
    StateChanges changes_;    // without the jobs, and when reservations were created
    std::set<uint64_t> changed_job_ids_;
    const std::unique_ptr<ReservationManager> manager_;
    v1::ReservationReply* reply_ = nullptr;    // of the request under way
    bool with_details_ = true;    // `reply_` describes reservations in full
    // The last reservation that has the default trees limit which holds now; none: all have it.
    std::optional<std::string> last_key_with_limit_;
};

}    // namespace reservationd
