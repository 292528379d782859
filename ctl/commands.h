// What the program does with one call to the daemon.

#pragma once

#include <cstdint>

#include "ctl/call.h"
#include "ctl/errors.h"

namespace reservationctl {

// How replies are printed: in words, or as the JSON form of the reply's message. Refusals go to standard error in words
// in both cases.
enum class Format { kText, kJson };

// Each sends its request, prints the reply to standard output, and returns kDone, or what ReportRefusal()
// does when the manager refuses. Throws what Call() throws.
ExitStatus CreateReservation(const Client& client, const v1::CreateReservationRequest& request, Format format);
ExitStatus UpdateReservation(const Client& client, const v1::UpdateReservationRequest& request, Format format);
ExitStatus DeleteReservation(const Client& client, const v1::DeleteReservationRequest& request, Format format);

// In words, one line for each: without details, its key alone.
ExitStatus ListReservations(const Client& client, const v1::GetReservationsRequest& request, Format format);
ExitStatus ShowReservation(const Client& client, const v1::GetReservationsRequest& request, Format format);

ExitStatus BeginJob(const Client& client, const v1::BeginJobRequest& request, Format format);
ExitStatus EndJob(const Client& client, const v1::EndJobRequest& request, Format format);
ExitStatus ListJobs(const Client& client, const v1::ListJobsRequest& request, Format format);

// In words: a line for each HCA with its node, reservation and jobs; a line for each node with its state, and the
// counts.
ExitStatus ShowHolders(const Client& client, const v1::ListNodesRequest& request, Format format);
ExitStatus ListNodes(const Client& client, const v1::ListNodesRequest& request, Format format);

ExitStatus ReportPort(const Client& client, const v1::ReportPortRequest& request, Format format);
ExitStatus ShowStatus(const Client& client, const v1::GetDaemonInfoRequest& request, Format format);

// Prints events as they come, `count` of them; 0: without end.
ExitStatus WatchEvents(const Client& client, const v1::WatchRequest& request, uint64_t count, Format format);

}    // namespace reservationctl
