// A model of the reservation manager, made of maps and sets: it has the rules and nothing of the code. It takes the
// operations that the manager takes, and tells what the world then sees.

#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/reservation/test_daemon.h"

using GuidSet = std::set<uint64_t>;
using Lines = std::vector<std::string>;

// A call of the manager, or something that happens around it. Every kind looks at some of the fields.
struct Operation {
    std::string kind = "";
    std::string key = "";
    uint16_t pkey = 1;
    Guids guids = {};
    Guids more = {};
    Limits limits = kNoLimits;
    uint64_t job = 0;
    uint32_t planes = 1;
    uint32_t trees = 1;
    unsigned variant = 0;

    // The reservation id of a job that has one of its own.
    uint64_t OwnId() const { return job % 3 == 0 ? 0 : std::hash<std::string>()("A"); }

    // The name of a file that is put there, with ~ when it is not to look like a reservation's, and the GUIDs in it.
    std::string FileName() const { return (variant == 3 ? "~" : "") + key + (variant == 1 ? ".copy" : ""); }
    Guids StoredGuids() const {
        GuidSet stored(guids.begin(), guids.end());
        stored.erase(0);
        return {stored.begin(), stored.end()};
    }
};

// A reservation's description: stored, asked for, or replied.
struct Record {
    std::string key = "";
    uint16_t pkey = 0;
    uint32_t state = 0;
    Guids guids = {};
    Limits limits = {};
    uint8_t auto_created = 0;

    std::string Text() const {
        Guids copy = guids;
        vesk_reservation_info info{"", pkey, state, static_cast<uint32_t>(copy.size()), nullptr, {}, auto_created};
        vesk_copy_key(info.reservation_key, key.c_str());
        if (!copy.empty()) info.guids = copy.data();
        std::copy(limits.begin(), limits.end(), info.limits);
        return Describe(info);
    }
};

std::string Listed(const auto& numbers) {
    std::ostringstream text;
    for (const auto number : numbers) text << (text.tellp() > 0 ? ", " : "") << std::hex << std::showbase << number;
    return "{" + text.str() + "}";
}

class Model {
public:
    struct Reservation : Record {
        std::map<uint64_t, GuidSet> jobs;    // with their GUIDs
        uint64_t id = 0;
        uint32_t max_trees = 0;
        uint32_t used_trees = 0;
    };

    std::map<std::string, Reservation> reservations;

    // The order in which reservations or files come where any would do.
    Lines order;

    // What was seen since the last call, as TestDaemon tells it; of a record of the log, the level alone.
    Lines Take() { return std::exchange(seen_, {}); }

    std::string State() const {
        std::ostringstream text;
        for (const auto& [name, file] : files_) {
            if (file) text << (name.starts_with('~') ? "/" : "/reservation.") << name << ": " << file->Text() << "\n";
        }
        for (const auto& [key, reservation] : reservations) {
            text << reservation.Text() << " id " << reservation.id << " trees " << reservation.used_trees << "/"
                 << reservation.max_trees << " jobs";
            for (const auto& [id, guids] : reservation.jobs) text << " " << id;
            text << "\n";
        }
        for (const auto& [guid, hca] : hcas_)
            text << std::hex << guid << std::dec << " of " << hca.owner << " " << hca.num_jobs << "\n";
        for (const auto& [id, key] : keys_by_id_) text << id << " is " << key << "\n";
        for (const auto& [key, reservation] : reservations) {
            for (const auto& [id, guids] : reservation.jobs) text << id << " on " << Listed(guids) << "\n";
        }
        for (const Job& job : jobs_) text << job.Name() << (job.accounted ? " accounted" : "") << "\n";
        text << num_failed_ << " failed, files" << FileNames();
        return text.str();
    }

    static void Switch(OptionInfo& options, const std::string& option) {
        const auto flip = [&](bool& flag) { flag = !flag; };
        if (option == "mode") flip(options.reservation_mode);
        if (option == "auto") flip(options.reservation_auto_by_pkeys);
        if (option == "override") flip(options.reservation_allow_guid_override);
        if (option == "ending jobs") flip(options.reservation_allow_ending_jobs);
        if (option == "load") flip(options.load_persistent_reservations);
        if (option == "jobs per HCA") options.max_jobs_per_hca = static_cast<uint16_t>(2 - options.max_jobs_per_hca);
        if (option == "trees") options.reservation_default_num_trees ^= 30000;
    }
    void Switch(const Operation& operation) { Switch(options_, operation.key); }

    // ---- Requests ----

