// Clients' requests: create, replace, override, update by delta, delete, info; and the registry behind them.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "host/hash_bytes.h"
#include "host/log.h"
#include "tests/reservation/test_daemon.h"

namespace {

std::string WithoutReplies(const std::string& seen) {
    std::istringstream lines(seen);
    std::string rest;
    for (std::string line; std::getline(lines, line);) rest += line.starts_with("reply ") ? "" : line + "\n";
    return rest;
}

TEST(Requests, ChangeReservationsAndEndJobs) {
    TestDaemon daemon;
    daemon.options.reservation_allow_guid_override = true;
    daemon.options.reservation_allow_ending_jobs = true;
    daemon.Create("B", {7, 5}, kNoLimits, 0x8001);
    daemon.Admit(9, "B", {5});
    daemon.Forget(daemon.Admit(4, "B", {7}));
    daemon.Run(8, "K", {3, 7});    // is looked at while 7 is still B's
    daemon.Take();
    log_set_level(4);
    daemon.Create("K", {7, 3}, TreesLimit(64));
    daemon.Admit(2, "K", {3}, 1, 2);
    daemon.Create("K", {10, 7});
    daemon.Create("K", {7, 10}, TreesLimit(64));
    daemon.Delta("K", {50, 40}, {10});
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    daemon.Delete("K");
    daemon.Info("", true);
    EXPECT_EQ(daemon.Take(), R"(
4 CreateReservation: Got a reservation request for app: K, with num trees limit: 64
3 GetReservationByJob: Could not get reservation for external_job_id=K_8, job guids in different reservations, guid=0x3 in reservation_key=K, guid=0x7 in reservation_key=B
2 HandleAlreadyRunningJobs: Detected a mismatch of reservations for external_job_id K_8. Ending the job.
error K_8 8 0 0 0
end K_8
4 CreateReservationId: CreateReservationId key=K, id=#K
3 InternalCreateNewReservation: Reservation with key=K, id=#K, allocated with 2 guids, num trees limit: 64
created K; files B
3 PostUpdateReservation: Deleting reservation due to override of guids, reservation key: B
4 RemoveJob: Remove Job from reservation, client_job_id=4, reservation_key=B,
4 RemoveJob: Remove Job from reservation, client_job_id=9, reservation_key=B,
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=B, external_job_id=9, is_added: 0, change in number of trees: 1, new total trees: 1 (with 1 planes)
3 RemoveReservationJobs: Delete reservation id=B, send job error external job id=B_9
error B_9 8 0 0 0
end B_9
3 DeleteFile: Delete file at DIR/reservation.B

3 InternalDeleteReservation: Reservation with key=B, id=#B deleted
removed B; files K
reply 0: K 0x7fff state 1 {3,7} limits -,-,-,64,-,-,- auto 0
4 AddJob: AddJob to reservation, external_job_id=2, reservation_key=K
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=K, external_job_id=2, is_added: 1, change in number of trees: 2, new total trees: 2 (with 1 planes)
4 CreateReservation: Got a reservation request for app: K, with num trees limit: -1
4 RemoveJob: Remove Job from reservation, client_job_id=2, reservation_key=K,
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=K, external_job_id=2, is_added: 0, change in number of trees: 2, new total trees: 0 (with 1 planes)
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job, the job will be stopped. Reservation id = K, external job id = K_2
error K_2 8 0 0 0
end K_2
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=K, new number of guids=2 (Added: 1, Deleted: 1)
updated K; files K
reply 0: K 0x7fff state 1 {7,a} limits -,-,-,-,-,-,- auto 0
4 CreateReservation: Got a reservation request for app: K, with num trees limit: 64
3 InternalUpdateReservation: Got a reservation update request with same list of guids. There is nothing to update. Reservation key=K
reply 0: K 0x7fff state 1 {7,a} limits -,-,-,64,-,-,- auto 0
4 UpdateReservationByDelta: Got a reservation update request for app: K, with num guids to add: 2, num guids to remove: 1
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: K, with num guids to add: 2, num guids to remove: 1
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=K, new number of guids=3 (Added: 2, Deleted: 1)
updated K; files K
reply 0: K 0x7fff state 1 {7,28,32} limits -,-,-,64,-,-,- auto 0
reply 0: K 0x7fff state 3 {7,28,32} limits -,-,-,64,-,-,- auto 0
3 DeleteFile: Delete file at DIR/reservation.K

3 InternalDeleteReservation: Reservation with key=K, id=#K deleted
removed K; files
4 ReservationInfoRequest: Reservation request, no reservations
reply 0:
)");
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 0u);
    EXPECT_EQ(daemon.State(), "");
}

