#include "integrations/slurm/event_follower.h"

#include <absl/time/clock.h>
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "integrations/slurm/log.h"

namespace reservation_slurm {
namespace {

constexpr absl::Duration kPause = absl::Seconds(1);    // before something that failed is tried again
constexpr absl::Duration kSlurmTimeout = absl::Seconds(30);
constexpr absl::Duration kSlurmSavesWithin = absl::Minutes(1);    // its state, far more often

}    // namespace

EventFollower::EventFollower(const Config& config, const Controller& controller)
    : config_(config), controller_(controller) {
    const absl::StatusOr<Position> position = Position::Read(config.state_file);
    if (position.ok()) {
        position_ = *position;
    } else {
        Log(absl::IsNotFound(position.status()) ? LOG_INFO : LOG_WARNING,
            fmt::format("begins with the oldest event: {}", std::string(position.status().message())));
    }
    thread_ = std::thread([this] { Run(); });
}

EventFollower::~EventFollower() {
    {
        const util::MutexLock lock(&mutex_);
        is_stopping_ = true;
        if (stream_ != nullptr) stream_->Cancel();
    }
    thread_.join();
    const util::MutexLock lock(&mutex_);
    SavePosition(absl::ZeroDuration());
}

void EventFollower::Run() {
    absl::Status last;
    while (true) {
        const absl::Status status = FollowOneStream();
        if (WaitOrStop(absl::ZeroDuration())) return;
        if (status != last) Log(LOG_WARNING, fmt::format("the daemon's events: {}", status.ToString()));
        last = status;
        if (WaitOrStop(kPause)) return;
    }
}

// Returns when the stream has ended.
absl::Status EventFollower::FollowOneStream() {
    const auto client = client::Client::Make(config_.connection);
    if (!client.ok()) return client.status();
    const absl::StatusOr<v1::WatchRequest> request = ChooseBegin(*client);
    if (!request.ok()) return request.status();
    const std::unique_ptr<client::EventStream> stream = client->Watch(*request);
    const auto set_stream = [this](client::EventStream* current) {
        const util::MutexLock lock(&mutex_);
        stream_ = current;
        return !is_stopping_;
    };
    if (!set_stream(stream.get())) return absl::OkStatus();
    absl::Status status;
    while (status.ok()) {
        const absl::StatusOr<v1::Event> event = stream->Next();
        status = event.status();
        if (status.ok() && event->kind() != v1::Event::KIND_NONE) Handle(*event);
    }
    set_stream(nullptr);
    return status;
}

// After the last event that has been dealt with, or where that is not kept any more, with the oldest one.
absl::StatusOr<v1::WatchRequest> EventFollower::ChooseBegin(const client::Client& client) {
    const absl::StatusOr<v1::DaemonInfo> info = client.Call(v1::GetDaemonInfoRequest());
    if (!info.ok()) return info.status();
    const util::MutexLock lock(&mutex_);
    const uint64_t oldest = std::max<uint64_t>(info->oldest_sequence(), 1);
    if (!position_.epoch.empty() && position_.epoch != info->epoch()) {
        Log(LOG_WARNING, "the daemon has a new store: events of the old one may be missing");
    }
    if (position_.epoch != info->epoch()) position_ = {info->epoch(), oldest - 1};
    if (position_.sequence + 1 < oldest) {
        Log(LOG_WARNING, fmt::format("the daemon does not keep the events {} to {} any more: jobs that they end go on",
                                     position_.sequence + 1, oldest - 1));
        position_.sequence = oldest - 1;
    }
    v1::WatchRequest request;
    request.set_epoch(position_.epoch);
    request.set_from_sequence(position_.sequence + 1);
    return request;
}

void EventFollower::Handle(const v1::Event& event) {
    const bool ends_job = event.kind() == v1::Event::KIND_JOB_END && event.start_unix_millis() != 0;
    for (bool is_first = true; ends_job; is_first = false) {
        const absl::StatusOr<client::SchedulerJobs> jobs = controller_.ListJobs(absl::Now() + kSlurmTimeout);
        const absl::Status status = jobs.ok() ? EndInSlurm(event, *jobs) : jobs.status();
        if (status.ok()) break;
        if (is_first) Log(LOG_WARNING, fmt::format("job {} is to be ended: {}", event.job_id(), status.ToString()));
        if (WaitOrStop(kPause)) return;
    }
    const util::MutexLock lock(&mutex_);
    position_.sequence = event.sequence();
    if (ends_job) unconfirmed_.push_back({event, absl::Now()});
    SavePosition(kPause);
}

absl::Status EventFollower::Confirm() {
    std::deque<ToldEvent> told_events;
    {
        const util::MutexLock lock(&mutex_);
        told_events = unconfirmed_;
    }
    if (told_events.empty()) return absl::OkStatus();
    const absl::Time now = absl::Now();
    const absl::StatusOr<client::SchedulerJobs> jobs = controller_.ListJobs(now + kSlurmTimeout);
    if (!jobs.ok()) return jobs.status();
    absl::Status status;
    for (const ToldEvent& told : told_events) status.Update(EndInSlurm(told.event, *jobs));
    if (!status.ok()) return status;
    const util::MutexLock lock(&mutex_);
    while (!unconfirmed_.empty() && unconfirmed_.front().told < now - kSlurmSavesWithin) unconfirmed_.pop_front();
    SavePosition(absl::ZeroDuration());
    return status;
}

absl::Status EventFollower::EndInSlurm(const v1::Event& event, const client::SchedulerJobs& jobs) const {
    if (!jobs.Contains(event.job_id(), event.start_unix_millis())) return absl::OkStatus();
    const absl::Time deadline = absl::Now() + kSlurmTimeout;
    const std::string reason =
        fmt::format("reservation {} is lost to the job: {}", event.reservation_key(), event.reason());
    Log(LOG_WARNING, fmt::format("job {} is ended: {}", event.job_id(), reason));
    const absl::Status commented = controller_.Comment(event.job_id(), "reservation: " + reason, deadline);
    if (!commented.ok()) Log(LOG_INFO, fmt::format("job {}: {}", event.job_id(), commented.ToString()));
    return controller_.Cancel(event.job_id(), deadline);
}

// Unless it was saved less than this time ago: an event that is read again does no harm.
void EventFollower::SavePosition(absl::Duration min_age) {
    const absl::Time now = absl::Now();
    if (position_.epoch.empty() || now - saved_ < min_age) return;
    Position confirmed = position_;
    if (!unconfirmed_.empty()) confirmed.sequence = unconfirmed_.front().event.sequence() - 1;
    const absl::Status status = confirmed.Write(config_.state_file);
    if (!status.ok()) Log(LOG_ERR, std::string(status.message()));
    saved_ = now;
}

// Returns whether to stop.
bool EventFollower::WaitOrStop(absl::Duration time) {
    const util::MutexLock lock(&mutex_);
    return mutex_.AwaitWithTimeout(absl::Condition(&is_stopping_), time);
}

}    // namespace reservation_slurm
