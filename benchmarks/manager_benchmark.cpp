// The manager's operations, each beside its floor: what no implementation could leave out, measured in turns with it;
// and the memory that they take.
//
// The floor of a change is the system calls that its file cannot do without, with the same bytes, and the same entries
// put into, or taken out of, a map of the same type and size at known places. The floor of a job's four operations is
// four visits of the same entries in order; with_set, also the making of the set of GUIDs that its entry holds. The
// floor of the load is one open, read and close of each file; with_index, also the same entries put into a map.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "host/dov_msg.h"
#include "host/log.h"
#include "host/option_info.h"
#include "reservation/reservation_manager.h"

namespace {

using Clock = std::chrono::steady_clock;
using Guids = std::vector<uint64_t>;
using Index = std::map<uint64_t, ReservationHCAInfo>;

constexpr char kKey[] = "measured";

// GUIDs of the fabric's HCAs lie this far apart, so that others fit between them.
constexpr uint64_t kStride = 1000;

enum class Placement { kContiguous, kScattered };

// A command manager that only looks whether requests succeed.
class Client : public CommandManager {
public:
    void SendReservationInfoList(const dov_ep*, vesk_reservation_info_list& list, uint64_t) const override {
        if (list.status == VESK_STATUS_SUCCESS) return;
        std::fprintf(stderr, "a request was refused with status %u\n", list.status);
        std::abort();
    }
    void HandleJobError(VeskJob*, vesk_error_value, vesk_error_type, bool, bool) override {}
    void SendEndJob(dov_ep*, const VeskJob*) override {}
    VeskJob* FindJob(uint64_t, uint64_t, const char*) override { return nullptr; }
    void GetJobsByReservationKey(std::set<VeskJob*>&, const char*) const override {}
};

std::string Directory() {
    static const std::string dir = [] {
        std::string pattern = std::filesystem::temp_directory_path() / "manager_benchmark.XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        return pattern;
    }();
    return dir;
}

// A manager in a fabric of `num_hcas` reserved HCAs, held by `num_reservations` reservations of one size.
struct Fabric {
    Fabric(uint64_t num_hcas, uint64_t num_reservations) {
        options.reservation_mode = true;
        options.max_jobs_per_hca = 1000;
        options.persistent_dir = "/nonexistent";
        g_option_info = &options;
        log_set_sink([](const LogRecord&) {});
        log_set_level(2);
        const uint64_t size = num_hcas / num_reservations;
        for (uint64_t i = 0; i < num_reservations; ++i) {
            Guids guids(size);
            for (uint64_t j = 0; j < size; ++j) guids[j] = (1 + i * size + j) * kStride;
            Create("background" + std::to_string(i), guids);
        }
        options.persistent_dir = Directory();
        std::filesystem::create_directories(Directory());
    }

    void Create(const std::string& key, Guids& guids) {
        vesk_create_reservation request{};
        vesk_copy_key(request.reservation_key, key.c_str());
        request.num_guids = static_cast<uint32_t>(guids.size());
        request.guids = guids.data();
        std::fill(std::begin(request.limits), std::end(request.limits), VESK_LIMIT_NOT_GIVEN);
        manager.CreateReservation(request, nullptr, 0);
    }

    void Delta(Guids to_add, Guids to_remove) {
        vesk_update_reservation_by_delta request{};
        vesk_copy_key(request.reservation_key, kKey);
        request.num_guids_to_add = static_cast<uint32_t>(to_add.size());
        request.guids_to_add = to_add.data();
        request.num_guids_to_remove = static_cast<uint32_t>(to_remove.size());
        request.guids_to_remove = to_remove.data();
        manager.UpdateReservationByDelta(request, nullptr, 0);
    }

    void Delete() {
        vesk_delete_reservation request{};
        vesk_copy_key(request.reservation_key, kKey);
        manager.DeleteReservation(request, nullptr, 0);
    }

