#include "replay/target/target_client.h"

#include <absl/strings/str_cat.h>

#include "messages/vesk_messages.h"

namespace replay {

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
        case TargetClient::kNoReply:
            return "no_reply";
        case TargetClient::kLimitsExceeded:
            return "limits_exceeded";
        case TargetClient::kAlreadyRunning:
            return "already_running";
        default:
            return absl::StrCat("status_", status);
    }
}

}    // namespace replay
