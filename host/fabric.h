// The daemon's view of the fabric, as far as the reservation manager touches it.

#pragma once

#include <cstdint>

struct Fabric {
    // Create and update-by-delta requests that were answered with a nonzero status. Only ever grows.
    uint64_t failed_reservation_requests = 0;
};

// Never null: it starts out pointing to a fabric of the host layer's own. The daemon owns the one it sets.
extern Fabric* g_fabric;
