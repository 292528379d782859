#include "reservation/reply.h"

#include <atomic>

#include "host/fabric.h"

namespace reservation_internal {

void Reply::SetEntry(const char* reservation_key) {
    vesk_copy_key(entry.reservation_key, reservation_key);
    list.num_reservations = 1;
    list.reservations = &entry;
}

void Reply::Send() noexcept {
    if (is_sent_) return;
    is_sent_ = true;
    // The sender may change the list.
    const uint32_t status = list.status;
    try {
        command_manager_->SendReservationInfoList(ep_, list, transaction_id_);
    } catch (...) {
    }
    if (failures_ == Failures::kNotCounted || status == VESK_STATUS_SUCCESS) return;
    // Atomic, as managers that run in several threads may share the fabric.
    std::atomic_ref(g_fabric->failed_reservation_requests).fetch_add(1, std::memory_order_relaxed);
}

}    // namespace reservation_internal