    OptionInfo options;
    Client client;
    ReservationManager manager{&client};
};

// The fabric of the benchmark that runs: only one at a time is kept.
Fabric& FabricOf(const benchmark::State& state) {
    static std::unique_ptr<Fabric> fabric;
    static std::pair<int64_t, int64_t> shape;
    const std::pair<int64_t, int64_t> wanted{state.range(0), state.range(1)};
    if (fabric == nullptr || shape != wanted) {
        fabric.reset();
        fabric = std::make_unique<Fabric>(wanted.first, wanted.second);
        shape = wanted;
    }
    g_option_info = &fabric->options;
    return *fabric;
}

// `count` GUIDs that no reservation holds: behind the fabric's, or spread evenly between them.
Guids FreeGuids(uint64_t count, uint64_t num_hcas, Placement placement) {
    Guids guids(count);
    for (uint64_t i = 0; i < count; ++i) {
        guids[i] = placement == Placement::kContiguous ? (num_hcas + 2) * kStride + i
                                                       : (1 + i * num_hcas / count) * kStride + 1 + i % (kStride - 1);
    }
    return guids;
}

template <typename Operation>
double Seconds(Operation operation) {
    const auto start = Clock::now();
    operation();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---- Floors ----

// The record of a reservation that holds these GUIDs; they stay the caller's.
vesk_reservation_info RecordOf(Guids& guids) {
    vesk_reservation_info info{};
    vesk_copy_key(info.reservation_key, kKey);
    info.num_guids = static_cast<uint32_t>(guids.size());
    info.guids = guids.data();
    return info;
}

struct PackedText {
    std::unique_ptr<char, decltype(&std::free)> buffer{nullptr, &std::free};
    uint64_t length = 0;
};

PackedText Packed(vesk_reservation_info info) {
    vesk_dov_msg msg{};
    msg.data = &info;
    char* buffer = nullptr;
    PackedText text;
    if (dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, &msg, &buffer, &text.length) != 0) std::abort();
    text.buffer.reset(buffer);
    return text;
}

std::string PackedRecord(Guids guids) {
    const PackedText text = Packed(RecordOf(guids));
    return {text.buffer.get(), text.length};
}

std::string FilePath() { return Directory() + "/reservation." + kKey; }

void WriteFile(const std::string& path, const std::string& text) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
    close(file);
}

void CopyBytes(const Guids& guids) {
    const std::unique_ptr<uint64_t[]> copy(new uint64_t[guids.size()]);
    std::copy(guids.begin(), guids.end(), copy.get());
    benchmark::DoNotOptimize(copy.get());
}

std::vector<Index::iterator> PlacesFor(Index& index, const Guids& guids) {
    std::vector<Index::iterator> places;
    for (const uint64_t guid : guids) places.push_back(index.lower_bound(guid));
    return places;
}

double SecondsToInsert(Index& index, const Guids& guids) {
    const std::vector<Index::iterator> places = PlacesFor(index, guids);
    return Seconds([&] {
        for (size_t i = 0; i < guids.size(); ++i) index.emplace_hint(places[i], guids[i], ReservationHCAInfo{nullptr});
    });
}

double SecondsToErase(Index& index, const Guids& guids) {
    const std::vector<Index::iterator> places = PlacesFor(index, guids);
    return Seconds([&] {
        for (const Index::iterator place : places) index.erase(place);
    });
}

// ---- Operation and floor in turns ----

double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

constexpr char kOperation[] = "operation";
constexpr char kFloor[] = "floor";

// Measures both in turns, so that whatever else the machine does meanwhile meets both alike. Each does its work once,
// and returns the seconds that what counts of it took.
template <typename Operation, typename Floor>
void MeasureInTurns(benchmark::State& state, Operation operation, Floor floor) {
    std::vector<double> operations;
    std::vector<double> floors;
    for (auto _ : state) {
        operations.push_back(operation());
        floors.push_back(floor());
        state.SetIterationTime(operations.back());
    }
    state.counters[kOperation] = Median(std::move(operations));
    state.counters[kFloor] = Median(std::move(floors));
}

// The seconds of one of many, for what takes hardly longer than to ask for the time.
template <typename Operation>
double SecondsOfOne(Operation operation) {
    constexpr int kMany = 16;
    return Seconds([&] {
               for (int i = 0; i < kMany; ++i) operation();
           }) /
           kMany;
}

