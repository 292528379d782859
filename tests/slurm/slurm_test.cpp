// What Slurm's hooks read: the configuration file, a job's environment and its comment.

#include <absl/time/clock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "integrations/slurm/config.h"
#include "integrations/slurm/job.h"
#include "integrations/slurm/process.h"
#include "tests/files.h"

namespace reservation_slurm {
namespace {

class SlurmTest : public testing::Test {
protected:
    absl::StatusOr<Config> ReadConfig(const std::string& text) const {
        Write(path, text);
        return Config::Read(path);
    }

    // The policy for a job, and the key of the reservation that is made for it.
    static std::string Policy(const Config& config, const std::string& account, const std::string& user,
                              const std::string& comment) {
        const SlurmJob job{7, "n1", account, user, "gpu", comment};
        JobPolicy policy = config.PolicyFor(job);
        const absl::Status status = ApplyWishes(job, policy);
        if (!status.ok()) return std::string(status.message());
        if (policy.mode == Mode::kNone) return "none";
        return std::to_string(policy.trees) + "x" + std::to_string(policy.planes) + " " +
               (policy.pkey ? std::to_string(*policy.pkey) : "-") + " " + policy.reservation +
               config.KeyFor(job, policy);
    }

    const TemporaryDirectory directory;
    const std::string path = directory.path() + "/slurm.conf";
};

TEST_F(SlurmTest, TheClosestSectionAndTheCommentDecide) {
    const absl::StatusOr<Config> config = ReadConfig(
        "trees = 2 \r\n# all\nmode=account\npkey = 0x10\n[partition gpu]\nplanes = 3\nreservation = G\n[user "
        "bob]\nmode = "
        "user\n pkey = 18\n[account idle]\ntrees = 9\nmode = none\n[account own]\nmode = job\n[account one]\nmode = "
        "existing\n");
    ASSERT_TRUE(config.ok()) << config.status();
    std::string policies;
    for (const std::string comment : {"", "nice run 7=8", "trees=4", "trees=0", "reservation=X, planes=1"}) {
        for (const auto& [account, user] :
             {std::pair("lab", "amy"), {"idle", "amy"}, {"idle", "bob"}, {"own", "amy"}}) {
            policies += Policy(*config, account, user, comment) + "; ";
        }
        policies += "\n";
    }
    EXPECT_EQ(policies,
              "2x3 16 Gslurm-account-lab; none; 9x3 18 Gslurm-user-bob; 2x3 16 Gslurm-job-7; \n"
              "2x3 16 Gslurm-account-lab; none; 9x3 18 Gslurm-user-bob; 2x3 16 Gslurm-job-7; \n"
              "4x3 16 Gslurm-account-lab; none; 4x3 18 Gslurm-user-bob; 4x3 16 Gslurm-job-7; \n"
              "none; none; none; none; \n"
              "2x1 16 X; none; 9x1 18 X; 2x1 16 X; \n");
    EXPECT_TRUE(config->IsOwnKey("slurm-job-7"));
    EXPECT_FALSE(ReadConfig("mode = existing\n")->IsOwnKey("slurm-job-7"));
    EXPECT_EQ(Policy(*config, "", "", "trees=4 plane=2"),
              "'plane=2' is none of trees=N, planes=N and reservation=NAME");
    EXPECT_EQ(Policy(*config, "", "", "trees=256"), "'trees=256' is not a number from 0 to 255");
    EXPECT_EQ(Policy(*config, "", "", "planes=1 planes=1"), "'planes' is there twice");
    EXPECT_EQ(Policy(*config, "", "", "reservation="), "'reservation=' names none");
}

TEST_F(SlurmTest, EveryFaultOfTheFileIsNamedByItsLine) {
    std::string faults(
        ReadConfig("mode = foo\ntrees=2\ntrees = 3\npkey = 0x10000\n[user  ]\ntls-ca = a.pem\nslurm-bin =\n"
                   "[account a]\ntimeout = 3\nkey = 4\nfoo\n[account a]\n")
            .status()
            .message());
    for (size_t at = faults.find(path); at != faults.npos; at = faults.find(path)) faults.erase(at, path.size());
    EXPECT_EQ(faults,
              ":1: mode: 'foo' is none of account, existing, job, none, user\n"
              ":3: trees is there twice\n"
              ":4: pkey: '0x10000' is not a number from 0 to 65535\n"
              ":5: '[user  ]' is none of [account NAME], [user NAME] and [partition NAME]\n"
              ":6: tls-ca: belongs before the first section\n"
              ":7: slurm-bin has no value\n"
              ":9: timeout: belongs before the first section\n"
              ":10: there is no option key\n"
              ":11: 'foo' is neither NAME = VALUE nor [account NAME]\n"
              ":12: [account a] is there twice");
}

TEST_F(SlurmTest, AProgramThatFailsOrHangsIsNamed) {
    const auto run = [](const std::string& script, absl::Duration time) {
        const auto output = RunProgram({"/bin/sh", "-c", script}, {"A=1"}, absl::Now() + time);
        return output.ok() ? *output : output.status().ToString();
    };
    EXPECT_EQ(run("echo $A; echo no >&2", absl::Minutes(1)), "1\n");
    EXPECT_EQ(run("echo $A; echo no >&2; exit 3", absl::Minutes(1)), "UNAVAILABLE: /bin/sh: no");
    EXPECT_EQ(run("exec sleep 600", absl::ZeroDuration()), "DEADLINE_EXCEEDED: /bin/sh: has not ended in time");
    EXPECT_EQ(RunProgram({"/none"}, {}, absl::Now()).status().message(),
              "/none: cannot be started: No such file or directory");
    const std::map<std::string, const char*> variables = {{"SLURM_JOB_ID", "0"}};
    const auto job = ReadJob([&](const char* name) {
        const auto found = variables.find(name);
        return found != variables.end() ? found->second : nullptr;
    });
    EXPECT_EQ(job.status().message(), "SLURM_JOB_ID is '0': it is Slurm's controller that runs this");
}

}    // namespace
}    // namespace reservation_slurm
