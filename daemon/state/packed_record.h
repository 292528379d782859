// A reservation's record as text: what the store keeps of it, and what its file holds.

#pragma once

#include <memory>
#include <string>

#include "reservation/reservation_manager.h"

namespace reservationd {

// Packs the record as dov_msg_pack does. Throws std::bad_alloc.
std::string PackRecord(const vesk_reservation_info& info);

// Returns the reservation whose record was packed to this text, or null when the text is damaged. Only the fields of
// the record are set.
std::unique_ptr<ReservationInfo> UnpackRecord(const std::string& packed);

}    // namespace reservationd
