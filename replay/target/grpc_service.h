// The operations of a running daemon, by gRPC.

#pragma once

#include <grpcpp/channel.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "replay/target/reservation_service.h"
#include "reservation/v1/reservation.grpc.pb.h"

// A call was not carried out, or it is not known whether it was. The text names the daemon's address, and says why.
class CallError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The calls throw CallError.
class GrpcService : public ReservationService {
public:
    // `address` is the channel's, for messages.
    GrpcService(std::string address, const std::shared_ptr<grpc::Channel>& channel);

    uint32_t CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                               uint32_t num_trees) override;
    uint32_t UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                               std::vector<uint64_t> removed) override;
    uint32_t DeleteReservation(const std::string& key) override;
    JobVerdict BeginJob(const JobRequest& job) override;
    uint32_t EndJob(uint64_t job_id) override;
    uint32_t ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) override;

    // The keys of all reservations.
    std::vector<std::string> ReservationKeys() const;

    uint64_t NumJobs() const;
    reservation::v1::DaemonInfo GetDaemonInfo() const;

    // For what is not above.
    reservation::v1::ReservationService::Stub& stub() const { return *stub_; }

    // What to throw for a call that ended with this status, which is not OK.
    CallError ErrorOf(const grpc::Status& status) const;

private:
    template <typename Reply, typename Method, typename Request>
    Reply Call(Method method, const Request& request) const;

    std::string address_;
    std::unique_ptr<reservation::v1::ReservationService::Stub> stub_;
};
