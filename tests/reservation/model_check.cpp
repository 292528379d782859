#include "tests/reservation/model_check.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <sstream>

#include "host/log.h"
#include "tests/reservation/model.h"

namespace {

// The manager in its daemon, which takes the same operations as the model.
class System : public TestDaemon {
public:
    System() { log_set_level(5); }

    void Create(const Operation& operation) {
        withholds_arrays = operation.variant == 1;
        TestDaemon::Create(operation.key, operation.guids, operation.limits, operation.pkey);
    }
    void Delta(const Operation& operation) {
        withholds_arrays = operation.variant == 1;
        TestDaemon::Delta(operation.key, operation.guids, operation.more);
        if (!withholds_arrays) See("sent " + Listed(sent_guids) + " " + Listed(sent_guids_to_remove));
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
        SeeFound(found);
        JobResource resource{static_cast<uint16_t>((operation.planes % 256) * (operation.trees % 256))};
        if (found == nullptr) return;
        const int status = manager->ValidateReservationResources(found, resource, &job);
        See("validated " + std::to_string(status));
        if (status == 0) manager->AddJob(found, &job);
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
        guids.reserve(1);    // an array even when it is empty
        uint64_t* const array = operation.variant == 1 ? nullptr : guids.data();
        SeeFound(manager->GetReservationByGuids(array, static_cast<uint32_t>(guids.size())));
    }

    void Put(const Operation& operation) {
        const Description stored = operation.Stored();
        manager->UpdateReservationInfoFile(stored.Info(), options.persistent_dir);
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
    void Level(const Operation& operation) { log_set_level(static_cast<int>(operation.variant)); }

    std::string State() const {
        return TestDaemon::State() + std::to_string(fabric.failed_reservation_requests) + " failed, files" +
               FileNames();
    }

private:
    void SeeFound(const ReservationInfo* found) {
        See(std::string("found ") + (found != nullptr ? found->info.reservation_key : "nothing"));
    }

    VeskJob* RunningJob(uint64_t id) const {
        for (VeskJob* job : RunningJobs()) {
            if (job->ext_job_id.job_id == id) return job;
        }
        return nullptr;
    }
};

struct Kind {
    unsigned weight;    // how often it comes
    void (Model::*model)(const Operation&);
    void (System::*system)(const Operation&);
};

const std::map<std::string, Kind> kKinds = {
    {"create", {30, &Model::Create, &System::Create}},    // key, pkey, guids, limits; variant 1: without arrays
    {"delta", {30, &Model::Delta, &System::Delta}},    // key, guids to add, more to remove; variant 1: without arrays
    {"delete", {10, &Model::Delete, &System::Delete}},    // key
    {"info", {10, &Model::Info, &System::Info}},    // key; variant not 0: with details
    // job, key; planes of trees of guids, the second one of more. Variant & 1: found, validated, added if it fits; & 2:
    // under a reservation id of its own.
    {"run", {40, &Model::Run, &System::Run}},
    {"add", {10, &Model::Add, &System::Add}},    // job, to key's reservation, unasked
    {"end", {20, &Model::End, &System::End}},    // job, in key's reservation; variant not 0: unnoticed
    {"reconcile", {2, &Model::Reconcile, &System::Reconcile}},
    {"find", {10, &Model::Find, &System::Find}},    // guids; variant 1: without an array
    {"put", {10, &Model::Put, &System::Put}},    // a file, as create; variant 1: renamed; 2: cut; 3: no reservation's
    {"restart", {5, &Model::Restart, &System::Restart}},
    {"report", {30, &Model::Report, &System::Report}},    // guids, all with the pkeys more
    {"switch", {10, &Model::Switch, &System::Switch}},    // key: the option
    {"level", {4, &Model::Level, &System::Level}},    // variant: the log's, 3 at least for a comparison
};

class Generator {
public:
    explicit Generator(const std::function<uint64_t()>& draw) : draw_(draw) {}

    Sequence Generate(size_t num_operations) {
        Sequence sequence;
        Model model;
        while (sequence.size() < num_operations) {
            sequence.push_back(sequence.size() < 6 ? Operation{.kind = "switch", .key = SomeOption()} : Next(model));
            (model.*kKinds.at(sequence.back().kind).model)(sequence.back());
            model.Take();
        }
        return sequence;
    }

private:
    size_t Below(size_t bound) { return draw_() % bound; }
    bool Chance(unsigned percent) { return Below(100) < percent; }

