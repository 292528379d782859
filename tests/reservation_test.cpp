// Clients' requests: create, replace, override, update by delta, delete, info; and the registry behind them.

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "host/hash_bytes.h"
#include "host/log.h"
#include "tests/test_daemon.h"

namespace {

TEST(Create, TakesAGuidFromAnotherReservation) {
    TestDaemon daemon;
    daemon.options.reservation_allow_guid_override = true;
    daemon.Create("B", {7, 5});
    daemon.Take();
    log_set_level(5);

    daemon.Create("K", {7, 3}, TreesLimit(64));
    EXPECT_EQ(daemon.Take(), R"(
4 CreateReservation: Got a reservation request for app: K, with num trees limit: 64
4 CreateReservationId: CreateReservationId key=K, id=#K
3 InternalCreateNewReservation: Reservation with key=K, id=#K, allocated with 2 guids, num trees limit: 64
created K; files B
3 PostUpdateReservation: Deleting reservation due to override of guids, reservation key: B
3 DeleteFile: Delete file at DIR/reservation.B

3 InternalDeleteReservation: Reservation with key=B, id=#B deleted
removed B; files K
reply 0: K 0x7fff state 1 {3,7} limits -,-,-,64,-,-,- auto 0
)");
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 0u);
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(daemon.manager->hca_infos.size(), 2u);
}

// Each request also has faults that are looked at later, so that the order of the checks shows.
TEST(Create, RefusesInOrderAndChangesNothing) {
    TestDaemon daemon;
    daemon.Create("B", {7, 8}, {1, 2, 3, 4, 5, 6, 7});
    daemon.Create("C", {20});
    daemon.Admit(1, "B", {7});
    daemon.Take();
    uint64_t failed = 0;
    const auto refused = [&, before = daemon.State()](uint32_t status) {
        EXPECT_EQ(daemon.State(), before);
        EXPECT_EQ(daemon.fabric.failed_reservation_requests, failed += status != 0 ? 1 : 0);
    };

    daemon.options.reservation_mode = false;
    daemon.options.reservation_auto_by_pkeys = true;
    refused(daemon.Create("", {}));
    daemon.options.reservation_mode = true;
    refused(daemon.Create("", {}));
    daemon.options.reservation_auto_by_pkeys = false;
    refused(daemon.Create("", {}));
    refused(daemon.Create("K", {}));
    refused(daemon.Create("K", {9, 0, 0, 7}));
    refused(daemon.Create("K", {5, 3, 5, 7}));
    refused(daemon.Create("K", {9, 7, 9}));
    daemon.options.reservation_allow_guid_override = true;
    refused(daemon.Create("K", {9, 7, 9}));
    // These replacements would take C's GUID, and a running job's.
    refused(daemon.Create("B", {20}, {9, 9, 9, 9, 9, 9, 9}, 0x8001));
    refused(daemon.Create("B", {20}, {1, 2, 3, 4, 5, 6, 8}));
    refused(daemon.Create("B", {20, 8}, TreesLimit(4)));
    EXPECT_EQ(daemon.Take(), R"(
2 CreateReservation: Reservation mode not enabled
reply 11:  0x7fff state 0 null limits -,-,-,-,-,-,- auto 0
3 CreateReservation: Reservation auto by pkeys is enabled, ignore create reservation request 
reply 0:  0x7fff state 0 null limits -,-,-,-,-,-,- auto 0
3 CreateReservation: Could not create reservation with empty reservation_key because reservation_key is not valid
reply 7:  0x7fff state 0 null limits -,-,-,-,-,-,- auto 0
3 CreateReservation: Could not create reservation with reservation_key: K because num_guids is empty
reply 8: K 0x7fff state 0 null limits -,-,-,-,-,-,- auto 0
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation K, invalid requested guid (0x0) detected
reply 8: K 0x7fff state 0 {0,0,7,9} limits -,-,-,-,-,-,- auto 0
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation K, request has duplicated guids (0x5)
reply 2: K 0x7fff state 0 {3,5,5,7} limits -,-,-,-,-,-,- auto 0
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=K, guid=0x7 already reserved in key=B
reply 6: K 0x7fff state 0 {7,9,9} limits -,-,-,-,-,-,- auto 0
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=K, guid=0x7 already reserved in key=B, and has active jobs
reply 6: K 0x7fff state 0 {7,9,9} limits -,-,-,-,-,-,- auto 0
3 InternalUpdateReservation: Got a reservation update request with a different pkey than original (original: 0x7fff, new: 0x8001), request is denied
reply 12: B 0x8001 state 0 {14} limits 9,9,9,9,9,9,9 auto 0
3 InternalUpdateReservation: Got a reservation update request with different resources than original, request is denied. Reservation key=B
reply 13: B 0x7fff state 0 {14} limits 1,2,3,4,5,6,8 auto 0
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job. Failing the request to modify the reservation. Reservation id = B, external job id = B_1
reply 14: B 0x7fff state 0 {8,14} limits -,-,-,4,-,-,- auto 0
)");
}

