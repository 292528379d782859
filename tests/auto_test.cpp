// Reservations that follow the pkeys of the fabric's ports.

#include <gtest/gtest.h>

#include "host/log.h"
#include "tests/test_daemon.h"

namespace {

TEST(Auto, ReservationsFollowThePkeys) {
    TestDaemon daemon;
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.options.reservation_default_num_trees = 12;
    daemon.Run(1, "reservation_0x7fff", {0xa});    // left alone: running jobs are not re-attached in this mode
    ReservationManager& manager = *daemon.manager;
    log_set_level(4);

    manager.UpdateReservationWithGuidPkeys({0xa, 1}, {0x8001, 0x7fff});
    EXPECT_EQ(daemon.Take(), R"(
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: creating new reservation reservation_0x7fff for guid 0xa
4 CreateReservationId: CreateReservationId key=reservation_0x7fff, id=#reservation_0x7fff
3 InternalCreateNewReservation: Reservation with key=reservation_0x7fff, id=#reservation_0x7fff, allocated with 1 guids, num trees limit: 12
created reservation_0x7fff; files reservation_0x7fff
)");

    // The same set, another set with the same smallest pkey, and an empty set for a GUID in no reservation: nothing.
    manager.UpdateReservationWithGuidPkeys({0xa, 2}, {0x7fff, 0x8001});
    manager.UpdateReservationWithGuidPkeys({0xa, 1}, {0x7fff});
    manager.UpdateReservationWithGuidPkeys({0xb, 1}, {});
    EXPECT_EQ(daemon.Take(), "\n");

    manager.UpdateReservationWithGuidPkeys({0x9, 1}, {0x7fff});
    EXPECT_EQ(daemon.Take(), R"(
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: adding guid 0x9 to existing reservation reservation_0x7fff
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: reservation_0x7fff, with num guids to add: 1, num guids to remove: 0
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=reservation_0x7fff, new number of guids=2 (Added: 1, Deleted: 0)
)");

    manager.UpdateReservationWithGuidPkeys({0xa, 1}, {0xa});
    EXPECT_EQ(daemon.Take(), R"(
4 UpdateReservationWithGuidPkeys: Update Reservation With Guid Pkeys: pkey changed from 0x7fff to 0xa for guid 0xa
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: reservation_0x7fff, with num guids to add: 0, num guids to remove: 1
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=reservation_0x7fff, new number of guids=1 (Added: 0, Deleted: 1)
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: creating new reservation reservation_0xa for guid 0xa
4 CreateReservationId: CreateReservationId key=reservation_0xa, id=#reservation_0xa
3 InternalCreateNewReservation: Reservation with key=reservation_0xa, id=#reservation_0xa, allocated with 1 guids, num trees limit: 12
created reservation_0xa; files reservation_0x7fff reservation_0xa
)");

    // The last GUID takes its reservation along before it joins the other one.
    manager.UpdateReservationWithGuidPkeys({0x9, 1}, {0xa});
    EXPECT_EQ(daemon.Take(), R"(
4 UpdateReservationWithGuidPkeys: Update Reservation With Guid Pkeys: pkey changed from 0x7fff to 0xa for guid 0x9
3 DeleteFile: Delete file at DIR/reservation.reservation_0x7fff

3 InternalDeleteReservation: Reservation with key=reservation_0x7fff, id=#reservation_0x7fff deleted
removed reservation_0x7fff; files reservation_0xa
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: adding guid 0x9 to existing reservation reservation_0xa
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: reservation_0xa, with num guids to add: 1, num guids to remove: 0
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=reservation_0xa, new number of guids=2 (Added: 1, Deleted: 0)
)");
    log_set_level(3);
    daemon.Info("", true);
    EXPECT_EQ(daemon.Take(), "\nreply 0: reservation_0xa 0xa state 1 {9,a} limits -,-,-,-,-,-,- auto 1\n");
    EXPECT_EQ(RegistryFault(manager), "");
    EXPECT_NE(daemon.State().find(
                  "reservation.reservation_0xa: reservation_0xa 0xa state 1 {9,a} limits -,-,-,-,-,-,- auto 1"),
              std::string::npos);

    manager.UpdateReservationWithGuidPkeys({0x9, 1}, {});
    manager.UpdateReservationWithGuidPkeys({0xa, 1}, {});
    EXPECT_EQ(daemon.State(), "");

    // The top bit counts, and pkey 0 is one like any other.
    manager.UpdateReservationWithGuidPkeys({1, 1}, {0x8001});
    manager.UpdateReservationWithGuidPkeys({2, 1}, {0x0001, 0x8001});
    manager.UpdateReservationWithGuidPkeys({3, 1}, {0});
    EXPECT_EQ(daemon.FileNames(), " reservation_0x0 reservation_0x1 reservation_0x8001");
}

TEST(Auto, NeedsBothModes) {
    TestDaemon daemon;
    daemon.Create("reservation_0x1", {1, 2}, kNoLimits, 1);
    daemon.Take();
    const std::string before = daemon.State();
    for (const bool mode : {false, true}) {
        daemon.options.reservation_mode = mode;
        daemon.options.reservation_auto_by_pkeys = !mode;
        daemon.manager->UpdateReservationWithGuidPkeys({1, 1}, {2});
        daemon.manager->UpdateReservationWithGuidPkeys({2, 1}, {});
    }
    EXPECT_EQ(daemon.Take(), "\n");
    EXPECT_EQ(daemon.State(), before);
}

// What a client reserved before the mode was set keeps its key, and an owner that may not be robbed keeps its GUID.
TEST(Auto, WorksOnReservationsOfClients) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2}, kNoLimits, 5);
    daemon.Admit(1, "K", {1});
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.Take();

    // The running job may not lose its HCA, so the removal is refused, and then the GUID is still K's.
    daemon.manager->UpdateReservationWithGuidPkeys({1, 1}, {6});
    EXPECT_EQ(daemon.manager->hca_infos.at(1).reservation, &daemon.Reservation("K"));
    EXPECT_EQ(daemon.Reservation("K").info.num_guids, 2u);

    daemon.options.reservation_allow_ending_jobs = true;
    daemon.Take();
    daemon.manager->UpdateReservationWithGuidPkeys({1, 1}, {});
    EXPECT_EQ(daemon.Take(), R"(
3 HandleRemovedGuidsAndActiveJobs: Removed guids from reservation are part of an existing job, the job will be stopped. Reservation id = K, external job id = K_1
error K_1 8 0 0 0
end K_1
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=K, new number of guids=1 (Added: 0, Deleted: 1)
)");
}

}    // namespace
