// Who is told that reservations come, change and go. The daemon implements it.

#pragma once

class EventManager {
public:
    virtual ~EventManager() = default;

    // Each is given the reservation's key, which lives until the call returns.
    virtual void AddReservationCreatedEvent(const char* reservation_key) = 0;
    virtual void AddReservationUpdatedEvent(const char* reservation_key) = 0;
    virtual void AddReservationRemovedEvent(const char* reservation_key) = 0;
};

// Never null: it starts out pointing to one that ignores every event. The daemon owns the one it sets.
extern EventManager* g_event_manager;
