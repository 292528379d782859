// What is left when memory runs out in the middle: every operation runs again and again, failing at its first
// allocation, its second, and so on, until it gets through.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "host/dov_msg.h"
#include "host/log.h"
#include "tests/files.h"
#include "tests/reservation/test_daemon.h"

namespace {

enum class Shortage { kNone, kOnce, kLasting };

constexpr size_t kMostAtOnce = size_t{16} << 30;    // bytes; a sanitizer would reserve any size

Shortage g_shortage = Shortage::kNone;
Shortage g_next_shortage = Shortage::kNone;    // of the next thing that is run short of memory
size_t g_allocations_before_it = 0;
bool g_was_short = false;
size_t g_num_live = 0;
std::set<std::string> g_records;    // those of the shortage itself

bool IsShort() {
    if (g_shortage == Shortage::kNone) return false;
    if (g_allocations_before_it > 0) {
        --g_allocations_before_it;
        return false;
    }
    const bool is_short = g_shortage == Shortage::kLasting || !g_was_short;
    g_was_short = true;
    return is_short;
}

}    // namespace

// Not inlined: a compiler that sees into only one of a pair takes it for a mismatch.
[[gnu::noinline]] void* operator new(size_t size) {
    void* const memory = IsShort() || size > kMostAtOnce ? nullptr : std::malloc(std::max<size_t>(size, 1));
    if (memory == nullptr) throw std::bad_alloc();
    ++g_num_live;
    return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    if (memory != nullptr) --g_num_live;
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { operator delete(memory); }

// The default ones would call those above, but a sanitizer brings its own.
[[gnu::noinline]] void* operator new[](size_t size) { return operator new(size); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { operator delete(memory); }
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept { operator delete(memory); }

namespace {

void RunShort(const std::function<void()>& operation) {
    g_shortage = std::exchange(g_next_shortage, Shortage::kNone);
    try {
        operation();
    } catch (const std::bad_alloc&) {
    }
    g_shortage = Shortage::kNone;
}

// Does it all with ever more allocations before the shortage, until none is failed. `operation` runs something short.
void RepeatShort(const std::function<void()>& prepare, const std::function<void()>& operation,
                 const std::function<void()>& check, size_t fewest_allocations) {
    for (const Shortage shortage : {Shortage::kOnce, Shortage::kLasting}) {
        size_t n = 0;
        for (;; ++n) {
            SCOPED_TRACE(n);
            prepare();
            g_allocations_before_it = n;
            g_was_short = false;
            g_next_shortage = shortage;
            operation();
            check();
            if (!g_was_short || testing::Test::HasFailure()) break;
        }
        EXPECT_GE(n, fewest_allocations);
    }
}

// Too long for a string to hold without an allocation.
const std::string kKey = "the reservation that the request is about";
const std::string kOther = "the reservation that holds the GUIDs wanted";

// Its requests run short of memory. Unless it is to be made, the reservation that they are about holds 1, 2 and 3; the
// other one 7 and 8. Jobs run in both.
class ShortDaemon : public TestDaemon {
public:
    explicit ShortDaemon(bool exists) {
        log_set_sink([](const LogRecord& record) {
            if (record.message.starts_with("Not enough memory"))
                g_records.insert(std::to_string(record.level) + " " + record.function + ": " + record.message);
        });
        log_set_level(4);
        options.reservation_allow_guid_override = true;
        options.reservation_allow_ending_jobs = true;
        options.max_jobs_per_hca = 8;
        if (exists) Create(kKey, {1, 2, 3});
        Create(kOther, {7, 8});
        exists ? Admit(1, kKey, {1, 2}, 2, 2) : Run(2, kKey, {1, 2}, 2, 2);
        Admit(3, kOther, {8});
    }

    void Call(const std::function<void()>& request) override { RunShort(request); }
    void AddReservationCreatedEvent(const char* key) override { events_.emplace_back(key); }
    void AddReservationUpdatedEvent(const char* key) override { events_.emplace_back(key); }
    void AddReservationRemovedEvent(const char* key) override { events_.emplace_back(key); }

    void Check() const {
        EXPECT_EQ(RegistryFault(*manager, false), "");
        size_t num_accounted = 0;
        size_t num_entries = 0;
        for (const VeskJob* job : RunningJobs()) num_accounted += job->reservation_accounted ? 1 : 0;
        for (const auto& [key, reservation] : manager->reservations) {
            num_entries += reservation->jobs.size();
            EXPECT_EQ(reservation->used_trees, reservation->jobs.empty() ? 0u : key == kKey ? 4u : 1u);
        }
        EXPECT_EQ(num_accounted, num_entries);
    }

private:
    std::vector<std::string> events_;
};

// The request is answered all the same, leaves the registry whole, and can be repeated.
void CheckRequest(bool exists, size_t fewest_allocations, const std::function<uint32_t(TestDaemon&)>& request) {
    std::unique_ptr<ShortDaemon> daemon;
    const auto prepare = [&] {
        daemon.reset();
        daemon = std::make_unique<ShortDaemon>(exists);
    };
    const auto run = [&] { EXPECT_EQ(request(*daemon), 0U); };
    const auto check = [&] {
        daemon->Check();
        request(*daemon);
        daemon->Check();
        EXPECT_EQ(daemon->Create("another", {100}), 0U);
    };
    RepeatShort(prepare, run, check, fewest_allocations);
}

TEST(OutOfMemory, Requests) {
    const auto create = [](TestDaemon& daemon) { return daemon.Create(kKey, {7, 2, 1}); };
    CheckRequest(false, 10, create);
    CheckRequest(true, 10, create);
    CheckRequest(true, 3, [](TestDaemon& daemon) { return daemon.Delete(kKey); });
    EXPECT_EQ(
        g_records,
        (std::set<std::string>{
            "1 CreateReservationInfoFile: Not enough memory to write the reservation file of " + kKey + "\n",
            "1 DeleteReservationInfoFile: Not enough memory to delete the reservation file of " + kKey + "\n",
            "1 DeleteReservationInfoFile: Not enough memory to delete the reservation file of " + kOther + "\n"}));
    const size_t num_live = g_num_live;
    CheckRequest(true, 10, [](TestDaemon& daemon) { return daemon.Delta(kKey, {8, 4}, {2, 3}); });
    CheckRequest(true, 1, [](TestDaemon& daemon) { return daemon.Info(kKey, true); });
    CheckRequest(true, 1, [](TestDaemon& daemon) { return daemon.Info("", true); });
    EXPECT_EQ(g_num_live, num_live);
}

// A good file is not taken for a bad one, which would be deleted. Nothing stays allocated.
TEST(OutOfMemory, File) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2});
    log_set_level(2);
    const std::string path = daemon.PathOf("K");
    vesk_dov_msg* msg = nullptr;
    size_t num_live = 0;
    const auto prepare = [&] {
        msg = nullptr;
        num_live = g_num_live;
    };
    const auto read = [&] {
        RunShort([&] { EXPECT_EQ(daemon.manager->BuildDataFromReservationFile(path.c_str(), msg), 0); });
    };
    const auto check = [&] {
        EXPECT_EQ(msg == nullptr, g_was_short);
        dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg);
        EXPECT_EQ(g_num_live, num_live);
    };
    RepeatShort(prepare, read, check, 3);

    // No text makes room for more GUIDs than it has.
    std::string text = Content(path);
    text.replace(text.find("num_guids 2"), 11, "num_guids 4294967295");
    EXPECT_EQ(Unpack(Sealed(text)), "bad");
}

// A file that no memory holds says nothing about itself, and nothing about the others; one that is larger than any
// reservation is damaged.
TEST(OutOfMemory, FilesBeyondAllSizes) {
    TestDaemon daemon;
    daemon.Create("K", {1});
    daemon.Take();
    for (const auto& [key, size] : {std::pair{"huge", uint64_t{1} << 37}, {"beyond", (uint64_t{1} << 37) + 1}}) {
        Write(daemon.PathOf(key), "");
        std::filesystem::resize_file(daemon.PathOf(key), size);
    }
    daemon.Restart();
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(daemon.FileNames(), " K huge");
    EXPECT_TRUE(daemon.manager->reservations.contains("K"));
    const std::string seen = daemon.Take();
    for (const char* record :
         {"3 BuildDataFromReservationFile: parsing reservation file DIR/reservation.beyond",
          "1 BuildDataFromReservationFile: Failed to read Reservation file DIR/reservation.beyond - "
          "basic_ios::clear: iostream error\n\n",
          "1 ReadPersistentReservationInfoFiles: Not enough memory to load reservation file DIR/reservation.huge"})
        EXPECT_NE(seen.find(record), seen.npos) << seen;
}

}    // namespace
