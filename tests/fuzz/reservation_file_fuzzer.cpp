// Any content of a reservation file: as it is, and sealed with the right checksum, so that what is behind the checksum
// is reached too. What is accepted must be exactly what packing it again gives.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/dov_msg.h"
#include "host/hash_bytes.h"

namespace {

void Try(const std::string& text) {
    vesk_dov_msg* msg = nullptr;
    const int result = dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, text.c_str(), &msg);
    if ((result == 0) != (msg != nullptr)) std::abort();
    if (msg == nullptr) return;

    char* buffer = nullptr;
    uint64_t length = 0;
    if (dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, msg, &buffer, &length) != 0) std::abort();
    if (std::string(buffer, length) != text.c_str()) std::abort();
    std::free(buffer);
    dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg);
}

}    // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Try(text);

    const std::string body = text.substr(0, text.find('\0'));
    char seal[64];
    std::snprintf(seal, sizeof(seal), "checksum 0x%016lx\n", HashBytes(body));
    Try(body + seal);
    return 0;
}