// ---- Changes ----

Guids FreeGuids(const benchmark::State& state) {
    return FreeGuids(static_cast<uint64_t>(state.range(2)), static_cast<uint64_t>(state.range(0)),
                     static_cast<Placement>(state.range(3)));
}

void Create(benchmark::State& state) {
    Fabric& fabric = FabricOf(state);
    Guids guids = FreeGuids(state);
    const std::string text = PackedRecord(guids);
    const auto create = [&] {
        const double seconds = Seconds([&] { fabric.Create(kKey, guids); });
        fabric.Delete();
        return seconds;
    };
    const auto floor = [&] {
        const double seconds = Seconds([&] {
            CopyBytes(guids);
            WriteFile(FilePath(), text);
        });
        const double insertion = SecondsToInsert(fabric.manager.hca_infos, guids);
        SecondsToErase(fabric.manager.hca_infos, guids);
        unlink(FilePath().c_str());
        return seconds + insertion;
    };
    MeasureInTurns(state, create, floor);
}

void Delete(benchmark::State& state) {
    Fabric& fabric = FabricOf(state);
    Guids guids = FreeGuids(state);
    const std::string text = PackedRecord(guids);
    const auto delete_it = [&] {
        fabric.Create(kKey, guids);
        return Seconds([&] { fabric.Delete(); });
    };
    const auto floor = [&] {
        SecondsToInsert(fabric.manager.hca_infos, guids);
        WriteFile(FilePath(), text);
        return SecondsToErase(fabric.manager.hca_infos, guids) + Seconds([&] { unlink(FilePath().c_str()); });
    };
    MeasureInTurns(state, delete_it, floor);
}

// One list with every GUID but the last, one with every GUID but the first.
std::pair<Guids, Guids> Neighbours(const Guids& guids) {
    return {Guids(guids.begin(), guids.end() - 1), Guids(guids.begin() + 1, guids.end())};
}

// Exchanges one GUID of the reservation, there and back, by `change`, which is given the list held and the list wanted.
template <typename Change>
void MeasureChangeOfOneGuid(benchmark::State& state, Change change) {
    Fabric& fabric = FabricOf(state);
    const Guids guids = FreeGuids(state);
    const std::string text = PackedRecord(Neighbours(guids).first);
    const std::string floor_path = FilePath() + ".floor";
    Guids one;
    Guids other;
    std::tie(one, other) = Neighbours(guids);
    fabric.Create(kKey, one);
    WriteFile(floor_path, text);
    const auto exchange = [&] {
        const double seconds = Seconds([&] { change(fabric, one, other); });
        std::swap(one, other);
        return seconds;
    };
    const auto floor = [&] {
        const double seconds = Seconds([&] {
            CopyBytes(guids);
            WriteFile(floor_path, text);
        });
        const Guids last{guids.back() + 1};
        return seconds + SecondsToInsert(fabric.manager.hca_infos, last) +
               SecondsToErase(fabric.manager.hca_infos, last);
    };
    MeasureInTurns(state, exchange, floor);
    unlink(floor_path.c_str());
    fabric.Delete();
}

void Replace(benchmark::State& state) {
    MeasureChangeOfOneGuid(state, [](Fabric& fabric, const Guids&, Guids& wanted) { fabric.Create(kKey, wanted); });
}

void Delta(benchmark::State& state) {
    MeasureChangeOfOneGuid(state, [](Fabric& fabric, const Guids& held, const Guids& wanted) {
        const bool forward = held.front() < wanted.front();
        fabric.Delta({forward ? wanted.back() : wanted.front()}, {forward ? held.front() : held.back()});
    });
}

// ---- Info, jobs ----

void Info(benchmark::State& state) {
    ReservationManager& manager = FabricOf(state).manager;
    vesk_reservation_info_request request{};
    request.with_details = 1;
    const std::vector<vesk_reservation_info> entries(manager.reservations.size());
    const auto info = [&] { return Seconds([&] { manager.ReservationInfoRequest(request, nullptr, 0); }); };
    const auto floor = [&] {
        return Seconds([&] {
            const std::vector<vesk_reservation_info> copy = entries;
            benchmark::DoNotOptimize(copy.data());
        });
    };
    MeasureInTurns(state, info, floor);
}

