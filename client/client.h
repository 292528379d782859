// The calls of the reservation service, each with the type of its request and its reply.

#pragma once

#include <absl/status/status.h>
#include <absl/status/statusor.h>
#include <grpcpp/client_context.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "client/connection.h"
#include "client/session.h"
#include "reservation/v1/reservation.grpc.pb.h"

namespace client {

namespace v1 = reservation::v1;

// The same code and message.
absl::Status ToAbslStatus(const grpc::Status& status);

// The events of a watch. One thread may read while another one cancels.
class EventStream {
public:
    EventStream(v1::ReservationService::Stub& stub, const v1::WatchRequest& request);
    ~EventStream();    // cancels

    // Waits for the next event, without a time limit. After an error there is nothing more to read: Cancelled after
    // Cancel(), Unavailable when the daemon ended or is gone, OutOfRange when it does not have the events any more.
    // REQUIRES: no earlier call returned an error.
    absl::StatusOr<v1::Event> Next();

    void Cancel() { context_.TryCancel(); }

private:
    grpc::ClientContext context_;
    std::unique_ptr<grpc::ClientReader<v1::Event>> reader_;
};

// A client of one daemon. Several threads may call at once.
class Client {
public:
    // Does not connect yet. InvalidArgument as MakeChannel().
    static absl::StatusOr<Client> Make(const ConnectionOptions& options);

    const ConnectionOptions& options() const { return options_; }

    // For messages.
    const std::string& address() const { return options_.addresses.front(); }

    // Sends the request and waits for its reply, which may be a refusal by the manager, at most options().timeout. An
    // error has the code and the message of the gRPC status. After DeadlineExceeded and Unavailable the daemon may have
    // carried the request out all the same.
    template <typename Request>
    auto Call(const Request& request) const {
        return CallMethod(MethodFor(request), request);
    }

    // Calls for one page of a listing after another, and returns them as one reply. Its version is that of the first
    // page: what comes, changes or goes while the later pages are read may be in the reply or not. An error as Call().
    template <typename Request>
    auto CallForAllPages(Request request) const {
        auto listing = Call(request);
        while (listing.ok() && !listing->next_page_token().empty()) {
            request.set_page_token(listing->next_page_token());
            auto page = Call(request);
            if (!page.ok()) return page;
            if constexpr (requires { page->clear_version(); }) page->clear_version();
            listing->clear_next_page_token();
            listing->MergeFrom(*page);
        }
        return listing;
    }

    // The stream must not outlive the client.
    std::unique_ptr<EventStream> Watch(const v1::WatchRequest& request) const;

    // The session must not outlive the client.
    std::unique_ptr<Session> OpenSession() const;

private:
    using Stub = v1::ReservationService::Stub;

    template <typename Request, typename Reply>
    using Method = grpc::Status (Stub::*)(grpc::ClientContext* context, const Request& request, Reply* reply);

    Client(const ConnectionOptions& options, std::unique_ptr<Stub> stub) : options_(options), stub_(std::move(stub)) {}

    static constexpr auto MethodFor(const v1::CreateReservationRequest&) { return &Stub::CreateReservation; }
    static constexpr auto MethodFor(const v1::UpdateReservationRequest&) { return &Stub::UpdateReservation; }
    static constexpr auto MethodFor(const v1::DeleteReservationRequest&) { return &Stub::DeleteReservation; }
    static constexpr auto MethodFor(const v1::GetReservationsRequest&) { return &Stub::GetReservations; }
    static constexpr auto MethodFor(const v1::BeginJobRequest&) { return &Stub::BeginJob; }
    static constexpr auto MethodFor(const v1::EndJobRequest&) { return &Stub::EndJob; }
    static constexpr auto MethodFor(const v1::ListJobsRequest&) { return &Stub::ListJobs; }
    static constexpr auto MethodFor(const v1::ListNodesRequest&) { return &Stub::ListNodes; }
    static constexpr auto MethodFor(const v1::TransactRequest&) { return &Stub::Transact; }
    static constexpr auto MethodFor(const v1::ReportPortRequest&) { return &Stub::ReportPort; }
    static constexpr auto MethodFor(const v1::GetDaemonInfoRequest&) { return &Stub::GetDaemonInfo; }

    template <typename Request, typename Reply>
    absl::StatusOr<Reply> CallMethod(Method<Request, Reply> method, const Request& request) const {
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + options_.timeout);
        Reply reply;
        const grpc::Status status = (stub_.get()->*method)(&context, request, &reply);
        if (!status.ok()) return ToAbslStatus(status);
        return reply;
    }

    ConnectionOptions options_;
    std::unique_ptr<Stub> stub_;
};

}    // namespace client
