#include "daemon/storage/sqlite_store.h"

#include <absl/strings/str_cat.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "daemon/storage/sqlite.h"
#include "host/hash_bytes.h"

namespace reservationd {
namespace {

using sqlite::Blob;
using sqlite::ColumnBytes;
using sqlite::ColumnUint64;
using sqlite::ForEachRow;
using sqlite::Run;

constexpr int kSchemaVersion = 5;
constexpr uint64_t kProbeSize = 4096;    // bytes

constexpr char kSchema[] = R"(
    CREATE TABLE reservations (row INTEGER PRIMARY KEY, key TEXT NOT NULL, packed TEXT NOT NULL, id INTEGER NOT NULL,
        checksum INTEGER NOT NULL, created INTEGER NOT NULL);
    CREATE TABLE jobs (job_id INTEGER PRIMARY KEY, job BLOB NOT NULL, checksum INTEGER NOT NULL);
    CREATE TABLE events (sequence INTEGER PRIMARY KEY, event BLOB NOT NULL, checksum INTEGER NOT NULL);
    CREATE TABLE damaged (kind TEXT, name, content BLOB, found TEXT DEFAULT CURRENT_TIMESTAMP);
    CREATE TABLE identity (id TEXT NOT NULL, generation INTEGER NOT NULL, revision_offset INTEGER NOT NULL);
    CREATE TABLE probe (name TEXT PRIMARY KEY, content BLOB) WITHOUT ROWID;
    INSERT INTO identity VALUES (lower(hex(randomblob(16))), 0, 0);
    PRAGMA user_version = 5;
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
    database.exec("PRAGMA page_size = 2048");    // a commit writes whole each page that it touches
    database.exec("PRAGMA journal_mode = WAL");
    database.exec("PRAGMA wal_autocheckpoint = 4000");    // pages
    database.exec(durability == Durability::kMachine ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    CreateTables(database, path);
    return database;
}

StoreIdentity ReadIdentity(SQLite::Database& database) {
    SQLite::Statement row(database, "SELECT id, generation FROM identity");
    if (!row.executeStep()) throw SQLite::Exception("its identity is missing");
    return {ColumnBytes(row, 0), ColumnUint64(row, 1)};
}

// The number of the newest event, and an offset, so that a commit with events need not change another row.
constexpr char kRevision[] = "SELECT revision_offset + coalesce((SELECT max(sequence) FROM events), 0) FROM identity";

uint64_t ReadRevision(SQLite::Database& database) {
    return static_cast<uint64_t>(database.execAndGet(kRevision).getInt64());
}

std::string MarkPath(const std::string& path) { return path + "-mark"; }

// See Store::loss.
std::string FindLoss(SQLite::Database& database, const std::string& path) {
    const std::optional<Mark> mark = StoreMark::Read(MarkPath(path));
    if (!mark) return "";
    const std::string id = ReadIdentity(database).id;
    if (id != mark->store_id) return absl::StrCat("it is store ", id, ", and store ", mark->store_id, " is lost");
    const uint64_t revision = ReadRevision(database);
    if (revision >= mark->revision) return "";
    return "its last changes are lost: an older one was put back, it was cut, or the machine died";
}

// What is numbered and watched under the old id is not there any more after a loss.
StoreIdentity BeginGeneration(SQLite::Database& database, bool has_loss) {
    if (has_loss) database.exec("UPDATE identity SET id = lower(hex(randomblob(16)))");
    database.exec("UPDATE identity SET generation = generation + 1");
    return ReadIdentity(database);
}

// The checksum of a row covers its key, so that a row is not taken for another one's either.
uint64_t Checksum(const std::string& key, const StoredReservation& reservation) {
    const std::string numbers = std::to_string(reservation.id) + '\0' + std::to_string(reservation.created_unix_millis);
    return HashBytes(reservation.packed) ^ HashBytes(key + '\0' + numbers);
}

uint64_t Checksum(uint64_t number, const std::string& content) {
    return HashBytes(content) ^ HashBytes(std::to_string(number));
}

// Calls `handle` with the number of the row, key, reservation, and whether the row is undamaged.
template <typename Handle>
void ForEachReservation(SQLite::Database& database, Handle handle) {
    ForEachRow(database, "SELECT row, key, packed, id, checksum, created FROM reservations",
               [&](SQLite::Statement& row) {
                   std::string key = ColumnBytes(row, 1);
                   StoredReservation reservation{ColumnBytes(row, 2), ColumnUint64(row, 3),
                                                 static_cast<int64_t>(ColumnUint64(row, 5))};
                   const bool is_good = Checksum(key, reservation) == ColumnUint64(row, 4);
                   handle(ColumnUint64(row, 0), std::move(key), std::move(reservation), is_good);
               });
}

// Calls `handle` with number, content, and whether the row is undamaged. The query gives these two and the checksum.
template <typename Handle>
void ForEachNumbered(SQLite::Database& database, const char* query, Handle handle) {
    ForEachRow(database, query, [&](SQLite::Statement& row) {
        const uint64_t number = ColumnUint64(row, 0);
        std::string content = ColumnBytes(row, 1);
        const bool is_good = Checksum(number, content) == ColumnUint64(row, 2);
        handle(number, std::move(content), is_good);
    });
}

// Old events are deleted many at a time: deleting one writes as much into the log as putting one.
bool CompletesBlock(const std::map<uint64_t, std::string>& events) {
    constexpr uint64_t kBlock = 64;
    return !events.empty() && events.rbegin()->first / kBlock != (events.begin()->first - 1) / kBlock;
}

constexpr char kSelectJobs[] = "SELECT job_id, job, checksum FROM jobs ORDER BY job_id";
constexpr char kSelectEvents[] = "SELECT sequence, event, checksum FROM events ORDER BY sequence";

}    // namespace

SqliteStore::SqliteStore(const std::string& path, Durability durability, uint64_t kept_events) try
    : path_(path),
      durability_(durability),
      kept_events_(kept_events),
      database_(Open(path, durability)),
      loss_(FindLoss(database_, path)),
      mark_(MarkPath(path)),
      identity_(BeginGeneration(database_, !loss_.empty())),
      files_(FindFiles()),
      revision_(ReadRevision(database_)),
      put_reservation_(database_, "REPLACE INTO reservations VALUES (?, ?, ?, ?, ?, ?)"),
      delete_reservation_(database_, "DELETE FROM reservations WHERE row = ?"),
      put_job_(database_, "REPLACE INTO jobs VALUES (?, ?, ?)"),
      delete_job_(database_, "DELETE FROM jobs WHERE job_id = ?"),
      put_event_(database_, "INSERT INTO events VALUES (?, ?, ?)"),
      trim_events_(database_, "DELETE FROM events WHERE sequence <= (SELECT max(sequence) FROM events) - ?"),
      put_probe_(database_, "REPLACE INTO probe VALUES ('probe', randomblob(?))"),
      put_revision_(database_,
                    "UPDATE identity SET revision_offset = ? - coalesce((SELECT max(sequence) FROM events), 0)") {
    mark_.Write({identity_.id, revision_});
} catch (const SQLite::Exception& error) {
    Fail(path, "cannot be opened", error);
}

DamagedRows SqliteStore::SetDamagedAside() {
    DamagedRows damaged;
    InTransaction(0, [&] {
        std::vector<uint64_t> reservation_rows;
        ForEachReservation(database_, [&](uint64_t row, std::string&& key, StoredReservation&&, bool is_good) {
            if (is_good) return;
            reservation_rows.push_back(row);
            damaged.reservation_keys.push_back(std::move(key));
        });
        ForEachNumbered(database_, kSelectJobs, [&](uint64_t job_id, std::string&&, bool is_good) {
            if (!is_good) damaged.job_ids.push_back(job_id);
        });
        ForEachNumbered(database_, kSelectEvents, [&](uint64_t sequence, std::string&&, bool is_good) {
            if (!is_good) damaged.event_sequences.push_back(sequence);
        });
        const auto set_aside = [this](const std::string& table, const std::string& number, const std::string& columns,
                                      const std::vector<uint64_t>& damaged_numbers) {
            const std::string which = " FROM " + table + " WHERE " + number + " = ?";
            SQLite::Statement copy(
                database_, "INSERT INTO damaged (kind, name, content) SELECT '" + table + "', " + columns + which);
            SQLite::Statement remove(database_, "DELETE" + which);
            for (const uint64_t damaged_number : damaged_numbers) {
                Run(copy, damaged_number);
                Run(remove, damaged_number);
            }
        };
        set_aside("reservations", "row", "key, packed", reservation_rows);
        set_aside("jobs", "job_id", "job_id, job", damaged.job_ids);
        set_aside("events", "sequence", "sequence, event", damaged.event_sequences);
    });
    return damaged;
}

StoreContents SqliteStore::Read() try {
    StoreContents contents;
    rows_.clear();
    ForEachReservation(database_, [&](uint64_t row, std::string&& key, StoredReservation&& reservation, bool) {
        rows_[key] = row;
        last_row_ = std::max(last_row_, row);
        contents.reservations.emplace(std::move(key), std::move(reservation));
    });
    ForEachNumbered(database_, kSelectJobs, [&](uint64_t job_id, std::string&& job, bool) {
        contents.jobs.emplace_hint(contents.jobs.end(), job_id, std::move(job));
    });
    ForEachNumbered(database_, kSelectEvents, [&](uint64_t sequence, std::string&& event, bool) {
        contents.events.emplace_hint(contents.events.end(), sequence, std::move(event));
    });
    return contents;
} catch (const SQLite::Exception& error) {
    Fail(path_, "cannot be read", error);
}

void SqliteStore::Commit(const StoreChanges& changes) {
    uint64_t last_row = last_row_;
    InTransaction(changes.events.size(), [&] {
        for (const auto& [key, reservation] : changes.reservations) {
            const auto row = rows_.find(key);
            if (reservation) {
                Run(put_reservation_, row != rows_.end() ? row->second : ++last_row, key, reservation->packed,
                    reservation->id, Checksum(key, *reservation),
                    static_cast<uint64_t>(reservation->created_unix_millis));
            } else if (row != rows_.end()) {
                Run(delete_reservation_, row->second);
            }
        }
        for (const auto& [job_id, job] : changes.jobs) {
            if (job) {
                Run(put_job_, job_id, Blob{*job}, Checksum(job_id, *job));
            } else {
                Run(delete_job_, job_id);
            }
        }
        for (const auto& [sequence, event] : changes.events) {
            Run(put_event_, sequence, Blob{event}, Checksum(sequence, event));
        }
        if (CompletesBlock(changes.events)) Run(trim_events_, kept_events_);
    });
    for (const auto& [key, reservation] : changes.reservations) {
        if (!reservation) {
            rows_.erase(key);
        } else if (rows_.try_emplace(key, last_row_ + 1).second) {
            ++last_row_;
        }
    }
}

void SqliteStore::Probe() {
    InTransaction(0, [this] { Run(put_probe_, kProbeSize); });
}

// Throws StoreError when one is not there.
std::array<SqliteStore::FileId, 2> SqliteStore::FindFiles() const {
    const auto find = [](const std::string& path) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0)
            throw StoreError(path + ": the store is not there: " + std::strerror(errno));
        return FileId(status.st_dev, status.st_ino);
    };
    return {find(path_), find(path_ + "-wal")};
}

