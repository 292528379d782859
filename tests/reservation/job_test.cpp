// Jobs: finding their reservation, admitting them, counting them, and taking in those that already run.

#include <gtest/gtest.h>

#include "host/log.h"
#include "tests/reservation/test_daemon.h"

namespace {

TEST(Job, IsFoundWhereItsTreesAre) {
    TestDaemon daemon;
    ReservationManager& manager = *daemon.manager;
    daemon.Create("R", {0x1a, 2});
    daemon.Create("S", {4});
    daemon.Take();
    EXPECT_EQ(manager.GetReservationByJob(&daemon.Run(1, "R", {2, 0x1a})), &daemon.Reservation("R"));
    for (const Guids& guids : {Guids{0x9f, 0x1a}, {1, 2}, {2, 4, 0x1b}, {}}) {
        EXPECT_EQ(manager.GetReservationByJob(&daemon.Run(7, "", guids)), nullptr);
    }
    daemon.options.reservation_mode = false;
    EXPECT_EQ(manager.GetReservationByJob(&daemon.Run(1, "R", {2})), nullptr);
    EXPECT_EQ(daemon.Take(), R"(
3 GetReservationByJob: Could not get reservation for external_job_id=default_7, guid=0x9f not found in reservation=R
3 GetReservationByJob: Could not get reservation for external_job_id=default_7, guid=0x1 not in any reservation
3 GetReservationByJob: Could not get reservation for external_job_id=default_7, job guids in different reservations, guid=0x2 in reservation_key=R, guid=0x4 in reservation_key=S
3 GetReservationByJob: Could not get reservation for external_job_id=default_7, the job has no tree with a port
3 GetReservationByJob: Reservation mode not enabled
)");
}

TEST(Job, IsAdmittedWhileTreesAndHcasLast) {
    TestDaemon daemon;
    daemon.options.max_jobs_per_hca = 1;
    daemon.Create("K", {1, 2}, TreesLimit(10));
    ReservationInfo* const reservation = daemon.manager->reservations.at("K");
    const VeskJob& job = daemon.Run(5, "K", {1}, 2);
    const VeskJob& elsewhere = daemon.Run(7, "K", {0xabc}, 257);
    reservation->used_trees = 4;
    daemon.Take();
    const auto validate = [&](uint16_t num_trees, const VeskJob& candidate) {
        JobResource resource{num_trees};
        return daemon.manager->ValidateReservationResources(reservation, resource, &candidate);
    };
    EXPECT_EQ(validate(16, job), 0);
    EXPECT_EQ(validate(17, job), 11);
    EXPECT_EQ(validate(7, elsewhere), 11);
    EXPECT_EQ(validate(6, elsewhere), 11);
    daemon.manager->hca_infos.at(1).num_jobs = 1;
    EXPECT_EQ(validate(16, job), 11);
    EXPECT_EQ(daemon.Take(), R"(
3 ValidateReservationResources: External Job ID: K_5, exceeded resource limitation. App id: K, is allowed to have 10 trees (counted as 20 with 2 planes), already using 4 trees, trying to add an additional 17
3 ValidateReservationResources: External Job ID: K_7, exceeded resource limitation. App id: K, is allowed to have 10 trees (counted as 10 with 1 planes), already using 4 trees, trying to add an additional 7
1 ValidateReservationResources: -A- Job port guid not found in reservation info, guid: 0x0000000000000abc
3 ValidateReservationResources: External Job ID: K_5, exceeded resource limitation. HCA guid 0x0000000000000001 is already used by 1 job, allowed max number of jobs is: 1
)");
}

TEST(Job, IsCountedWithItsTreesAndPorts) {
    TestDaemon daemon;
    daemon.options.max_jobs_per_hca = 9;
    daemon.Create("K", {1, 2});
    ReservationInfo* const reservation = daemon.manager->reservations.at("K");
    VeskJob& job = daemon.Run(5, "K", {1, 9}, 2, 3);
    job.AddPort(1, 2);
    daemon.Take();
    log_set_level(4);
    daemon.manager->AddJob(reservation, &job);
    EXPECT_EQ(reservation->jobs.at(5).guids, (std::unordered_set<uint64_t>{1, 9}));
    daemon.manager->RemoveJob(reservation, &job);
    EXPECT_EQ(daemon.Take(), R"(
4 AddJob: AddJob to reservation, external_job_id=5, reservation_key=K
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=K, external_job_id=5, is_added: 1, change in number of trees: 6, new total trees: 6 (with 2 planes)
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 1 job
1 ApplyJobReservationResourcesChange: -A- Job port guid not found in reservation info, guid: 0x0000000000000009
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 2 jobs
4 RemoveJob: Remove Job from reservation, external_job_id=5, reservation_key=K
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=K, external_job_id=5, is_added: 0, change in number of trees: 6, new total trees: 0 (with 2 planes)
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 1 job
1 ApplyJobReservationResourcesChange: -A- Job port guid not found in reservation info, guid: 0x0000000000000009
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 0 jobs
)");
}

TEST(Job, ThatRunsAlreadyJoinsItsNewReservation) {
    TestDaemon daemon;
    daemon.options.max_jobs_per_hca = 1;
    daemon.Run(1, "K", {3});
    daemon.Run(2, "K", {1}, 2).ext_job_id.reservation_id = 7;
    daemon.Run(3, "K", {1, 2}, 40, 2).ext_job_id.reservation_id = 7;    // beyond the limits: it runs already
    daemon.Run(4, "K", {2}).ext_job_id.reservation_id = 8;
    daemon.Create("K", {1, 2}, TreesLimit(2));
    for (const VeskJob* job : std::set(daemon.RunningJobs())) daemon.Forget(*job);
    log_set_level(4);
    daemon.manager->HandleAlreadyRunningJobsForAllReservations();
    EXPECT_EQ(daemon.Take(), R"(
3 GetReservationByJob: Could not get reservation for external_job_id=K_1, guid=0x3 not in any reservation
2 HandleAlreadyRunningJobs: Detected a mismatch of reservations for external_job_id K_1. Ending the job.
error K_1 8 0 0 0
end K_1
3 HandleAlreadyRunningJobs: Job external job ID K_2 belongs to new reservation: K
3 HandleAlreadyRunningJobs: Job external job ID K_3 belongs to new reservation: K
3 HandleAlreadyRunningJobs: Job external job ID K_4 belongs to new reservation: K
2 HandleAlreadyRunningJobs: Reservation internal ID and job's reservation ID doesn't match. Reservation: key K, ID 7. Job: External job ID 4, reservation key K, reservation ID 8
3 InternalCreateNewReservation: Reservation with key=K, id=7, allocated with 2 guids, num trees limit: 2
created K; files
reply 0: K 0x7fff state 1 {1,2} limits -,-,-,2,-,-,- auto 0
4 HandleAlreadyRunningJobsForAllReservations: Handling already running jobs for reservation: K
)");
}

}    // namespace
