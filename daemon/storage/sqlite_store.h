// A store in one SQLite database file of this machine.

#pragma once

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstdint>
#include <string>

#include "daemon/storage/store.h"

namespace reservationd {

// REQUIRES: no other process, and no other object, has the file open.
class SqliteStore : public Store {
public:
    // Opens the database, or creates it. Keeps the newest `kept_events` events, at least 1. Throws StoreError.
    SqliteStore(const std::string& path, Durability durability, uint64_t kept_events);

    const StoreIdentity& identity() const override { return identity_; }
    Durability durability() const override { return durability_; }

    // A row is damaged when its checksum is wrong. It is moved to the table "damaged".
    DamagedRows SetDamagedAside() override;

    StoreContents Read() override;
    void Commit(const StoreChanges& changes) override;
    void Probe() override;

private:
    template <typename Write>
    void InTransaction(Write write);

    const std::string path_;
    const Durability durability_;
    const uint64_t kept_events_;
    SQLite::Database database_;
    const StoreIdentity identity_;
    SQLite::Statement put_reservation_, delete_reservation_, put_job_, delete_job_, put_event_, trim_events_,
        put_probe_;
};

}    // namespace reservationd
