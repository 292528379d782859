// Copying what requests concern, so that they can be tried.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "daemon/state/reservation_state.h"
#include "daemon/storage/store.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// What requests name.
struct NamedThings {
    std::set<std::string> keys;
    std::vector<uint64_t> guids;
    std::vector<uint64_t> job_ids;
};

NamedThings NamedBy(const v1::CreateReservationRequest& request);
NamedThings NamedBy(const v1::UpdateReservationRequest& request);
NamedThings NamedBy(const v1::DeleteReservationRequest& request);
NamedThings NamedBy(const v1::Operation& operation);
NamedThings NamedBy(const v1::TransactRequest& request);

// A copy of the reservations that have the named keys, own the named GUIDs or have the named jobs, and of all jobs of
// these reservations. It is made in steps, between which the state may change. Used by one thread at a time; the
// constructor and MakeState, which take long where much is named or copied, need no state.
class ScratchCopy {
public:
    explicit ScratchCopy(NamedThings named);

    // Copies on: some thousand GUIDs, reservations and jobs, which takes a millisecond or two, but a reservation at
    // once. True: the copy is complete, and is the state as it is now.
    bool Advance(const ReservationState& state);

    // Takes note of what has been changed in the state since the copy was begun, or since the last note.
    void NoteChanges(const StoreChanges& changes);

    // Forgets what has been copied.
    void Restart();

    // Returns a state of its own, without a log, in which requests that name nothing else can be tried; the copy is
    // used up. REQUIRES: it is complete.
    std::unique_ptr<ReservationState> MakeState();

private:
    struct Reservation {
        std::unique_ptr<ReservationInfo> info;    // without what follows from its jobs; null: there is none
        uint64_t id = 0;
    };

    size_t LookUpGuids(const ReservationState& state, size_t max_work);
    size_t LookUpJobs(const ReservationState& state, size_t max_work);
    size_t CopyReservation(const ReservationState& state);
    size_t FindJobs(const ReservationState& state, size_t max_work);
    size_t CopyJob(const ReservationState& state);

    NamedThings named_;    // GUIDs ascending
    size_t num_guids_done_ = 0;    // of those named, the ones looked up
    size_t num_jobs_done_ = 0;
    std::set<std::string> keys_to_copy_;
    std::set<uint64_t> jobs_to_copy_;
    std::string key_to_search_;    // the reservation whose jobs are being looked for; empty: none
    uint64_t last_job_found_ = 0;
    std::map<std::string, Reservation> reservations_;
    std::map<uint64_t, v1::Job> jobs_;
    std::shared_ptr<OptionInfo> options_;
};

}    // namespace reservationd
