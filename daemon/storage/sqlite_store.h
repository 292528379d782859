// A store in one SQLite database file of this machine.

#pragma once

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "daemon/storage/store.h"

namespace reservationd {

// REQUIRES: no other process, and no other object, has the file open.
class SqliteStore : public Store {
public:
    // Opens the database, or creates it. Keeps the newest `kept_events` events, at least 1. Throws StoreError.
    SqliteStore(const std::string& path, Durability durability, uint64_t kept_events);

    Durability durability() const override { return durability_; }
    std::map<std::string, StoredReservation> ReadReservations() override;
    std::map<uint64_t, std::string> ReadJobs() override;
    std::vector<std::pair<uint64_t, std::string>> ReadEvents() override;
    std::set<std::string> ReadDirtyKeys() override;
    void Commit(const StoreChanges& changes) override;
    void Probe() override;

private:
    template <typename Write>
    void InTransaction(Write write);
    template <typename Handle>
    void ForEachRow(const char* sql, Handle handle);

    const std::string path_;
    const Durability durability_;
    const uint64_t kept_events_;
    SQLite::Database database_;
    SQLite::Statement put_reservation_, delete_reservation_, put_job_, delete_job_, put_event_, trim_events_,
        put_dirty_key_, delete_dirty_key_, put_probe_;
};

}    // namespace reservationd
