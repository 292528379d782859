// Runs tasks on several clients of a reservation manager at once.

#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "replay/target/target_client.h"

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
    void RunTasks(TargetClient& client, std::unique_lock<std::mutex>& lock);

    TargetClient& first_client_;

    std::mutex mutex_;    // guards what follows
    std::condition_variable work_;    // there are tasks to start, or the pool is being destroyed
    std::condition_variable done_;    // the last task that was running has ended
    std::vector<Task> tasks_;
    size_t next_task_ = 0;
    size_t num_running_ = 0;
    std::exception_ptr error_;
    bool is_ending_ = false;    // the pool is being destroyed

    std::vector<std::thread> threads_;    // last: they use all of the above
};

}    // namespace replay
