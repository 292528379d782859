#include "replay/run/client_pool.h"

#include <utility>

namespace replay {

ClientPool::ClientPool(const std::vector<TargetClient*>& clients) : first_client_(*clients.front()) {
    for (size_t i = 1; i < clients.size(); ++i) {
        threads_.emplace_back([this, client = clients[i]] { Work(*client); });
    }
}

ClientPool::~ClientPool() {
    {
        const std::lock_guard lock(mutex_);
        is_ending_ = true;
    }
    work_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void ClientPool::Run(std::vector<Task> tasks) {
    std::unique_lock lock(mutex_);
    tasks_ = std::move(tasks);
    next_task_ = 0;
    if (tasks_.size() > 1) work_.notify_all();
    RunTasks(first_client_, lock);
    done_.wait(lock, [this] { return num_running_ == 0; });
    if (error_ != nullptr) std::rethrow_exception(std::exchange(error_, nullptr));
}

void ClientPool::Work(TargetClient& client) {
    std::unique_lock lock(mutex_);
    while (!is_ending_) {
        RunTasks(client, lock);
        work_.wait(lock, [this] { return is_ending_ || next_task_ < tasks_.size(); });
    }
}

// Runs tasks until none is left to start. REQUIRES: the lock is held; it is released while a task runs.
void ClientPool::RunTasks(TargetClient& client, std::unique_lock<std::mutex>& lock) {
    while (next_task_ < tasks_.size()) {
        const Task& task = tasks_[next_task_++];
        ++num_running_;
        lock.unlock();
        std::exception_ptr error;
        try {
            task(client);
        } catch (...) {
            error = std::current_exception();
        }
        lock.lock();
        if (error != nullptr) next_task_ = tasks_.size();
        if (error_ == nullptr) error_ = error;
        if (--num_running_ == 0) done_.notify_one();
    }
}

}    // namespace replay
