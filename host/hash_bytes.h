// The one hash of this code: of reservation keys, for their ids, and of packed messages, for their checksum.

#pragma once

#include <cstdint>
#include <string_view>

// 64-bit hash of the bytes, the same whatever standard library and byte order. Two texts of one length that differ only
// within one aligned block of 8 bytes never hash alike, so no single changed byte goes unnoticed.
uint64_t HashBytes(std::string_view bytes);
