// The records that the reservation manager exchanges with its clients, and the numbers that they carry.
//
// They are plain records with natural alignment. A record never owns what its pointers point to: a GUID array belongs
// to whoever built the record, and a receiver that keeps a list copies it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// A reservation's key is a NUL-terminated string of at most VESK_KEY_LENGTH bytes, compared byte by byte. A key whose
// first byte is NUL is the empty key. Whoever builds a record guarantees the terminating NUL.
inline constexpr size_t VESK_KEY_LENGTH = 256;
inline constexpr size_t VESK_KEY_SIZE = VESK_KEY_LENGTH + 1;

// The resource limits of a reservation. The manager interprets one of them, the number of reduction trees that the
// reservation's jobs may use together; it stores, echoes and compares the others.
inline constexpr size_t VESK_NUM_LIMITS = 7;
inline constexpr size_t VESK_LIMIT_NUM_TREES = 3;
inline constexpr uint32_t VESK_LIMIT_NOT_GIVEN = 0xFFFFFFFF;

// vesk_reservation_info_list::status
inline constexpr uint32_t VESK_STATUS_SUCCESS = 0;
inline constexpr uint32_t VESK_STATUS_DUPLICATE_GUID = 2;    // a GUID twice, or one to add that is already there
inline constexpr uint32_t VESK_STATUS_GUID_RESERVED = 6;    // a GUID of another reservation that may not be taken
inline constexpr uint32_t VESK_STATUS_INVALID_KEY = 7;    // empty key; delta of a reservation that does not exist
inline constexpr uint32_t VESK_STATUS_INVALID_GUIDS = 8;    // no GUIDs, GUID 0, or GUIDs to remove that are not there
inline constexpr uint32_t VESK_STATUS_NOT_FOUND = 9;    // no reservation with that key
inline constexpr uint32_t VESK_STATUS_HAS_JOBS = 10;    // the reservation to delete still has jobs
inline constexpr uint32_t VESK_STATUS_MODE_DISABLED = 11;    // reservation mode is off
inline constexpr uint32_t VESK_STATUS_PKEY_MISMATCH = 12;    // the existing reservation has another pkey
inline constexpr uint32_t VESK_STATUS_LIMITS_MISMATCH = 13;    // the existing reservation has other limits
inline constexpr uint32_t VESK_STATUS_GUIDS_USED_BY_JOB = 14;    // a running job uses GUIDs that would leave

// What the admission check of a job answers when the job would exceed a limit.
inline constexpr int VESK_ADMISSION_REFUSED = 11;

// vesk_reservation_info::state
inline constexpr uint32_t VESK_STATE_NONE = 0;    // in the reply to a request that failed
inline constexpr uint32_t VESK_STATE_ACTIVE = 1;    // every reservation that the manager made
inline constexpr uint32_t VESK_STATE_DELETED = 3;    // in the reply to a successful delete

// Why the manager ends a job. The command manager gives the values their meaning.
enum vesk_error_value : uint32_t { VESK_ERROR_RESERVATION_LOST = 8 };
enum vesk_error_type : uint32_t { VESK_ERROR_TYPE_NONE = 0 };

// One reservation: an entry of a reply, the head of the manager's own record, and the content of a reservation file.
struct vesk_reservation_info {
    char reservation_key[VESK_KEY_SIZE];
    uint16_t pkey;    // partition key under which the reservation's hosts run
    uint32_t state;    // VESK_STATE_...
    uint32_t num_guids;
    uint64_t* guids;    // HCA GUIDs; ascending and without duplicates in a stored reservation
    uint32_t limits[VESK_NUM_LIMITS];    // VESK_LIMIT_NOT_GIVEN where there is none
    uint8_t auto_created;    // 1: made by the manager from pkeys; else what the create request carried
};

// Request: create the reservation, or replace the GUID list of the one that has this key.
struct vesk_create_reservation {
    char reservation_key[VESK_KEY_SIZE];
    uint16_t pkey;    // of an existing reservation: must be the same
    uint32_t num_guids;
    uint64_t* guids;    // the complete list; sorted in place by the manager
    uint32_t limits[VESK_NUM_LIMITS];    // of an existing reservation: the same, or VESK_LIMIT_NOT_GIVEN
    uint8_t auto_created;
};

// Request: describe one reservation, or all of them.
struct vesk_reservation_info_request {
    char reservation_key[VESK_KEY_SIZE];    // empty: all reservations
    uint32_t with_details;    // 0: key, pkey and state only
};

// Request: delete the reservation.
struct vesk_delete_reservation {
    char reservation_key[VESK_KEY_SIZE];
};

// Request: add GUIDs to an existing reservation and remove GUIDs from it. A list of count 0 may be null; both lists are
// sorted in place by the manager.
struct vesk_update_reservation_by_delta {
    char reservation_key[VESK_KEY_SIZE];
    uint32_t num_guids_to_add;
    uint32_t num_guids_to_remove;
    uint64_t* guids_to_add;
    uint64_t* guids_to_remove;
};

// The reply to each of the requests. It and all that it points to live until the call that sends it returns.
struct vesk_reservation_info_list {
    uint64_t num_reservations;
    vesk_reservation_info* reservations;    // null when there are none
    uint32_t status;    // VESK_STATUS_...
};

// Copies `source`, a NUL-terminated string, into a record's key, cut to VESK_KEY_LENGTH bytes.
inline void vesk_copy_key(char (&key)[VESK_KEY_SIZE], const char* source) {
    const size_t length = strnlen(source, VESK_KEY_LENGTH);
    std::memcpy(key, source, length);
    key[length] = '\0';
}