    std::string SomeKind() {
        Lines kinds;
        for (const auto& [name, kind] : kKinds) kinds.insert(kinds.end(), kind.weight, name);
        return kinds[Below(kinds.size())];
    }

    std::string SomeOption() {
        const char* const options[] = {"override", "ending_jobs", "jobs_per_hca", "override", "ending_jobs", "trees",
                                       "load",     "auto",        "auto",         "auto",     "mode"};
        return options[Chance(12) ? Below(std::size(options)) : Below(6)];
    }

    std::string SomeKey() {
        const std::string keys[] = {"A", "B", "C", "c", "CC", "", "x/y", "reservation_0x1", std::string(256, 'k')};
        return keys[Chance(10) ? Below(std::size(keys)) : Below(5)];
    }

    Guids SomeOf(Guids guids, size_t at_most) {
        const size_t count = std::min(Below(at_most + 1), guids.size());
        for (size_t i = 0; i < count; ++i) std::swap(guids[i], guids[i + Below(guids.size() - i)]);
        guids.resize(count);
        return guids;
    }

    // In any order; sometimes with one twice, or with 0.
    Guids SomeGuids(size_t at_most) {
        Guids guids = SomeOf({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, ~uint64_t{11}, ~uint64_t{12}, ~uint64_t{13}}, at_most);
        if (Chance(3)) guids.push_back(0);
        if (Chance(4) && !guids.empty()) guids.push_back(guids.back());
        return guids;
    }

    Operation Next(const Model& model) {
        const uint32_t limits[] = {0, 1, 2, 7, RESERVATION_NO_TREES_LIMIT - 1, RESERVATION_NO_TREES_LIMIT + 1};
        Operation next{SomeKind(), SomeKey()};
        next.guids = SomeGuids(6);
        next.more = SomeGuids(3);
        next.job = 1 + Below(10);
        if (Chance(10)) next.pkey = 2;
        if (Chance(20)) next.limits[Below(7)] = limits[Below(std::size(limits))];
        if (Chance(20)) next.limits[VESK_LIMIT_NUM_TREES] = limits[Below(std::size(limits))];
        if (Chance(20)) next.variant = static_cast<unsigned>(Below(4));
        if (next.kind == "switch") next.key = SomeOption();
        if (next.kind == "level") next.variant = static_cast<unsigned>(3 + Below(3));
        if (next.kind == "report") {
            next.guids.resize(std::min<size_t>(next.guids.size(), 2));
            for (uint64_t& pkey : next.more) pkey = pkey % 4 == 3 ? 0x8001 : pkey % 4;
        }
        if (next.kind == "run") {
            next.variant = Chance(75) ? 1 : static_cast<unsigned>(Below(4));
            next.planes = static_cast<uint32_t>(Chance(3) ? 256 : Below(4));
            next.trees = static_cast<uint32_t>(next.planes < 256 && Chance(3) ? 256 + Below(2) : 1 + Below(4));
        }
        const bool fits = !model.reservations.empty() && next.kind != "switch" && next.kind != "report" && Chance(80);
        const auto at = static_cast<std::ptrdiff_t>(fits ? Below(model.reservations.size()) : 0);
        if (fits) Fit(next, std::next(model.reservations.begin(), at)->second);
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
        if (next.kind == "info" && Chance(30)) next.key = "";
        if (next.kind == "delta" && Chance(70))
            std::erase_if(next.guids, [&](uint64_t guid) { return std::count(guids.begin(), guids.end(), guid) > 0; });
        if (next.kind == "run" || next.kind == "find") next.guids = SomeOf(guids, 3);
        if (next.kind == "run" && Chance(80)) next.more = SomeOf(guids, 2);
        if (next.kind == "end" && !reservation.jobs.empty()) next.job = reservation.jobs.begin()->first;
    }

    const std::function<uint64_t()>& draw_;
};

// The first line that is not as expected, or "".
std::string FirstDifference(const std::string& expected, const std::string& actual) {
    std::istringstream expected_lines(expected), actual_lines(actual);
    for (std::string wanted, seen; expected_lines || actual_lines;) {
        if (!std::getline(expected_lines, wanted)) wanted = "nothing";
        if (!std::getline(actual_lines, seen)) seen = "nothing";
        if (seen != wanted) return "expected: " + wanted + "\nseen: " + seen;
    }
    return "";
}

// The keys and files that the lines tell of.
Lines OrderIn(const std::string& seen) {
    const std::string event = "removed ", path = "DIR/reservation.";
    std::istringstream lines(seen);
    Lines order;
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(path);
        if (line.starts_with(event)) order.push_back(line.substr(event.size(), line.find(';') - event.size()));
        if (at != std::string::npos) order.push_back(line.substr(at + path.size()));
    }
    return order;
}

}    // namespace

