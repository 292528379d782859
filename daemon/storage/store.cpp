#include "daemon/storage/store.h"

#include <sqlite3.h>

#include <string_view>

namespace reservationd {
namespace {

constexpr int kSchemaVersion = 1;
constexpr int kProbeSize = 4096;

constexpr char kSchema[] = R"(
    CREATE TABLE reservations (key TEXT PRIMARY KEY, record TEXT NOT NULL, id INTEGER NOT NULL) WITHOUT ROWID;
    CREATE TABLE jobs (job_id INTEGER PRIMARY KEY, job BLOB NOT NULL);
    CREATE TABLE events (sequence INTEGER PRIMARY KEY, event BLOB NOT NULL);
    CREATE TABLE unpublished (key TEXT PRIMARY KEY) WITHOUT ROWID;
    CREATE TABLE meta (name TEXT PRIMARY KEY, value BLOB) WITHOUT ROWID;
    PRAGMA user_version = 1;
)";

// SQLite's integers are signed; all 64 bits are kept.
void Bind(sqlite3_stmt* statement, int place, uint64_t value) {
    sqlite3_bind_int64(statement, place, static_cast<sqlite3_int64>(value));
}

void Bind(sqlite3_stmt* statement, int place, const std::string& text) {
    sqlite3_bind_text64(statement, place, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

struct Blob {
    const std::string& bytes;
};

void Bind(sqlite3_stmt* statement, int place, const Blob& blob) {
    sqlite3_bind_blob64(statement, place, blob.bytes.data(), blob.bytes.size(), SQLITE_STATIC);
}

uint64_t Number(sqlite3_stmt* statement, int column) {
    return static_cast<uint64_t>(sqlite3_column_int64(statement, column));
}

std::string Bytes(sqlite3_stmt* statement, int column) {
    const void* const bytes = sqlite3_column_blob(statement, column);
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
    return size > 0 ? std::string(static_cast<const char*>(bytes), size) : std::string();
}

}    // namespace

void Store::Closer::operator()(sqlite3* database) const { sqlite3_close(database); }
void Store::Closer::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Store::Store(const std::string& path, Durability durability, uint64_t kept_events)
    : path_(path), kept_events_(kept_events) {
    sqlite3* database = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK) Fail("cannot be opened");
    Configure(durability);
    CreateTables();
    put_reservation_ = Prepare("REPLACE INTO reservations VALUES (?, ?, ?)");
    delete_reservation_ = Prepare("DELETE FROM reservations WHERE key = ?");
    put_job_ = Prepare("REPLACE INTO jobs VALUES (?, ?)");
    delete_job_ = Prepare("DELETE FROM jobs WHERE job_id = ?");
    put_event_ = Prepare("INSERT INTO events VALUES (?, ?)");
    trim_events_ = Prepare("DELETE FROM events WHERE sequence <= (SELECT max(sequence) FROM events) - ?");
    put_unpublished_ = Prepare("INSERT OR IGNORE INTO unpublished VALUES (?)");
    delete_unpublished_ = Prepare("DELETE FROM unpublished WHERE key = ?");
    put_probe_ = Prepare("REPLACE INTO meta VALUES ('probe', randomblob(?))");
}

Store::~Store() = default;

void Store::Configure(Durability durability) {
    // One process alone uses the database, and so needs no shared memory with others: a mapped file in a full file
    // system would kill the process instead of failing.
    Execute("PRAGMA locking_mode = EXCLUSIVE");
    Execute("PRAGMA journal_mode = WAL");
    Execute(durability == Durability::kMachine ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
}

void Store::CreateTables() {
    int version = 0;
    ForEachRow("PRAGMA user_version", [&](sqlite3_stmt* row) { version = sqlite3_column_int(row, 0); });
    if (version == kSchemaVersion) return;
    if (version != 0) {
        throw StoreError(path_ + ": version " + std::to_string(version) + " of the store is unknown, expected " +
                         std::to_string(kSchemaVersion));
    }
    InTransaction([this] { Execute(kSchema); });
}

std::map<std::string, StoredReservation> Store::Reservations() {
    std::map<std::string, StoredReservation> reservations;
    ForEachRow("SELECT key, record, id FROM reservations", [&](sqlite3_stmt* row) {
        reservations.emplace(Bytes(row, 0), StoredReservation{Bytes(row, 1), Number(row, 2)});
    });
    return reservations;
}

std::map<uint64_t, std::string> Store::Jobs() {
    std::map<uint64_t, std::string> jobs;
    ForEachRow("SELECT job_id, job FROM jobs", [&](sqlite3_stmt* row) { jobs.emplace(Number(row, 0), Bytes(row, 1)); });
    return jobs;
}

std::vector<std::pair<uint64_t, std::string>> Store::Events() {
    std::vector<std::pair<uint64_t, std::string>> events;
    ForEachRow("SELECT sequence, event FROM events ORDER BY sequence",
               [&](sqlite3_stmt* row) { events.emplace_back(Number(row, 0), Bytes(row, 1)); });
    return events;
}

std::set<std::string> Store::UnpublishedKeys() {
    std::set<std::string> keys;
    ForEachRow("SELECT key FROM unpublished", [&](sqlite3_stmt* row) { keys.insert(Bytes(row, 0)); });
    return keys;
}

void Store::Commit(const StoreChanges& changes) {
    InTransaction([&] {
        for (const std::string& key : changes.published_keys) Run(delete_unpublished_, key);
        for (const auto& [key, reservation] : changes.reservations) {
            if (reservation) {
                Run(put_reservation_, key, reservation->record, reservation->id);
            } else {
                Run(delete_reservation_, key);
            }
            Run(put_unpublished_, key);
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

void Store::Probe() {
    InTransaction([this] { Run(put_probe_, uint64_t{kProbeSize}); });
}

template <typename Write>
void Store::InTransaction(Write write) try {
    Execute("BEGIN IMMEDIATE");
    write();
    Execute("COMMIT");
} catch (...) {
    sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
}

template <typename... Values>
void Store::Run(const Statement& statement, const Values&... values) {
    int place = 0;
    (Bind(statement.get(), ++place, values), ...);
    const int result = sqlite3_step(statement.get());
    sqlite3_reset(statement.get());
    if (result != SQLITE_DONE) Fail("cannot be written");
}

template <typename Handle>
void Store::ForEachRow(const char* sql, Handle handle) {
    const Statement statement = Prepare(sql);
    int result = SQLITE_OK;
    while ((result = sqlite3_step(statement.get())) == SQLITE_ROW) handle(statement.get());
    if (result != SQLITE_DONE) Fail("cannot be read");
}

Store::Statement Store::Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql, -1, &statement, nullptr) != SQLITE_OK) Fail("cannot be used");
    return Statement(statement);
}

void Store::Execute(const char* sql) {
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) Fail("cannot be written");
}

void Store::Fail(const std::string& what) const {
    throw StoreError(path_ + ": the store " + what + ": " + sqlite3_errmsg(database_.get()));
}

}    // namespace reservationd
