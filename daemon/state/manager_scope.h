// The process-wide pointers that a ReservationManager reads while it runs.

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/event_manager.h"
#include "host/log.h"
#include "host/option_info.h"

namespace reservationd {

// What one manager is to find behind these pointers.
struct ManagerContext {
    std::shared_ptr<OptionInfo> options;    // not null; contexts may share them, so that nobody changes them
    EventManager* event_manager = nullptr;    // not owned; not null while a scope is open
    std::function<void(const LogRecord&)> log;    // receives the manager's records; may be empty
    std::string reason;    // the latest record of the current or last scope that can say why something was refused
};

// While it lives, the managers that its thread runs find the context behind the process-wide pointers, and its log
// behind the records. A thread has one scope at a time. Scopes of several threads overlap when their contexts share the
// options; otherwise the later one waits for the others to end.
class ManagerScope {
public:
    // `context` must outlive the scope.
    explicit ManagerScope(ManagerContext& context);
    ManagerScope(const ManagerScope&) = delete;
    ManagerScope& operator=(const ManagerScope&) = delete;
    ~ManagerScope();
};

}    // namespace reservationd