TEST(Requests, AreRefusedAndChangeNothing) {
    TestDaemon daemon;
    daemon.Create("B", {7, 8}, {1, 2, 3, 4, 5, 6, 7});
    daemon.Create("C", {20});
    daemon.Admit(1, "B", {7});
    daemon.Forget(daemon.Admit(2, "C", {20}));
    daemon.Take();
    const std::string before = daemon.State();
    const auto send_each = [&](const std::string& key) {
        daemon.Create(key, {1});
        daemon.Delta(key, {1}, {});
        daemon.Delete(key);
    };
    daemon.options.reservation_mode = false;
    send_each("K");
    daemon.Info("K", true);
    daemon.options.reservation_mode = true;
    daemon.options.reservation_auto_by_pkeys = true;
    send_each("K");
    daemon.options.reservation_auto_by_pkeys = false;
    log_set_level(4);
    daemon.Info("K", true);
    daemon.Delete("K");
    daemon.Delete("B");
    log_set_level(3);
    EXPECT_EQ(WithoutReplies(daemon.Take()), R"(
2 CreateReservation: Reservation mode not enabled
2 UpdateReservationByDelta: Reservation mode not enabled
2 DeleteReservation: Reservation mode not enabled
3 ReservationInfoRequest: Reservation mode not enabled
3 CreateReservation: Reservation auto by pkeys is enabled, ignore create reservation request K
3 UpdateReservationByDelta: Reservation auto by pkeys is enabled, ignore update reservation request K
3 DeleteReservation: Reservation auto by pkeys is enabled, ignore delete reservation request K
4 ReservationInfoRequest: Could not find reservation for id=K
3 DeleteReservation: Could not delete reservation with reservation id=K, reservation not found
3 DeleteReservation: Could not delete reservation with reservation id=B, reservation has active jobs
)");

    daemon.Create("", {});
    daemon.Create("K", {});
    daemon.Create("K", {9, 0, 0, 7});
    daemon.Create("K", {5, 3, 5, 7});
    daemon.Create("K", {9, 7, 9});
    daemon.options.reservation_allow_guid_override = true;
    daemon.Create("K", {9, 7, 9});
    daemon.Create("B", {21}, {9, 9, 9, 9, 9, 9, 9}, 0x8001);
    daemon.Create("B", {21}, {1, 2, 3, 4, 5, 6, 8});
    daemon.Create("B", {21, 8}, TreesLimit(4));
    EXPECT_EQ(WithoutReplies(daemon.Take()), R"(
3 CreateReservation: Could not create reservation with empty reservation_key because reservation_key is not valid
3 CreateReservation: Could not create reservation with reservation_key: K because num_guids is empty
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation K, invalid requested guid (0x0) detected
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation K, request has duplicated guids (0x5)
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=K, guid=0x7 already reserved in key=B
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=K, guid=0x7 already reserved in key=B, and has active jobs
3 InternalUpdateReservation: Got a reservation update request with a different pkey than original (original: 0x7fff, new: 0x8001), request is denied
3 InternalUpdateReservation: Got a reservation update request with different resources than original, request is denied. Reservation key=B
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job. Failing the request to modify the reservation. Reservation id = B, external job id = B_1
)");

    daemon.Delta("C", {}, {});
    daemon.Delta("X", {0}, {1});
    daemon.Delta("B", {8}, {3, 2, 1});
    daemon.Delta("B", {30, 0, 8}, {8, 8});
    daemon.Delta("B", {0}, {8, 8});
    daemon.Delta("C", {60}, {20});
    EXPECT_EQ(WithoutReplies(daemon.Take()), R"(
3 InternalUpdateReservationByDelta: Did not update reservation C because both lists of added and removed guids are empty
3 InternalUpdateReservationByDelta: Could not update reservation X, because could not find such an existing reservation
3 InternalUpdateReservationByDelta: Did not update reservation B because number of removed guids (3) is larger than current number of guids (2)
3 InternalUpdateReservationByDelta: Did not update reservation B because requested guids to add include guids that are already in the reservation (0x8)
3 InternalUpdateReservationByDelta: Did not update reservation B because list of removed guids is invalid (either has duplicates or guids that are not part of the reservation)
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job. Failing the request to modify the reservation. Reservation id = C, external job id = 0
)");
    EXPECT_EQ(daemon.State(), before);
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 17u);
}

