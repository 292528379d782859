#include "replay/target/event_counter.h"

#include <absl/strings/str_cat.h>

#include "replay/terminal.h"

namespace replay {

namespace v1 = client::v1;

EventCounter::EventCounter(const DaemonClient& client, uint64_t last_sequence)
    : client_(client),
      stream_(client.Watch(last_sequence + 1)),
      last_sequence_(last_sequence),
      thread_([this] { ReadAll(); }) {}

EventCounter::~EventCounter() {
    stream_->Cancel();
    thread_.join();
}

void EventCounter::WaitFor(uint64_t sequence) {
    const util::MutexLock lock(&mutex_);
    const auto is_over = [&]() ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) {
        return !status_.ok() || last_sequence_ >= sequence;
    };
    mutex_.Await(absl::Condition(&is_over));
    if (last_sequence_ < sequence) throw client_.ErrorFor(status_);
}

ManagerCounters EventCounter::counters() const {
    const util::MutexLock lock(&mutex_);
    return counters_;
}

uint64_t EventCounter::num_ended_jobs() const {
    const util::MutexLock lock(&mutex_);
    return num_ended_jobs_;
}

void EventCounter::ReadAll() {
    absl::StatusOr<v1::Event> event = stream_->Next();
    for (; event.ok(); event = stream_->Next()) {
        if (event->kind() != v1::Event::KIND_NONE) Count(*event);
    }
    const util::MutexLock lock(&mutex_);
    status_ = event.status();
}

void EventCounter::Count(const v1::Event& event) {
    const util::MutexLock lock(&mutex_);
    switch (event.kind()) {
        case v1::Event::KIND_RESERVATION_CREATED:
            ++counters_.reservations_created;
            break;
        case v1::Event::KIND_RESERVATION_UPDATED:
            ++counters_.reservations_updated;
            break;
        case v1::Event::KIND_RESERVATION_REMOVED:
            ++counters_.reservations_removed;
            break;
        case v1::Event::KIND_JOB_ERROR:
            PrintMessage(absl::StrCat("job ", event.job_id(), " lost its reservation"));
            break;
        case v1::Event::KIND_JOB_END:
            ++num_ended_jobs_;
            break;
        default:
            break;
    }
    last_sequence_ = event.sequence();
}

}    // namespace replay
