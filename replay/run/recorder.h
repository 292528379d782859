// Counts what the reservation manager tells the daemon: events and log records.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "host/event_manager.h"
#include "host/log.h"

struct Recorded {
    uint64_t created_events = 0;
    uint64_t updated_events = 0;
    uint64_t removed_events = 0;
    std::array<uint64_t, 5> records{};    // by level, level 1 first
    uint64_t failed_requests = 0;    // the fabric's counter
};

class Recorder : public EventManager {
public:
    Recorded start_up;    // while the manager starts up
    Recorded replay;    // from then on

    // What follows is counted in `replay`.
    void EndStartUp() { current_ = &replay; }

    void AddReservationCreatedEvent(const char*) override { ++current_->created_events; }
    void AddReservationUpdatedEvent(const char*) override { ++current_->updated_events; }
    void AddReservationRemovedEvent(const char*) override { ++current_->removed_events; }

    // A sink of the log. Records of levels 1 and 2 go to standard error too: they tell of faults and losses.
    void AddRecord(const LogRecord& record);

private:
    Recorded* current_ = &start_up;
};
