#include "client/client.h"

namespace client {

absl::Status ToAbslStatus(const grpc::Status& status) {
    // The numbers are the same.
    return absl::Status(static_cast<absl::StatusCode>(status.error_code()), status.error_message());
}

EventStream::EventStream(v1::ReservationService::Stub& stub, const v1::WatchRequest& request)
    : reader_(stub.Watch(&context_, request)) {}

EventStream::~EventStream() { Cancel(); }

absl::StatusOr<v1::Event> EventStream::Next() {
    v1::Event event;
    if (reader_->Read(&event)) return event;
    const grpc::Status status = reader_->Finish();
    return status.ok() ? absl::UnavailableError("the daemon has ended the stream") : ToAbslStatus(status);
}

absl::StatusOr<Client> Client::Make(const ConnectionOptions& options) {
    const auto channel = MakeChannel(options);
    if (!channel.ok()) return channel.status();
    return Client(options, v1::ReservationService::NewStub(*channel));
}

std::unique_ptr<EventStream> Client::Watch(const v1::WatchRequest& request) const {
    return std::make_unique<EventStream>(*stub_, request);
}

std::unique_ptr<Session> Client::OpenSession() const { return std::make_unique<Session>(*stub_, options_.timeout); }

}    // namespace client