    void Create(const Operation& operation) {
        Log(4);
        Record request{operation.key, operation.pkey, 0, operation.guids, operation.limits};
        const uint32_t status = CreateOrReplace(request);
        Reply(status, {request});
        See("sent " + Listed(request.guids));
        if (status != 0) ++num_failed_;
    }

    void Delta(const Operation& operation) {
        Guids to_add = operation.guids, to_remove = operation.more, none;
        if (operation.variant == 1) return See("status " + std::to_string(ApplyDelta(operation.key, none, none, 2, 2)));
        Log(4);
        const bool is_ignored = !options_.reservation_mode || IsAuto();
        const uint32_t status = is_ignored ? Ignored() : ApplyDelta(operation.key, to_add, to_remove);
        const Record nothing{operation.key};
        Reply(status, {is_ignored || status != 0 ? nothing : reservations[operation.key]});
        See("sent " + Listed(to_add) + Listed(to_remove));
        if (status != 0) ++num_failed_;
    }

    void Delete(const Operation& operation) {
        const std::string& key = operation.key;
        if (!options_.reservation_mode || IsAuto()) return Reply(Ignored(), {});
        if (!reservations.contains(key)) return Log(3), Reply(9, {Record{key}});
        Record entry = reservations[key];
        entry.state = 0;
        if (!reservations[key].jobs.empty() && !options_.reservation_allow_ending_jobs)
            return Log(3), Reply(10, {entry});
        entry.state = 3;
        Reply(0, {entry});
        Erase(key);
    }

    void Info(const Operation& operation) {
        const std::string& key = operation.key;
        if (!options_.reservation_mode) return Log(3), Reply(11, {});
        std::vector<Record> entries;
        for (const auto& [each, reservation] : reservations) {
            if (!key.empty() && each != key) continue;
            const Record brief{each, reservation.pkey, reservation.state};
            entries.push_back(operation.variant != 0 ? reservation : brief);
        }
        if (entries.empty()) Log(4);
        Reply(entries.empty() && !key.empty() ? 9 : 0, entries);
    }

    // ---- Jobs ----

    void Run(const Operation& operation) {
        const Guids& guids = operation.guids;
        const Guids& more = operation.more;
        if (RunningJob(operation.job) != nullptr) return;
        Job job{operation.job, std::hash<std::string>()(operation.key), operation.key, operation.planes % 256,
                operation.planes > 0 ? operation.trees % 256 : 0};
        if (reservations.contains(job.key)) job.reservation_id = reservations[job.key].id;
        if ((operation.variant & 2) != 0) job.reservation_id = operation.OwnId();
        if (operation.planes > 0 && operation.trees > 0 && !guids.empty())
            job.reference = *std::min_element(guids.begin(), guids.end());
        if (job.trees > 0) job.guids.insert(guids.begin(), guids.end());
        if (job.trees > 1) job.guids.insert(more.begin(), more.end());
        job.ports = guids;
        job.ports.insert(job.ports.end(), more.begin(), more.end());
        jobs_.push_back(job);
        if ((operation.variant & 1) == 0) return;
        Reservation* const found = FindByJob(job);
        const bool is_valid = found != nullptr && Validate(*found, job);
        if (is_valid) AddJob(*found, jobs_.back());
        See("found " + (found != nullptr ? found->key : "nothing") + (is_valid ? ", valid" : ""));
    }

    void Add(const Operation& operation) {
        Job* const job = RunningJob(operation.job);
        if (job != nullptr && reservations.contains(operation.key)) AddJob(reservations[operation.key], *job);
    }

    void End(const Operation& operation) {
        const Job* const job = RunningJob(operation.job);
        if (job != nullptr && operation.variant == 0 && reservations.contains(operation.key)) {
            Log(4);
            reservations[operation.key].jobs.erase(job->id);
            Count(reservations[operation.key], *job, -1);
        }
        Forget(operation.job);
    }

    void Reconcile(const Operation&) {
        for (auto& [key, reservation] : reservations) {
            Log(4);
            Reconcile(reservation);
        }
    }

    void Find(const Operation& operation) {
        std::set<std::string> owners;
        for (const uint64_t guid : operation.guids) owners.insert(hcas_.contains(guid) ? hcas_[guid].owner : "(none)");
        const bool is_found = owners.size() == 1 && !owners.contains("(none)");
        if (!is_found) Log(owners.empty() ? 1 : 3);
        See("found " + (is_found ? *owners.begin() : "nothing"));
    }

    // ---- Files, restarts and pkeys ----

