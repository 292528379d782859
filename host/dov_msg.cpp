#include "host/dov_msg.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "host/record_text.h"
#include "messages/vesk_messages.h"

int dov_msg_pack(uint64_t, int type, uint64_t, const vesk_dov_msg* msg, char** buffer, uint64_t* length) {
    *buffer = nullptr;
    *length = 0;
    if (type != VESK_MSG_TYPE_RESERVATION_INFO) return -1;
    const auto* info = static_cast<const vesk_reservation_info*>(msg->data);
    const std::optional<size_t> max_size = MaxRecordTextSize(info);
    if (!max_size) return -1;
    *buffer = static_cast<char*>(std::malloc(*max_size));
    if (*buffer == nullptr) return -1;
    *length = WriteRecordText(info, *buffer);
    return 0;
}

int dov_msg_unpack(uint64_t, int type, const char* buffer, vesk_dov_msg** msg) {
    *msg = nullptr;
    if (type != VESK_MSG_TYPE_RESERVATION_INFO) return -1;
    std::optional<RecordPointer> info = ReadRecordText(buffer);
    if (!info) return -1;
    auto unpacked = std::make_unique<vesk_dov_msg>();
    unpacked->data = info->release();
    *msg = unpacked.release();
    return 0;
}

bool dov_msg_fills(int type, const char* buffer, uint64_t size) {
    return type == VESK_MSG_TYPE_RESERVATION_INFO && std::strlen(buffer) == size;    // packed text holds no NUL
}

void dov_vesk_msg_release(int type, vesk_dov_msg* msg) {
    if (msg == nullptr || type != VESK_MSG_TYPE_RESERVATION_INFO) return;
    const RecordPointer info(static_cast<vesk_reservation_info*>(msg->data));
    delete msg;
}
