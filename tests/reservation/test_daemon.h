// A daemon around a reservation manager. It writes down, in one list, everything that the manager lets the world see.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/command_manager.h"
#include "host/dov_msg.h"
#include "host/event_manager.h"
#include "host/fabric.h"
#include "host/job.h"
#include "host/option_info.h"
#include "messages/vesk_messages.h"
#include "reservation/reservation_manager.h"
#include "tests/files.h"

struct dov_ep {
    int number;
};

using Guids = std::vector<uint64_t>;
using Limits = std::array<uint32_t, VESK_NUM_LIMITS>;

// The number's hexadecimal digits, `width` at least.
std::string Hex(uint64_t value, int width = 1);

// "{0x1, 0x2}".
std::string Listed(const auto& numbers) {
    std::string text;
    for (const auto number : numbers) text += (text.empty() ? "0x" : ", 0x") + Hex(number);
    return "{" + text + "}";
}

// Limits that give the number of trees alone.
Limits TreesLimit(uint32_t num_trees);
inline const Limits kNoLimits = TreesLimit(VESK_LIMIT_NOT_GIVEN);

// A reservation's description: stored, asked for, or replied.
struct Description {
    std::string key = "";
    uint16_t pkey = 0;
    uint32_t state = 0;
    Guids guids = {};
    Limits limits = {};
    uint8_t auto_created = 0;

    // Valid as long as the GUIDs stay where they are.
    vesk_reservation_info Info() const;
    std::string Text() const;
};

// "K 0x7fff state 1 {3,7} limits -,-,-,64,-,-,- auto 0". GUIDs in hexadecimal;
// "null" without an array.
std::string Describe(const vesk_reservation_info& info);

// The packed description, which may be null, or "" when it is refused.
std::string Pack(const vesk_reservation_info* info, int type = VESK_MSG_TYPE_RESERVATION_INFO);

// The description in a packed text, "no record", or "bad" when it is refused. What is not refused packs to the same.
std::string Unpack(const std::string& text, int type = VESK_MSG_TYPE_RESERVATION_INFO);

// The text with its checksum put right, or added, for faults that the checksum does not show.
std::string Sealed(const std::string& text);

// What is wrong with the registry's indexes, or "". Every reservation is under its key, has an id of its own, and lists
// distinct GUIDs in ascending order; every owner of a GUID is registered and lists it. `all_owned`: every listed GUID
// is owned by its lister.
std::string RegistryFault(const ReservationManager& manager, bool all_owned = true);

class TestDaemon : public CommandManager, public EventManager {
public:
    // Sets the daemon's globals. Reservation mode is on, the log level is 3, the persistent directory new and empty.
    TestDaemon();
    TestDaemon(const TestDaemon&) = delete;
    TestDaemon& operator=(const TestDaemon&) = delete;
    ~TestDaemon() override;

    OptionInfo options;
    Fabric fabric;
    std::unique_ptr<ReservationManager> manager;

    // Requests carry the sizes of their lists, but null pointers.
    bool withholds_arrays = false;

    // The array of the last create request, or the last delta's GUIDs to add, as the manager left it; and those to
    // remove.
    Guids sent_guids;
    Guids sent_guids_to_remove;

    // Each sends a request, checks that exactly one reply to it came, and returns the reply's status.
    uint32_t Create(const std::string& key, Guids guids, const Limits& limits = kNoLimits, uint16_t pkey = 0x7fff);
    uint32_t Delta(const std::string& key, Guids to_add, Guids to_remove);
    uint32_t Delete(const std::string& key);
    uint32_t Info(const std::string& key, bool with_details);

    // Starts a job under the key, with the id of the reservation that has it or will have it. Every tree of every plane
    // spans all GUIDs.
    VeskJob& Run(uint64_t job_id, const std::string& key, const Guids& guids, size_t planes = 1, size_t trees = 1);
    // The same, and adds the job to its reservation.
    VeskJob& Admit(uint64_t job_id, const std::string& key, const Guids& guids, size_t planes = 1, size_t trees = 1);
    // The job runs no more.
    void Forget(const VeskJob& job);
    const std::set<VeskJob*>& RunningJobs() const { return running_; }

    // Replaces the manager by an empty one, as a restart of the daemon does. Jobs go on running.
    void Restart();

    // What was seen since the last call, in order, a line each after an empty one:
    //   3 CreateReservation: text             a log record: level, operation, text
    //   created K; files B K                  an event, with the keys of the files at that moment
    //   error K_1 8 0 0 0 and end K_1         a job fails, and is told to end; "accounted" when its flag is set
    //   reply 0: ENTRY; ENTRY                 status and entries of a reply
    // The persistent directory reads DIR.
    std::string Take();

    // The content of every good file, a line each; and with the registry, its counts and the running jobs.
    std::string Stored() const;
    std::string State() const;

    std::string PathOf(const std::string& key) const { return options.persistent_dir + "/reservation." + key; }
    std::string FileNames() const;
    const ReservationInfo& Reservation(const std::string& key) const { return *manager->reservations.at(key); }

    void SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list,
                                 uint64_t transaction_id) const override;
    void HandleJobError(VeskJob* job, vesk_error_value value, vesk_error_type type, bool first, bool second) override;
    void SendEndJob(dov_ep* ep, const VeskJob* job) override;
    VeskJob* FindJob(uint64_t job_id, uint64_t reservation_id, const char* reservation_key) override;
    void GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const override;
    void AddReservationCreatedEvent(const char* reservation_key) override { SeeEvent("created", reservation_key); }
    void AddReservationUpdatedEvent(const char* reservation_key) override { SeeEvent("updated", reservation_key); }
    void AddReservationRemovedEvent(const char* reservation_key) override { SeeEvent("removed", reservation_key); }

protected:
    // Every request is made by a call of this.
    virtual void Call(const std::function<void()>& request) { request(); }

    void See(const std::string& line) const { seen_ += line + '\n'; }

private:
    uint64_t* ArrayOf(Guids& guids) const;
    template <typename Operation>
    uint32_t Request(Operation operation);
    void SeeEvent(const char* event, const char* reservation_key);

    const TemporaryDirectory directory_;
    const size_t num_open_files_;    // that the process had before
    std::vector<VeskJob> jobs_;    // in an array, so that sets of pointers keep the order in which the jobs started
    size_t num_jobs_ = 0;
    std::set<VeskJob*> running_;
    dov_ep ep_{1};
    uint64_t transaction_id_ = 0;
    mutable int num_replies_ = 0;
    mutable uint32_t status_ = 0;
    mutable std::string seen_;
};