// A job with one tree over these HCAs.
std::unique_ptr<VeskJob> MakeJob(uint64_t job_id, const Guids& guids) {
    auto job = std::make_unique<VeskJob>();
    VeskTree tree;
    for (const uint64_t guid : guids) tree.ports.insert(job->AddPort(guid, 1));
    job->plane_trees = {{tree}};
    job->ext_job_id.job_id = job_id;
    return job;
}

// Goes through the GUIDs' entries in order: to the next one in the index, or by a search when that is another's.
void VisitEntries(Index& index, const Guids& guids, uint16_t change) {
    auto place = index.lower_bound(guids.front());
    for (const uint64_t guid : guids) {
        if (place == index.end() || place->first != guid) place = index.lower_bound(guid);
        place->second.num_jobs = static_cast<uint16_t>(place->second.num_jobs + change);
        ++place;
    }
}

// Each of a job's four operations has to visit every entry.
void VisitEntriesFourTimes(Index& index, const Guids& guids) {
    for (const int change : {1, -1, 1, -1}) VisitEntries(index, guids, static_cast<uint16_t>(change));
}

void MakeSet(const Guids& guids) {
    std::unordered_set<uint64_t> set;
    set.reserve(guids.size());
    set.insert(guids.begin(), guids.end());
    benchmark::DoNotOptimize(set);
}

template <typename Floor>
void MeasureJob(benchmark::State& state, Floor floor) {
    Fabric& fabric = FabricOf(state);
    ReservationManager& manager = fabric.manager;
    Guids guids = FreeGuids(state);
    fabric.Create(kKey, guids);
    const std::unique_ptr<VeskJob> job = MakeJob(1, guids);
    JobResource resource{.requested_trees = 1};
    const auto come_and_go = [&] {
        ReservationInfo* const reservation = manager.GetReservationByJob(job.get());
        if (manager.ValidateReservationResources(reservation, resource, job.get()) != 0) std::abort();
        manager.AddJob(reservation, job.get());
        manager.RemoveJob(reservation, job.get());
    };
    MeasureInTurns(
        state, [&] { return SecondsOfOne(come_and_go); },
        [&] { return SecondsOfOne([&] { floor(manager.hca_infos, guids); }); });
    fabric.Delete();
}

void Job(benchmark::State& state) { MeasureJob(state, VisitEntriesFourTimes); }

// With the set of its GUIDs, which a job in a reservation has.
void JobWithSet(benchmark::State& state) {
    MeasureJob(state, [](Index& index, const Guids& guids) {
        VisitEntriesFourTimes(index, guids);
        MakeSet(guids);
    });
}

// ---- Files ----

template <typename Operation>
void MeasureText(benchmark::State& state, const std::string& text, Operation operation) {
    const auto floor = [&] {
        std::string copy = text;
        benchmark::DoNotOptimize(copy.data());
    };
    MeasureInTurns(
        state, [&] { return SecondsOfOne(operation); }, [&] { return SecondsOfOne(floor); });
}

void Pack(benchmark::State& state) {
    Guids guids = FreeGuids(state);
    const vesk_reservation_info info = RecordOf(guids);
    MeasureText(state, PackedRecord(guids), [&] { benchmark::DoNotOptimize(Packed(info).length); });
}

void Unpack(benchmark::State& state) {
    Guids guids = FreeGuids(state);
    const std::string text = PackedRecord(guids);
    MeasureText(state, text, [&] {
        vesk_dov_msg* msg = nullptr;
        if (dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, text.c_str(), &msg) != 0) std::abort();
        dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg);
    });
}

