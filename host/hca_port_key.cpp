#include "host/hca_port_key.h"

#include <cinttypes>
#include <cstdio>

std::string HcaPortKey::ToString() const {
    char text[sizeof("0x0123456789abcdef/255")];
    std::snprintf(text, sizeof(text), "0x%016" PRIx64 "/%u", guid, port_num);
    return text;
}
