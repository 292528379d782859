#include "host/hash_bytes.h"

#include "host/word.h"

namespace {

uint64_t ShiftMix(uint64_t value) { return value ^ (value >> 47); }

}    // namespace

// MurmurHash64A, seeded as the GNU standard library seeds its string hash, in which ids have always been given.
uint64_t HashBytes(std::string_view bytes) {
    constexpr uint64_t kSeed = 0xc70f6907;
    constexpr uint64_t kMultiplier = 0xc6a4a7935bd1e995;

    uint64_t hash = kSeed ^ (bytes.size() * kMultiplier);
    for (; bytes.size() >= kWordSize; bytes.remove_prefix(kWordSize)) {
        const uint64_t block = LoadWord(bytes.data()) * kMultiplier;
        hash = (hash ^ (ShiftMix(block) * kMultiplier)) * kMultiplier;
    }
    if (!bytes.empty()) hash = (hash ^ LoadWord(bytes.data(), bytes.size())) * kMultiplier;
    return ShiftMix(ShiftMix(hash) * kMultiplier);
}