TEST(Create, ReplacesTheGuidsOfItsKey) {
    TestDaemon daemon;
    daemon.options.reservation_allow_ending_jobs = true;
    daemon.options.max_jobs_per_hca = 5;
    daemon.Create("K", {0xa, 0xb, 0xc}, TreesLimit(10));
    daemon.Admit(3, "K", {0xa, 0xb}, 1, 2);
    daemon.Admit(2, "K", {0xb, 0xc}, 1, 3);
    daemon.Forget(daemon.Admit(1, "K", {0xa}));
    daemon.Take();
    daemon.Create("K", {0xd, 0xb, 0xc});
    const std::string after = daemon.State();

    // The same list again changes nothing, but the file is written anew.
    std::filesystem::remove(daemon.PathOf("K"));
    daemon.Create("K", {0xc, 0xd, 0xb});
    EXPECT_EQ(daemon.State(), after);
    EXPECT_EQ(daemon.Stored(), daemon.PathOf("K") + ": K 0x7fff state 1 {b,c,d} limits -,-,-,10,-,-,- auto 0\n");
    EXPECT_NE(after.find("trees 4/10 jobs 2\nb of K 1\nc of K 1\nd of K 0\n"), std::string::npos) << after;
    EXPECT_EQ(daemon.Take(), R"(
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job, the job will be stopped. Reservation id = K, external job id = K_3
error K_3 8 0 0 0
end K_3
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=K, new number of guids=3 (Added: 1, Deleted: 1)
updated K; files K
reply 0: K 0x7fff state 1 {b,c,d} limits -,-,-,-,-,-,- auto 0
3 InternalUpdateReservation: Got a reservation update request with same list of guids. There is nothing to update. Reservation key=K
reply 0: K 0x7fff state 1 {b,c,d} limits -,-,-,-,-,-,- auto 0
)");
}

