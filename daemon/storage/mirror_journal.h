// What the daemon wrote into the reservation files last, so that the next start tells its own files from an operator's.

#pragma once

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "daemon/storage/reservation_files.h"
#include "daemon/storage/store.h"

namespace reservationd {

// Checksum of a file's text.
uint64_t ChecksumOfText(const std::string& text);

// What is known of a key's file.
struct JournalEntry {
    FileStamp stamp;    // as it was written last
    uint64_t checksum = 0;    // of its text then
    std::optional<uint64_t> intended_checksum;    // of a text that may have been written since

    bool operator==(const JournalEntry&) const = default;
};

// How far what the journal holds can be believed.
enum class JournalTrust {
    kFull,    // it describes the files as the daemon left them
    kMachineDied,    // as the daemon left them, before what the machine forgot when it died
    kNone,    // there is none, or it belongs to another store, or to a later state of this one
};

// A small SQLite database beside the files. Used by one thread at a time. Everything throws StoreError when the
// database cannot be read or written.
class MirrorJournal {
public:
    // Opens the database, or creates it; one that is damaged is replaced by an empty one. `store` is the store that
    // the files are a mirror of.
    MirrorJournal(const std::string& path, const StoreIdentity& store);

    // The store that a journal which nobody uses belongs to, and its generation then. Nothing when there is none.
    // Throws StoreError.
    static std::optional<StoreIdentity> ReadStore(const std::string& path);

    JournalTrust trust() const { return trust_; }

    // It describes the files of another store, or of a later state of this one.
    bool is_of_other_store() const { return is_of_other_store_; }

    std::map<std::string, JournalEntry> Read();    // by key

    // Adds these entries, by key, and has the journal believed from now on. Of other files, an entry that was not
    // believed tells their texts only.
    void Start(const std::map<std::string, JournalEntry>& confirmed);

    // These texts may be written from now on. By key.
    void Intend(const std::map<std::string, uint64_t>& checksums);

    // These files have been written; null: the key has none. By key.
    void Record(const std::map<std::string, std::optional<JournalEntry>>& entries);

    // The daemon ends, and everything it wrote is on the disk.
    void Close();

private:
    JournalTrust JudgeTrust();
    void SetMeta(bool is_clean);
    template <typename Write>
    void InTransaction(Write write);

    const std::string path_;
    const StoreIdentity store_;
    SQLite::Database database_;
    SQLite::Statement put_entry_, delete_entry_, put_intention_;
    bool is_of_other_store_ = false;
    JournalTrust trust_;
};

}    // namespace reservationd
