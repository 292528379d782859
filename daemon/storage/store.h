// Where the daemon keeps what it has answered: reservations, jobs, and the newest events.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace reservationd {

// What a committed change survives: the end of the process, or a loss of the machine's power as well.
enum class Durability { kProcess, kMachine };

// The store cannot be opened, read or written. The message names the store and the reason.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Which store this is, and how often it has been opened.
struct StoreIdentity {
    std::string id;    // random, 32 characters; given when the store was created, and anew after a loss
    uint64_t generation = 0;    // 1 when it was opened first, and 1 more each time

    bool operator==(const StoreIdentity&) const = default;
};

struct StoredReservation {
    std::string packed;    // its record, as dov_msg_pack packs it
    uint64_t id = 0;
    int64_t created_unix_millis = 0;    // 0: not known

    bool operator==(const StoredReservation&) const = default;
};

// Everything that has been committed and not been deleted since.
struct StoreContents {
    std::map<std::string, StoredReservation> reservations;    // by key
    std::map<uint64_t, std::string> jobs;    // by id; a serialized v1::Job
    std::map<uint64_t, std::string> events;    // by sequence number; a serialized v1::Event
};

// What a store found damaged and keeps out of its contents from then on, where a person can find it.
struct DamagedRows {
    std::vector<std::string> reservation_keys;
    std::vector<uint64_t> job_ids;
    std::vector<uint64_t> event_sequences;
};

// Changes that are committed together or not at all. A null value deletes.
struct StoreChanges {
    std::map<std::string, std::optional<StoredReservation>> reservations;
    std::map<uint64_t, std::optional<std::string>> jobs;
    std::map<uint64_t, std::string> events;

    bool empty() const { return reservations.empty() && jobs.empty() && events.empty(); }
};

// Used by one thread at a time.
class Store {
public:
    Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    virtual ~Store() = default;

    // The same from the start on. For any thread.
    virtual const StoreIdentity& identity() const = 0;

    // What the store has lost since it was used last, as a sentence: it is another one, an older one, or was cut.
    // Empty: nothing, as far as that can be known.
    virtual const std::string& loss() const = 0;

    // What Commit promises when it returns.
    virtual Durability durability() const = 0;

    // Sets apart what is damaged, and tells what that was. To be called before anything else is read. Throws
    // StoreError.
    virtual DamagedRows SetDamagedAside() = 0;

    // Throws StoreError when the store cannot be read.
    virtual StoreContents Read() = 0;

    // Throws StoreError, with nothing changed, when the store cannot be written, or is not in its place any more.
    //
    // REQUIRES: the store has been read, and read again after a commit that threw.
    virtual void Commit(const StoreChanges& changes) = 0;

    // Tests that a commit would succeed, by committing 4 KiB of no meaning. Throws StoreError when it would not.
    virtual void Probe() = 0;
};

}    // namespace reservationd