TEST(Create, EndsTheJobsOfTheReservationsItTakesFrom) {
    TestDaemon daemon;
    daemon.options.reservation_allow_guid_override = true;
    daemon.options.reservation_allow_ending_jobs = true;
    daemon.Create("B", {5, 7});
    daemon.Create("K", {1});
    daemon.Admit(9, "B", {5});
    daemon.Admit(4, "B", {7});
    daemon.Forget(daemon.Admit(6, "B", {7}));
    daemon.Take();
    daemon.Create("K", {7, 5, 1});
    EXPECT_EQ(RegistryFault(*daemon.manager), "");

    // A job that already runs under a new key is looked at while the GUID is still another's: it is ended.
    daemon.Run(8, "N", {7});
    daemon.Create("N", {7});
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(daemon.Take(), R"(
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=K, new number of guids=3 (Added: 2, Deleted: 0)
updated K; files B K
3 PostUpdateReservation: Deleting reservation due to override of guids, reservation key: B
3 RemoveReservationJobs: Delete reservation id=B, send job error external job id=B_4
error B_4 8 0 0 0
end B_4
3 RemoveReservationJobs: Delete reservation id=B, send job error external job id=B_9
error B_9 8 0 0 0
end B_9
3 DeleteFile: Delete file at DIR/reservation.B

3 InternalDeleteReservation: Reservation with key=B, id=#B deleted
removed B; files K
reply 0: K 0x7fff state 1 {1,5,7} limits -,-,-,-,-,-,- auto 0
2 HandleAlreadyRunningJobs: Detected a mismatch of reservations for external_job_id N_8. Ending the job.
error N_8 8 0 0 0
end N_8
3 InternalCreateNewReservation: Reservation with key=N, id=#N, allocated with 1 guids, num trees limit: no limit
created N; files K
3 PostUpdateReservation: Deleting reservation due to override of guids, reservation key: K
3 DeleteFile: Delete file at DIR/reservation.K

3 InternalDeleteReservation: Reservation with key=K, id=#K deleted
removed K; files N
reply 0: N 0x7fff state 1 {7} limits -,-,-,-,-,-,- auto 0
)");
}

TEST(Create, TreatsAGuidOfAnUnregisteredOwnerAsFree) {
    TestDaemon daemon;
    daemon.options.reservation_allow_guid_override = true;
    daemon.Create("B", {7});
    daemon.Take();
    auto lost = daemon.manager->reservations.extract("B");
    EXPECT_EQ(daemon.Create("K", {7}), 0u);
    EXPECT_TRUE(
        daemon.Take().starts_with("\n1 HandleAddedGuidsAndOtherReservations: -A- Could not find reservation that "
                                  "is affected by new one: B\n3 InternalCreateNewReservation: "));
    daemon.manager->reservations.insert(std::move(lost));
}

TEST(Create, LimitsItsTrees) {
    TestDaemon daemon;
    const auto max_trees = [&](uint32_t num_trees) {
        const std::string key = std::to_string(daemon.manager->reservations.size());
        daemon.Create(key, {daemon.manager->reservations.size() + 1}, TreesLimit(num_trees));
        return daemon.Reservation(key).max_trees;
    };
    EXPECT_EQ(max_trees(0), 0u);
    EXPECT_EQ(max_trees(24574), 24574u);
    EXPECT_EQ(max_trees(24576), 24575u);
    EXPECT_EQ(max_trees(VESK_LIMIT_NOT_GIVEN), 24575u);
    daemon.options.reservation_default_num_trees = 100000;
    EXPECT_EQ(max_trees(VESK_LIMIT_NOT_GIVEN), 100000u);
    EXPECT_EQ(max_trees(4294967294), 24575u);
}

TEST(Delta, ChangesTheListAndTakesFromOthers) {
    TestDaemon daemon;
    daemon.options.reservation_allow_guid_override = true;
    daemon.Create("K", {10, 20, 30}, TreesLimit(9), 0x8001);
    daemon.Create("B", {40, 41});
    daemon.Take();
    log_set_level(4);
    daemon.Delta("K", {50, 40}, {30, 20});
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(daemon.sent_guids, (Guids{40, 50}));
    EXPECT_EQ(daemon.sent_guids_to_remove, (Guids{20, 30}));
    EXPECT_EQ(daemon.Take(), R"(
4 UpdateReservationByDelta: Got a reservation update request for app: K, with num guids to add: 2, num guids to remove: 2
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: K, with num guids to add: 2, num guids to remove: 2
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=K, new number of guids=3 (Added: 2, Deleted: 2)
updated K; files B K
3 PostUpdateReservation: Deleting reservation due to override of guids, reservation key: B
3 DeleteFile: Delete file at DIR/reservation.B

3 InternalDeleteReservation: Reservation with key=B, id=#B deleted
removed B; files K
reply 0: K 0x8001 state 1 {a,28,32} limits -,-,-,9,-,-,- auto 0
)");

    // An emptied reservation stays, is stored, and can be filled again.
    EXPECT_EQ(daemon.Delta("K", {}, {10, 40, 50}), 0u);
    EXPECT_EQ(daemon.Stored(), daemon.PathOf("K") + ": K 0x8001 state 1 null limits -,-,-,9,-,-,- auto 0\n");
    EXPECT_TRUE(daemon.manager->hca_infos.empty());
    EXPECT_EQ(daemon.Delta("K", {2}, {}), 0u);
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 0u);
}

