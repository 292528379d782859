// The newest events, for any number of readers that each go at their own pace.

#pragma once

#include <absl/base/thread_annotations.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <vector>

#include "reservation/v1/reservation.pb.h"
#include "util/mutex.h"

namespace reservationd {

namespace v1 = reservation::v1;

// One writer, any number of readers, each on any thread.
class EventLog {
public:
    enum class Outcome { kEvent, kNotYet, kGone, kClosed };

    class Reader {
    public:
        virtual ~Reader() = default;
        // Call Read again: a new event was appended, or the log was closed. Called on any thread.
        virtual void Wake() = 0;
    };

    // Keeps the newest `kept` events, at least 1.
    explicit EventLog(uint64_t kept) : kept_(kept) {}

    // Adds events, which carry the sequence numbers after the newest one, and wakes the readers that wait.
    void Append(const std::vector<v1::Event>& events);

    // kEvent: the event with this number has been copied to `event`. kNotYet: it is the next one to happen; the
    // reader is held and will be woken once. kGone: it is not kept any more, or lies beyond the next one. kClosed: it
    // will not happen, since the log is closed.
    Outcome Read(uint64_t sequence, v1::Event* event, const std::shared_ptr<Reader>& reader);

    // Does not hold the reader any more.
    void Forget(const std::shared_ptr<Reader>& reader);

    // Ends the log: whoever waits is woken, and nobody waits from now on.
    void Close();

    uint64_t newest() const;    // 0: no event yet
    uint64_t oldest() const;    // of those kept; newest() + 1 when there is none

private:
    using Readers = std::set<std::shared_ptr<Reader>>;

    static void Wake(const Readers& readers);

    const uint64_t kept_;
    mutable util::Mutex mutex_;
    std::deque<v1::Event> events_ ABSL_GUARDED_BY(mutex_);
    Readers waiting_ ABSL_GUARDED_BY(mutex_);
    uint64_t newest_ ABSL_GUARDED_BY(mutex_) = 0;
    bool is_closed_ ABSL_GUARDED_BY(mutex_) = false;
};

}    // namespace reservationd
