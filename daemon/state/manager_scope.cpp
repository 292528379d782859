#include "daemon/state/manager_scope.h"

#include <utility>

namespace reservationd {
namespace {

// The manager says why it refuses a request or ends a job in its records up to this level, and nowhere else. They are
// made whatever the level of the daemon's log, which drops those that it is not to hold.
constexpr int kReasonLevel = 3;

}    // namespace

ManagerScope::ManagerScope(ManagerContext& context)
    : old_options_(std::exchange(g_option_info, &context.options)),
      old_fabric_(std::exchange(g_fabric, &context.fabric)),
      old_event_manager_(std::exchange(g_event_manager, context.event_manager)) {
    context.reason.clear();
    if (log_check_level("RESERVE", kReasonLevel) == 0) log_set_level(kReasonLevel);
    log_set_sink([&context](const LogRecord& record) {
        if (record.level <= kReasonLevel) context.reason = record.message;
        if (context.log) context.log(record);
    });
}

ManagerScope::~ManagerScope() {
    log_set_sink({});
    g_event_manager = old_event_manager_;
    g_fabric = old_fabric_;
    g_option_info = old_options_;
}

}    // namespace reservationd
