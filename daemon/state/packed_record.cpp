#include "daemon/state/packed_record.h"

#include <cstdint>
#include <cstdlib>
#include <new>

#include "host/dov_msg.h"

namespace reservationd {
namespace {

struct MessageReleaser {
    void operator()(vesk_dov_msg* msg) const { dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg); }
};

}    // namespace

std::string PackRecord(const vesk_reservation_info& info) {
    vesk_dov_msg msg{};
    msg.data = const_cast<vesk_reservation_info*>(&info);
    char* buffer = nullptr;
    uint64_t length = 0;
    if (dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, &msg, &buffer, &length) != 0) throw std::bad_alloc();
    const std::unique_ptr<char, decltype(&std::free)> owner(buffer, &std::free);
    return std::string(buffer, length);
}

std::unique_ptr<ReservationInfo> UnpackRecord(const std::string& packed) {
    vesk_dov_msg* msg = nullptr;
    dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, packed.c_str(), &msg);
    const std::unique_ptr<vesk_dov_msg, MessageReleaser> owner(msg);
    if (msg == nullptr || msg->data == nullptr) return nullptr;
    if (!dov_msg_fills(VESK_MSG_TYPE_RESERVATION_INFO, packed.c_str(), packed.size())) return nullptr;
    return std::make_unique<ReservationInfo>(static_cast<const vesk_reservation_info*>(msg->data));
}

}    // namespace reservationd
