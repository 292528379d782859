// What the program does with one call to the daemon.

#pragma once

#include <cstdint>

#include "ctl/client.h"
#include "ctl/errors.h"

namespace reservationctl {

// How replies are printed: in words, or as the JSON form of the reply's message. Refusals go to standard error in words
// in both cases.
enum class Format { kText, kJson };

// Each sends its request, prints the reply to standard output, and returns kDone, or kRefused when the manager refuses.
// Throws what Client throws.
ExitStatus CreateReservation(Client& client, const reservation::v1::CreateReservationRequest& request, Format format);
ExitStatus UpdateReservation(Client& client, const reservation::v1::UpdateReservationRequest& request, Format format);
ExitStatus DeleteReservation(Client& client, const reservation::v1::DeleteReservationRequest& request, Format format);

// In words, one line for each: without details, its key alone.
ExitStatus ListReservations(Client& client, const reservation::v1::GetReservationsRequest& request, Format format);
ExitStatus ShowReservation(Client& client, const reservation::v1::GetReservationsRequest& request, Format format);

ExitStatus BeginJob(Client& client, const reservation::v1::BeginJobRequest& request, Format format);
ExitStatus EndJob(Client& client, const reservation::v1::EndJobRequest& request, Format format);
ExitStatus ListJobs(Client& client, const reservation::v1::ListJobsRequest& request, Format format);
ExitStatus ReportPort(Client& client, const reservation::v1::ReportPortRequest& request, Format format);
ExitStatus ShowStatus(Client& client, Format format);

// Prints events as they come, `count` of them; 0: without end.
ExitStatus WatchEvents(Client& client, const reservation::v1::WatchRequest& request, uint64_t count, Format format);

}    // namespace reservationctl
