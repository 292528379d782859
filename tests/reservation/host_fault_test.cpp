// A host that edits the containers, changes replies, or throws.

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "host/log.h"
#include "tests/reservation/test_daemon.h"

namespace {

static_assert(std::is_same_v<decltype(ReservationManager::reservations), std::map<std::string, ReservationInfo*>>);

// An entry whose owner is gone goes with its GUID; an entry that is gone comes back with the next change.
TEST(HostFault, ContainersAreTheTruth) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2, 3});
    daemon.Create("L", {4});
    auto& hcas = daemon.manager->hca_infos;
    ReservationInfo* const k = daemon.manager->reservations.at("K");

    hcas.erase(1);
    hcas.at(2).reservation = daemon.manager->reservations.at("L");
    EXPECT_EQ(daemon.Create("K", {1, 2, 3}), VESK_STATUS_GUID_RESERVED);
    hcas.at(2).reservation = k;
    EXPECT_EQ(daemon.Create("K", {1, 2, 3}), VESK_STATUS_SUCCESS);
    EXPECT_EQ(RegistryFault(*daemon.manager), "");

    hcas.at(1).reservation = nullptr;
    hcas.at(4).reservation = nullptr;
    EXPECT_EQ(daemon.manager->GetReservationByGuids(&k->info.guids[0], 3), nullptr);
    EXPECT_EQ(daemon.Delta("K", {5}, {1}), VESK_STATUS_SUCCESS);
    EXPECT_EQ(daemon.Delete("L"), VESK_STATUS_SUCCESS);
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(hcas.size(), 3U);

    daemon.Run(1, "none", {1});
    daemon.manager->reservations["none"] = nullptr;
    daemon.manager->HandleAlreadyRunningJobsForAllReservations();
    EXPECT_EQ(daemon.manager->reservations.erase("none"), 1U);
}

TEST(HostFault, GuidsOfAnUnregisteredOwnerAreFree) {
    TestDaemon daemon;
    daemon.options.reservation_allow_guid_override = true;
    daemon.Create("B", {7});
    daemon.Take();
    const auto lost = daemon.manager->reservations.extract("B");
    EXPECT_EQ(daemon.Create("K", {7}), VESK_STATUS_SUCCESS);
    EXPECT_TRUE(
        daemon.Take().starts_with("\n1 HandleAddedGuidsAndOtherReservations: -A- Could not find reservation that is "
                                  "affected by new one: B\n3 InternalCreateNewReservation: "));
    delete lost.mapped();
}

// The index changes before the record, the list after it and before the event.
TEST(HostFault, ChangesShowInOrder) {
    struct Watcher : TestDaemon {
        std::string seen;
        std::string Look(const std::string& moment) {
            std::string text = moment + ":";
            for (const auto& [guid, hca] : manager->hca_infos) text += " " + std::to_string(guid);
            return text + ", " + ::Describe(Reservation("K").info) + "\n";
        }
        void AddReservationUpdatedEvent(const char*) override { seen += Look("event"); }
    } daemon;
    daemon.Create("K", {1, 2});
    log_set_sink([&](const LogRecord& record) {
        if (record.message.starts_with("Update existing")) daemon.seen += daemon.Look("record");
    });
    daemon.Delta("K", {3}, {1});
    EXPECT_EQ(daemon.seen,
              "record: 2 3, K 0x7fff state 1 {1,2} limits -,-,-,-,-,-,- auto 0\n"
              "event: 2 3, K 0x7fff state 1 {2,3} limits -,-,-,-,-,-,- auto 0\n");
}

// The sender may do with a reply's list what it likes.
TEST(HostFault, FailuresAreCountedByTheStatusSent) {
    struct Sender : TestDaemon {
        void SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list, uint64_t id) const override {
            TestDaemon::SendReservationInfoList(ep, list, id);
            list.status = list.status == VESK_STATUS_SUCCESS ? VESK_STATUS_NOT_FOUND : VESK_STATUS_SUCCESS;
        }
    } daemon;
    daemon.Create("K", {1});
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 0U);
    daemon.Create("K", {1, 1});
    daemon.Delta("L", {1}, {});
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 2U);
}

// Throws from the nth of its calls that the manager makes while it enters a reservation, and from every FindJob.
class ThrowingDaemon : public TestDaemon {
public:
    int calls_left = -1;    // below 0: does not throw
    bool finds_jobs = true;

    void GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* key) const override {
        TestDaemon::GetJobsByReservationKey(jobs, key);
        Count();
    }
    void HandleJobError(VeskJob* job, vesk_error_value value, vesk_error_type type, bool a, bool b) override {
        Count();
        TestDaemon::HandleJobError(job, value, type, a, b);
    }
    void AddReservationCreatedEvent(const char* key) override {
        Count();
        TestDaemon::AddReservationCreatedEvent(key);
    }
    VeskJob* FindJob(uint64_t job_id, uint64_t reservation_id, const char* key) override {
        if (!finds_jobs) throw std::runtime_error("no jobs");
        return TestDaemon::FindJob(job_id, reservation_id, key);
    }

private:
    void Count() const {
        if (calls_left == 0) throw std::runtime_error("nothing works");
        if (calls_left > 0) --const_cast<ThrowingDaemon*>(this)->calls_left;
    }
};

// A job counts on an HCA of another reservation, too, and brings an id that another reservation has got already.
TEST(HostFault, CreateThatThrowsLeavesEverythingAsItWas) {
    ThrowingDaemon daemon;
    daemon.options.max_jobs_per_hca = 9;
    daemon.Create("L", {4});
    VeskJob& fits = daemon.Run(1, "K", {1, 2});
    fits.AddPort(4, 1);
    fits.ext_job_id.reservation_id = daemon.Reservation("L").reservation_id;
    daemon.Run(2, "K", {3});
    daemon.Take();
    const std::string before = daemon.State();
    for (const int calls : {0, 1}) {
        daemon.calls_left = calls;
        daemon.finds_jobs = false;
        EXPECT_THROW(daemon.Create("K", {1, 2}), std::runtime_error) << calls;
        daemon.calls_left = -1;
        daemon.finds_jobs = true;
        EXPECT_EQ(daemon.State(), before) << calls;
        EXPECT_FALSE(fits.reservation_accounted);
        EXPECT_EQ(RegistryFault(*daemon.manager), "");
    }
    // The created event is the call that throws now: no job is left that does not fit.
    daemon.Forget(**daemon.RunningJobs().rbegin());
    fits.ext_job_id.reservation_id = 0;
    daemon.manager->reservation_keys_by_id.emplace(0, "L");
    const std::string without_job = daemon.State();
    daemon.calls_left = 1;
    EXPECT_THROW(daemon.Create("K", {1, 2}), std::runtime_error);
    daemon.calls_left = -1;
    EXPECT_EQ(daemon.State(), without_job);
    EXPECT_EQ(daemon.Create("K", {1, 2}), VESK_STATUS_SUCCESS);
    EXPECT_EQ(daemon.manager->hca_infos.at(4).num_jobs, 1);
}

}    // namespace
