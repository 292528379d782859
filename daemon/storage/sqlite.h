// What the users of SQLite here share: values and rows.

#pragma once

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <cstdint>
#include <string>

namespace reservationd::sqlite {

// Opens a database that nobody else uses, to be read only: its files stay as they are. Throws SQLite::Exception.
inline SQLite::Database OpenToRead(const std::string& path) {
    // SQLite cannot read a log that a crash has left without locking the files, which it must open for writing.
    SQLite::Database database(path, SQLite::OPEN_READWRITE);
    database.exec("PRAGMA locking_mode = EXCLUSIVE; PRAGMA query_only = 1");
    sqlite3_db_config(database.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return database;
}

// Bytes that are no text.
struct Blob {
    const std::string& bytes;
};

// SQLite's integers are signed; all 64 bits are kept.
inline void Bind(SQLite::Statement& statement, int place, uint64_t value) {
    statement.bind(place, static_cast<int64_t>(value));
}

inline void Bind(SQLite::Statement& statement, int place, int64_t value) { statement.bind(place, value); }

inline void Bind(SQLite::Statement& statement, int place, const std::string& text) {
    statement.bindNoCopy(place, text);
}

inline void Bind(SQLite::Statement& statement, int place, const Blob& blob) {
    statement.bindNoCopy(place, blob.bytes.data(), static_cast<int>(blob.bytes.size()));
}

// Runs a statement that returns no rows. Throws SQLite::Exception.
template <typename... Values>
void Run(SQLite::Statement& statement, const Values&... values) {
    statement.tryReset();    // what it reports is an earlier failure
    int place = 0;
    (Bind(statement, ++place, values), ...);
    statement.exec();
}

// Calls `handle` with the statement for each row of the query. Throws SQLite::Exception.
template <typename Handle>
void ForEachRow(SQLite::Database& database, const char* query, Handle handle) {
    SQLite::Statement statement(database, query);
    while (statement.executeStep()) handle(statement);
}

inline uint64_t ColumnUint64(SQLite::Statement& row, int column) {
    return static_cast<uint64_t>(row.getColumn(column).getInt64());
}

inline std::string ColumnBytes(SQLite::Statement& row, int column) { return row.getColumn(column).getString(); }

}    // namespace reservationd::sqlite
