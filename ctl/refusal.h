// Why a request was not carried out, and what to do about it.

#pragma once

#include <string>

#include "ctl/errors.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationctl {

// Whether a create, update or delete was carried out, or would be. Where reservations are made from pkeys, the daemon
// ignores such requests and answers with success all the same.
bool IsCarriedOut(const reservation::v1::ReservationReply& reply);

// Both are whole lines: the status, its meaning, the daemon's own words, what is in the way, and what helps. The reply
// is one of a request that was refused or ignored.
std::string DescribeRefusal(const reservation::v1::ReservationReply& reply);
std::string DescribeRefusal(const reservation::v1::BeginJobReply& reply);

// Prints such a description to standard error. Returns kNoSuchReservation where that is why, else kRefused.
ExitStatus ReportRefusal(const reservation::v1::ReservationReply& reply);
ExitStatus ReportRefusal(const reservation::v1::BeginJobReply& reply);

}    // namespace reservationctl
