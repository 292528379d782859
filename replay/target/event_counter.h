// Counts a daemon's events as they come.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/status.h>

#include <cstdint>
#include <memory>
#include <thread>

#include "client/client.h"
#include "replay/target/daemon_client.h"
#include "replay/target/manager_observer.h"
#include "util/mutex.h"

namespace replay {

class EventCounter {
public:
    // Counts the events after the one with this number. The client must outlive the counter.
    EventCounter(const DaemonClient& client, uint64_t last_sequence);
    EventCounter(const EventCounter&) = delete;
    EventCounter& operator=(const EventCounter&) = delete;
    ~EventCounter();

    // Waits until the event with this number has been counted. Throws as a call of the client when the daemon stops or
    // is gone before.
    void WaitFor(uint64_t sequence);

    // What has been counted so far: the events of reservations, and the jobs that the manager ended.
    ManagerCounters counters() const;
    uint64_t num_ended_jobs() const;

private:
    void ReadAll();
    void Count(const client::v1::Event& event);

    const DaemonClient& client_;
    const std::unique_ptr<client::EventStream> stream_;

    mutable util::Mutex mutex_;
    ManagerCounters counters_ ABSL_GUARDED_BY(mutex_);
    uint64_t num_ended_jobs_ ABSL_GUARDED_BY(mutex_) = 0;
    uint64_t last_sequence_ ABSL_GUARDED_BY(mutex_);
    absl::Status status_ ABSL_GUARDED_BY(mutex_);    // not OK: the stream ended with it

    std::thread thread_;    // last: it uses all of the above
};

}    // namespace replay