    void PutFile(const Operation& operation) {
        const Record record{operation.key, operation.pkey, 2, operation.StoredGuids(), operation.limits, 1};
        DeleteFile(record.key);
        WriteFile(record);
        if (files_.erase(record.key) == 0) return;
        files_[operation.FileName()] = operation.variant != 2 ? std::optional(record) : std::nullopt;
    }

    void Restart(const Operation&) {
        reservations.clear();
        hcas_.clear();
        keys_by_id_.clear();
        std::set<std::string> names;
        for (const auto& [name, file] : files_) {
            if (!name.starts_with('~')) names.insert(name);
        }
        if (IsAuto()) {
            Log(3);
            for (const std::string& name : names) DeleteFile(name), Log(4);
            Log(3);
        } else if (!has_loaded_) {
            Log(3);
            for (const std::string& name : InOrder(names)) Load(name);
        }
        has_loaded_ = true;
    }

    void Report(const Operation& operation) {
        for (const uint64_t guid : operation.guids) Report(guid, operation.more);
    }

private:
    struct Hca {
        std::string owner;
        uint16_t num_jobs = 0;
    };

    struct Job {
        uint64_t id;
        uint64_t reservation_id;
        std::string key;
        uint32_t planes;
        uint32_t trees;
        std::optional<uint64_t> reference = {};
        GuidSet guids = {};    // of the trees of plane 0
        Guids ports = {};
        bool accounted = false;

        std::string Name() const { return (key.empty() ? "default" : key) + "_" + std::to_string(id); }
    };

    void See(const std::string& line) { seen_.push_back(line); }
    void Log(int level) { See(std::to_string(level)); }
    uint32_t Answer(uint32_t status, int level) { return Log(level), status; }
    uint32_t Ignored() { return IsAuto() ? Answer(0, 3) : Answer(11, 2); }
    bool IsAuto() const { return options_.reservation_mode && options_.reservation_auto_by_pkeys; }
    void Event(const std::string& event, const std::string& key) { See(event + " " + key + "; files" + FileNames()); }

    void Reply(uint32_t status, const std::vector<Record>& entries) {
        std::string line;
        for (const Record& entry : entries) line += (line.empty() ? " " : "; ") + entry.Text();
        See("reply " + std::to_string(status) + ":" + line);
    }

    std::string FileNames() const {
        std::string text;
        for (const auto& [name, file] : files_) text += " " + name;
        return text;
    }

    Lines InOrder(const std::set<std::string>& names) const {
        Lines ordered(names.begin(), names.end());
        const auto place = [&](const std::string& name) { return std::find(order.begin(), order.end(), name); };
        std::stable_sort(ordered.begin(), ordered.end(), [&](auto& a, auto& b) { return place(a) < place(b); });
        return ordered;
    }

    static Guids Without(Guids guids, const Guids& others) {
        std::erase_if(guids, [&](auto guid) { return std::count(others.begin(), others.end(), guid) != 0; });
        return guids;
    }

    uint32_t CreateOrReplace(Record& request) {
        if (!options_.reservation_mode || IsAuto()) return Ignored();
        if (request.key.empty()) return Answer(7, 3);
        if (request.guids.empty()) return Answer(8, 3);
        std::sort(request.guids.begin(), request.guids.end());
        std::set<std::string> robbed;
        uint32_t status = CheckAdded(request.key, request.guids, robbed);
        if (status == 0 && reservations.contains(request.key)) {
            status = Replace(reservations[request.key], request);
        } else if (status == 0) {
            request.state = 1;
            Enter(request);
            Event("created", request.key);
        }
        if (status != 0) return status;
        Finish(reservations[request.key], robbed);
        request.state = reservations[request.key].state;
        return 0;
    }

    uint32_t CheckAdded(const std::string& key, const Guids& guids, std::set<std::string>& robbed) {
        for (size_t i = 0; i < guids.size(); ++i) {
            if (guids[i] == 0) return Answer(8, 3);
            if (i > 0 && guids[i] == guids[i - 1]) return Answer(2, 3);
            const std::string owner = hcas_.contains(guids[i]) ? hcas_[guids[i]].owner : key;
            if (owner == key) continue;
            const bool may_end = options_.reservation_allow_ending_jobs || reservations[owner].jobs.empty();
            if (!options_.reservation_allow_guid_override || !may_end) return Answer(6, 3);
            robbed.insert(owner);
        }
        return 0;
    }

    uint32_t Replace(Reservation& reservation, const Record& request) {
        if (request.pkey != reservation.pkey) return Answer(12, 3);
        for (size_t i = 0; i < request.limits.size(); ++i) {
            if (request.limits[i] != ~0u && request.limits[i] != reservation.limits[i]) return Answer(13, 3);
        }
        if (request.guids == reservation.guids) return Answer(0, 3);
        return Change(reservation, request.guids, Without(reservation.guids, request.guids));
    }

