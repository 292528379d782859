// The envelope in which a message record travels, and in which it is stored in a file.

#pragma once

#include <cstdint>

// Type of the message that carries one vesk_reservation_info.
inline constexpr int VESK_MSG_TYPE_RESERVATION_INFO = 16;

struct vesk_dov_msg {
    uint64_t header[2];    // zero; reserved for the messaging layer
    void* data;    // the message's record; null when it carries none
};
