// A thread that does what it is handed, one thing after another.

#pragma once

#include <absl/base/thread_annotations.h>

#include <deque>
#include <functional>
#include <thread>
#include <utility>

#include "util/mutex.h"

namespace util {

class WorkerThread {
public:
    WorkerThread() : thread_(&WorkerThread::Run, this) {}
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Waits until everything that has been handed over is done.
    ~WorkerThread() {
        Submit(nullptr);
        thread_.join();
    }

    // Hands something over, from any thread. It must not throw.
    void Submit(std::function<void()> task) {
        const MutexLock lock(&mutex_);
        tasks_.push_back(std::move(task));
    }

private:
    void Run() {
        while (const std::function<void()> task = Take()) task();
    }

    std::function<void()> Take() {
        const MutexLock lock(&mutex_);
        mutex_.Await(absl::Condition(this, &WorkerThread::HasTask));
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        return task;
    }

    bool HasTask() const ABSL_SHARED_LOCKS_REQUIRED(mutex_) { return !tasks_.empty(); }

    Mutex mutex_;
    std::deque<std::function<void()>> tasks_ ABSL_GUARDED_BY(mutex_);    // an empty one is the last
    std::thread thread_;    // last: it uses all of the above
};

}    // namespace util
