// The operations of a running daemon, as a replay asks for them.

#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "client/client.h"
#include "replay/target/target_client.h"

namespace replay {

// A call that gets no reply throws std::runtime_error, with a message that names the daemon's address.
class DaemonClient : public TargetClient {
public:
    // Clients that share a session, which is one of their common connection, have their operations under way together.
    // Without a session each operation is a call of its own.
    explicit DaemonClient(std::shared_ptr<const client::Client> connection,
                          std::shared_ptr<client::Session> session = nullptr)
        : connection_(std::move(connection)), session_(std::move(session)) {}

    uint32_t CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids,
                               uint32_t num_trees) override;
    uint32_t UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                               std::vector<uint64_t> removed) override;
    uint32_t DeleteReservation(const std::string& key) override;
    BeginJobResult BeginJob(const JobRequest& job) override;
    uint32_t EndJob(uint64_t job_id) override;
    uint32_t ReportPkeys(uint64_t guid, const std::set<uint16_t>& pkeys) override;

    std::vector<std::string> ReservationKeys() const;
    client::v1::DaemonInfo GetDaemonInfo() const;

    // The events from this one on. The stream must not outlive the client.
    std::unique_ptr<client::EventStream> Watch(uint64_t from_sequence) const;

    // The error of a call or stream that ended with this status. REQUIRES: it is not OK.
    std::runtime_error ErrorFor(const absl::Status& status) const;

private:
    template <typename Request>
    auto Call(const Request& request) const;

    client::v1::OperationReply Perform(const client::v1::Operation& operation) const;
    client::v1::OperationReply PerformAsCall(const client::v1::Operation& operation) const;

    const std::shared_ptr<const client::Client> connection_;
    const std::shared_ptr<client::Session> session_;    // null: none
};

}    // namespace replay
