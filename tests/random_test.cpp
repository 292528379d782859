// Long random sequences of operations, each step compared with a model that knows only the rules: every answer, the
// whole registry, every count and every file.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "host/log.h"
#include "tests/test_daemon.h"

namespace {

constexpr uint16_t kMaxJobsPerHca = 2;

using GuidSet = std::set<uint64_t>;
using KeySet = std::set<std::string>;

struct ModelJob {
    VeskJob* job;
    GuidSet guids;
    uint32_t num_trees;
};

struct ModelReservation {
    uint16_t pkey;
    Limits limits;
    GuidSet guids;
    std::map<uint64_t, ModelJob> jobs;

    uint32_t UsedTrees() const {
        uint32_t sum = 0;
        for (const auto& [job_id, job] : jobs) sum += job.num_trees;
        return sum;
    }
    uint32_t MaxTrees() const { return std::min(limits[VESK_LIMIT_NUM_TREES], 24575u); }
};

struct Model {
    std::map<std::string, ModelReservation> reservations;
    bool may_override = false;
    bool may_end_jobs = false;

    uint16_t JobsOn(uint64_t guid) const {
        uint16_t count = 0;
        for (const auto& [key, reservation] : reservations) {
            for (const auto& [job_id, job] : reservation.jobs)
                count = static_cast<uint16_t>(count + job.guids.count(guid));
        }
        return count;
    }

    uint32_t CheckWanted(const std::string& key, Guids guids, KeySet& robbed) const {
        std::sort(guids.begin(), guids.end());
        for (size_t i = 0; i < guids.size(); ++i) {
            if (guids[i] == 0) return 8;
            if (i > 0 && guids[i] == guids[i - 1]) return 2;
            for (const auto& [other, reservation] : reservations) {
                if (other == key || !reservation.guids.contains(guids[i])) continue;
                if (!may_override || (!may_end_jobs && !reservation.jobs.empty())) return 6;
                robbed.insert(other);
            }
        }
        return 0;
    }

    uint32_t Change(ModelReservation& reservation, const GuidSet& guids, const KeySet& robbed) {
        const auto loses = [&](const auto& entry) {
            const GuidSet& used = entry.second.guids;
            return !std::includes(guids.begin(), guids.end(), used.begin(), used.end());
        };
        if (!may_end_jobs && std::any_of(reservation.jobs.begin(), reservation.jobs.end(), loses)) return 14;
        std::erase_if(reservation.jobs, loses);
        reservation.guids = guids;
        for (const std::string& key : robbed) reservations.erase(key);
        return 0;
    }

    uint32_t Create(const std::string& key, const Guids& guids, const Limits& limits, uint16_t pkey) {
        KeySet robbed;
        const uint32_t status = guids.empty() ? 8 : CheckWanted(key, guids, robbed);
        if (status != 0) return status;
        ModelReservation& reservation =
            reservations.try_emplace(key, ModelReservation{pkey, limits, {}, {}}).first->second;
        if (reservation.pkey != pkey) return 12;
        if (reservation.limits != limits) return 13;
        return Change(reservation, {guids.begin(), guids.end()}, robbed);
    }

    uint32_t Delta(const std::string& key, const Guids& to_add, const Guids& to_remove) {
        if (to_add.empty() && to_remove.empty()) return 8;
        if (!reservations.contains(key)) return 7;
        ModelReservation& reservation = reservations.at(key);
        GuidSet guids = reservation.guids;
        if (to_remove.size() > guids.size()) return 8;
        if (std::any_of(to_add.begin(), to_add.end(), [&](uint64_t guid) { return guids.contains(guid); })) return 2;
        for (const uint64_t guid : to_remove) {
            if (guids.erase(guid) == 0) return 8;
        }
        KeySet robbed;
        const uint32_t status = CheckWanted(key, to_add, robbed);
        if (status != 0) return status;
        guids.insert(to_add.begin(), to_add.end());
        return Change(reservation, guids, robbed);
    }

    uint32_t Delete(const std::string& key) {
        if (!reservations.contains(key)) return 9;
        if (!may_end_jobs && !reservations.at(key).jobs.empty()) return 10;
        reservations.erase(key);
        return 0;
    }
};

class Random : public testing::TestWithParam<unsigned> {
protected:
    void Step() {
        daemon_.options.reservation_allow_guid_override = model_.may_override = Chance(70);
        daemon_.options.reservation_allow_ending_jobs = model_.may_end_jobs = Chance(50);
        const std::string key(1, "ABCDEF"[Below(6)]);
        const size_t operation = Below(8);
        if (operation < 2) return Create(key);
        if (operation < 4) return Delta(key);
        if (operation < 5) return Delete(key);
        if (!model_.reservations.contains(key) || model_.reservations.at(key).guids.empty()) return;
        operation < 7 ? StartJob(key, model_.reservations.at(key)) : FinishJob(key, model_.reservations.at(key));
    }