std::string InChild(const std::function<std::string()>& function) {
    int ends[2];
    if (pipe(ends) != 0) return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(20);
        const std::string text = function();
        _exit(write(ends[1], text.data(), text.size()) < 0 || testing::Test::HasFailure());
    }
    close(ends[1]);
    std::string text;
    char part[4096];
    ssize_t length = 0;
    while ((length = read(ends[0], part, sizeof(part))) > 0 || (length < 0 && errno == EINTR))
        text.append(part, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    close(ends[0]);
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    return status == 0 ? text : "ended with status " + std::to_string(status);
}

Sequence Generate(const std::function<uint64_t()>& draw, size_t num_operations) {
    return Generator(draw).Generate(num_operations);
}

std::string Compare(const Sequence& sequence, bool has_loaded) noexcept {
    System system;
    Model model;
    model.has_loaded = has_loaded;
    for (size_t i = 0; i < sequence.size(); ++i) {
        const Kind& kind = kKinds.at(sequence[i].kind);
        (system.*kind.system)(sequence[i]);
        const std::string seen = system.Take().substr(1);
        model.order = OrderIn(seen);
        (model.*kind.model)(sequence[i]);
        std::string difference = FirstDifference(model.Take(), seen);
        if (difference.empty()) difference = FirstDifference(model.State(), system.State());
        if (!difference.empty()) return "operation " + std::to_string(i) + ": " + difference;
    }
    return "";
}

std::string Difference(const Sequence& sequence) {
    return InChild([&] { return Compare(sequence, false); });
}

Sequence Shrunk(Sequence sequence) {
    bool has_shrunk = true;
    const auto try_instead = [&](const Sequence& candidate) {
        if (candidate == sequence || Difference(candidate).empty()) return false;
        sequence = candidate;
        return has_shrunk = true;
    };
    const auto without = [](auto list, size_t at, size_t count) {
        const auto first = list.begin() + static_cast<std::ptrdiff_t>(at);
        list.erase(first, first + static_cast<std::ptrdiff_t>(std::min(count, list.size() - at)));
        return list;
    };
    const auto try_field = [&](size_t i, auto field, const auto& value) {
        Sequence candidate = sequence;
        candidate[i].*field = value;
        return try_instead(candidate);
    };
    const auto try_usual = [&](size_t i, auto... fields) { (try_field(i, fields, Operation().*fields), ...); };
    while (std::exchange(has_shrunk, false)) {
        for (size_t chunk = sequence.size(); chunk > 0; chunk /= 2) {
            for (size_t at = 0; at < sequence.size();) at += try_instead(without(sequence, at, chunk)) ? 0 : chunk;
        }
        for (size_t i = 0; i < sequence.size(); ++i) {
            for (const auto list : {&Operation::guids, &Operation::more}) {
                for (size_t at = 0; at < (sequence[i].*list).size();)
                    at += try_field(i, list, without(sequence[i].*list, at, 1)) ? 0U : 1U;
            }
            try_usual(i, &Operation::key, &Operation::pkey, &Operation::limits, &Operation::job, &Operation::planes,
                      &Operation::trees, &Operation::variant);
        }
    }
    return sequence;
}

std::string Code(const Sequence& sequence) {
    std::string code = "EXPECT_EQ(Difference({\n";
    for (const Operation& operation : sequence) {
        const auto& [kind, key, pkey, guids, more, limits, job, planes, trees, variant] = operation;
        code += "    {\"" + kind + "\", \"" + key + "\", " + std::to_string(pkey) + ", " + Listed(guids) + ", " +
                Listed(more) + ", " + (limits == kNoLimits ? "kNoLimits" : "{" + Listed(limits) + "}");
        for (const uint64_t number : {job, uint64_t{planes}, uint64_t{trees}, uint64_t{variant}})
            code += ", " + std::to_string(number);
        code += "},\n";
    }
    return code + "}), \"\");\n";
}
