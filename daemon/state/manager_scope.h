// The process-wide pointers that a ReservationManager reads while it runs.

#pragma once

#include <functional>
#include <string>

#include "host/event_manager.h"
#include "host/fabric.h"
#include "host/log.h"
#include "host/option_info.h"

namespace reservationd {

// What one manager is to find behind these pointers.
struct ManagerContext {
    OptionInfo options;
    Fabric fabric;
    EventManager* event_manager = nullptr;    // not owned; not null while a scope is open
    std::function<void(const LogRecord&)> log;    // receives the manager's records; may be empty
    std::string reason;    // the latest record of the current or last scope that can say why something was refused
};

// Points the process-wide pointers at a context, and the records at its log, while it lives. Scopes do not overlap:
// one manager runs at a time.
class ManagerScope {
public:
    // `context` must outlive the scope.
    explicit ManagerScope(ManagerContext& context);
    ManagerScope(const ManagerScope&) = delete;
    ManagerScope& operator=(const ManagerScope&) = delete;
    ~ManagerScope();

private:
    OptionInfo* const old_options_;
    Fabric* const old_fabric_;
    EventManager* const old_event_manager_;
};

}    // namespace reservationd
