// Random sequences of operations, each compared with the model: what the world sees of it, the registry, the counts,
// the jobs and the files. A sequence that fails is made as short as it gets, and printed as code.
//
// Environment: MODEL_SEED (1 unless given), MODEL_SEQUENCES (200), or MODEL_SECONDS instead: for how long to run.

#include "tests/reservation/model.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <stdexcept>

#include "host/log.h"

namespace {

// The manager in its daemon, which takes the same operations as the model.
class System : public TestDaemon {
public:
    // Of the last operation: what the daemon does not see.
    std::string note;

    System() { log_set_level(5); }

    void Create(const Operation& operation) {
        TestDaemon::Create(operation.key, operation.guids, operation.limits, operation.pkey);
        note = "sent " + Listed(sent_guids);
    }
    void Delta(const Operation& operation) {
        vesk_update_reservation_by_delta without_arrays{"", 2, 2, nullptr, nullptr};
        vesk_copy_key(without_arrays.reservation_key, operation.key.c_str());
        if (operation.variant == 1) {
            note = "status " + std::to_string(manager->InternalUpdateReservationByDelta(without_arrays));
        } else {
            TestDaemon::Delta(operation.key, operation.guids, operation.more);
            note = "sent " + Listed(sent_guids) + Listed(sent_guids_to_remove);
        }
    }
    void Delete(const Operation& operation) { TestDaemon::Delete(operation.key); }
    void Info(const Operation& operation) { TestDaemon::Info(operation.key, operation.variant != 0); }

    void Run(const Operation& operation) {
        if (RunningJob(operation.job) != nullptr) return;
        VeskJob& job =
            TestDaemon::Run(operation.job, operation.key, operation.guids, operation.planes, operation.trees);
        if ((operation.variant & 2) != 0) job.ext_job_id.reservation_id = operation.OwnId();
        VeskTree second;
        for (const uint64_t guid : operation.more) second.ports.insert(job.AddPort(guid, 2));
        if (operation.planes > 0 && operation.trees > 1) job.plane_trees[0][1] = second;
        if ((operation.variant & 1) == 0) return;
        ReservationInfo* const found = manager->GetReservationByJob(&job);
        JobResource resource{static_cast<uint16_t>((operation.planes % 256) * (operation.trees % 256))};
        const bool is_valid = found != nullptr && manager->ValidateReservationResources(found, resource, &job) == 0;
        if (is_valid) manager->AddJob(found, &job);
        note = NameOf(found) + (is_valid ? ", valid" : "");
    }
    void Add(const Operation& operation) {
        ReservationInfo* const reservation = manager->GetReservationInfoByKey(operation.key);
        VeskJob* const job = RunningJob(operation.job);
        if (job != nullptr && reservation != nullptr) manager->AddJob(reservation, job);
    }
    void End(const Operation& operation) {
        ReservationInfo* const reservation = manager->GetReservationInfoByKey(operation.key);
        const VeskJob* const job = RunningJob(operation.job);
        if (job == nullptr) return;
        if (reservation != nullptr && operation.variant == 0) manager->RemoveJob(reservation, job);
        Forget(*job);
    }
    void Reconcile(const Operation&) { manager->HandleAlreadyRunningJobsForAllReservations(); }
    void Find(const Operation& operation) {
        Guids guids = operation.guids;
        note = NameOf(manager->GetReservationByGuids(guids.data(), static_cast<uint32_t>(guids.size())));
    }

    void PutFile(const Operation& operation) {
        Guids guids = operation.StoredGuids();
        vesk_reservation_info info{"", operation.pkey, 2, static_cast<uint32_t>(guids.size()), guids.data(), {}, 1};
        vesk_copy_key(info.reservation_key, operation.key.c_str());
        std::copy(operation.limits.begin(), operation.limits.end(), info.limits);
        manager->UpdateReservationInfoFile(info, options.persistent_dir);
        const std::string name = operation.FileName(), path = PathOf(operation.key);
        std::error_code error;
        if (!std::filesystem::exists(path, error)) return;
        if (operation.variant == 2) std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
        std::filesystem::rename(path, name.starts_with('~') ? options.persistent_dir + "/" + name : PathOf(name));
    }
    void Restart(const Operation&) {
        TestDaemon::Restart();
        manager->ReadPersistentReservationInfoFiles();
        manager->DeleteAllPersistentReservationFiles();
    }
    void Report(const Operation& operation) {
        for (const uint64_t guid : operation.guids)
            manager->UpdateReservationWithGuidPkeys({guid, 1}, {operation.more.begin(), operation.more.end()});
    }
    void Switch(const Operation& operation) { Model::Switch(options, operation.key); }

