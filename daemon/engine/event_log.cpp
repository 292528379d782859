#include "daemon/engine/event_log.h"

#include <utility>

namespace reservationd {

void EventLog::Append(const std::vector<v1::Event>& events) {
    if (events.empty()) return;
    std::unique_lock lock(mutex_);
    for (const v1::Event& event : events) events_.push_back(event);
    while (events_.size() > kept_) events_.pop_front();
    newest_ = events.back().sequence();
    WakeReaders(std::move(lock));
}

EventLog::Outcome EventLog::Read(uint64_t sequence, v1::Event* event, const std::shared_ptr<Reader>& reader) {
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
    waiting_.erase(reader);
}

void EventLog::Close() {
    std::unique_lock lock(mutex_);
    is_closed_ = true;
    WakeReaders(std::move(lock));
}

uint64_t EventLog::newest() const {
    const std::lock_guard lock(mutex_);
    return newest_;
}

uint64_t EventLog::oldest() const {
    const std::lock_guard lock(mutex_);
    return newest_ + 1 - events_.size();
}

// Not under the lock: a reader that wakes reads at once.
void EventLog::WakeReaders(std::unique_lock<std::mutex> lock) {
    const auto woken = std::exchange(waiting_, {});
    lock.unlock();
    for (const auto& reader : woken) reader->Wake();
}

}    // namespace reservationd
