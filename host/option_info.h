// The daemon's options, as far as the reservation manager reads them.

#pragma once

#include <cstdint>
#include <string>

// The defaults are those under which nothing is lost: no reservations in use, nothing taken, no job ended, and stored
// reservations loaded rather than deleted.
struct OptionInfo {
    // Directory of the reservation files, used as it stands. It is not created.
    std::string persistent_dir = "/var/lib/reservation_manager";

    // Most jobs counted on one HCA: with as many, it admits no further one. 0: no cap, and jobs are not counted per
    // HCA.
    uint16_t max_jobs_per_hca = 0;

    // Reservations are in use at all.
    bool reservation_mode = false;

    // At start-up, load the stored reservations (true) or delete their files unread (false).
    bool load_persistent_reservations = true;

    // A request may take GUIDs of another reservation, which is then deleted whole.
    bool reservation_allow_guid_override = false;

    // A change or deletion that takes HCAs from running jobs ends those jobs instead of being refused.
    bool reservation_allow_ending_jobs = false;

    // With reservation_mode: reservations follow the fabric's pkeys, and the clients' changes are ignored.
    bool reservation_auto_by_pkeys = false;

    // Trees limit, per plane, of a reservation that gives none; not capped. 0xFFFFFFFF: no limit, which 24575 stands
    // for in a reservation.
    uint32_t reservation_default_num_trees = 0xFFFFFFFF;
};

// The options in force, read at each use. Never null: it starts out pointing to a block of defaults. The daemon owns
// the block it sets, and keeps it for as long as a manager is in use.
extern OptionInfo* g_option_info;