    std::string State() const {
        std::ostringstream text;
        text << TestDaemon::State();
        const std::map<uint64_t, std::string> keys(manager->reservation_keys_by_id.begin(),
                                                   manager->reservation_keys_by_id.end());
        for (const auto& [id, key] : keys) text << id << " is " << key << "\n";
        for (const auto& [key, reservation] : manager->reservations) {
            for (const auto& [id, job] : reservation->jobs)
                text << job.job_id << " on " << Listed(GuidSet(job.guids.begin(), job.guids.end())) << "\n";
        }
        for (const VeskJob* job : RunningJobs())
            text << job->ext_job_id.ToString() << (job->reservation_accounted ? " accounted" : "") << "\n";
        text << fabric.failed_reservation_requests << " failed, files" << FileNames();
        return text.str();
    }

private:
    static std::string NameOf(const ReservationInfo* found) {
        return std::string("found ") + (found != nullptr ? found->info.reservation_key : "nothing");
    }

    VeskJob* RunningJob(uint64_t id) const {
        for (VeskJob* job : RunningJobs()) {
            if (job->ext_job_id.job_id == id) return job;
        }
        return nullptr;
    }
};

struct Kind {
    double weight;    // how often it comes
    void (Model::*model)(const Operation&);
    void (System::*system)(const Operation&);
};

const std::map<std::string, Kind> kKinds = {
    {"create", {3, &Model::Create, &System::Create}},    // key, pkey, guids, limits
    {"delta", {3, &Model::Delta, &System::Delta}},    // key, guids to add, more to remove; variant 1: without arrays
    {"delete", {1, &Model::Delete, &System::Delete}},    // key
    {"info", {1, &Model::Info, &System::Info}},    // key; variant not 0: with details
    // job, key; planes of trees of guids, the second one of more. Variant & 1: found, validated, added if it fits; & 2:
    // under a reservation id of its own.
    {"run", {4, &Model::Run, &System::Run}},
    {"add", {1, &Model::Add, &System::Add}},    // job, to key's reservation, unasked
    {"end", {2, &Model::End, &System::End}},    // job, in key's reservation; variant not 0: unnoticed
    {"reconcile", {0.2, &Model::Reconcile, &System::Reconcile}},
    {"find", {1, &Model::Find, &System::Find}},    // guids
    {"put file",
     {1, &Model::PutFile, &System::PutFile}},    // as create; variant 1: renamed; 2: cut; 3: no reservation's
    {"restart", {0.5, &Model::Restart, &System::Restart}},
    {"report", {3, &Model::Report, &System::Report}},    // guids, all with the pkeys more
    {"switch", {1, &Model::Switch, &System::Switch}},    // key: the option
};

using Sequence = std::vector<Operation>;

Lines Split(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// The first line that is not as expected, or "". Of a record of the log, its level alone counts.
std::string FirstDifference(const Lines& expected, const Lines& actual) {
    for (size_t i = 0; i < std::max(expected.size(), actual.size()); ++i) {
        const std::string wanted = i < expected.size() ? expected[i] : "nothing";
        const std::string seen = i < actual.size() ? actual[i] : "nothing";
        if (seen != wanted && !(wanted.size() == 1 && seen.starts_with(wanted + " ")))
            return "expected: " + wanted + "; seen: " + seen;
    }
    return "";
}

// The keys and files that the lines tell of.
Lines OrderIn(const Lines& lines) {
    const std::string event = "removed ", path = "DIR/reservation.";
    Lines order;
    for (const std::string& line : lines) {
        const size_t at = line.find(path);
        if (line.starts_with(event)) order.push_back(line.substr(event.size(), line.find(';') - event.size()));
        if (at != std::string::npos) order.push_back(line.substr(at + path.size()));
    }
    return order;
}

// Does the operations one by one with the manager and the model. An exception ends the process.
std::string Compare(const Sequence& sequence) noexcept {
    // What the daemon expects by itself does not hold once two stored reservations share a GUID.
    testing::TestPartResultArray ignored;
    const testing::ScopedFakeTestPartResultReporter reporter(&ignored);
    System system;
    Model model;
    for (size_t i = 0; i < sequence.size(); ++i) {
        const Kind& kind = kKinds.at(sequence[i].kind);
        (system.*kind.system)(sequence[i]);
        Lines seen = Split(system.Take() + std::exchange(system.note, ""));
        std::erase(seen, "");
        model.order = OrderIn(seen);
        (model.*kind.model)(sequence[i]);
        std::string state = system.State();
        for (size_t at = 0; (at = state.find(system.options.persistent_dir)) != std::string::npos;)
            state.erase(at, system.options.persistent_dir.size());
        std::string difference = FirstDifference(model.Take(), seen);
        if (difference.empty()) difference = FirstDifference(Split(model.State()), Split(state));
        if (!difference.empty()) return "operation " + std::to_string(i) + ", " + difference;
    }
    return "";
}

// Runs the sequence from scratch, in a process of its own: stored reservations are loaded once in a process, and a
// crash is a difference like any other. The first difference, or "".
std::string Difference(const Sequence& sequence) {
    int ends[2];
    if (pipe(ends) != 0) return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(20);
        const std::string text = Compare(sequence).substr(0, 4096);
        _exit(write(ends[1], text.data(), text.size()) < 0);
    }
    close(ends[1]);
    std::string text(4096, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(read(ends[0], text.data(), text.size()), 0)));
    close(ends[0]);
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0 ? text : "ended with status " + std::to_string(status);
}