TEST(Delta, RefusesInOrderAndChangesNothing) {
    TestDaemon daemon;
    daemon.Create("K", {10, 20, 30});
    daemon.Create("B", {40, 41});
    daemon.Create("C", {60});
    daemon.Admit(1, "B", {40});
    VeskJob& job = daemon.Admit(2, "K", {10, 20});
    daemon.Take();
    uint64_t failed = 0;
    const auto refused = [&, before = daemon.State()](uint32_t status) {
        EXPECT_EQ(daemon.State(), before);
        EXPECT_EQ(daemon.fabric.failed_reservation_requests, failed += status != 0 ? 1 : 0);
        const std::string reply = std::to_string(status) + ": " + (status == 7 ? "X" : "K");
        std::string seen = daemon.Take();
        EXPECT_TRUE(seen.ends_with("\nreply " + reply + " 0x0 state 0 null limits 0,0,0,0,0,0,0 auto 0\n")) << seen;
        return std::to_string(status) + seen.substr(0, seen.find("reply "));
    };

    daemon.options.reservation_mode = false;
    daemon.options.reservation_auto_by_pkeys = true;
    std::string seen = refused(daemon.Delta("K", {}, {}));
    daemon.options.reservation_mode = true;
    seen += refused(daemon.Delta("K", {}, {}));
    daemon.options.reservation_auto_by_pkeys = false;
    seen += refused(daemon.Delta("K", {}, {}));
    seen += refused(daemon.Delta("X", {0}, {1}));
    seen += refused(daemon.Delta("K", {20}, {4, 3, 2, 1}));
    seen += refused(daemon.Delta("K", {30, 0, 20}, {20, 20}));
    seen += refused(daemon.Delta("K", {0}, {20, 20}));
    seen += refused(daemon.Delta("K", {0}, {50, 10}));
    seen += refused(daemon.Delta("K", {40, 0, 0}, {10}));
    seen += refused(daemon.Delta("K", {40, 39, 39}, {10}));
    seen += refused(daemon.Delta("K", {50, 50, 40}, {10}));
    daemon.options.reservation_allow_guid_override = true;
    seen += refused(daemon.Delta("K", {50, 50, 40}, {10}));
    seen += refused(daemon.Delta("K", {60}, {20}));
    daemon.Forget(job);
    seen += refused(daemon.Delta("K", {60}, {20}));
    EXPECT_EQ(seen, R"(11
2 UpdateReservationByDelta: Reservation mode not enabled
0
3 UpdateReservationByDelta: Reservation auto by pkeys is enabled, ignore update reservation request K
8
3 InternalUpdateReservationByDelta: Did not update reservation K because both lists of added and removed guids are empty
7
3 InternalUpdateReservationByDelta: Could not update reservation X, because could not find such an existing reservation
8
3 InternalUpdateReservationByDelta: Did not update reservation K because number of removed guids (4) is larger than current number of guids (3)
2
3 InternalUpdateReservationByDelta: Did not update reservation K because requested guids to add include guids that are already in the reservation (0x14)
8
3 InternalUpdateReservationByDelta: Did not update reservation K because list of removed guids is invalid (either has duplicates or guids that are not part of the reservation)
8
3 InternalUpdateReservationByDelta: Did not update reservation K because list of removed guids is invalid (either has duplicates or guids that are not part of the reservation)
8
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation K, invalid requested guid (0x0) detected
2
3 HandleAddedGuidsAndOtherReservations: Could not create/update reservation K, request has duplicated guids (0x27)
6
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=K, guid=0x28 already reserved in key=B
6
3 HandleAddedGuidsAndOtherReservations: Could not create reservation with reservation key=K, guid=0x28 already reserved in key=B, and has active jobs
14
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job. Failing the request to modify the reservation. Reservation id = K, external job id = K_2
14
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job. Failing the request to modify the reservation. Reservation id = K, external job id = 0
)");
}

