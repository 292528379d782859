#include "replay/target/event_counter.h"

#include "replay/report/terminal.h"

namespace v1 = reservation::v1;

EventCounter::EventCounter(const GrpcService& service, uint64_t last_sequence)
    : service_(service), last_sequence_(last_sequence), thread_([this] { Read(); }) {}

EventCounter::~EventCounter() {
    context_.TryCancel();
    thread_.join();
}

void EventCounter::WaitFor(uint64_t sequence) {
    std::unique_lock lock(mutex_);
    change_.wait(lock, [&] { return is_over_ || last_sequence_ >= sequence; });
    if (last_sequence_ < sequence) throw service_.ErrorOf(status_);
}

Recorded EventCounter::recorded() const {
    const std::lock_guard lock(mutex_);
    return recorded_;
}

uint64_t EventCounter::num_ended_jobs() const {
    const std::lock_guard lock(mutex_);
    return num_ended_jobs_;
}

void EventCounter::Read() {
    v1::WatchRequest request;
    request.set_from_sequence(last_sequence_ + 1);
    const auto reader = service_.stub().Watch(&context_, request);
    for (v1::Event event; reader->Read(&event);) {
        if (event.kind() != v1::Event::KIND_NONE) Count(event);
    }
    const std::lock_guard lock(mutex_);
    status_ = reader->Finish();
    is_over_ = true;
    change_.notify_all();
}

void EventCounter::Count(const v1::Event& event) {
    const std::lock_guard lock(mutex_);
    switch (event.kind()) {
        case v1::Event::KIND_RESERVATION_CREATED:
            ++recorded_.created_events;
            break;
        case v1::Event::KIND_RESERVATION_UPDATED:
            ++recorded_.updated_events;
            break;
        case v1::Event::KIND_RESERVATION_REMOVED:
            ++recorded_.removed_events;
            break;
        case v1::Event::KIND_JOB_ERROR:
            PrintMessage("job " + std::to_string(event.job_id()) + " lost its reservation");
            break;
        case v1::Event::KIND_JOB_END:
            ++num_ended_jobs_;
            break;
        default:
            break;
    }
    last_sequence_ = event.sequence();
    change_.notify_all();
}
