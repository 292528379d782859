// What a start makes of the store and of the reservation files that it finds.

#pragma once

#include <absl/status/statusor.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "daemon/storage/mirror_journal.h"
#include "daemon/storage/reservation_files.h"
#include "daemon/storage/store.h"

namespace reservationd {

struct RecoveryInput {
    const std::map<std::string, StoredReservation>& stored;
    std::set<std::string> damaged_keys;    // of reservations that the store has lost; none is in `stored`
    std::map<std::string, JournalEntry> journal;    // by key
    JournalTrust trust = JournalTrust::kNone;
    std::vector<FoundFile> files;    // by name
    std::function<absl::StatusOr<std::string>(const FoundFile& file)> read;    // see ReservationFiles::Read
};

struct FileToSetAside {
    std::string name;
    std::string reason;    // as the end of a sentence: "is damaged"
};

struct RecoveryPlan {
    std::map<std::string, std::string> taken;    // packed records by key, from files: they replace what is stored
    std::vector<FileToSetAside> set_aside;
    std::set<std::string> keys_to_write;    // their files are to be written, once the others are set aside
    std::set<std::string> keys_to_remove;    // their files are to be deleted
    std::map<std::string, JournalEntry> confirmed;    // files that are right, by key, as the journal is to have them
};

// Decides, and changes nothing. The store is the truth. A file is left unread when its size and time are those that the
// daemon wrote; such a file is at most older than the store. Any other one whose text the daemon did not write is an
// operator's: it is taken, when it is good and leaves every GUID to one reservation, and set aside otherwise. Unless
// the journal can be believed, a file that may just be older than the store is not taken for an operator's.
RecoveryPlan PlanRecovery(const RecoveryInput& input);

}    // namespace reservationd