TEST(Delete, EndsJobsOrRefuses) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2}, TreesLimit(9));
    daemon.Create("L", {3});
    daemon.Admit(5, "K", {1});
    daemon.Forget(daemon.Admit(4, "K", {1}));
    daemon.Admit(3, "K", {2});
    daemon.Take();
    const std::string before = daemon.State();
    daemon.options.reservation_mode = false;
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.Delete("K");
    daemon.options.reservation_mode = true;
    daemon.Delete("K");
    daemon.options.reservation_auto_by_pkeys = false;
    daemon.Delete("k");
    daemon.Delete("K");
    EXPECT_EQ(daemon.State(), before);
    daemon.options.reservation_allow_ending_jobs = true;
    daemon.Delete("K");
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 0u);
    EXPECT_EQ(daemon.Take(), R"(
2 DeleteReservation: Reservation mode not enabled
reply 11:
3 DeleteReservation: Reservation auto by pkeys is enabled, ignore delete reservation request K
reply 0:
3 DeleteReservation: Could not delete reservation with reservation id=k, reservation not found
reply 9: k 0x0 state 0 null limits 0,0,0,0,0,0,0 auto 0
3 DeleteReservation: Could not delete reservation with reservation id=K, reservation has active jobs
reply 10: K 0x7fff state 0 {1,2} limits -,-,-,9,-,-,- auto 0
reply 0: K 0x7fff state 3 {1,2} limits -,-,-,9,-,-,- auto 0
3 RemoveReservationJobs: Delete reservation id=K, send job error external job id=K_3
error K_3 8 0 0 0
end K_3
3 RemoveReservationJobs: Delete reservation id=K, send job error external job id=K_5
error K_5 8 0 0 0
end K_5
3 DeleteFile: Delete file at DIR/reservation.K

3 InternalDeleteReservation: Reservation with key=K, id=#K deleted
removed K; files L
)");
}

TEST(Info, DescribesOneOrAllInKeyOrder) {
    TestDaemon daemon;
    log_set_level(4);
    daemon.Info("", true);
    EXPECT_EQ(daemon.Take(), "\n4 ReservationInfoRequest: Reservation request, no reservations\nreply 0:\n");
    daemon.Create("xy", {3, 1}, TreesLimit(5), 0x8001);
    daemon.Create("x", {2});
    daemon.Create("\xff", {5});
    daemon.Take();
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.Info("", false);
    daemon.Info("", true);
    daemon.Info("xy", true);
    daemon.Info("xy", false);
    daemon.Info("XY", true);
    daemon.options.reservation_mode = false;
    daemon.Info("", true);
    EXPECT_EQ(daemon.Take(),
              "\nreply 0: x 0x7fff state 1 null limits 0,0,0,0,0,0,0 auto 0; "
              "xy 0x8001 state 1 null limits 0,0,0,0,0,0,0 auto 0; "
              "\xff 0x7fff state 1 null limits 0,0,0,0,0,0,0 auto 0\n"
              "reply 0: x 0x7fff state 1 {2} limits -,-,-,-,-,-,- auto 0; "
              "xy 0x8001 state 1 {1,3} limits -,-,-,5,-,-,- auto 0; "
              "\xff 0x7fff state 1 {5} limits -,-,-,-,-,-,- auto 0\n"
              "reply 0: xy 0x8001 state 1 {1,3} limits -,-,-,5,-,-,- auto 0\n"
              "reply 0: xy 0x8001 state 1 null limits 0,0,0,0,0,0,0 auto 0\n"
              "4 ReservationInfoRequest: Could not find reservation for id=XY\nreply 9:\n"
              "3 ReservationInfoRequest: Reservation mode not enabled\nreply 11:\n");
    EXPECT_EQ(daemon.fabric.failed_reservation_requests, 0u);
}

