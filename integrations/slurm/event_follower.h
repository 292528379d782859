// Ends in Slurm the jobs that the daemon has ended.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/status.h>
#include <absl/time/time.h>

#include <deque>
#include <thread>

#include "client/client.h"
#include "integrations/slurm/controller.h"
#include "integrations/slurm/position.h"
#include "util/mutex.h"

namespace reservation_slurm {

namespace v1 = reservation::v1;

// Follows the daemon's events in a thread of its own, from where the state file says. An event counts as dealt with
// when Slurm has been told, so that none is lost over restarts of this program, the daemon or Slurm's controller; one
// that is dealt with twice does no harm.
class EventFollower {
public:
    // Both must outlive it. Only jobs that were begun with a start time, as the hooks do, are ended.
    EventFollower(const Config& config, const Controller& controller);
    EventFollower(const EventFollower&) = delete;
    EventFollower& operator=(const EventFollower&) = delete;
    ~EventFollower();

    // Ends again the jobs that Slurm has in spite of having been told. To be called from time to time.
    absl::Status Confirm() ABSL_LOCKS_EXCLUDED(mutex_);

private:
    struct ToldEvent {
        v1::Event event;
        absl::Time told;    // when Slurm was
    };

    void Run();
    absl::Status FollowOneStream();
    absl::StatusOr<v1::WatchRequest> ChooseBegin(const client::Client& client);
    void Handle(const v1::Event& event);
    absl::Status EndInSlurm(const v1::Event& event, const client::SchedulerJobs& jobs) const;
    void SavePosition(absl::Duration min_age) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    bool WaitOrStop(absl::Duration time) ABSL_LOCKS_EXCLUDED(mutex_);

    const Config& config_;
    const Controller& controller_;

    util::Mutex mutex_;
    Position position_ ABSL_GUARDED_BY(mutex_);    // where the stream is
    std::deque<ToldEvent> unconfirmed_ ABSL_GUARDED_BY(mutex_);
    absl::Time saved_ ABSL_GUARDED_BY(mutex_);
    bool is_stopping_ ABSL_GUARDED_BY(mutex_) = false;
    client::EventStream* stream_ ABSL_GUARDED_BY(mutex_) = nullptr;    // the one being read

    std::thread thread_;    // last: it uses all of the above
};

}    // namespace reservation_slurm
