#include "integrations/slurm/admission.h"

#include <absl/container/flat_hash_set.h>
#include <absl/strings/ascii.h>
#include <absl/strings/str_join.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>

#include <optional>
#include <vector>

#include "ctl/refusal.h"

namespace reservation_slurm {
namespace {

// The refusal as one line, without what helps an operator.
template <typename Reply>
absl::Status RefusalOf(const Reply& reply) {
    std::vector<std::string> lines;
    for (const absl::string_view line :
         absl::StrSplit(reservationctl::DescribeRefusal(reply), '\n', absl::SkipWhitespace())) {
        const absl::string_view text = absl::StripAsciiWhitespace(line);
        if (!absl::StartsWith(text, "what helps")) lines.emplace_back(text);
    }
    return absl::FailedPreconditionError(absl::StrJoin(lines, "; "));
}

absl::Status StatusOf(const v1::OperationReply& reply) {
    if (reply.has_begin_job()) return RefusalOf(reply.begin_job());
    return RefusalOf(reply.reservation());
}

// The GUIDs of `nodes`, and those of them that are not in the reservation.
struct Hcas {
    std::vector<uint64_t> all;
    std::vector<uint64_t> missing;
};

Hcas HcasOf(const v1::ListNodesReply& nodes, const std::string& key) {
    Hcas hcas;
    for (const v1::NodeInfo& node : nodes.nodes()) {
        for (const v1::Hca& hca : node.hcas()) {
            hcas.all.push_back(hca.guid());
            if (hca.reservation_key() != key) hcas.missing.push_back(hca.guid());
        }
    }
    return hcas;
}

}    // namespace

bool IsRefusal(const absl::Status& status) {
    return absl::IsFailedPrecondition(status) || absl::IsInvalidArgument(status);
}

absl::StatusOr<std::string> Admission::Begin(const SlurmJob& job, const JobPolicy& policy, absl::Time start,
                                             absl::Time deadline) {
    v1::BeginJobRequest request;
    request.set_job_id(job.id);
    request.add_nodes(job.nodes);
    request.set_planes(policy.planes);
    request.set_trees(policy.trees);
    request.set_start_unix_millis(absl::ToUnixMillis(start));
    request.set_reservation_key(policy.mode == Mode::kExisting ? policy.reservation : config_.KeyFor(job, policy));
    if (policy.mode == Mode::kExisting) return BeginInExisting(request, deadline);
    if (policy.mode == Mode::kAccount && job.account.empty()) {
        return absl::FailedPreconditionError("the job has no account");
    }
    if (!policy.pkey) return absl::FailedPreconditionError("no pkey is configured for this job");
    absl::StatusOr<std::string> key = BeginInOwn(request, policy, deadline);
    // An earlier run may have left HCAs, if its end was not told.
    if (key.ok() && job.is_restarted) Shrink(*key, deadline).IgnoreError();
    return key;
}

absl::StatusOr<std::string> Admission::BeginInExisting(const v1::BeginJobRequest& begin, absl::Time deadline) {
    const absl::StatusOr<v1::BeginJobReply> reply = daemon_.Call(begin, deadline);
    if (!reply.ok()) return reply.status();
    if (reply->result() != v1::BeginJobReply::RESULT_ADMITTED) return RefusalOf(*reply);
    return reply->reservation_key();
}

absl::StatusOr<std::string> Admission::BeginInOwn(const v1::BeginJobRequest& begin, const JobPolicy& policy,
                                                  absl::Time deadline) {
    const auto plan = [&] { return PlanBegin(begin, policy, deadline); };
    const absl::Status status = CarryOut(plan, deadline);
    if (!status.ok()) return status;
    return begin.reservation_key();
}

absl::StatusOr<v1::TransactRequest> Admission::PlanBegin(const v1::BeginJobRequest& begin, const JobPolicy& policy,
                                                         absl::Time deadline) {
    const std::string& key = begin.reservation_key();
    v1::ListNodesRequest nodes_request;
    *nodes_request.mutable_nodes() = begin.nodes();
    const auto nodes = daemon_.CallForAllPages(nodes_request, deadline);
    if (!nodes.ok()) return nodes.status();
    v1::GetReservationsRequest reservation_request;
    reservation_request.set_key(key);
    const auto reservation = daemon_.Call(reservation_request, deadline);
    if (!reservation.ok()) return reservation.status();

    const Hcas hcas = HcasOf(*nodes, key);
    v1::TransactRequest request;
    request.mutable_allowed_consequences();
    if (reservation->status() != v1::STATUS_SUCCESS) {
        v1::CreateReservationRequest& create = *request.add_operations()->mutable_create_reservation();
        create.set_key(key);
        create.set_pkey(*policy.pkey);
        create.mutable_guids()->Add(hcas.all.begin(), hcas.all.end());
        if (policy.num_trees) create.mutable_limits()->set_num_trees(*policy.num_trees);
    } else if (!hcas.missing.empty()) {
        v1::UpdateReservationRequest& update = *request.add_operations()->mutable_update_reservation();
        update.set_key(key);
        update.mutable_add_guids()->Add(hcas.missing.begin(), hcas.missing.end());
    }
    *request.add_operations()->mutable_begin_job() = begin;
    return request;
}

absl::StatusOr<bool> Admission::End(uint64_t job_id, absl::Time latest_start, const std::string& key,
                                    absl::Time deadline) {
    v1::EndJobRequest request;
    request.set_job_id(job_id);
    request.set_start_unix_millis(absl::ToUnixMillis(latest_start));
    const auto reply = daemon_.Call(request, deadline);
    if (!reply.ok()) return reply.status();
    absl::Status status;
    if (!key.empty()) status = Shrink(key, deadline);
    const std::string& actual_key = reply->reservation_key();
    if (actual_key != key && config_.IsOwnKey(actual_key)) status.Update(Shrink(actual_key, deadline));
    if (!status.ok()) return status;
    return reply->was_running();
}

absl::Status Admission::Shrink(const std::string& key, absl::Time deadline) {
    return CarryOut([&] { return PlanShrink(key, deadline); }, deadline);
}

// The jobs are read after the reservation: one that has begun meanwhile with HCAs of its own has brought in such that
// are not among those read.
absl::StatusOr<v1::TransactRequest> Admission::PlanShrink(const std::string& key, absl::Time deadline) {
    v1::GetReservationsRequest reservation_request;
    reservation_request.set_key(key);
    reservation_request.set_with_details(true);
    const auto reservation = daemon_.Call(reservation_request, deadline);
    if (!reservation.ok()) return reservation.status();
    v1::ListJobsRequest jobs_request;
    jobs_request.set_reservation_key(key);
    const auto jobs = daemon_.CallForAllPages(jobs_request, deadline);
    if (!jobs.ok()) return jobs.status();

    v1::TransactRequest request;
    request.mutable_allowed_consequences();
    if (reservation->status() != v1::STATUS_SUCCESS) return request;
    if (jobs->jobs().empty()) {
        request.add_operations()->mutable_delete_reservation()->set_key(key);
        return request;
    }
    absl::flat_hash_set<uint64_t> used;
    for (const v1::Job& job : jobs->jobs()) used.insert(job.guids().begin(), job.guids().end());
    v1::UpdateReservationRequest update;
    update.set_key(key);
    for (const uint64_t guid : reservation->reservations(0).guids()) {
        if (!used.contains(guid)) update.add_remove_guids(guid);
    }
    if (!update.remove_guids().empty()) *request.add_operations()->mutable_update_reservation() = update;
    return request;
}

absl::Status Admission::ShrinkAll(absl::Time deadline) {
    const auto reservations = daemon_.CallForAllPages(v1::GetReservationsRequest(), deadline);
    if (!reservations.ok()) return reservations.status();
    absl::Status status;
    for (const v1::Reservation& reservation : reservations->reservations()) {
        if (config_.IsOwnKey(reservation.key())) status.Update(Shrink(reservation.key(), deadline));
    }
    return status;
}

// Makes and carries out plans until one succeeds, has nothing to do, or is refused and would be made again as it was.
template <typename Plan>
absl::Status Admission::CarryOut(const Plan& plan, absl::Time deadline) {
    std::string refused;
    for (absl::Status refusal;;) {
        const absl::StatusOr<v1::TransactRequest> request = plan();
        if (!request.ok()) return request.status();
        if (request->operations().empty()) return absl::OkStatus();
        std::string packed = request->SerializeAsString();
        if (packed == refused) return refusal;
        const auto reply = daemon_.Call(*request, deadline);
        if (!reply.ok() && !absl::IsAborted(reply.status())) return reply.status();
        if (reply.ok() && reply->accepted()) return absl::OkStatus();
        refusal = reply.ok() ? StatusOf(*reply->replies().rbegin())
                             : absl::FailedPreconditionError(std::string(reply.status().message()));
        refused = std::move(packed);
    }
}

}    // namespace reservation_slurm
