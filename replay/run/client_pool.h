// Tasks on several clients of a reservation manager at once.

#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "replay/target/reservation_service.h"

class ClientPool {
public:
    using Task = std::function<void(ReservationService& client)>;

    // At least one client; they must outlive the pool. The first one works in the thread that calls Run, each of the
    // others in a thread of its own.
    explicit ClientPool(const std::vector<ReservationService*>& clients);
    ClientPool(const ClientPool&) = delete;
    ClientPool& operator=(const ClientPool&) = delete;
    ~ClientPool();

    // Runs each task on a client that is free, in their order if there is only one, and waits for all. When one throws,
    // no further ones are begun, and the first exception is rethrown.
    void Run(std::vector<Task> tasks);

private:
    void Work(ReservationService& client);
    void RunTasks(ReservationService& client, std::unique_lock<std::mutex>& lock);

    ReservationService& first_client_;

    std::mutex mutex_;    // guards what follows
    std::condition_variable work_;    // there are tasks to begin, or the end has come
    std::condition_variable done_;    // the last task that was running has ended
    std::vector<Task> tasks_;
    size_t next_task_ = 0;
    size_t num_running_ = 0;
    std::exception_ptr error_;
    bool is_ending_ = false;

    std::vector<std::thread> threads_;    // last: they use all of the above
};
