// The daemon's key of an HCA port.

#pragma once

#include <cstdint>
#include <string>

struct HcaPortKey {
    uint64_t guid = 0;    // of the HCA
    uint8_t port_num = 0;

    // As records show it: "0x0200000000a1b2c0/1".
    std::string ToString() const;
};