TEST(Reply, ThatCannotBeSentStopsNothing) {
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
    daemon.Delete("abc");
    keys_by_id.clear();
    daemon.Create("abc", {1});
    EXPECT_EQ(daemon.Reservation("abc").reservation_id, kHash);

    // An id given twice stays with its first key; the reservation that goes takes the id's entry along.
    daemon.Create("L", {2});
    ReservationInfo& second = *daemon.manager->reservations.at("L");
    keys_by_id.erase(second.reservation_id);
    daemon.Take();
    log_set_level(4);
    daemon.manager->SetReservationId(second, kHash);
    daemon.manager->CreateReservationId(second);
    EXPECT_EQ(keys_by_id.at(kHash), "abc");
    EXPECT_EQ(daemon.Take(), R"(
4 SetReservationId: SetReservationId key=L, id=#abc
4 CreateReservationId: CreateReservationId already exist, skip, key=L, id=#abc
)");
    daemon.Delete("L");
    EXPECT_TRUE(keys_by_id.empty());
}

TEST(Registry, FindsTheReservationOfGuids) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2});
    daemon.Create("L", {3});
    daemon.Take();
    const auto find = [&](Guids guids) {
        return daemon.manager->GetReservationByGuids(guids.data(), static_cast<uint32_t>(guids.size()));
    };
    EXPECT_EQ(find({2, 1, 2}), &daemon.Reservation("K"));
    EXPECT_EQ(find({1, 9}), nullptr);
    EXPECT_EQ(find({9, 1}), nullptr);
    EXPECT_EQ(find({2, 1, 3, 9}), nullptr);
    EXPECT_EQ(daemon.manager->GetReservationByGuids(nullptr, 1), nullptr);
    EXPECT_EQ(daemon.Take(), R"(
3 GetReservationByGuids: Get Reservation By Guids: guid=0x9 not found in reservation=K
3 GetReservationByGuids: Get Reservation By Guids: guid=0x9 not in any reservation
3 GetReservationByGuids: Get Reservation By Guids: two guids in two reservations, guid=0x2 in reservation_key=K, guid=0x3 in reservation_key=L
1 GetReservationByGuids: Get Reservation By Guids: no GUID provided
)");
}

TEST(Records, ThreeToFiveAreSentOnlyWhenWanted) {
    TestDaemon daemon;
    daemon.options.reservation_mode = false;
    for (int level = 1; level <= 5; ++level) {
        log_set_level(level);
        daemon.manager->GetReservationByGuids(nullptr, 0);
        daemon.Create("K", {1});
        daemon.Info("K", true);
        daemon.manager->UpdateReservationWithGuidPkeys({0xabc, 1}, {1});
        std::string expected = "\n1 GetReservationByGuids: Get Reservation By Guids: no GUID provided\n";
        if (level >= 4)
            expected += "4 CreateReservation: Got a reservation request for app: K, with num trees limit: -1\n";
        expected += "2 CreateReservation: Reservation mode not enabled\n";
        expected += "reply 11: K 0x7fff state 0 {1} limits -,-,-,-,-,-,- auto 0\n";
        if (level >= 3) expected += "3 ReservationInfoRequest: Reservation mode not enabled\n";
        expected += "reply 11:\n";
        if (level == 5)
            expected +=
                "5 UpdateReservationWithGuidPkeys: Reservation auto by pkeys is disabled, ignore "
                "update reservation request 0x0000000000000abc/1\n";
        EXPECT_EQ(daemon.Take(), expected);
    }
}

}    // namespace
