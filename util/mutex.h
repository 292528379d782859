// A mutex and a condition variable with Clang's thread safety attributes. They stand on the standard library's, whose
// locks ThreadSanitizer sees: those of abseil are inside a library that is built without it.

#pragma once

#include <absl/base/thread_annotations.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace util {

class ABSL_LOCKABLE Mutex {
public:
    void Lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }
    void Unlock() ABSL_UNLOCK_FUNCTION() { mutex_.unlock(); }

private:
    friend class CondVar;

    std::mutex mutex_;
};

// Holds the mutex, which must outlive it, from its construction to its end.
class ABSL_SCOPED_LOCKABLE MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ABSL_EXCLUSIVE_LOCK_FUNCTION(mutex) : mutex_(mutex) { mutex_.Lock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() ABSL_UNLOCK_FUNCTION() { mutex_.Unlock(); }

private:
    Mutex& mutex_;
};

// Waiting gives the mutex up and takes it again. It may return early: check again what was waited for.
class CondVar {
public:
    void Wait(Mutex& mutex) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex) {
        std::unique_lock lock(mutex.mutex_, std::adopt_lock);
        changed_.wait(lock);
        lock.release();
    }

    // Returns false at the deadline.
    bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex) {
        std::unique_lock lock(mutex.mutex_, std::adopt_lock);
        const bool is_in_time = changed_.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return is_in_time;
    }

    void SignalAll() { changed_.notify_all(); }

private:
    std::condition_variable changed_;
};

}    // namespace util
