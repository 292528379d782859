// The ranges of keys and numbers that requests, files and command lines may hold.

#pragma once

#include <absl/status/status.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace util {

// A reservation's file is named with this and its key; a file name has at most 255 bytes.
inline constexpr std::string_view kReservationFilePrefix = "reservation.";
inline constexpr size_t kMaxKeyBytes = 255 - kReservationFilePrefix.size();

inline constexpr uint32_t kMaxPkey = 0xffff;
inline constexpr uint32_t kMaxPortNumber = 0xff;
inline constexpr uint32_t kMaxPlanes = 0xff;    // of a job
inline constexpr uint32_t kMaxTrees = 0xff;    // of a job, in each of its planes

// The largest limit on a reservation's trees, per plane. It means that there is none.
inline constexpr uint32_t kNoTreesLimit = 24575;

// The value of a resource limit that is not given.
inline constexpr uint32_t kLimitNotGiven = 0xffffffff;

// OK when a file name and a message can hold this key. Otherwise InvalidArgument, with a message that goes on where
// "the key" left off, such as "contains a slash". An empty key is left to the manager to refuse.
absl::Status ValidateKey(std::string_view key);

}    // namespace util
