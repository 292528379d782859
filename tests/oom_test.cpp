// What is left when memory runs out in the middle: every operation runs again and again, failing at its first
// allocation, its second, and so on, until it gets through.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>

#include "host/dov_msg.h"
#include "host/log.h"
#include "tests/test_daemon.h"

namespace {

enum class Shortage { kNone, kOnce, kLasting };

Shortage g_shortage = Shortage::kNone;
size_t g_allocations_before_it = 0;
bool g_was_short = false;
size_t g_num_live = 0;

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
    void* const memory = IsShort() ? nullptr : std::malloc(std::max<size_t>(size, 1));
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

// A daemon whose own part in an operation needs memory for the events alone. Requests of its own have an endpoint.
class ShortDaemon : public TestDaemon {
public:
    ShortDaemon() {
        log_set_sink([](const LogRecord&) {});
        log_set_level(4);
        options.reservation_allow_guid_override = true;
        options.reservation_allow_ending_jobs = true;
        options.max_jobs_per_hca = 8;
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
    void AddReservationCreatedEvent(const char* key) override { Note(key); }
    void AddReservationUpdatedEvent(const char* key) override { Note(key); }
    void AddReservationRemovedEvent(const char* key) override { Note(key); }

private:
    void Note(const char* key) { events_.emplace_back(key); }

    std::vector<std::string> events_;
};

// Too long for a string to hold without an allocation.
const std::string kKey = "the reservation that the request is about";
const std::string kOther = "the reservation that holds the GUIDs wanted";

class OutOfMemory : public testing::Test {
protected:
    // The request's reservation holds 1, 2 and 3, unless it is to be made; the other one 7 and 8. Jobs run in both.
    void Check(bool exists, const std::function<void(ReservationManager&)>& operation, size_t fewest_allocations) {
        std::unique_ptr<ShortDaemon> daemon;
        const auto prepare = [&] {
            daemon.reset();
            daemon = std::make_unique<ShortDaemon>();
            if (exists) daemon->Create(kKey, {1, 2, 3});
            daemon->Create(kOther, {7, 8});
            if (exists) daemon->Admit(1, kKey, {1, 2}, 2, 2);
            if (!exists) daemon->Run(2, kKey, {1, 2}, 2, 2);
            daemon->Admit(3, kOther, {8});
            daemon->num_replies = 0;
        };
        const auto check = [&] {
            EXPECT_EQ(daemon->num_replies, 1);
            EXPECT_EQ(daemon->status, 0u);
            CheckDaemon(*daemon);
            operation(*daemon->manager);
            CheckDaemon(*daemon);
            EXPECT_EQ(daemon->Create("another", {100}), 0u);
            EXPECT_EQ(daemon->Delete("another"), 0u);
        };
        RunShortOfMemory(
            prepare, [&] { operation(*daemon->manager); }, check, fewest_allocations);
    }

    static void CheckDaemon(const TestDaemon& daemon) {
        EXPECT_EQ(RegistryFault(*daemon.manager, false), "");
        size_t num_accounted = 0;
        size_t num_entries = 0;
        for (const VeskJob* job : daemon.RunningJobs()) num_accounted += job->reservation_accounted ? 1 : 0;
        for (const auto& [key, reservation] : daemon.manager->reservations) {
            num_entries += reservation->jobs.size();
            EXPECT_EQ(reservation->used_trees, reservation->jobs.empty() ? 0u : key == kKey ? 4u : 1u);
        }
        EXPECT_EQ(num_accounted, num_entries);
    }
};

vesk_create_reservation CreateRequest(Guids& guids) {
    vesk_create_reservation request{"", 0x7fff, static_cast<uint32_t>(guids.size()), guids.data(), {}, 0};
    vesk_copy_key(request.reservation_key, kKey.c_str());
    std::copy(kNoLimits.begin(), kNoLimits.end(), request.limits);
    return request;
}

TEST_F(OutOfMemory, Create) {
    Guids guids{7, 2, 1};
    const vesk_create_reservation request = CreateRequest(guids);
    Check(
        false, [&](ReservationManager& manager) { manager.CreateReservation(request, nullptr, 0); }, 10);
}

TEST_F(OutOfMemory, Replace) {
    Guids guids{7, 3, 2};
    const vesk_create_reservation request = CreateRequest(guids);
    Check(
        true, [&](ReservationManager& manager) { manager.CreateReservation(request, nullptr, 0); }, 10);
}

TEST_F(OutOfMemory, Delta) {
    Guids to_add{8, 4}, to_remove{2, 3};
    vesk_update_reservation_by_delta request{"", 2, 2, to_add.data(), to_remove.data()};
    vesk_copy_key(request.reservation_key, kKey.c_str());
    Check(
        true, [&](ReservationManager& manager) { manager.UpdateReservationByDelta(request, nullptr, 0); }, 10);
}

TEST_F(OutOfMemory, Delete) {
    vesk_delete_reservation request{};
    vesk_copy_key(request.reservation_key, kKey.c_str());
    Check(
        true, [&](ReservationManager& manager) { manager.DeleteReservation(request, nullptr, 0); }, 3);
}

TEST_F(OutOfMemory, Info) {
    vesk_reservation_info_request request{};
    request.with_details = 1;
    Check(
        true, [&](ReservationManager& manager) { manager.ReservationInfoRequest(request, nullptr, 0); }, 1);
    vesk_copy_key(request.reservation_key, kKey.c_str());
    Check(
        true, [&](ReservationManager& manager) { manager.ReservationInfoRequest(request, nullptr, 0); }, 1);
}

TEST_F(OutOfMemory, Message) {
    Guids guids{1, 2};
    vesk_reservation_info info{"K", 1, 1, 2, guids.data(), {}, 0};
    vesk_dov_msg msg{{}, &info};
    char* buffer = nullptr;
    uint64_t length = 0;
    ASSERT_EQ(dov_msg_pack(0, VESK_MSG_TYPE_RESERVATION_INFO, 0, &msg, &buffer, &length), 0);
    const std::string text(buffer, length);
    free(buffer);
    vesk_dov_msg* unpacked = nullptr;
    int result = 0;
    size_t num_live = 0;
    RunShortOfMemory([&] { num_live = g_num_live; },
                     [&] { result = dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, text.c_str(), &unpacked); },
                     [&] {
                         EXPECT_EQ(result, 0);
                         EXPECT_EQ(unpacked == nullptr, g_was_short);
                         dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, unpacked);
                         EXPECT_EQ(g_num_live, num_live);
                     },
                     3);

    // Nor is a good file taken for a bad one, which would be deleted.
    TestDaemon daemon;
    daemon.Create("K", {1, 2});
    const std::string path = daemon.PathOf("K");
    RunShortOfMemory([&] { unpacked = nullptr; },
                     [&] { EXPECT_EQ(daemon.manager->BuildDataFromReservationFile(path.c_str(), unpacked), 0); },
                     [&] {
                         EXPECT_TRUE(unpacked != nullptr || g_was_short);
                         dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, unpacked);
                     },
                     3);

    // A damaged text leaves nothing allocated.
    for (size_t at = 0; at < text.size(); ++at) {
        std::string damaged = text;
        damaged[at] = static_cast<char>(damaged[at] ^ 1);
        num_live = g_num_live;
        EXPECT_NE(dov_msg_unpack(0, VESK_MSG_TYPE_RESERVATION_INFO, damaged.c_str(), &unpacked), 0);
        EXPECT_EQ(unpacked, nullptr);
        EXPECT_EQ(g_num_live, num_live);
    }
}

}    // namespace