    void Check() {
        EXPECT_EQ(daemon_.fabric.failed_reservation_requests, num_failed_);
        EXPECT_EQ(RegistryFault(*daemon_.manager), "");
        ASSERT_EQ(daemon_.manager->reservations.size(), model_.reservations.size());
        std::string stored;
        std::set<VeskJob*> jobs;
        size_t num_guids = 0;
        for (const auto& [key, expected] : model_.reservations) {
            ASSERT_TRUE(daemon_.manager->reservations.contains(key));
            const ReservationInfo& actual = daemon_.Reservation(key);
            stored += daemon_.PathOf(key) + ": " + Describe(actual.info) + "\n";
            EXPECT_EQ(GuidSet(actual.info.guids, actual.info.guids + actual.info.num_guids), expected.guids);
            EXPECT_EQ(actual.used_trees, expected.UsedTrees());
            EXPECT_EQ(actual.jobs.size(), expected.jobs.size());
            for (const auto& [job_id, job] : expected.jobs) {
                EXPECT_TRUE(actual.jobs.contains(job_id));
                EXPECT_TRUE(job.job->reservation_accounted);
                jobs.insert(job.job);
            }
            num_guids += expected.guids.size();
        }
        EXPECT_EQ(daemon_.Stored(), stored);
        EXPECT_EQ(daemon_.RunningJobs(), jobs);
        EXPECT_EQ(daemon_.manager->hca_infos.size(), num_guids);
        for (const auto& [guid, hca] : daemon_.manager->hca_infos) EXPECT_EQ(hca.num_jobs, model_.JobsOn(guid));
    }

    size_t Below(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(random_); }
    bool Chance(size_t percent) { return Below(100) < percent; }

    // In any order; sometimes with one twice, or with 0.
    Guids SomeGuids(size_t at_most) {
        Guids guids;
        for (uint64_t guid = 1; guid <= 24; ++guid) guids.push_back(guid);
        std::shuffle(guids.begin(), guids.end(), random_);
        guids.resize(Below(at_most + 1));
        if (Chance(4)) guids.push_back(0);
        if (Chance(4) && !guids.empty()) guids.push_back(guids[Below(guids.size())]);
        return guids;
    }

    Guids SomeOf(const GuidSet& guids, size_t count) {
        Guids some;
        std::sample(guids.begin(), guids.end(), std::back_inserter(some), count, random_);
        return some;
    }

    void ExpectStatus(uint32_t actual, uint32_t expected) {
        EXPECT_EQ(actual, expected);
        if (expected != 0) ++num_failed_;
    }

    void Create(const std::string& key) {
        const Guids guids = SomeGuids(8);
        const Limits limits = TreesLimit(Chance(95) ? static_cast<uint32_t>(20 * key[0]) : 40000);
        const uint16_t pkey = Chance(95) ? 1 : 2;
        ExpectStatus(daemon_.Create(key, guids, limits, pkey), model_.Create(key, guids, limits, pkey));
    }

    void Delta(const std::string& key) {
        const bool sensible = model_.reservations.contains(key) && Chance(80);
        const Guids to_remove = sensible ? SomeOf(model_.reservations.at(key).guids, Below(4)) : SomeGuids(2);
        const Guids to_add = SomeGuids(3);
        ExpectStatus(daemon_.Delta(key, to_add, to_remove), model_.Delta(key, to_add, to_remove));
    }

    void Delete(const std::string& key) { EXPECT_EQ(daemon_.Delete(key), model_.Delete(key)); }

    void StartJob(const std::string& key, ModelReservation& reservation) {
        const Guids guids = SomeOf(reservation.guids, 1 + Below(3));
        const auto planes = static_cast<uint32_t>(1 + Below(3));
        const auto num_trees = static_cast<uint32_t>(planes * (1 + Below(200)));
        VeskJob& job = daemon_.Run(++last_job_id_, key, guids, planes, num_trees / planes);
        ReservationInfo* info = daemon_.manager->GetReservationByJob(&job);
        ASSERT_EQ(info, &daemon_.Reservation(key));

        const auto has_room = [&](uint64_t guid) { return model_.JobsOn(guid) < kMaxJobsPerHca; };
        const bool fits = num_trees + reservation.UsedTrees() <= planes * reservation.MaxTrees() &&
                          std::all_of(guids.begin(), guids.end(), has_room);
        JobResource resource{static_cast<uint16_t>(num_trees)};
        ASSERT_EQ(daemon_.manager->ValidateReservationResources(info, resource, &job), fits ? 0 : 11);
        if (!fits) return daemon_.Forget(job);
        daemon_.manager->AddJob(info, &job);
        reservation.jobs[last_job_id_] = {&job, {guids.begin(), guids.end()}, num_trees};
    }

    void FinishJob(const std::string& key, ModelReservation& reservation) {
        if (reservation.jobs.empty()) return;
        const auto entry = reservation.jobs.begin();
        daemon_.manager->RemoveJob(daemon_.manager->GetReservationInfoByKey(key), entry->second.job);
        daemon_.Forget(*entry->second.job);
        reservation.jobs.erase(entry);
    }

    std::mt19937 random_{GetParam()};
    TestDaemon daemon_;
    Model model_;
    uint64_t num_failed_ = 0;
    uint64_t last_job_id_ = 0;
};

TEST_P(Random, SequenceFollowsTheModel) {
    daemon_.options.max_jobs_per_hca = kMaxJobsPerHca;
    log_set_level(1);
    for (int step = 0; step < 1500 && !HasFailure(); ++step) {
        SCOPED_TRACE(step);
        Step();
        Check();
    }
    daemon_.Restart();
    daemon_.manager->ReadPersistentReservationInfoFiles();
    Check();
}

INSTANTIATE_TEST_SUITE_P(Seeds, Random, testing::Range(1u, 7u));

}    // namespace
