// The daemon's own store: the last acknowledged state of reservations and jobs, and the newest events, in one SQLite
// database. A change is acknowledged once Commit has returned.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace reservationd {

// What a committed change survives: the end of the process, or the end of the machine's power as well.
enum class Durability { kProcess, kMachine };

// The store cannot be opened, read or written. The message names the file and the reason.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct StoredReservation {
    std::string record;    // packed by dov_msg_pack
    uint64_t id = 0;

    bool operator==(const StoredReservation&) const = default;
};

// Changes that become durable together or not at all. A null value deletes.
struct StoreChanges {
    std::map<std::string, std::optional<StoredReservation>> reservations;    // their keys become unpublished
    std::map<uint64_t, std::optional<std::string>> jobs;
    std::vector<std::pair<uint64_t, std::string>> events;    // by ascending sequence number
    std::set<std::string> published_keys;    // applied before `reservations`

    bool empty() const { return reservations.empty() && jobs.empty() && events.empty() && published_keys.empty(); }
};

// Used by one thread at a time, and by one process.
class Store {
public:
    // Opens the database, or makes it. `kept_events`: how many of the newest events stay; at least 1. Throws
    // StoreError.
    Store(const std::string& path, Durability durability, uint64_t kept_events);
    ~Store();

    // Each throws StoreError when the database cannot be read.
    std::map<std::string, StoredReservation> Reservations();
    std::map<uint64_t, std::string> Jobs();
    std::vector<std::pair<uint64_t, std::string>> Events();
    // Keys whose files may still differ from what is stored here.
    std::set<std::string> UnpublishedKeys();

    // Throws StoreError, with nothing changed, when the database cannot be written.
    void Commit(const StoreChanges& changes);

    // Writes something that means nothing. Throws StoreError when the database cannot be written.
    void Probe();

private:
    struct Closer {
        void operator()(sqlite3* database) const;
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

    [[noreturn]] void Fail(const std::string& what) const;
    void Configure(Durability durability);
    void CreateTables();
    void Execute(const char* sql);
    Statement Prepare(const char* sql);
    template <typename Write>
    void InTransaction(Write write);
    template <typename... Values>
    void Run(const Statement& statement, const Values&... values);
    template <typename Handle>
    void ForEachRow(const char* sql, Handle handle);

    std::string path_;
    uint64_t kept_events_;
    std::unique_ptr<sqlite3, Closer> database_;
    Statement put_reservation_, delete_reservation_, put_job_, delete_job_, put_event_, trim_events_, put_unpublished_,
        delete_unpublished_, put_probe_;
};

}    // namespace reservationd
