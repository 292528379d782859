// The connection to the daemon.

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "reservation/v1/reservation.pb.h"

namespace reservationctl {

struct Connection {
    std::string address;    // unix:PATH, or host:port with mutual TLS
    std::string tls_ca;    // paths of PEM files; empty: not given
    std::string tls_certificate;
    std::string tls_key;
    std::chrono::seconds timeout{30};    // of each call
};

// Each call waits for its reply, which may be a refusal by the manager. It throws Error when there is none: with
// kNoDaemon when nobody answers in time, kWrongUsage when the daemon finds the request malformed, and kRefused
// otherwise.
class Client {
public:
    // Does not connect yet. Throws UsageError, which names the option or file at fault.
    explicit Client(const Connection& connection);
    ~Client();

    reservation::v1::ReservationReply Call(const reservation::v1::CreateReservationRequest& request);
    reservation::v1::ReservationReply Call(const reservation::v1::UpdateReservationRequest& request);
    reservation::v1::ReservationReply Call(const reservation::v1::DeleteReservationRequest& request);
    reservation::v1::ReservationReply Call(const reservation::v1::GetReservationsRequest& request);
    reservation::v1::BeginJobReply Call(const reservation::v1::BeginJobRequest& request);
    reservation::v1::EndJobReply Call(const reservation::v1::EndJobRequest& request);
    reservation::v1::ListJobsReply Call(const reservation::v1::ListJobsRequest& request);
    reservation::v1::ReportPortReply Call(const reservation::v1::ReportPortRequest& request);
    reservation::v1::DaemonInfo Call(const reservation::v1::GetDaemonInfoRequest& request);

    // Hands over each event as it comes, without a time limit, until `take` returns false. Throws when the stream ends
    // before that.
    void Watch(const reservation::v1::WatchRequest& request,
               const std::function<bool(const reservation::v1::Event& event)>& take);

private:
    struct Stub;

    template <typename Reply, typename Method, typename Request>
    Reply CallMethod(Method method, const Request& request);

    std::string address_;
    std::chrono::seconds timeout_;
    std::unique_ptr<Stub> stub_;
};

}    // namespace reservationctl
