#include "daemon/storage/sqlite_store.h"

namespace reservationd {
namespace {

constexpr int kSchemaVersion = 2;
constexpr uint64_t kProbeSize = 4096;    // bytes

constexpr char kSchema[] = R"(
    CREATE TABLE reservations (key TEXT PRIMARY KEY, packed TEXT NOT NULL, id INTEGER NOT NULL) WITHOUT ROWID;
    CREATE TABLE jobs (job_id INTEGER PRIMARY KEY, job BLOB NOT NULL);
    CREATE TABLE events (sequence INTEGER PRIMARY KEY, event BLOB NOT NULL);
    CREATE TABLE dirty_keys (key TEXT PRIMARY KEY) WITHOUT ROWID;
    CREATE TABLE meta (name TEXT PRIMARY KEY, value BLOB) WITHOUT ROWID;
    PRAGMA user_version = 2;
)";

[[noreturn]] void Fail(const std::string& path, const char* what, const SQLite::Exception& error) {
    throw StoreError(path + ": the store " + what + ": " + error.what());
}

void CreateTables(SQLite::Database& database, const std::string& path) {
    const int version = database.execAndGet("PRAGMA user_version").getInt();
    if (version == kSchemaVersion) return;
    if (version != 0) {
        throw StoreError(path + ": version " + std::to_string(version) + " of the store is unknown, expected " +
                         std::to_string(kSchemaVersion));
    }
    SQLite::Transaction transaction(database);
    database.exec(kSchema);
    transaction.commit();
}

SQLite::Database Open(const std::string& path, Durability durability) {
    SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    // One process alone uses the database, and so needs no shared memory with others: a mapped file in a full file
    // system would kill the process instead of failing.
    database.exec("PRAGMA locking_mode = EXCLUSIVE");
    database.exec("PRAGMA journal_mode = WAL");
    database.exec(durability == Durability::kMachine ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    CreateTables(database, path);
    return database;
}

struct Blob {
    const std::string& bytes;
};

// SQLite's integers are signed; all 64 bits are kept.
void Bind(SQLite::Statement& statement, int place, uint64_t value) {
    statement.bind(place, static_cast<int64_t>(value));
}

void Bind(SQLite::Statement& statement, int place, const std::string& text) { statement.bindNoCopy(place, text); }

void Bind(SQLite::Statement& statement, int place, const Blob& blob) {
    statement.bindNoCopy(place, blob.bytes.data(), static_cast<int>(blob.bytes.size()));
}

// The bound values must live until this returns.
template <typename... Values>
void Run(SQLite::Statement& statement, const Values&... values) {
    statement.tryReset();    // after a failure it still reports that one
    int place = 0;
    (Bind(statement, ++place, values), ...);
    statement.exec();
}

uint64_t ColumnUint64(SQLite::Statement& row, int column) {
    return static_cast<uint64_t>(row.getColumn(column).getInt64());
}

std::string ColumnBytes(SQLite::Statement& row, int column) { return row.getColumn(column).getString(); }

}    // namespace

SqliteStore::SqliteStore(const std::string& path, Durability durability, uint64_t kept_events) try
    : path_(path),
      durability_(durability),
      kept_events_(kept_events),
      database_(Open(path, durability)),
      put_reservation_(database_, "REPLACE INTO reservations VALUES (?, ?, ?)"),
      delete_reservation_(database_, "DELETE FROM reservations WHERE key = ?"),
      put_job_(database_, "REPLACE INTO jobs VALUES (?, ?)"),
      delete_job_(database_, "DELETE FROM jobs WHERE job_id = ?"),
      put_event_(database_, "INSERT INTO events VALUES (?, ?)"),
      trim_events_(database_, "DELETE FROM events WHERE sequence <= (SELECT max(sequence) FROM events) - ?"),
      put_dirty_key_(database_, "INSERT OR IGNORE INTO dirty_keys VALUES (?)"),
      delete_dirty_key_(database_, "DELETE FROM dirty_keys WHERE key = ?"),
      put_probe_(database_, "REPLACE INTO meta VALUES ('probe', randomblob(?))") {
} catch (const SQLite::Exception& error) {
    Fail(path, "cannot be opened", error);
}

std::map<std::string, StoredReservation> SqliteStore::ReadReservations() {
    std::map<std::string, StoredReservation> reservations;
    ForEachRow("SELECT key, packed, id FROM reservations ORDER BY key", [&](SQLite::Statement& row) {
        reservations.emplace_hint(reservations.end(), ColumnBytes(row, 0),
                                  StoredReservation{ColumnBytes(row, 1), ColumnUint64(row, 2)});
    });
    return reservations;
}

std::map<uint64_t, std::string> SqliteStore::ReadJobs() {
    std::map<uint64_t, std::string> jobs;
    ForEachRow("SELECT job_id, job FROM jobs",
               [&](SQLite::Statement& row) { jobs.emplace(ColumnUint64(row, 0), ColumnBytes(row, 1)); });
    return jobs;
}

std::vector<std::pair<uint64_t, std::string>> SqliteStore::ReadEvents() {
    std::vector<std::pair<uint64_t, std::string>> events;
    ForEachRow("SELECT sequence, event FROM events ORDER BY sequence",
               [&](SQLite::Statement& row) { events.emplace_back(ColumnUint64(row, 0), ColumnBytes(row, 1)); });
    return events;
}

std::set<std::string> SqliteStore::ReadDirtyKeys() {
    std::set<std::string> keys;
    ForEachRow("SELECT key FROM dirty_keys", [&](SQLite::Statement& row) { keys.insert(ColumnBytes(row, 0)); });
    return keys;
}

void SqliteStore::Commit(const StoreChanges& changes) {
    InTransaction([&] {
        for (const std::string& key : changes.clean_keys) Run(delete_dirty_key_, key);
        for (const auto& [key, reservation] : changes.reservations) {
            if (reservation) {
                Run(put_reservation_, key, reservation->packed, reservation->id);
            } else {
                Run(delete_reservation_, key);
            }
            Run(put_dirty_key_, key);
        }
        for (const auto& [job_id, job] : changes.jobs) {
            if (job) {
                Run(put_job_, job_id, Blob{*job});
            } else {
                Run(delete_job_, job_id);
            }
        }
        for (const auto& [sequence, event] : changes.events) Run(put_event_, sequence, Blob{event});
        if (!changes.events.empty()) Run(trim_events_, kept_events_);
    });
}

void SqliteStore::Probe() {
    InTransaction([this] { Run(put_probe_, kProbeSize); });
}

template <typename Write>
void SqliteStore::InTransaction(Write write) try {
    SQLite::Transaction transaction(database_, SQLite::TransactionBehavior::IMMEDIATE);
    write();
    transaction.commit();
} catch (const SQLite::Exception& error) {
    Fail(path_, "cannot be written", error);
}

template <typename Handle>
void SqliteStore::ForEachRow(const char* sql, Handle handle) try {
    SQLite::Statement statement(database_, sql);
    while (statement.executeStep()) handle(statement);
} catch (const SQLite::Exception& error) {
    Fail(path_, "cannot be read", error);
}

}    // namespace reservationd
