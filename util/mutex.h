// absl::Mutex as far as it is used here, on the standard library's locks: ThreadSanitizer sees those, and not the ones
// inside the library of abseil, which is built without it.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>
#include <absl/time/clock.h>
#include <absl/time/time.h>

#include <condition_variable>
#include <mutex>

namespace util {

class ABSL_LOCKABLE Mutex {
public:
    void Lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }

    // Also lets those who wait look at their conditions.
    void Unlock() ABSL_UNLOCK_FUNCTION() {
        changed_.notify_all();
        mutex_.unlock();
    }

    // Each gives the mutex up until the condition, which is evaluated while the mutex is held, is true, or the time is
    // over. Returns whether the condition is true.
    bool Await(const absl::Condition& condition) ABSL_EXCLUSIVE_LOCKS_REQUIRED(this) {
        return AwaitWithDeadline(condition, absl::InfiniteFuture());
    }
    bool AwaitWithTimeout(const absl::Condition& condition, absl::Duration timeout)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(this) {
        return AwaitWithDeadline(condition, absl::Now() + timeout);
    }
    bool AwaitWithDeadline(const absl::Condition& condition, absl::Time deadline) ABSL_EXCLUSIVE_LOCKS_REQUIRED(this) {
        std::unique_lock lock(mutex_, std::adopt_lock);
        changed_.notify_all();    // waiting gives the mutex up, as Unlock does
        while (!condition.Eval() && absl::Now() < deadline) {
            if (deadline == absl::InfiniteFuture()) {
                changed_.wait(lock);
            } else {
                changed_.wait_for(lock, absl::ToChronoNanoseconds(deadline - absl::Now()));
            }
        }
        lock.release();
        return condition.Eval();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

// Holds a mutex, which must outlive it, from its construction to its end.
class ABSL_SCOPED_LOCKABLE MutexLock {
public:
    explicit MutexLock(Mutex* mutex) ABSL_EXCLUSIVE_LOCK_FUNCTION(mutex) : mutex_(mutex) { mutex_->Lock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() ABSL_UNLOCK_FUNCTION() { mutex_->Unlock(); }

private:
    Mutex* const mutex_;
};

}    // namespace util
