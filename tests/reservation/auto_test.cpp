// Reservations that follow the pkeys of the fabric's ports.

#include <gtest/gtest.h>

#include "host/log.h"
#include "tests/reservation/test_daemon.h"

namespace {

TEST(Auto, ReservationsFollowThePkeys) {
    TestDaemon daemon;
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.options.reservation_default_num_trees = 12;
    const auto report = [&](uint64_t guid, const std::set<uint16_t>& pkeys) {
        daemon.manager->UpdateReservationWithGuidPkeys({guid, 1}, pkeys);
    };
    log_set_level(4);
    report(0xa, {0x8001, 0x7fff});
    report(0x9, {0x7fff});
    report(0xa, {0xc});
    daemon.options.reservation_auto_by_pkeys = false;
    log_set_level(5);
    report(0xabc, {1});
    EXPECT_EQ(daemon.Take(), R"(
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: creating new reservation reservation_0x7fff for guid 0xa
4 CreateReservationId: CreateReservationId key=reservation_0x7fff, id=#reservation_0x7fff
3 InternalCreateNewReservation: Reservation with key=reservation_0x7fff, id=#reservation_0x7fff, allocated with 1 guids, num trees limit: 12
created reservation_0x7fff; files reservation_0x7fff
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: adding guid 0x9 to existing reservation reservation_0x7fff
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: reservation_0x7fff, with num guids to add: 1, num guids to remove: 0
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=reservation_0x7fff, new number of guids=2 (Added: 1, Deleted: 0)
4 UpdateReservationWithGuidPkeys: Update Reservation With Guid Pkeys: pkey changed from 0x7fff to 0xc for guid 0xa
4 InternalUpdateReservationByDelta: Got an internal reservation update request for app: reservation_0x7fff, with num guids to add: 0, num guids to remove: 1
3 PerformUpdateAfterDataPreparation: Update existing reservation, key=reservation_0x7fff, new number of guids=1 (Added: 0, Deleted: 1)
4 AddOrCreateReservationForGuid: Update Reservation With Guid Pkeys: creating new reservation reservation_0xc for guid 0xa
4 CreateReservationId: CreateReservationId key=reservation_0xc, id=#reservation_0xc
3 InternalCreateNewReservation: Reservation with key=reservation_0xc, id=#reservation_0xc, allocated with 1 guids, num trees limit: 12
created reservation_0xc; files reservation_0x7fff reservation_0xc
5 UpdateReservationWithGuidPkeys: Reservation auto by pkeys is disabled, ignore update reservation request 0x0000000000000abc/1
)");
}

}    // namespace
