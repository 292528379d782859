// A small file beside a store, which tells the next start how the store was left.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace reservationd {

struct Mark {
    std::string store_id;
    uint64_t revision = 0;    // of the store: more with each commit

    bool operator==(const Mark&) const = default;
};

// Survives the end of the process. After a loss of power it may be older than the store, or unreadable.
class StoreMark {
public:
    // The mark in the file; nothing when there is none.
    static std::optional<Mark> Read(const std::string& path);

    // Opens the file for writing, or creates it. Throws StoreError.
    explicit StoreMark(const std::string& path);
    StoreMark(const StoreMark&) = delete;
    StoreMark& operator=(const StoreMark&) = delete;
    ~StoreMark();

    // Writes the mark over the one in the file, after each commit. One that cannot be written is left out: the mark is
    // then older than the store.
    void Write(const Mark& mark) noexcept;

private:
    int file_;
};

}    // namespace reservationd