// `num_events`: that are written, and follow the newest one.
template <typename Write>
void SqliteStore::InTransaction(uint64_t num_events, Write write) try {
    SQLite::Transaction transaction(database_, SQLite::TransactionBehavior::IMMEDIATE);
    write();
    if (num_events == 0) Run(put_revision_, revision_ + 1);
    if (FindFiles() != files_) throw StoreError(path_ + ": the store was replaced while it was in use");
    transaction.commit();
    revision_ += std::max(num_events, uint64_t{1});
    mark_.Write({identity_.id, revision_});
} catch (const SQLite::Exception& error) {
    Fail(path_, "cannot be written", error);
}

StoreReport CheckSqliteStore(const std::string& path) try {
    SQLite::Database database = sqlite::OpenToRead(path);
    StoreReport report{ReadIdentity(database), {}};
    const std::string loss = FindLoss(database, path);
    if (!loss.empty()) report.faults.push_back(loss);
    ForEachRow(database, "PRAGMA integrity_check", [&](SQLite::Statement& row) {
        if (ColumnBytes(row, 0) != "ok") report.faults.push_back(ColumnBytes(row, 0));
    });
    ForEachReservation(database, [&](uint64_t, const std::string& key, const StoredReservation&, bool is_good) {
        if (!is_good) report.faults.push_back("reservation " + key + " is damaged");
    });
    const auto check_numbered = [&](const char* query, const char* kind) {
        ForEachNumbered(database, query, [&](uint64_t number, const std::string&, bool is_good) {
            if (!is_good) report.faults.push_back(absl::StrCat(kind, " ", number, " is damaged"));
        });
    };
    check_numbered(kSelectJobs, "job");
    check_numbered(kSelectEvents, "event");
    return report;
} catch (const SQLite::Exception& error) {
    Fail(path, "cannot be read", error);
}

}    // namespace reservationd