    uint32_t ApplyDelta(const std::string& key, Guids& to_add, Guids& to_remove) {
        return ApplyDelta(key, to_add, to_remove, to_add.size(), to_remove.size());
    }
    // A list can be counted and not be there.
    uint32_t ApplyDelta(const std::string& key, Guids& to_add, Guids& to_remove, size_t num_to_add,
                        size_t num_to_remove) {
        Log(4);
        if (num_to_add == 0 && num_to_remove == 0) return Answer(8, 3);
        if (!reservations.contains(key)) return Answer(7, 3);
        const Guids held = reservations[key].guids;
        if (num_to_remove > held.size()) return Answer(8, 3);
        std::sort(to_remove.begin(), to_remove.end());
        std::sort(to_add.begin(), to_add.end());
        if (Without(to_add, held) != to_add) return Answer(2, 3);
        Guids guids = Without(held, to_remove);
        if (held.size() - guids.size() != to_remove.size()) return Answer(8, 3);
        guids.insert(guids.end(), to_add.begin(), to_add.end());
        std::sort(guids.begin(), guids.end());
        std::set<std::string> robbed;
        uint32_t status = CheckAdded(key, to_add, robbed);
        if (status == 0) status = Change(reservations[key], guids, to_remove);
        if (status == 0) Finish(reservations[key], robbed);
        return status;
    }

    void Enter(const Record& record) {
        Reservation& reservation = reservations[record.key];
        static_cast<Record&>(reservation) = record;
        const bool falls_back = record.limits[3] == ~0u && options_.reservation_default_num_trees != ~0u;
        reservation.max_trees =
            falls_back ? options_.reservation_default_num_trees : std::min(record.limits[3], 24575u);
        Claim(record);
        if (!options_.reservation_auto_by_pkeys) Reconcile(reservation);
        if (reservation.id == 0) {
            reservation.id = std::hash<std::string>()(record.key);
            while (keys_by_id_.contains(reservation.id)) ++reservation.id;
            keys_by_id_[reservation.id] = record.key;
        }
        Log(4);
        Log(3);
    }

    void Claim(const Record& record) {
        for (const uint64_t guid : record.guids) hcas_.try_emplace(guid, Hca{record.key});
    }

    uint32_t Change(Reservation& reservation, const Guids& guids, const Guids& removed) {
        const auto jobs = reservation.jobs;
        for (const auto& [id, used] : jobs) {
            if (Without({used.begin(), used.end()}, removed).size() == used.size()) continue;
            if (!options_.reservation_allow_ending_jobs) return Answer(14, 3);
            StopJob(reservation, id);
        }
        for (const uint64_t guid : removed) hcas_.erase(guid);
        for (const uint64_t guid : Without(guids, reservation.guids)) hcas_.try_emplace(guid, Hca{reservation.key});
        reservation.guids = guids;
        Log(3);
        if (!options_.reservation_auto_by_pkeys) Event("updated", reservation.key);
        return 0;
    }

    void Finish(const Reservation& reservation, const std::set<std::string>& robbed) {
        WriteFile(reservation);
        for (const std::string& key : InOrder(robbed)) {
            Log(3);
            Erase(key);
        }
        Claim(reservation);
    }

    void Erase(const std::string key) {
        const auto jobs = reservations[key].jobs;
        for (const auto& [id, guids] : jobs) StopJob(reservations[key], id);
        keys_by_id_.erase(reservations[key].id);
        for (const uint64_t guid : reservations[key].guids) hcas_.erase(guid);
        reservations.erase(key);
        DeleteFile(key);
        Log(3);
        Event("removed", key);
    }

    Job* RunningJob(uint64_t id) {
        const auto found = std::find_if(jobs_.begin(), jobs_.end(), [&](const Job& job) { return job.id == id; });
        return found != jobs_.end() ? &*found : nullptr;
    }

    void Forget(uint64_t id) {
        std::erase_if(jobs_, [&](const Job& job) { return job.id == id; });
    }

    Reservation* FindByJob(const Job& job) {
        if (!options_.reservation_mode || !job.reference || !hcas_.contains(*job.reference)) return Log(3), nullptr;
        const std::string& owner = hcas_[*job.reference].owner;
        for (const uint64_t guid : job.guids) {
            if (!hcas_.contains(guid) || hcas_[guid].owner != owner) return Log(3), nullptr;
        }
        return &reservations[owner];
    }