class Generator {
public:
    explicit Generator(std::seed_seq seed) : random_(seed) {}

    Sequence Generate() {
        Sequence sequence;
        Model model;
        for (const size_t size = 40 + Below(160); sequence.size() < size;) {
            sequence.push_back(sequence.size() < 6 ? Operation{.kind = "switch", .key = SomeOption()} : Next(model));
            (model.*kKinds.at(sequence.back().kind).model)(sequence.back());
            model.Take();
        }
        return sequence;
    }

private:
    unsigned Below(size_t bound) { return static_cast<unsigned>(random_() % bound); }
    bool Chance(unsigned percent) { return Below(100) < percent; }

    std::string SomeOption() {
        const char* const options[] = {"override", "ending jobs", "jobs per HCA", "override", "ending jobs", "trees",
                                       "load",     "auto",        "auto",         "auto",     "mode"};
        return options[Chance(12) ? Below(std::size(options)) : Below(6)];
    }

    std::string SomeKey() {
        const std::string keys[] = {"A", "B", "C", "c", "CC", "", "x/y", "reservation_0x1", std::string(256, 'k')};
        return keys[Chance(10) ? Below(std::size(keys)) : Below(5)];
    }

    // In any order; sometimes with one twice, or with 0.
    Guids SomeGuids(size_t at_most) {
        Guids guids;
        for (uint64_t guid = 1; guid <= 14; ++guid) guids.push_back(guid < 11 ? guid : ~guid);
        std::shuffle(guids.begin(), guids.end(), random_);
        guids.resize(Below(at_most + 1));
        if (Chance(3)) guids.push_back(0);
        if (Chance(4) && !guids.empty()) guids.push_back(guids.back());
        return guids;
    }

    Guids SomeOf(const Guids& guids, size_t at_most) {
        Guids some;
        std::sample(guids.begin(), guids.end(), std::back_inserter(some), Below(at_most + 1), random_);
        std::shuffle(some.begin(), some.end(), random_);
        return some;
    }

    Operation Next(const Model& model) {
        std::vector<double> weights;
        for (const auto& [name, kind] : kKinds) weights.push_back(kind.weight);
        Operation next{
            std::next(kKinds.begin(), std::discrete_distribution(weights.begin(), weights.end())(random_))->first};
        next.key = SomeKey();
        next.guids = SomeGuids(6);
        next.more = SomeGuids(3);
        next.job = 1 + Below(10);
        if (Chance(10)) next.pkey = 2;
        if (Chance(20)) next.limits[Below(7)] = Below(4) * 12288;
        if (Chance(20)) next.variant = Below(4);
        if (next.kind == "switch") next.key = SomeOption();
        if (next.kind == "report") {
            next.guids.resize(std::min<size_t>(next.guids.size(), 2));
            for (uint64_t& pkey : next.more) pkey = pkey % 4 == 3 ? 0x8001 : pkey % 4;
        }
        if (next.kind == "run") {
            next.variant = Chance(75) ? 1 : Below(4);
            next.planes = Chance(3) ? 256 : Below(4);
            next.trees = next.planes < 256 && Chance(3) ? 256 + Below(2) : 1 + Below(4);
        }
        const bool fits = !model.reservations.empty() && next.kind != "switch" && next.kind != "report" && Chance(80);
        if (fits) Fit(next, std::next(model.reservations.begin(), Below(model.reservations.size()))->second);
        return next;
    }

    // Makes the operation one that makes sense for the reservation.
    void Fit(Operation& next, const Model::Reservation& reservation) {
        const Guids& guids = reservation.guids;
        if (next.kind == "create" && Chance(60)) return;
        next.key = reservation.key;
        next.pkey = Chance(95) ? reservation.pkey : next.pkey;
        if (next.kind == "create" && Chance(20)) next.guids = SomeOf(guids, guids.size());
        if (next.kind == "delta") next.more = SomeOf(guids, 3);
        if (next.kind == "delta" && Chance(70))
            std::erase_if(next.guids, [&](uint64_t guid) { return std::count(guids.begin(), guids.end(), guid) > 0; });
        if (next.kind == "run" || next.kind == "find") next.guids = SomeOf(guids, 3);
        if (next.kind == "run" && Chance(80)) next.more = SomeOf(guids, 2);
        if (next.kind == "end" && !reservation.jobs.empty()) next.job = reservation.jobs.begin()->first;
    }

