#include "daemon/state/manager_scope.h"

#include <absl/base/thread_annotations.h>

#include <utility>

#include "util/mutex.h"

namespace reservationd {
namespace {

// The manager says why it refuses a request or ends a job in its records up to this level, and nowhere else. They are
// made whatever the level of the daemon's log, which drops those that it is not to hold.
constexpr int kReasonLevel = 3;

// Of the scope that the thread is in.
thread_local ManagerContext* t_context = nullptr;

void TakeRecord(const LogRecord& record) {
    if (record.level <= kReasonLevel) t_context->reason = record.message;
    if (t_context->log) t_context->log(record);
}

// Passes events on to the thread's context.
class EventDispatcher final : public EventManager {
public:
    void AddReservationCreatedEvent(const char* key) override {
        t_context->event_manager->AddReservationCreatedEvent(key);
    }
    void AddReservationUpdatedEvent(const char* key) override {
        t_context->event_manager->AddReservationUpdatedEvent(key);
    }
    void AddReservationRemovedEvent(const char* key) override {
        t_context->event_manager->AddReservationRemovedEvent(key);
    }
};

// The pointers, which are the same for all scopes that are open, and are written only while none is.
class SharedPointers {
public:
    void Acquire(OptionInfo* options) {
        const util::MutexLock lock(&mutex_);
        if (g_option_info != options) mutex_.Await(absl::Condition(this, &SharedPointers::IsUnused));
        if (num_scopes_++ > 0) return;
        old_options_ = std::exchange(g_option_info, options);
        old_event_manager_ = std::exchange(g_event_manager, &dispatcher_);
        if (log_check_level("RESERVE", kReasonLevel) == 0) log_set_level(kReasonLevel);
        log_set_sink(&TakeRecord);
    }

    void Release() {
        const util::MutexLock lock(&mutex_);
        if (--num_scopes_ > 0) return;
        log_set_sink({});
        g_event_manager = old_event_manager_;
        g_option_info = old_options_;
    }

private:
    bool IsUnused() const ABSL_SHARED_LOCKS_REQUIRED(mutex_) { return num_scopes_ == 0; }

    EventDispatcher dispatcher_;
    util::Mutex mutex_;
    int num_scopes_ ABSL_GUARDED_BY(mutex_) = 0;
    OptionInfo* old_options_ ABSL_GUARDED_BY(mutex_) = nullptr;
    EventManager* old_event_manager_ ABSL_GUARDED_BY(mutex_) = nullptr;
};

SharedPointers& Pointers() {
    static SharedPointers pointers;
    return pointers;
}

}    // namespace

ManagerScope::ManagerScope(ManagerContext& context) {
    Pointers().Acquire(context.options.get());
    context.reason.clear();
    t_context = &context;
}

ManagerScope::~ManagerScope() {
    t_context = nullptr;
    Pointers().Release();
}

}    // namespace reservationd