// Lets a child process do it, since the load runs once in a process, and returns the seconds that it took there.
template <typename Operation>
double SecondsInChild(Operation operation) {
    int ends[2];
    if (pipe(ends) != 0) std::abort();
    const pid_t child = fork();
    if (child == 0) {
        const double seconds = Seconds(operation);
        _exit(write(ends[1], &seconds, sizeof(seconds)) == sizeof(seconds) ? 0 : 1);
    }
    close(ends[1]);
    double seconds = 0;
    if (read(ends[0], &seconds, sizeof(seconds)) != sizeof(seconds)) std::abort();
    waitpid(child, nullptr, 0);
    close(ends[0]);
    return seconds;
}

// Writes the files of a whole fabric, and takes them away again.
class StoredFabric {
public:
    explicit StoredFabric(Fabric& fabric) {
        std::filesystem::create_directories(Directory());
        for (const auto& [key, info] : fabric.manager.reservations) {
            fabric.manager.CreateReservationInfoFile(info->info, Directory());
        }
    }
    ~StoredFabric() { std::filesystem::remove_all(Directory()); }
};

// `buffer` is the caller's, so that its pages are there already.
void ReadFiles(std::vector<char>& buffer) {
    for (const auto& entry : std::filesystem::directory_iterator(Directory())) {
        const int file = open(entry.path().c_str(), O_RDONLY);
        while (read(file, buffer.data(), buffer.size()) > 0) continue;
        close(file);
    }
}

template <typename Floor>
void MeasureLoad(benchmark::State& state, Floor floor) {
    Fabric& fabric = FabricOf(state);
    const StoredFabric files(fabric);
    ReservationManager manager(&fabric.client);
    std::vector<char> buffer(1 << 18);
    MeasureInTurns(
        state, [&] { return SecondsInChild([&] { manager.ReadPersistentReservationInfoFiles(); }); },
        [&] { return SecondsInChild([&] { floor(fabric.manager.hca_infos, buffer); }); });
}

void Load(benchmark::State& state) {
    MeasureLoad(state, [](const Index&, std::vector<char>& buffer) { ReadFiles(buffer); });
}

// Reads the files, and puts every HCA into a new index, which outlives the measurement as the load's does.
void LoadWithIndex(benchmark::State& state) {
    MeasureLoad(state, [index = Index()](const Index& hcas, std::vector<char>& buffer) mutable {
        ReadFiles(buffer);
        for (const auto& hca : hcas) index.insert(index.end(), hca);
    });
}

// ---- Memory ----

size_t HeapBytes() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

template <typename Operation>
double BytesTaken(Operation operation) {
    const size_t before = HeapBytes();
    operation();
    return static_cast<double>(HeapBytes()) - static_cast<double>(before);
}

double BytesPerReservation(uint64_t hcas_in_each) {
    constexpr uint64_t kReservations = 1000;
    std::unique_ptr<Fabric> fabric;
    return BytesTaken([&] { fabric = std::make_unique<Fabric>(kReservations * hcas_in_each, kReservations); }) /
           kReservations;
}

double BytesPerJob(uint64_t hcas_in_each) {
    constexpr uint64_t kJobs = 1000;
    Fabric fabric(1000, 1);
    ReservationInfo* const reservation = fabric.manager.reservations.begin()->second;
    const Guids guids(reservation->info.guids, reservation->info.guids + hcas_in_each);
    std::vector<std::unique_ptr<VeskJob>> jobs;
    for (uint64_t id = 1; id <= kJobs; ++id) jobs.push_back(MakeJob(id, guids));
    return BytesTaken([&] {
               for (const auto& job : jobs) fabric.manager.AddJob(reservation, job.get());
           }) /
           kJobs;
}

