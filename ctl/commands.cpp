#include "ctl/commands.h"

#include <fmt/format.h>
#include <google/protobuf/util/json_util.h>

#include <iostream>

#include "ctl/describe.h"
#include "ctl/refusal.h"
#include "util/text.h"

namespace reservationctl {

namespace {

enum class Layout { kIndented, kOneLine };

void PrintJson(const google::protobuf::Message& message, Layout layout = Layout::kIndented) {
    google::protobuf::util::JsonPrintOptions options;
    options.add_whitespace = layout == Layout::kIndented;
    options.always_print_primitive_fields = true;
    std::string text;
    const auto status = google::protobuf::util::MessageToJsonString(message, &text, options);
    if (!status.ok()) throw Error(ExitStatus::kRefused, "the reply has no JSON form: " + std::string(status.message()));
    std::cout << text << (text.ends_with('\n') ? "" : "\n");
}

// Prints the reply: as JSON, or with `describe`, which returns its text.
template <typename Reply, typename Describe>
void Print(const Reply& reply, Format format, Describe describe) {
    if (format == Format::kJson) return PrintJson(reply);
    std::cout << describe();
}

// Prints the reply to a create, update or delete.
template <typename Request>
ExitStatus PrintChange(const Client& client, const Request& request, Format format, const std::string& done) {
    const v1::ReservationReply reply = Call(client, request);
    const bool is_done = IsCarriedOut(reply);
    if (format == Format::kJson) PrintJson(reply);
    if (!is_done) return ReportRefusal(reply);
    if (format == Format::kText) {
        if (!reply.picked_nodes().empty()) std::cout << "picked: " << util::Printable(reply.picked_nodes()) << "\n";
        std::cout << (request.dry_run() ? "would be " : "") << done << ":\n"
                  << DescribeInTable(reply.reservations()) << Describe(reply.consequences(), request.dry_run());
    }
    return ExitStatus::kDone;
}

ExitStatus PrintReservations(const Client& client, const v1::GetReservationsRequest& request, Format format,
                             std::string (*describe)(const v1::ReservationReply& reply)) {
    const v1::ReservationReply reply = CallForAllPages(client, request);
    if (format == Format::kJson) PrintJson(reply);
    if (reply.status() != v1::STATUS_SUCCESS) return ReportRefusal(reply);
    if (format == Format::kText) std::cout << describe(reply);
    return ExitStatus::kDone;
}

ExitStatus PrintNodes(const Client& client, const v1::ListNodesRequest& request, Format format,
                      std::string (*describe)(const google::protobuf::RepeatedPtrField<v1::NodeInfo>& nodes)) {
    const v1::ListNodesReply reply = CallForAllPages(client, request);
    Print(reply, format, [&] { return describe(reply.nodes()); });
    return ExitStatus::kDone;
}

std::string DescribeKeys(const v1::ReservationReply& reply) {
    std::string text;
    for (const v1::Reservation& reservation : reply.reservations()) text += util::Printable(reservation.key()) + "\n";
    return text;
}

std::string DescribeReservations(const v1::ReservationReply& reply) { return DescribeInTable(reply.reservations()); }

std::string DescribeInFull(const v1::ReservationReply& reply) {
    std::string text;
    for (const v1::Reservation& reservation : reply.reservations()) text += Describe(reservation);
    return text;
}

}    // namespace

ExitStatus CreateReservation(const Client& client, const v1::CreateReservationRequest& request, Format format) {
    return PrintChange(client, request, format, "in force");
}

ExitStatus UpdateReservation(const Client& client, const v1::UpdateReservationRequest& request, Format format) {
    return PrintChange(client, request, format, "in force");
}

ExitStatus DeleteReservation(const Client& client, const v1::DeleteReservationRequest& request, Format format) {
    return PrintChange(client, request, format, "deleted");
}

ExitStatus ListReservations(const Client& client, const v1::GetReservationsRequest& request, Format format) {
    return PrintReservations(client, request, format, request.with_details() ? DescribeReservations : DescribeKeys);
}

ExitStatus ShowReservation(const Client& client, const v1::GetReservationsRequest& request, Format format) {
    return PrintReservations(client, request, format, DescribeInFull);
}

ExitStatus BeginJob(const Client& client, const v1::BeginJobRequest& request, Format format) {
    const v1::BeginJobReply reply = Call(client, request);
    const bool is_admitted = reply.result() == v1::BeginJobReply::RESULT_ADMITTED;
    if (format == Format::kJson) PrintJson(reply);
    if (!is_admitted) return ReportRefusal(reply);
    if (format == Format::kText) {
        std::cout << "job " << request.job_id() << " admitted to reservation "
                  << util::Printable(reply.reservation_key()) << ", id " << reply.reservation_id() << "\n";
    }
    return ExitStatus::kDone;
}

ExitStatus EndJob(const Client& client, const v1::EndJobRequest& request, Format format) {
    const v1::EndJobReply reply = Call(client, request);
    Print(reply, format, [&] {
        return fmt::format("job {} {}\n", request.job_id(), reply.was_running() ? "ended" : "was not running");
    });
    return ExitStatus::kDone;
}

ExitStatus ListJobs(const Client& client, const v1::ListJobsRequest& request, Format format) {
    const v1::ListJobsReply reply = CallForAllPages(client, request);
    Print(reply, format, [&] { return DescribeInTable(reply.jobs()); });
    return ExitStatus::kDone;
}

ExitStatus ShowHolders(const Client& client, const v1::ListNodesRequest& request, Format format) {
    return PrintNodes(client, request, format, DescribeHcas);
}

ExitStatus ListNodes(const Client& client, const v1::ListNodesRequest& request, Format format) {
    return PrintNodes(client, request, format, DescribeNodes);
}

ExitStatus ReportPort(const Client& client, const v1::ReportPortRequest& request, Format format) {
    const v1::ReportPortReply reply = Call(client, request);
    Print(reply, format, [&] {
        const std::string& key = reply.reservation_key();
        return fmt::format("{}: the HCA is in {}\n", reply.acted() ? "changed" : "nothing changed",
                           key.empty() ? "no reservation" : "reservation " + util::Printable(key));
    });
    return ExitStatus::kDone;
}

ExitStatus ShowStatus(const Client& client, const v1::GetDaemonInfoRequest& request, Format format) {
    const v1::DaemonInfo info = Call(client, request);
    Print(info, format, [&] { return Describe(info); });
    return ExitStatus::kDone;
}

ExitStatus WatchEvents(const Client& client, const v1::WatchRequest& request, uint64_t count, Format format) {
    const auto events = client.Watch(request);
    for (uint64_t printed = 0; std::cout.good() && (count == 0 || printed < count);) {
        const absl::StatusOr<v1::Event> event = events->Next();
        if (!event.ok()) throw ErrorOf(event.status(), client);
        if (format == Format::kJson) {
            PrintJson(*event, Layout::kOneLine);
        } else {
            std::cout << Describe(*event);
        }
        std::cout.flush();
        if (event->kind() != v1::Event::KIND_NONE) ++printed;
    }
    return ExitStatus::kDone;
}

}    // namespace reservationctl
