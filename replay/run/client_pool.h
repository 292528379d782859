// Runs tasks on several clients of a reservation manager at once.

#pragma once

#include <absl/base/thread_annotations.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <thread>
#include <vector>

#include "replay/target/target_client.h"
#include "util/mutex.h"

namespace replay {

class ClientPool {
public:
    using Task = std::function<void(TargetClient& client)>;

    // The first client works in the thread that calls Run(), each of the others in a thread of its own. REQUIRES: at
    // least one client; they outlive the pool.
    explicit ClientPool(const std::vector<TargetClient*>& clients);
    ClientPool(const ClientPool&) = delete;
    ClientPool& operator=(const ClientPool&) = delete;
    ~ClientPool();

    // Runs each task on some client, in order, and waits for all. When one throws, no further ones are started, and the
    // first exception is rethrown.
    void Run(std::vector<Task> tasks);

private:
    void Work(TargetClient& client);
    void RunTasks(TargetClient& client) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    bool HasWork() const ABSL_SHARED_LOCKS_REQUIRED(mutex_) { return is_ending_ || next_task_ < tasks_.size(); }
    bool IsIdle() const ABSL_SHARED_LOCKS_REQUIRED(mutex_) { return num_running_ == 0; }

    TargetClient& first_client_;

    util::Mutex mutex_;
    std::vector<Task> tasks_ ABSL_GUARDED_BY(mutex_);
    size_t next_task_ ABSL_GUARDED_BY(mutex_) = 0;
    size_t num_running_ ABSL_GUARDED_BY(mutex_) = 0;
    std::exception_ptr error_ ABSL_GUARDED_BY(mutex_);
    bool is_ending_ ABSL_GUARDED_BY(mutex_) = false;    // the pool is being destroyed

    std::vector<std::thread> threads_;    // last: they use all of the above
};

}    // namespace replay
