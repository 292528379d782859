#include "replay/target/reservation_service.h"

#include "messages/vesk_messages.h"

std::string StatusName(uint32_t status) {
    switch (status) {
        case VESK_STATUS_SUCCESS:
            return "success";
        case VESK_STATUS_DUPLICATE_GUID:
            return "duplicate_guid";
        case VESK_STATUS_GUID_RESERVED:
            return "guid_reserved";
        case VESK_STATUS_INVALID_KEY:
            return "invalid_key";
        case VESK_STATUS_INVALID_GUIDS:
            return "invalid_guids";
        case VESK_STATUS_NOT_FOUND:
            return "not_found";
        case VESK_STATUS_HAS_JOBS:
            return "has_jobs";
        case VESK_STATUS_MODE_DISABLED:
            return "mode_disabled";
        case VESK_STATUS_PKEY_MISMATCH:
            return "pkey_mismatch";
        case VESK_STATUS_LIMITS_MISMATCH:
            return "limits_mismatch";
        case VESK_STATUS_GUIDS_USED_BY_JOB:
            return "guids_used_by_job";
        case ReservationService::kNoReply:
            return "no_reply";
        case ReservationService::kLimitsExceeded:
            return "limits_exceeded";
        case ReservationService::kAlreadyRunning:
            return "already_running";
        default:
            return "status_" + std::to_string(status);
    }
}
