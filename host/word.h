// A word: eight bytes of text as one number, the first byte lowest, whatever the machine's byte order.

#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

inline constexpr size_t kWordSize = 8;

// Of up to eight bytes; those that are missing are zero.
inline uint64_t LoadWord(const char* bytes, size_t count) {
    uint64_t word = 0;
    while (count > 0) word = word << 8 | static_cast<unsigned char>(bytes[--count]);
    return word;
}

inline uint64_t LoadWord(const char* bytes) {
    if constexpr (std::endian::native != std::endian::little) return LoadWord(bytes, kWordSize);
    uint64_t word = 0;
    std::memcpy(&word, bytes, kWordSize);
    return word;
}

inline void StoreWord(uint64_t word, char* bytes) {
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(bytes, &word, kWordSize);
    } else {
        for (size_t i = 0; i < kWordSize; ++i, word >>= 8) bytes[i] = static_cast<char>(word);
    }
}
