#include "daemon/storage/mirror_journal.h"

#include <filesystem>
#include <fstream>

#include "daemon/log_sink.h"
#include "daemon/storage/sqlite.h"
#include "host/hash_bytes.h"

namespace reservationd {
namespace {

using sqlite::ColumnBytes;
using sqlite::ColumnUint64;
using sqlite::ForEachRow;
using sqlite::Run;

constexpr int kSchemaVersion = 1;

// A key whose file is about to be written for the first time has an entry with a size of -1, which no file has.
constexpr char kSchema[] = R"(
    CREATE TABLE files (key TEXT PRIMARY KEY, size INTEGER NOT NULL, mtime_nanos INTEGER NOT NULL,
                        checksum INTEGER NOT NULL, intended_checksum INTEGER) WITHOUT ROWID;
    CREATE TABLE meta (store_id TEXT, generation INTEGER, boot_id TEXT, is_clean INTEGER);
    PRAGMA user_version = 1;
)";

// Changes with each start of the machine; empty where that cannot be known.
std::string BootId() {
    std::string id;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
    return id;
}

// No commit waits for the disk: after a loss of power the journal is not believed anyway.
SQLite::Database OpenExisting(const std::string& path) {
    SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database.exec("PRAGMA locking_mode = EXCLUSIVE");
    database.exec("PRAGMA journal_mode = WAL");
    database.exec("PRAGMA synchronous = OFF");
    const int version = database.execAndGet("PRAGMA user_version").getInt();
    if (version == kSchemaVersion) return database;
    if (version != 0) throw SQLite::Exception("its version is unknown");
    SQLite::Transaction transaction(database);
    database.exec(kSchema);
    transaction.commit();
    return database;
}

SQLite::Database Open(const std::string& path) try {
    return OpenExisting(path);
} catch (const SQLite::Exception& error) {
    WriteLog(kLogWarning, path + " is begun anew: " + error.what());
    for (const char* suffix : {"", "-wal"}) std::filesystem::remove(path + suffix);
    return OpenExisting(path);
}

[[noreturn]] void Fail(const std::string& path, const char* what, const SQLite::Exception& error) {
    throw StoreError(path + ": the journal of the reservation files " + what + ": " + error.what());
}

}    // namespace

uint64_t ChecksumOfText(const std::string& text) { return HashBytes(text); }

MirrorJournal::MirrorJournal(const std::string& path, const StoreIdentity& store) try
    : path_(path),
      store_(store),
      database_(Open(path)),
      put_entry_(database_, "REPLACE INTO files VALUES (?, ?, ?, ?, NULL)"),
      delete_entry_(database_, "DELETE FROM files WHERE key = ?"),
      put_intention_(database_,
                     "INSERT INTO files VALUES (?, -1, 0, 0, ?) ON CONFLICT (key) DO UPDATE SET intended_checksum = "
                     "excluded.intended_checksum"),
      trust_(JudgeTrust()) {
} catch (const SQLite::Exception& error) {
    Fail(path, "cannot be opened", error);
}

std::optional<StoreIdentity> MirrorJournal::ReadStore(const std::string& path) try {
    if (!std::filesystem::exists(path)) return std::nullopt;
    SQLite::Database database = sqlite::OpenToRead(path);
    SQLite::Statement row(database, "SELECT store_id, generation FROM meta");
    if (!row.executeStep()) return std::nullopt;
    return StoreIdentity{ColumnBytes(row, 0), ColumnUint64(row, 1)};
} catch (const SQLite::Exception& error) {
    Fail(path, "cannot be read", error);
}

JournalTrust MirrorJournal::JudgeTrust() {
    SQLite::Statement row(database_, "SELECT store_id, generation, boot_id, is_clean FROM meta");
    if (!row.executeStep()) return JournalTrust::kNone;
    // A store that was put back from a copy has a lower generation than the one the files were written from.
    is_of_other_store_ = ColumnBytes(row, 0) != store_.id || ColumnUint64(row, 1) >= store_.generation;
    if (is_of_other_store_) return JournalTrust::kNone;
    const std::string boot_id = ColumnBytes(row, 2);
    const bool is_clean = ColumnUint64(row, 3) != 0;
    return is_clean || (!boot_id.empty() && boot_id == BootId()) ? JournalTrust::kFull : JournalTrust::kMachineDied;
}

std::map<std::string, JournalEntry> MirrorJournal::Read() try {
    std::map<std::string, JournalEntry> entries;
    ForEachRow(database_, "SELECT key, size, mtime_nanos, checksum, intended_checksum FROM files ORDER BY key",
               [&](SQLite::Statement& row) {
                   JournalEntry entry{{ColumnUint64(row, 1), row.getColumn(2).getInt64()}, ColumnUint64(row, 3), {}};
                   if (!row.getColumn(4).isNull()) entry.intended_checksum = ColumnUint64(row, 4);
                   entries.emplace_hint(entries.end(), ColumnBytes(row, 0), entry);
               });
    return entries;
} catch (const SQLite::Exception& error) {
    Fail(path_, "cannot be read", error);
}

void MirrorJournal::Start(const std::map<std::string, JournalEntry>& confirmed) {
    InTransaction([&] {
        if (trust_ == JournalTrust::kNone) database_.exec("DELETE FROM files");
        if (trust_ == JournalTrust::kMachineDied) database_.exec("UPDATE files SET size = -1");
        for (const auto& [key, entry] : confirmed) {
            Run(put_entry_, key, entry.stamp.size, entry.stamp.mtime_nanos, entry.checksum);
        }
        SetMeta(false);
    });
    trust_ = JournalTrust::kFull;
}

void MirrorJournal::Intend(const std::map<std::string, uint64_t>& checksums) {
    InTransaction([&] {
        for (const auto& [key, checksum] : checksums) Run(put_intention_, key, checksum);
    });
}

void MirrorJournal::Record(const std::map<std::string, std::optional<JournalEntry>>& entries) {
    InTransaction([&] {
        for (const auto& [key, entry] : entries) {
            if (entry) {
                Run(put_entry_, key, entry->stamp.size, entry->stamp.mtime_nanos, entry->checksum);
            } else {
                Run(delete_entry_, key);
            }
        }
    });
}

void MirrorJournal::Close() {
    InTransaction([this] { SetMeta(true); });
}

void MirrorJournal::SetMeta(bool is_clean) {
    database_.exec("DELETE FROM meta");
    SQLite::Statement put(database_, "INSERT INTO meta VALUES (?, ?, ?, ?)");
    Run(put, store_.id, store_.generation, BootId(), uint64_t{is_clean});
}

template <typename Write>
void MirrorJournal::InTransaction(Write write) try {
    SQLite::Transaction transaction(database_, SQLite::TransactionBehavior::IMMEDIATE);
    write();
    transaction.commit();
} catch (const SQLite::Exception& error) {
    Fail(path_, "cannot be written", error);
}

}    // namespace reservationd
