#include "daemon/engine/event_log.h"

namespace reservationd {

void EventLog::Append(const std::vector<v1::Event>& events) {
    if (events.empty()) return;
    Readers woken;
    {
        const util::MutexLock lock(&mutex_);
        events_.insert(events_.end(), events.begin(), events.end());
        while (events_.size() > kept_) events_.pop_front();
        newest_ = events.back().sequence();
        woken.swap(waiting_);
    }
    Wake(woken);
}

EventLog::Outcome EventLog::Read(uint64_t sequence, v1::Event* event, const std::shared_ptr<Reader>& reader) {
    const util::MutexLock lock(&mutex_);
    const uint64_t first = newest_ + 1 - events_.size();
    if (sequence < first || sequence > newest_ + 1) return Outcome::kGone;
    if (sequence <= newest_) {
        *event = events_[sequence - first];
        return Outcome::kEvent;
    }
    if (is_closed_) return Outcome::kClosed;
    waiting_.insert(reader);
    return Outcome::kNotYet;
}

void EventLog::Forget(const std::shared_ptr<Reader>& reader) {
    const util::MutexLock lock(&mutex_);
    waiting_.erase(reader);
}

void EventLog::Close() {
    Readers woken;
    {
        const util::MutexLock lock(&mutex_);
        is_closed_ = true;
        woken.swap(waiting_);
    }
    Wake(woken);
}

uint64_t EventLog::newest() const {
    const util::MutexLock lock(&mutex_);
    return newest_;
}

uint64_t EventLog::oldest() const {
    const util::MutexLock lock(&mutex_);
    return newest_ + 1 - events_.size();
}

// REQUIRES: mutex_ is free, as a reader that wakes reads at once.
void EventLog::Wake(const Readers& readers) {
    for (const auto& reader : readers) reader->Wake();
}

}    // namespace reservationd
