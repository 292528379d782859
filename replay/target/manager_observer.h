// Counts a manager's events and log records.

#pragma once

#include <array>
#include <cstdint>

#include "host/event_manager.h"
#include "host/log.h"

namespace replay {

struct ManagerCounters {
    // Events.
    uint64_t reservations_created = 0;
    uint64_t reservations_updated = 0;
    uint64_t reservations_removed = 0;

    std::array<uint64_t, 5> log_records{};    // by level, level 1 first; none of a daemon's
    uint64_t failed_requests = 0;    // as the fabric counts them
};

// The manager's event manager and, by CountLogRecord, its log sink.
class ManagerObserver : public EventManager {
public:
    ManagerCounters start_up;    // until EndStartUp()
    ManagerCounters replay;    // from then on

    void EndStartUp() { current_ = &replay; }

    void AddReservationCreatedEvent(const char*) override { ++current_->reservations_created; }
    void AddReservationUpdatedEvent(const char*) override { ++current_->reservations_updated; }
    void AddReservationRemovedEvent(const char*) override { ++current_->reservations_removed; }

    // Prints records of levels 1 and 2 too: they are about faults and losses.
    void CountLogRecord(const LogRecord& record);

private:
    ManagerCounters* current_ = &start_up;
};

}    // namespace replay