// What the heap gives for one more of each, and what of that is the data itself: GUIDs, counts, fields, owners.
void PrintMemory() {
    constexpr uint64_t kMany = 256;
    constexpr uint64_t kFew = 64;
    const auto per_hca = [](double many, double few) { return (many - few) / (kMany - kFew); };
    const double few_hcas = BytesPerReservation(kFew);
    const double reserved_hca = per_hca(BytesPerReservation(kMany), few_hcas);
    const double job_of_few = BytesPerJob(kFew);
    const double hca_of_job = per_hca(BytesPerJob(kMany), job_of_few);
    constexpr size_t kHcaData = sizeof(uint64_t) + sizeof(ReservationInfo*) + sizeof(uint16_t);
    constexpr size_t kJobData = sizeof(uint64_t);

    std::printf("\n| one more | bytes | of data |\n|---|---:|---:|\n");
    std::printf("| reserved HCA | %.0f | %zu |\n", reserved_hca, kHcaData);
    std::printf("| reservation, without its HCAs | %.0f | %zu |\n", few_hcas - kFew * reserved_hca,
                sizeof(ReservationInfo));
    std::printf("| HCA of a job | %.0f | %zu |\n", hca_of_job, sizeof(uint64_t));
    std::printf("| job, without its HCAs | %.0f | %zu |\n", job_of_few - kFew * hca_of_job, kJobData);
}

// ---- What is run, and how it is told ----

// Prints as usual, and at the end one row for each operation: the repetition whose ratio is the median.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type == Run::RT_Aggregate) continue;
            const std::string name = run.run_name.function_name + "/" + run.run_name.args;
            if (rows_.empty() || rows_.back().name != name) rows_.push_back({name, {}});
            rows_.back().repetitions.push_back({run.counters.at(kOperation), run.counters.at(kFloor)});
        }
    }

    void Finalize() override {
        std::printf("\n| operation / HCAs / reservations / GUIDs / scattered | microseconds | floor | ratio |\n");
        std::printf("|---|---:|---:|---:|\n");
        for (auto& [name, repetitions] : rows_) {
            std::sort(repetitions.begin(), repetitions.end(),
                      [](const Repetition& a, const Repetition& b) { return a.ratio() < b.ratio(); });
            const Repetition& median = repetitions[repetitions.size() / 2];
            std::printf("| %s | %.2f | %.2f | %.2f |\n", name.c_str(), median.operation * 1e6, median.floor * 1e6,
                        median.ratio());
        }
    }

private:
    struct Repetition {
        double operation;
        double floor;
        double ratio() const { return operation / floor; }
    };
    struct Row {
        std::string name;
        std::vector<Repetition> repetitions;
    };

    std::vector<Row> rows_;
};

void Register(const std::string& name, void (*function)(benchmark::State&), const std::vector<int64_t>& arguments) {
    benchmark::RegisterBenchmark(name.c_str(), function)->Args(arguments)->MinTime(0.05)->UseManualTime();
}

void RegisterAll() {
    const std::vector<std::pair<int64_t, int64_t>> shapes{
        {1000, 10}, {100000, 1000}, {1000000, 1000}, {1000000, 100000}};
    for (const auto& [num_hcas, num_reservations] : shapes) {
        for (const Placement placement : {Placement::kContiguous, Placement::kScattered}) {
            const auto arguments = [&, hcas = num_hcas, reservations = num_reservations](int64_t count) {
                return std::vector<int64_t>{hcas, reservations, count, static_cast<int64_t>(placement)};
            };
            for (const int64_t count : {1, 16, 256, 4096}) {
                Register("create", Create, arguments(count));
                Register("delete", Delete, arguments(count));
            }
            Register("replace", Replace, arguments(4096));
            Register("delta", Delta, arguments(4096));
            for (const int64_t count : {1, 64, 4096}) {
                Register("job", Job, arguments(count));
                Register("job_with_set", JobWithSet, arguments(count));
            }
        }
        Register("info", Info, {num_hcas, num_reservations});
        Register("load", Load, {num_hcas, num_reservations});
        Register("load_with_index", LoadWithIndex, {num_hcas, num_reservations});
    }
    for (const int64_t count : {16, 4096}) {
        for (const Placement placement : {Placement::kContiguous, Placement::kScattered}) {
            const std::vector<int64_t> arguments{1000000, 1000, count, static_cast<int64_t>(placement)};
            Register("pack", Pack, arguments);
            Register("unpack", Unpack, arguments);
        }
    }
}

}    // namespace

int main(int argc, char** argv) {
    RegisterAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintMemory();
    std::filesystem::remove_all(Directory());
    return 0;
}
