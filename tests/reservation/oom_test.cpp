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

// Runs the operation with ever more allocations before the shortage, until none fails it. `prepare` comes before each
// run and `check` after it, both with memory.
void RunShortOfMemory(const std::function<void()>& prepare, const std::function<void()>& operation,
                      const std::function<void()>& check, size_t fewest_allocations) {
    for (const Shortage shortage : {Shortage::kOnce, Shortage::kLasting}) {
        size_t n = 0;
        for (;; ++n) {
            SCOPED_TRACE(n);
            prepare();
            g_allocations_before_it = n;
            g_was_short = false;
            g_shortage = shortage;
            try {
                operation();
            } catch (const std::bad_alloc&) {
            }
            g_shortage = Shortage::kNone;
            check();
            if (!g_was_short || testing::Test::HasFailure()) break;
        }
        EXPECT_GE(n, fewest_allocations);
    }
}

// Too long for a string to hold without an allocation.
const std::string kKey = "the reservation that the request is about";
const std::string kOther = "the reservation that holds the GUIDs wanted";

// A daemon whose own part in an operation needs memory for the events alone. Its replies to nobody are not looked at.
// Unless it is to be made, the reservation that requests are about holds 1, 2 and 3; the other one 7 and 8. Jobs run in
// both.
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
        num_replies = 0;
    }

    mutable int num_replies = 0;
    mutable uint32_t status = 0;

    void SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list,
                                 uint64_t transaction_id) const override {
        ++num_replies;
        status = list.status;
        if (ep != nullptr) TestDaemon::SendReservationInfoList(ep, list, transaction_id);
    }
    void HandleJobError(VeskJob*, vesk_error_value, vesk_error_type, bool, bool) override {}
    void SendEndJob(dov_ep*, const VeskJob* job) override { Forget(*job); }
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
void CheckRequest(bool exists, size_t fewest_allocations, const std::function<void(ReservationManager&)>& request) {
    std::unique_ptr<ShortDaemon> daemon;
    const auto prepare = [&] {
        daemon.reset();
        daemon = std::make_unique<ShortDaemon>(exists);
    };
    const auto run = [&] { request(*daemon->manager); };
    const auto check = [&] {
        EXPECT_EQ(daemon->num_replies, 1);
        EXPECT_EQ(daemon->status, 0u);
        daemon->Check();
        run();
        daemon->Check();
        EXPECT_EQ(daemon->Create("another", {100}), 0u);
    };
    RunShortOfMemory(prepare, run, check, fewest_allocations);
}

template <typename Request>
Request AboutKey() {
    Request request{};
    vesk_copy_key(request.reservation_key, kKey.c_str());
    return request;
}

TEST(OutOfMemory, CreateOrReplace) {
    Guids guids{7, 2, 1};
    auto request = AboutKey<vesk_create_reservation>();
    request.num_guids = 3;
    request.guids = guids.data();
    request.pkey = 0x7fff;
    std::copy(kNoLimits.begin(), kNoLimits.end(), request.limits);
    const auto create = [&](ReservationManager& manager) { manager.CreateReservation(request, nullptr, 0); };
    CheckRequest(false, 10, create);
    CheckRequest(true, 10, create);
    EXPECT_EQ(
        g_records,
        (std::set<std::string>{
            "1 CreateReservationInfoFile: Not enough memory to write the reservation file of " + kKey + "\n",
            "1 DeleteReservationInfoFile: Not enough memory to delete the reservation file of " + kOther + "\n"}));
}

TEST(OutOfMemory, Delta) {
    Guids to_add{8, 4}, to_remove{2, 3};
    auto request = AboutKey<vesk_update_reservation_by_delta>();
    request.num_guids_to_add = request.num_guids_to_remove = 2;
    request.guids_to_add = to_add.data();
    request.guids_to_remove = to_remove.data();
    const auto update = [&](ReservationManager& manager) { manager.UpdateReservationByDelta(request, nullptr, 0); };
    CheckRequest(true, 10, update);
}

TEST(OutOfMemory, InfoAndDelete) {
    const auto deletion = AboutKey<vesk_delete_reservation>();
    const auto about_key = AboutKey<vesk_reservation_info_request>();
    CheckRequest(true, 3, [&](auto& manager) { manager.DeleteReservation(deletion, nullptr, 0); });
    CheckRequest(true, 1, [&](auto& manager) { manager.ReservationInfoRequest(about_key, nullptr, 0); });
    CheckRequest(true, 1, [](auto& manager) { manager.ReservationInfoRequest({}, nullptr, 0); });
}

// A good file is not taken for a bad one, which would be deleted. Nothing stays allocated, of a damaged text either.
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
    const auto read = [&] { EXPECT_EQ(daemon.manager->BuildDataFromReservationFile(path.c_str(), msg), 0); };
    const auto check = [&] {
        EXPECT_EQ(msg == nullptr, g_was_short);
        dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg);
        EXPECT_EQ(g_num_live, num_live);
    };
    RunShortOfMemory(prepare, read, check, 3);

    std::string text = Content(path);
    for (char& byte : text) {
        byte = static_cast<char>(byte ^ 1);
        num_live = g_num_live;
        EXPECT_NE(dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, text.c_str(), &msg), 0);
        EXPECT_EQ(g_num_live, num_live);
        byte = static_cast<char>(byte ^ 1);
    }
}

// A file that no memory holds says nothing about itself, and nothing about the others; one that is larger than any
// reservation is damaged.
TEST(OutOfMemory, FilesBeyondAllSizes) {
    TestDaemon daemon;
    daemon.Create("K", {1});
    daemon.Take();
    for (const auto& [key, size] : {std::pair{"huge", uint64_t{100} << 30}, {"beyond", (uint64_t{1} << 37) + 1}}) {
        Write(daemon.PathOf(key), "");
        std::filesystem::resize_file(daemon.PathOf(key), size);
    }
    daemon.Restart();
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(daemon.FileNames(), " K huge");
    EXPECT_TRUE(daemon.manager->reservations.contains("K"));
    const std::string seen = daemon.Take();
    EXPECT_NE(seen.find("3 BuildDataFromReservationFile: parsing reservation file DIR/reservation.beyond"), seen.npos);
    EXPECT_NE(seen.find("1 BuildDataFromReservationFile: Failed to read Reservation file DIR/reservation.beyond"),
              seen.npos);
    EXPECT_NE(seen.find("1 ReadPersistentReservationInfoFiles: Not enough memory to load reservation file "
                        "DIR/reservation.huge"),
              seen.npos);
}

}    // namespace
