// Jobs: finding their reservation, admitting them, counting them, and taking in those that already run.

#include <gtest/gtest.h>

#include <algorithm>

#include "host/log.h"
#include "tests/test_daemon.h"

namespace {

VeskTree Tree(VeskJob& job, const Guids& guids) {
    VeskTree tree;
    for (const uint64_t guid : guids) tree.ports.insert(job.AddPort(guid, 1));
    return tree;
}

TEST(FindReservation, NeedsEveryHcaOfPlaneZeroInOne) {
    TestDaemon daemon;
    daemon.Create("R", {0x1a, 2, 3});
    daemon.Create("S", {4});
    daemon.Take();
    const auto find = [&](const std::vector<std::vector<Guids>>& planes) {
        VeskJob job;
        job.ext_job_id.job_id = 7;
        for (const auto& trees : planes) {
            job.plane_trees.emplace_back();
            for (const Guids& guids : trees) job.plane_trees.back().push_back(Tree(job, guids));
        }
        const ReservationInfo* reservation = daemon.manager->GetReservationByJob(&job);
        return std::string(reservation != nullptr ? reservation->info.reservation_key : "none");
    };

    EXPECT_EQ(find({{{0x1a, 2}, {3, 2}, {}}, {{9}}}), "R");
    EXPECT_EQ(daemon.Take(), "\n");
    EXPECT_EQ(find({{{0x9f, 0x1a}}}), "none");
    EXPECT_EQ(find({{{1, 2}}}), "none");
    EXPECT_EQ(find({{{2, 3}, {3, 0x1a, 4, 0x1b}}}), "none");
    EXPECT_EQ(find({}), "none");
    EXPECT_EQ(find({{}}), "none");
    EXPECT_EQ(find({{{}, {2}}}), "none");
    const std::string records = daemon.Take();
    EXPECT_TRUE(records.starts_with(R"(
3 GetReservationByJob: Could not get reservation for external_job_id=default_7, guid=0x9f not found in reservation=R
3 GetReservationByJob: Could not get reservation for external_job_id=default_7, guid=0x1 not in any reservation
3 GetReservationByJob: Could not get reservation for external_job_id=default_7, job guids in different reservations, guid=0x2 in reservation_key=R, guid=0x4 in reservation_key=S
)")) << records;
    EXPECT_EQ(std::count(records.begin(), records.end(), '\n'), 1 + 6);

    daemon.options.reservation_mode = false;
    EXPECT_EQ(find({{{2}}}), "none");
    EXPECT_EQ(daemon.Take(), "\n3 GetReservationByJob: Reservation mode not enabled\n");
}

TEST(Admission, ChecksTreesThenHcas) {
    TestDaemon daemon;
    ReservationManager& manager = *daemon.manager;
    daemon.Create("K", {1, 2, 3}, TreesLimit(10));
    ReservationInfo* reservation = manager.reservations.at("K");
    VeskJob& job = daemon.Run(5, "K", {2, 0xabc, 3}, 2, 1);
    VeskJob& planeless = daemon.Run(6, "K", {2}, 0);
    VeskJob& wrapped = daemon.Run(8, "K", {2}, 257);
    daemon.Take();
    const auto validate = [&](uint16_t requested_trees, const VeskJob& candidate) {
        return manager.ValidateReservationResources(reservation, JobResource{requested_trees}, &candidate);
    };

    EXPECT_EQ(validate(0, planeless), 0);
    EXPECT_EQ(validate(10, wrapped), 0);
    EXPECT_EQ(validate(11, wrapped), 11);
    reservation->used_trees = 15;
    EXPECT_EQ(validate(5, job), 0);
    EXPECT_EQ(validate(6, job), 11);
    EXPECT_EQ(validate(0, planeless), 11);

    // The walk over the ports stops at the first that fails.
    daemon.options.max_jobs_per_hca = 3;
    manager.hca_infos.at(2).num_jobs = 2;
    manager.hca_infos.at(3).num_jobs = 3;
    log_set_level(1);
    EXPECT_EQ(validate(5, job), 11);
    manager.hca_infos.at(2).num_jobs = 3;
    EXPECT_EQ(validate(5, job), 11);
    log_set_level(3);
    EXPECT_EQ(validate(5, job), 11);
    daemon.options.max_jobs_per_hca = 1;
    manager.hca_infos.at(2).num_jobs = 1;
    EXPECT_EQ(validate(5, job), 11);
    EXPECT_EQ(daemon.Take(), R"(
3 ValidateReservationResources: External Job ID: K_8, exceeded resource limitation. App id: K, is allowed to have 10 trees (counted as 10 with 1 planes), already using 0 trees, trying to add an additional 11
3 ValidateReservationResources: External Job ID: K_5, exceeded resource limitation. App id: K, is allowed to have 10 trees (counted as 20 with 2 planes), already using 15 trees, trying to add an additional 6
3 ValidateReservationResources: External Job ID: K_6, exceeded resource limitation. App id: K, is allowed to have 10 trees (counted as 0 with 0 planes), already using 15 trees, trying to add an additional 0
1 ValidateReservationResources: -A- Job port guid not found in reservation info, guid: 0x0000000000000abc
3 ValidateReservationResources: External Job ID: K_5, exceeded resource limitation. HCA guid 0x0000000000000002 is already used by 3 jobs, allowed max number of jobs is: 3
3 ValidateReservationResources: External Job ID: K_5, exceeded resource limitation. HCA guid 0x0000000000000002 is already used by 1 job, allowed max number of jobs is: 1
)");
    EXPECT_EQ(reservation->used_trees, 15u);
}

TEST(Accounting, CountsTreesAndPorts) {
    TestDaemon daemon;
    ReservationManager& manager = *daemon.manager;
    daemon.Create("K", {1, 2});
    daemon.options.max_jobs_per_hca = 9;
    ReservationInfo* reservation = manager.reservations.at("K");
    daemon.Take();
    log_set_level(4);

    // Two ports on HCA 1, of which one is in no tree, and one port elsewhere.
    VeskJob& job = daemon.Run(5, "K", {1, 2, 9}, 2, 3);
    job.AddPort(1, 2);
    manager.AddJob(reservation, &job);
    EXPECT_TRUE(job.reservation_accounted);
    EXPECT_EQ(daemon.Take(), R"(
4 AddJob: AddJob to reservation, external_job_id=5, reservation_key=K
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=K, external_job_id=5, is_added: 1, change in number of trees: 6, new total trees: 6 (with 2 planes)
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 1 job
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000002, part of External Job ID: K_5, is now part of 1 job
1 ApplyJobReservationResourcesChange: -A- Job port guid not found in reservation info, guid: 0x0000000000000009
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 2 jobs
)");
    EXPECT_EQ(reservation->jobs.at(5).guids, (std::unordered_set<uint64_t>{1, 2, 9}));

    // Another job of the same id is counted, but leaves the entry alone; so does a removal without an entry.
    VeskJob& same_id = daemon.Run(5, "K", {2});
    manager.AddJob(reservation, &same_id);
    EXPECT_EQ(reservation->jobs.at(5).guids.size(), 3u);
    EXPECT_EQ(reservation->used_trees, 7u);
    EXPECT_EQ(manager.hca_infos.at(2).num_jobs, 2);
    manager.RemoveJob(reservation, &same_id);
    EXPECT_TRUE(reservation->jobs.empty());
    daemon.Take();
    manager.RemoveJob(reservation, &job);
    EXPECT_EQ(daemon.Take(), R"(
4 RemoveJob: Remove Job from reservation, external_job_id=5, reservation_key=K
4 ApplyJobReservationResourcesChange: Updated reservation number of trees, reservation_key=K, external_job_id=5, is_added: 0, change in number of trees: 6, new total trees: 0 (with 2 planes)
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 1 job
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000002, part of External Job ID: K_5, is now part of 0 jobs
1 ApplyJobReservationResourcesChange: -A- Job port guid not found in reservation info, guid: 0x0000000000000009
4 ApplyJobReservationResourcesChange: HCA guid 0x0000000000000001, part of External Job ID: K_5, is now part of 0 jobs
)");

    // By entry: the counts go only with a known job.
    manager.AddJob(reservation, &same_id);
    daemon.Take();
    auto position = reservation->jobs.begin();
    manager.RemoveJob(reservation, position, nullptr);
    EXPECT_EQ(daemon.Take(), "\n4 RemoveJob: Remove Job from reservation, client_job_id=5, reservation_key=K,\n");
    EXPECT_EQ(reservation->used_trees, 1u);
    EXPECT_EQ(manager.hca_infos.at(2).num_jobs, 1);

    // Without a cap the HCAs are not counted. Tree counts are bytes: 256 planes are none, 257 trees are one.
    daemon.options.max_jobs_per_hca = 0;
    manager.AddJob(reservation, &daemon.Run(7, "K", {1}, 256, 3));
    EXPECT_EQ(reservation->used_trees, 1u);
    VeskJob& wide = daemon.Run(8, "K", {1}, 1, 257);
    wide.plane_trees[0].back() = Tree(wide, {2});
    manager.AddJob(reservation, &wide);
    EXPECT_EQ(reservation->used_trees, 2u);
    EXPECT_EQ(reservation->jobs.at(8).guids, (std::unordered_set<uint64_t>{1}));
    EXPECT_EQ(manager.hca_infos.at(1).num_jobs, 0);
}

TEST(RunningJobs, JoinTheirNewReservationOrEnd) {
    TestDaemon daemon;
    daemon.options.max_jobs_per_hca = 1;
    daemon.Create("S", {3});
    daemon.Run(1, "K", {1, 3});
    daemon.Run(2, "K", {1}, 2).ext_job_id.reservation_id = 7;
    daemon.Run(3, "K", {1, 2}, 40, 2).ext_job_id.reservation_id = 7;    // beyond the limits: it runs already
    daemon.Run(4, "K", {2}).ext_job_id.reservation_id = 8;
    daemon.Run(5, "k", {1});
    daemon.Take();

    daemon.Create("K", {1, 2}, TreesLimit(2));
    EXPECT_EQ(daemon.Take(), R"(
3 GetReservationByJob: Could not get reservation for external_job_id=K_1, job guids in different reservations, guid=0x1 in reservation_key=K, guid=0x3 in reservation_key=S
2 HandleAlreadyRunningJobs: Detected a mismatch of reservations for external_job_id K_1. Ending the job.
error K_1 8 0 0 0
end K_1
3 HandleAlreadyRunningJobs: Job external job ID K_2 belongs to new reservation: K
3 HandleAlreadyRunningJobs: Job external job ID K_3 belongs to new reservation: K
3 HandleAlreadyRunningJobs: Job external job ID K_4 belongs to new reservation: K
2 HandleAlreadyRunningJobs: Reservation internal ID and job's reservation ID doesn't match. Reservation: key K, ID 7. Job: External job ID 4, reservation key K, reservation ID 8
3 InternalCreateNewReservation: Reservation with key=K, id=7, allocated with 2 guids, num trees limit: 2
created K; files S
reply 0: K 0x7fff state 1 {1,2} limits -,-,-,2,-,-,- auto 0
)");
    EXPECT_EQ(daemon.manager->reservation_keys_by_id.at(7), "K");
    EXPECT_EQ(daemon.Reservation("K").used_trees, 2u + 80u + 1u);
    EXPECT_EQ(daemon.manager->hca_infos.at(1).num_jobs, 2);
    EXPECT_EQ(daemon.manager->hca_infos.at(2).num_jobs, 2);

    // All over again: each reservation in key order, in the automatic mode too; the counts double.
    daemon.options.reservation_auto_by_pkeys = true;
    log_set_level(4);
    daemon.manager->HandleAlreadyRunningJobsForAllReservations();
    const std::string records = daemon.Take();
    const std::string handling =
        "4 HandleAlreadyRunningJobsForAllReservations: Handling already running jobs for reservation: ";
    EXPECT_TRUE(records.starts_with("\n" + handling + "K\n3 HandleAlreadyRunningJobs: Job external job ID K_2 "))
        << records;
    EXPECT_TRUE(records.ends_with(handling + "S\n")) << records;
    EXPECT_EQ(daemon.Reservation("K").used_trees, 2u * 83u);
    EXPECT_EQ(daemon.Reservation("K").jobs.size(), 3u);
}

}    // namespace
