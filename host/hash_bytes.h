// The hash that gives reservations their ids.

#pragma once

#include <cstdint>
#include <string_view>

// 64-bit hash of the bytes, the same whatever standard library and byte order. Two texts of one length that differ only
// within one aligned block of 8 bytes never hash alike, so no single changed byte goes unnoticed.
uint64_t HashBytes(std::string_view bytes);
