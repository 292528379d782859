#include "host/hash_bytes.h"

#include <bit>
#include <cstring>

namespace {

uint64_t LoadLittleEndian(const char* bytes, size_t count) {
    uint64_t value = 0;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&value, bytes, count);
    } else {
        while (count > 0) value = value << 8 | static_cast<unsigned char>(bytes[--count]);
    }
    return value;
}

uint64_t ShiftMix(uint64_t value) { return value ^ (value >> 47); }

}    // namespace

// MurmurHash64A, seeded as the GNU standard library seeds its string hash, in which ids have always been given.
uint64_t HashBytes(std::string_view bytes) {
    constexpr uint64_t kSeed = 0xc70f6907;
    constexpr uint64_t kMultiplier = 0xc6a4a7935bd1e995;

    uint64_t hash = kSeed ^ (bytes.size() * kMultiplier);
    for (; bytes.size() >= 8; bytes.remove_prefix(8)) {
        const uint64_t block = LoadLittleEndian(bytes.data(), 8) * kMultiplier;
        hash = (hash ^ (ShiftMix(block) * kMultiplier)) * kMultiplier;
    }
    if (!bytes.empty()) hash = (hash ^ LoadLittleEndian(bytes.data(), bytes.size())) * kMultiplier;
    return ShiftMix(ShiftMix(hash) * kMultiplier);
}
