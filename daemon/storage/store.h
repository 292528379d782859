// Where the daemon keeps what it has answered: reservations, jobs, and the newest events.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
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

struct StoredReservation {
    std::string packed;    // its record, as dov_msg_pack packs it
    uint64_t id = 0;

    bool operator==(const StoredReservation&) const = default;
};

// Changes that are committed together or not at all. A null value deletes.
struct StoreChanges {
    std::map<std::string, std::optional<StoredReservation>> reservations;    // by key; the keys become dirty
    std::map<uint64_t, std::optional<std::string>> jobs;    // by id; a serialized v1::Job
    std::vector<std::pair<uint64_t, std::string>> events;    // by ascending sequence number; a serialized v1::Event
    std::set<std::string> clean_keys;    // applied before `reservations`

    bool empty() const { return reservations.empty() && jobs.empty() && events.empty() && clean_keys.empty(); }
};

// Used by one thread at a time.
class Store {
public:
    Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    virtual ~Store() = default;

    // What Commit promises when it returns.
    virtual Durability durability() const = 0;

    // Everything that has been committed and not been deleted since. Each throws StoreError when the store cannot be
    // read.
    virtual std::map<std::string, StoredReservation> ReadReservations() = 0;
    virtual std::map<uint64_t, std::string> ReadJobs() = 0;
    virtual std::vector<std::pair<uint64_t, std::string>> ReadEvents() = 0;    // by ascending sequence number

    // The keys whose reservation files may differ from what is stored here.
    virtual std::set<std::string> ReadDirtyKeys() = 0;

    // Throws StoreError, with nothing changed, when the store cannot be written.
    virtual void Commit(const StoreChanges& changes) = 0;

    // Tests that a commit would succeed, by committing 4 KiB of no meaning. Throws StoreError when it cannot be.
    virtual void Probe() = 0;
};

}    // namespace reservationd
