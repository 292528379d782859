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
        const util::MutexLock lock(&mutex_);
        is_ending_ = true;
    }
    for (std::thread& thread : threads_) thread.join();
}

void ClientPool::Run(std::vector<Task> tasks) {
    const util::MutexLock lock(&mutex_);
    tasks_ = std::move(tasks);
    next_task_ = 0;
    RunTasks(first_client_);
    mutex_.Await(absl::Condition(this, &ClientPool::IsIdle));
    if (error_ != nullptr) std::rethrow_exception(std::exchange(error_, nullptr));
}

void ClientPool::Work(TargetClient& client) {
    const util::MutexLock lock(&mutex_);
    while (!is_ending_) {
        RunTasks(client);
        mutex_.Await(absl::Condition(this, &ClientPool::HasWork));
    }
}

// Runs tasks until none is left to start. Releases the lock while a task runs.
void ClientPool::RunTasks(TargetClient& client) {
    while (next_task_ < tasks_.size()) {
        const Task& task = tasks_[next_task_++];
        ++num_running_;
        mutex_.Unlock();
        std::exception_ptr error;
        try {
            task(client);
        } catch (...) {
            error = std::current_exception();
        }
        mutex_.Lock();
        if (error != nullptr) next_task_ = tasks_.size();
        if (error_ == nullptr) error_ = error;
        --num_running_;
    }
}

}    // namespace replay