    std::mt19937_64 random_;
};

// In the order of their declaration, and all but the kind.
void ForEachField(const auto& function) {
    function("key", &Operation::key);
    function("pkey", &Operation::pkey);
    function("guids", &Operation::guids);
    function("more", &Operation::more);
    function("limits", &Operation::limits);
    function("job", &Operation::job);
    function("planes", &Operation::planes);
    function("trees", &Operation::trees);
    function("variant", &Operation::variant);
}

// Takes out of the failing sequence what it fails without: operations, many or few at once; GUIDs; what is unusual.
Sequence Shrunk(Sequence sequence) {
    bool has_shrunk = true;
    const auto try_instead = [&](const Sequence& candidate) {
        if (Difference(candidate).empty()) return false;
        sequence = candidate;
        return has_shrunk = true;
    };
    const auto without = [](auto list, size_t at, size_t count) {
        const auto first = list.begin() + static_cast<std::ptrdiff_t>(at);
        list.erase(first, first + static_cast<std::ptrdiff_t>(std::min(count, list.size() - at)));
        return list;
    };
    const auto simplify = [&](size_t i, auto field) {
        Sequence candidate = sequence;
        if (std::exchange(candidate[i].*field, Operation().*field) != Operation().*field) try_instead(candidate);
    };
    while (std::exchange(has_shrunk, false)) {
        for (size_t chunk = sequence.size(); chunk > 0; chunk /= 2) {
            for (size_t at = 0; at < sequence.size();) at += try_instead(without(sequence, at, chunk)) ? 0 : chunk;
        }
        for (size_t i = 0; i < sequence.size(); ++i) {
            for (Guids Operation::*const list : {&Operation::guids, &Operation::more}) {
                for (size_t at = 0; at < (sequence[i].*list).size();) {
                    Sequence candidate = sequence;
                    candidate[i].*list = without(sequence[i].*list, at, 1);
                    if (!try_instead(candidate)) ++at;
                }
            }
            ForEachField([&](const char*, auto field) { simplify(i, field); });
        }
    }
    return sequence;
}

// As a test would state it.
std::string Code(const Sequence& sequence) {
    const auto text = [](const auto& value) -> std::string {
        if constexpr (std::is_convertible_v<decltype(value), std::string>) {
            return '"' + value + '"';
        } else if constexpr (std::is_arithmetic_v<std::decay_t<decltype(value)>>) {
            return std::to_string(value);
        } else {
            return Listed(value);
        }
    };
    std::string code = "EXPECT_EQ(Difference({\n";
    for (const Operation& operation : sequence) {
        code += "    {.kind = " + text(operation.kind);
        ForEachField([&](const std::string& name, auto field) {
            if (operation.*field != Operation().*field) code += ", ." + name + " = " + text(operation.*field);
        });
        code += "},\n";
    }
    return code + "}), \"\");\n";
}

uint64_t Setting(const char* name, uint64_t usual) {
    const char* const text = std::getenv(name);
    if (text == nullptr) return usual;
    const uint64_t value = std::strtoull(text, nullptr, 10);
    if (std::to_string(value) != text) throw std::invalid_argument(std::string(name) + " is no whole number: " + text);
    return value;
}

TEST(Model, IsFollowed) {
    using Clock = std::chrono::steady_clock;
    const uint64_t seed = Setting("MODEL_SEED", 1), seconds = Setting("MODEL_SECONDS", 0);
    const uint64_t num_sequences = Setting("MODEL_SEQUENCES", seconds == 0 ? 200 : ~uint64_t{0});
    const Clock::time_point end =
        seconds == 0 ? Clock::time_point::max() : Clock::now() + std::chrono::seconds(seconds);
    uint64_t number = 0, num_steps = 0;
    for (; number < num_sequences && Clock::now() < end; ++number) {
        const Sequence sequence = Generator({seed, number}).Generate();
        num_steps += sequence.size();
        if (Difference(sequence).empty()) continue;
        const Sequence shrunk = Shrunk(sequence);
        FAIL() << "seed " << seed << ", sequence " << number << ", " << Difference(shrunk) << "\n" << Code(shrunk);
    }
    std::cout << number << " sequences, " << num_steps << " steps compared" << std::endl;
}

}    // namespace
