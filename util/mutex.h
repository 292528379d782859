// absl::Mutex as far as it is used here, on the standard library's locks: ThreadSanitizer sees those, and not the ones
// inside the library of abseil, which is built without it.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/synchronization/mutex.h>
#include <absl/time/clock.h>
#include <absl/time/time.h>

#include <condition_variable>
#include <mutex>
#include <vector>

namespace util {

class ABSL_LOCKABLE Mutex {
public:
    void Lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }

    // Wakes those who wait for a condition that is true now, and nobody else: to wake a thread costs more than to look.
    void Unlock() ABSL_UNLOCK_FUNCTION() {
        WakeReady();
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
        if (condition.Eval()) return true;
        WakeReady();    // waiting gives the mutex up, as Unlock does
        Waiter waiter{condition, {}};
        waiters_.push_back(&waiter);
        std::unique_lock lock(mutex_, std::adopt_lock);
        while (!condition.Eval() && absl::Now() < deadline) {
            if (deadline == absl::InfiniteFuture()) {
                waiter.wake.wait(lock);
            } else {
                waiter.wake.wait_for(lock, absl::ToChronoNanoseconds(deadline - absl::Now()));
            }
        }
        lock.release();
        std::erase(waiters_, &waiter);
        return condition.Eval();
    }

private:
    struct Waiter {
        const absl::Condition& condition;
        std::condition_variable wake;
    };

    void WakeReady() const {
        for (Waiter* const waiter : waiters_) {
            if (waiter->condition.Eval()) waiter->wake.notify_one();
        }
    }

    std::mutex mutex_;
    std::vector<Waiter*> waiters_;    // guarded by mutex_
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
