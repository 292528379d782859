#include "host/event_manager.h"

namespace {

class IgnoringEventManager : public EventManager {
public:
    void AddReservationCreatedEvent(const char*) override {}
    void AddReservationUpdatedEvent(const char*) override {}
    void AddReservationRemovedEvent(const char*) override {}
};

IgnoringEventManager g_ignoring_event_manager;

}    // namespace

EventManager* g_event_manager = &g_ignoring_event_manager;