TEST(Requests, TreatAGuidOfAnUnregisteredOwnerAsFree) {
    TestDaemon daemon;
    daemon.options.reservation_allow_guid_override = true;
    daemon.Create("B", {7});
    daemon.Take();
    const auto lost = daemon.manager->reservations.extract("B");
    EXPECT_EQ(daemon.Create("K", {7}), 0u);
    EXPECT_TRUE(
        daemon.Take().starts_with("\n1 HandleAddedGuidsAndOtherReservations: -A- Could not find reservation that "
                                  "is affected by new one: B\n3 InternalCreateNewReservation: "));
    delete lost.mapped();
}

TEST(Requests, AreCarriedOutThoughTheReplyCannotBeSent) {
    class Unreachable : public TestDaemon {
        void SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list, uint64_t id) const override {
            TestDaemon::SendReservationInfoList(ep, list, id);
            throw std::runtime_error("the client is gone");
        }
    } daemon;
    EXPECT_EQ(daemon.Create("K", {1}), 0u);
    EXPECT_EQ(daemon.Delta("K", {2}, {}), 0u);
    EXPECT_EQ(daemon.Info("", true), 0u);
    EXPECT_EQ(daemon.Delete("K"), 0u);
    EXPECT_EQ(daemon.State(), "");
}

TEST(Registry, GivesIdsFromKeys) {
    EXPECT_EQ(HashBytes(""), 0x553e93901e462a6eu);
    for (std::string bytes; bytes.size() < 40; bytes.push_back(static_cast<char>(0xf1 * bytes.size() + 0x80))) {
        EXPECT_EQ(HashBytes(bytes), std::hash<std::string>()(bytes)) << bytes.size();
    }
    TestDaemon daemon;
    auto& keys_by_id = daemon.manager->reservation_keys_by_id;
    constexpr uint64_t kHash = 0x32d82bf8ed3dba39;
    keys_by_id = {{kHash, "other"}, {kHash + 1, "another"}};
    daemon.Create("abc", {1});
    EXPECT_EQ(keys_by_id.at(kHash + 2), "abc");

    // An id given twice stays with its first key; the reservation that goes takes the id's entry along.
    ReservationInfo& reservation = *daemon.manager->reservations.at("abc");
    daemon.Take();
    log_set_level(4);
    daemon.manager->SetReservationId(reservation, kHash);
    daemon.manager->CreateReservationId(reservation);
    EXPECT_EQ(keys_by_id.at(kHash), "other");
    EXPECT_EQ(daemon.Take(), R"(
4 SetReservationId: SetReservationId key=abc, id=#abc
4 CreateReservationId: CreateReservationId already exist, skip, key=abc, id=#abc
)");
    daemon.Delete("abc");
    EXPECT_FALSE(keys_by_id.contains(kHash));
}

TEST(Registry, FindsTheReservationOfGuids) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2});
    daemon.Create("L", {3});
    daemon.Take();
    for (Guids guids : {Guids{1, 9}, {9, 1}, {2, 1, 3, 9}, {}}) {
        const auto count = static_cast<uint32_t>(guids.size());
        EXPECT_EQ(daemon.manager->GetReservationByGuids(guids.data(), count), nullptr);
    }
    EXPECT_EQ(daemon.manager->GetReservationByGuids(nullptr, 1), nullptr);
    EXPECT_EQ(daemon.Take(), R"(
3 GetReservationByGuids: Get Reservation By Guids: guid=0x9 not found in reservation=K
3 GetReservationByGuids: Get Reservation By Guids: guid=0x9 not in any reservation
3 GetReservationByGuids: Get Reservation By Guids: two guids in two reservations, guid=0x2 in reservation_key=K, guid=0x3 in reservation_key=L
1 GetReservationByGuids: Get Reservation By Guids: no GUID provided
1 GetReservationByGuids: Get Reservation By Guids: no GUID provided
)");
}

TEST(Records, ThreeToFiveAreSentOnlyWhenWanted) {
    TestDaemon daemon;
    daemon.Create("L", {1});
    daemon.options.reservation_mode = false;
    for (size_t level = 1; level <= 5; ++level) {
        daemon.Take();
        log_set_level(static_cast<int>(level));
        daemon.manager->GetReservationByGuids(nullptr, 0);
        daemon.Delete("L");
        daemon.Info("L", true);
        daemon.manager->HandleAlreadyRunningJobsForAllReservations();
        daemon.manager->UpdateReservationWithGuidPkeys({1, 1}, {1});
        std::istringstream records(WithoutReplies(daemon.Take()));
        std::string levels;
        for (std::string line; std::getline(records, line);) levels += line.substr(0, 1);
        EXPECT_EQ(levels, std::string("12345").substr(0, std::max<size_t>(level, 2)));
    }
}

}    // namespace
