// A store in one SQLite database file of this machine.

#pragma once

#include <SQLiteCpp/SQLiteCpp.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "daemon/storage/store.h"
#include "daemon/storage/store_mark.h"

namespace reservationd {

// Beside the file PATH, SQLite keeps PATH-wal, and the store its mark in PATH-mark.
//
// REQUIRES: no other process, and no other object, has the file open.
class SqliteStore : public Store {
public:
    // Opens the database, or creates it. Keeps the newest `kept_events` events, at least 1. Throws StoreError.
    SqliteStore(const std::string& path, Durability durability, uint64_t kept_events);

    const StoreIdentity& identity() const override { return identity_; }
    const std::string& loss() const override { return loss_; }
    Durability durability() const override { return durability_; }

    // A row is damaged when its checksum is wrong. It is moved to the table "damaged".
    DamagedRows SetDamagedAside() override;

    StoreContents Read() override;
    void Commit(const StoreChanges& changes) override;
    void Probe() override;

private:
    // What tells a file from another one that has taken its place.
    using FileId = std::pair<dev_t, ino_t>;

    std::array<FileId, 2> FindFiles() const;
    template <typename Write>
    void InTransaction(uint64_t num_events, Write write);

    const std::string path_;
    const Durability durability_;
    const uint64_t kept_events_;
    SQLite::Database database_;
    const std::string loss_;
    StoreMark mark_;
    const StoreIdentity identity_;
    const std::array<FileId, 2> files_;    // the database and its log
    uint64_t revision_;    // as committed
    std::unordered_map<std::string, uint64_t> rows_;    // of the keys, as Read found them and Commit left them
    uint64_t last_row_ = 0;    // number of the newest one
    SQLite::Statement put_reservation_, delete_reservation_, put_job_, delete_job_, put_event_, trim_events_,
        put_probe_, put_revision_;
};

struct StoreReport {
    StoreIdentity identity;
    std::vector<std::string> faults;    // one a sentence
};

// Checks a store, and changes nothing. Throws StoreError when it cannot be read at all.
//
// REQUIRES: nobody uses it.
StoreReport CheckSqliteStore(const std::string& path);

}    // namespace reservationd