    bool Validate(const Reservation& reservation, const Job& job) {
        const uint32_t needed = job.planes * job.trees + reservation.used_trees;
        if (needed > job.planes * reservation.max_trees) return Log(3), false;
        if (options_.max_jobs_per_hca == 0) return true;
        for (const uint64_t guid : job.ports) {
            if (!hcas_.contains(guid)) return Log(1), false;
            if (hcas_[guid].num_jobs >= options_.max_jobs_per_hca) return Log(3), false;
        }
        return true;
    }

    void AddJob(Reservation& reservation, Job& job) {
        Log(4);
        reservation.jobs.try_emplace(job.id, job.guids);
        Count(reservation, job, 1);
        job.accounted = true;
    }

    void Count(Reservation& reservation, const Job& job, int sign) {
        reservation.used_trees += static_cast<uint32_t>(sign) * job.planes * job.trees;
        Log(4);
        if (options_.max_jobs_per_hca == 0) return;
        for (const uint64_t guid : job.ports) {
            Log(hcas_.contains(guid) ? 4 : 1);
            if (hcas_.contains(guid)) hcas_[guid].num_jobs = static_cast<uint16_t>(hcas_[guid].num_jobs + sign);
        }
    }

    // The job leaves a reservation in which it cannot go on.
    void StopJob(Reservation& reservation, uint64_t id) {
        Log(4);
        reservation.jobs.erase(id);
        Job* const job = RunningJob(id);
        if (job == nullptr || job->key != reservation.key || job->reservation_id != reservation.id) return;
        Count(reservation, *job, -1);
        job->accounted = false;
        Log(3);
        Fail(*job);
    }

    void Fail(const Job& job) {
        See("error " + job.Name() + " 8 0 0 0");
        See("end " + job.Name() + (job.accounted ? " accounted" : ""));
        Forget(job.id);
    }

    void Reconcile(Reservation& reservation) {
        const std::vector<Job> jobs = jobs_;
        for (const Job& job : jobs) {
            if (job.key != reservation.key) continue;
            if (FindByJob(job) != &reservation) {
                Log(2);
                Fail(job);
                continue;
            }
            Log(3);
            AddJob(reservation, *RunningJob(job.id));
            if (reservation.id == 0) {
                Log(4);
                reservation.id = job.reservation_id;
                keys_by_id_.try_emplace(reservation.id, job.key);
            }
            if (reservation.id != job.reservation_id) Log(2);
        }
    }

    void WriteFile(const Record& record) {
        const bool can_be_written = record.key.size() <= 243 && record.key.find('/') == std::string::npos;
        can_be_written ? void(files_[record.key] = record) : Log(2);
    }

    void DeleteFile(const std::string& name) {
        if (files_.erase(name) != 0) Log(3);
    }

    void Load(const std::string& name) {
        if (!options_.load_persistent_reservations) return DeleteFile(name);
        Log(3);
        const std::optional<Record>& file = files_[name];
        if (!file) return Log(1), DeleteFile(name);
        reservations.contains(file->key) ? Log(2) : Enter(*file);
    }

    void Report(uint64_t guid, const Guids& pkeys) {
        if (!IsAuto()) return Log(5);
        const bool is_held = hcas_.contains(guid);
        const std::string holder = is_held ? hcas_[guid].owner : "";
        if (pkeys.empty()) return is_held ? Remove(holder, guid) : void();
        const auto pkey = static_cast<uint16_t>(*std::min_element(pkeys.begin(), pkeys.end()));
        if (is_held && reservations[holder].pkey == pkey) return;
        if (is_held) Log(4), Remove(holder, guid);
        Log(4);
        std::ostringstream key;
        key << "reservation_0x" << std::hex << pkey;
        Guids none, to_add{guid};
        if (reservations.contains(key.str())) return void(ApplyDelta(key.str(), to_add, none));
        Enter({key.str(), pkey, 1, to_add, kNoLimits, 1});
        Finish(reservations[key.str()], {});
        Event("created", key.str());
    }

    void Remove(const std::string& holder, uint64_t guid) {
        Guids none, to_remove{guid};
        if (reservations[holder].guids.size() == 1) return Erase(holder);
        ApplyDelta(holder, none, to_remove);
    }

    OptionInfo options_{.reservation_mode = true};
    std::map<uint64_t, Hca> hcas_;
    std::map<uint64_t, std::string> keys_by_id_;
    std::map<std::string, std::optional<Record>> files_;    // nothing in a damaged one
    std::vector<Job> jobs_;    // those that run, in the order in which they started
    uint64_t num_failed_ = 0;
    bool has_loaded_ = false;
    Lines seen_;
};
