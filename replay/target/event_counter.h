// Counts a daemon's events as they come.

#pragma once

#include <grpcpp/client_context.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "replay/run/recorder.h"
#include "replay/target/grpc_service.h"

class EventCounter {
public:
    // Counts the events after the one with this number. The service must outlive the counter.
    EventCounter(const GrpcService& service, uint64_t last_sequence);
    EventCounter(const EventCounter&) = delete;
    EventCounter& operator=(const EventCounter&) = delete;
    ~EventCounter();

    // Waits until the event with this number has been counted. Throws CallError when it will not be.
    void WaitFor(uint64_t sequence);

    // What has been counted so far; of the log nothing is known.
    Recorded recorded() const;
    uint64_t num_ended_jobs() const;

private:
    void Read();
    void Count(const reservation::v1::Event& event);

    const GrpcService& service_;
    grpc::ClientContext context_;

    mutable std::mutex mutex_;    // guards what follows
    std::condition_variable change_;
    Recorded recorded_;
    uint64_t num_ended_jobs_ = 0;
    uint64_t last_sequence_;
    bool is_over_ = false;
    grpc::Status status_;    // when it is over

    std::thread thread_;    // last: it uses all of the above
};
