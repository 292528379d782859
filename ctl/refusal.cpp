#include "ctl/refusal.h"

#include <absl/strings/str_join.h>
#include <fmt/format.h>

#include <iostream>
#include <string_view>
#include <vector>

#include "ctl/describe.h"
#include "util/text.h"

namespace reservationctl {

namespace v1 = reservation::v1;

namespace {

struct Explanation {
    std::string_view meaning;
    std::string_view advice;
};

Explanation Explain(v1::Status status) {
    switch (status) {
        case v1::STATUS_SUCCESS:
            return {"the daemon makes the reservations from the pkeys of the ports and ignores requests",
                    "report the pkeys with 'pkeys report', or turn the daemon's reservation-auto-by-pkeys off"};
        case v1::STATUS_DUPLICATE_GUID:
            return {"a GUID is listed twice, or is to be added and is in the reservation already",
                    "leave that GUID out"};
        case v1::STATUS_GUID_RESERVED:
            return {"a GUID belongs to another reservation and may not be taken from it",
                    "remove the GUID from that reservation first ('update KEY --remove'), or delete it; or turn the "
                    "daemon's reservation-allow-guid-override on, and reservation-allow-ending-jobs if it has jobs"};
        case v1::STATUS_INVALID_KEY:
            return {"the key is empty, or no reservation with this key can be updated",
                    "see 'list' for the keys there are, or create the reservation"};
        case v1::STATUS_INVALID_GUIDS:
            return {"there are no GUIDs, or GUID 0 is among them, or GUIDs to remove are not in the reservation",
                    "see 'show KEY' for the reservation's GUIDs"};
        case v1::STATUS_NOT_FOUND:
            return {"there is no reservation with this key", "see 'list' for the keys there are"};
        case v1::STATUS_HAS_JOBS:
            return {
                "the reservation still has jobs",
                "wait for these jobs or end them ('job end'), or turn the daemon's reservation-allow-ending-jobs on"};
        case v1::STATUS_MODE_DISABLED:
            return {"the daemon's reservation mode is off", "turn the daemon's reservation-mode on"};
        case v1::STATUS_PKEY_MISMATCH:
            return {"the reservation exists with another pkey",
                    "give the pkey that 'show KEY' tells, or delete the reservation and create it anew"};
        case v1::STATUS_LIMITS_MISMATCH:
            return {"the reservation exists with other limits",
                    "give no limits or those that 'show KEY' tells, or delete the reservation and create it anew"};
        case v1::STATUS_TOO_FEW_FREE_NODES:
            return {"too few nodes are free", "see 'nodes'; ask for fewer, or among others"};
        case v1::STATUS_GUIDS_USED_BY_JOB:
            return {
                "a running job uses GUIDs that would leave the reservation",
                "wait for these jobs or end them ('job end'), or turn the daemon's reservation-allow-ending-jobs on"};
        default:
            return {"a status that this program does not know", "see the daemon's log"};
    }
}

Explanation Explain(v1::BeginJobReply::Result result) {
    switch (result) {
        case v1::BeginJobReply::RESULT_NO_RESERVATION:
            return {"no reservation holds all of the job's HCAs",
                    "see 'list' for who holds them, and create a reservation or add them to one"};
        case v1::BeginJobReply::RESULT_LIMIT_EXCEEDED:
            return {"the reservation's trees or an HCA's jobs are used up",
                    "see 'show KEY' and 'job list'; wait for jobs to end, or ask for fewer trees"};
        case v1::BeginJobReply::RESULT_MODE_DISABLED:
            return Explain(v1::STATUS_MODE_DISABLED);
        case v1::BeginJobReply::RESULT_ALREADY_RUNNING:
            return {"a job with this id runs with other HCAs, planes or trees", "see 'job list'; use another id"};
        default:
            return {"a result that this program does not know", "see the daemon's log"};
    }
}

std::string Line(std::string_view name, std::string_view text) {
    return text.empty() ? "" : fmt::format("  {}: {}\n", name, util::Printable(text));
}

std::string DescribeConflict(const v1::Conflict& conflict) {
    std::vector<std::string> items;
    if (conflict.guid() != 0) items.push_back(fmt::format("GUID {:#x}", conflict.guid()));
    if (!conflict.node().empty()) items.back() += " of node " + conflict.node();
    if (!conflict.reservation_key().empty()) items.push_back("reservation " + conflict.reservation_key());
    if (!conflict.job_ids().empty()) {
        items.push_back(
            fmt::format("{} {}", conflict.job_ids_size() == 1 ? "job" : "jobs", JoinNumbers(conflict.job_ids())));
    }
    return absl::StrJoin(items, ", ");
}

std::string Describe(const std::string& status_name, const Explanation& explanation, const std::string& reason,
                     const v1::Conflict& conflict) {
    return fmt::format("{}: {}\n", status_name, explanation.meaning) + Line("the daemon", reason) +
           Line("in the way", DescribeConflict(conflict)) + Line("what helps", explanation.advice);
}

}    // namespace

bool IsCarriedOut(const v1::ReservationReply& reply) {
    return reply.status() == v1::STATUS_SUCCESS && reply.reservations_size() == 1 && reply.reservations(0).state() != 0;
}

std::string DescribeRefusal(const v1::ReservationReply& reply) {
    const bool is_ignored = reply.status() == v1::STATUS_SUCCESS;
    const std::string name =
        reply.status_name().empty() ? std::to_string(reply.status()) : util::Printable(reply.status_name());
    return Describe(is_ignored ? "ignored" : name, Explain(reply.status()), reply.reason(), reply.conflict());
}

std::string DescribeRefusal(const v1::BeginJobReply& reply) {
    return Describe(v1::BeginJobReply::Result_Name(reply.result()), Explain(reply.result()), reply.reason(),
                    reply.conflict());
}

// An update of a reservation that is not there has an invalid key. This program sends no other that is invalid.
ExitStatus ReportRefusal(const v1::ReservationReply& reply) {
    std::cerr << "refused: " << DescribeRefusal(reply);
    const bool is_missing = reply.status() == v1::STATUS_NOT_FOUND || reply.status() == v1::STATUS_INVALID_KEY;
    return is_missing ? ExitStatus::kNoSuchReservation : ExitStatus::kRefused;
}

ExitStatus ReportRefusal(const v1::BeginJobReply& reply) {
    std::cerr << "refused: " << DescribeRefusal(reply);
    const bool is_missing = reply.result() == v1::BeginJobReply::RESULT_NO_RESERVATION;
    return is_missing ? ExitStatus::kNoSuchReservation : ExitStatus::kRefused;
}

}    // namespace reservationctl
