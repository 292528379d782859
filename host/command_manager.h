// Where the reservation manager sends its replies and ends jobs. The daemon implements it.

#pragma once

#include <cstdint>

#include "host/dov_msg.h"
#include "host/job_manager.h"
#include "messages/vesk_messages.h"

class CommandManager : public JobManager {
public:
    // Sends a request's reply to the endpoint that made it. `list` and what it points to live until the call returns.
    // What it throws is swallowed.
    virtual void SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list,
                                         uint64_t transaction_id) const = 0;

    // A job is ended by these two calls, in this order: it fails with VESK_ERROR_RESERVATION_LOST, VESK_ERROR_TYPE_NONE
    // and both flags false, and is then told to end, with a null endpoint. The job must stay valid until the second
    // returns.
    virtual void HandleJobError(VeskJob* job, vesk_error_value value, vesk_error_type type, bool, bool) = 0;
    virtual void SendEndJob(dov_ep* ep, const VeskJob* job) = 0;
};
