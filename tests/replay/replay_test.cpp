#include "replay/run/replay.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "replay/input_error.h"
#include "replay/run/closing_checks.h"
#include "replay/target/in_process_target.h"
#include "replay/trace/swf_trace.h"
#include "tests/files.h"

namespace {

using namespace replay;
using nlohmann::json;

// A trace line: what the replay does not read is -1.
std::string JobLine(int number, int submit, int wait, int run, int procs, int requested, int user) {
    std::string line;
    for (const int field : {number, submit, wait, run, procs, -1, -1, requested, -1, -1, -1, user}) {
        line += std::to_string(field) + " ";
    }
    return line + "1 -1 -1 -1 -1 -1\n";
}

// A directory of its own for each test, removed at the end.
class ReplayTest : public testing::Test {
protected:
    std::string Path(const std::string& name) const { return dir_ + "/" + name; }

    std::string WriteFile(const std::string& name, const std::string& content) const {
        Write(Path(name), content);
        return Path(name);
    }

    // The first jobs of the trace that comes with the program, as start.swf.
    void WriteStartOfExampleTrace() const {
        const std::string trace = Content(EXAMPLE_TRACE).substr(0, 16000);
        WriteFile("start.swf", trace.substr(0, trace.rfind('\n')));
    }

    // Runs the program, in the directory, with these arguments. Returns its exit status.
    int RunProgram(const std::string& arguments) {
        const std::string command = "cd " + dir_ + " && TMPDIR=" + dir_ + " " REPLAY_PROGRAM " " + arguments;
        const int status = std::system((command + " > output 2> errors").c_str());
        output_ = Content(Path("output"));
        errors_ = Content(Path("errors"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // The JSON report, without what may differ between a replay and one that was stopped on its way.
    json ReportedFigures() const {
        json report = json::parse(output_);
        for (const char* other : {"start_up", "timing"}) report.erase(other);
        return report;
    }

    const TemporaryDirectory directory_;
    const std::string& dir_ = directory_.path();
    std::string output_, errors_;
};

// Notes what it is asked, and refuses the jobs that it is told to.
class ScriptedClient : public TargetClient {
public:
    std::vector<std::string> calls;
    std::set<uint64_t> jobs_to_refuse;

    uint32_t CreateReservation(const std::string& key, uint16_t pkey, std::vector<uint64_t> guids, uint32_t) override {
        return Note("create " + key + " " + std::to_string(pkey - 0x8000) + Hcas(guids));
    }
    uint32_t UpdateReservation(const std::string& key, std::vector<uint64_t> added,
                               std::vector<uint64_t> removed) override {
        return Note("update " + key + " +" + Hcas(added) + " -" + Hcas(removed));
    }
    uint32_t DeleteReservation(const std::string& key) override { return Note("delete " + key); }
    BeginJobResult BeginJob(const JobRequest& job) override {
        Note("begin " + std::to_string(job.job_id) + " " + job.reservation_key);
        return {.status = jobs_to_refuse.contains(job.job_id) ? kLimitsExceeded : 0};
    }
    uint32_t EndJob(uint64_t job_id) override { return Note("end " + std::to_string(job_id)); }
    uint32_t ReportPkeys(uint64_t, const std::set<uint16_t>&) override { return 0; }

private:
    uint32_t Note(std::string call) {
        calls.push_back(std::move(call));
        return 0;
    }

    static std::string Hcas(const std::vector<uint64_t>& guids) {
        std::string text;
        for (const uint64_t guid : guids) text += " " + std::to_string(guid & 0xff);
        return text;
    }
};

TEST_F(ReplayTest, DamagedTraceIsRefusedWithItsLine) {
    const std::string job = JobLine(1, 0, -1, 10, 1, -1, 1);
    const auto error_of = [&](const std::string& content) -> std::string {
        try {
            ReadSwfTrace(WriteFile("t.swf", content));
        } catch (const InputError& error) {
            return std::string(error.what()).substr(dir_.size() + 1);
        }
        return "none";
    };
    EXPECT_EQ(error_of("; Version: 2\n\n" + job + "1 2 3\n"), "t.swf:4: expected 18 numbers, found 3");
    EXPECT_EQ(error_of(job + "7 " + job), "t.swf:2: expected 18 numbers, found 19");
    EXPECT_EQ(error_of(job + "1 2x 3"), "t.swf:2: field 2 is not a number: '2x'");
    EXPECT_EQ(error_of("nan" + job.substr(1)), "t.swf:1: field 1 is not a number: 'nan'");
    EXPECT_EQ(error_of("1e99" + job.substr(1)), "t.swf:1: field 1 is not a number: '1e99'");
    EXPECT_EQ(error_of("; MaxNodes: 8\n"), "t.swf: has no job");
    EXPECT_EQ(error_of("; MaxProcs: many\r\n \r\n" + job.substr(0, job.size() - 3) + "-1.5\r\n"), "none");
    EXPECT_THROW(ReadSwfTrace(dir_), InputError);
}

TEST_F(ReplayTest, WorkloadLeavesOutWhatCannotRun) {
    SwfTrace trace = ReadSwfTrace(WriteFile("t.swf", JobLine(7, 50, 10, 5, 4, 9, 1) +    // too wide
                                                         JobLine(7, 60, -1, 5, 2, -1, -1) +    // after the next one
                                                         JobLine(7, 20, 30, 0, -1, 3, 2) +    // the number again
                                                         JobLine(8, 0, -1, -1, 1, 1, 3) +    // no run time
                                                         JobLine(9, 0, -1, 1, -1, 0, 3)));    // no processors
    EXPECT_EQ(HcasOfTrace(trace, 2), 2u);
    trace.max_procs = 12;
    EXPECT_EQ(HcasOfTrace(trace, 5), 3u);
    trace.max_nodes = 7;
    EXPECT_EQ(HcasOfTrace(trace, 5), 7u);

    const Workload workload = MakeWorkload(trace, {.hcas = 3});
    EXPECT_EQ(workload.too_wide, 1u);
    EXPECT_EQ(workload.without_run_time, 1u);
    EXPECT_EQ(workload.without_procs, 1u);
    ASSERT_EQ(workload.jobs.size(), 2u);
    EXPECT_EQ(workload.jobs[0].tenant, "user_2");
    EXPECT_EQ(workload.jobs[0].arrival, 50);
    EXPECT_EQ(workload.jobs[0].hcas, 3u);
    EXPECT_EQ(workload.jobs[1].tenant, "user_unknown");
    EXPECT_NE(workload.jobs[0].id, workload.jobs[1].id);
}

// Job 2 waits for job 1, and job 3, though it would fit, for job 2. Job 4 is refused: its tenant keeps what job 3 has.
// Job 5 starts when job 3 ends, on the HCAs and under the pkey that are free again.
TEST_F(ReplayTest, JobsStartInTheOrderOfTheirArrivalOnTheLowestFreeHcas) {
    const Workload workload{.jobs = {{1, 0, 10, 3, "user_1"},
                                     {2, 1, 5, 2, "user_2"},
                                     {3, 2, 20, 1, "user_3"},
                                     {4, 3, 9, 1, "user_3"},
                                     {5, 30, 0, 4, "user_4"}}};
    const ReplaySettings settings{.hcas = 4};
    ScriptedClient client;
    client.jobs_to_refuse = {4};
    Replay replay(workload, settings, {&client});
    EXPECT_TRUE(replay.Run(0, [](size_t, int64_t) {}));

    EXPECT_EQ(client.calls, (std::vector<std::string>{
                                "create user_1 1 1 2 3", "begin 1 user_1", "end 1", "delete user_1",    // 0, 10
                                "create user_2 1 1 2", "begin 2 user_2", "create user_3 2 3", "begin 3 user_3",    // 10
                                "update user_3 + 4 -", "begin 4 user_3", "update user_3 + - 4",    // 10
                                "end 2", "delete user_2", "end 3", "delete user_3",    // 15, 30
                                "create user_4 1 1 2 3 4", "begin 5 user_4", "end 5", "delete user_4"}));    // 30
    const Figures& figures = replay.state().figures;
    EXPECT_EQ(figures.replayed, 4u);
    EXPECT_EQ(figures.refused, (std::map<std::string, uint64_t>{{"job_start: limits_exceeded", 1}}));
    EXPECT_EQ(figures.waited, 3u);
    EXPECT_EQ(figures.longest_wait, 9);
    EXPECT_EQ(figures.most_reservations, 2u);
    EXPECT_EQ(figures.most_jobs, 2u);
    EXPECT_EQ(replay.state().usage.back().hcas, 0u);
}

TEST_F(ReplayTest, TenantsBeyondThePkeysAreRefused) {
    Workload workload;
    for (uint64_t id = 1; id <= 0x8000; ++id) workload.jobs.push_back({id, 0, 1, 1, "job_" + std::to_string(id)});
    workload.jobs.push_back({0x8001, 1, 1, 1, "job_32769"});    // when the pkeys are free again
    const ReplaySettings settings{.hcas = 0x8000};
    ScriptedClient client;
    Replay replay(workload, settings, {&client});
    EXPECT_TRUE(replay.Run(0, [](size_t, int64_t) {}));
    EXPECT_EQ(replay.state().figures.replayed, 0x7fffu);    // 0x8001 to 0xfffe, and one again
    EXPECT_EQ(replay.state().figures.refused,
              (std::map<std::string, uint64_t>{{"no free pkey for another tenant", 2}}));
}

TEST_F(ReplayTest, ClosingChecksTellWhatIsLeft) {
    OptionInfo options;
    options.persistent_dir = dir_;
    options.reservation_mode = true;
    InProcessTarget target(options, 3);
    EXPECT_TRUE(target.StartUp({}).empty());
    ReplayState state;
    EXPECT_TRUE(FailedChecks(state, target).empty());

    ASSERT_EQ(target.CreateReservation("user_1", 0x8001, {3, 2}, VESK_LIMIT_NOT_GIVEN), VESK_STATUS_SUCCESS);
    ASSERT_EQ(target.BeginJob({5, "user_1", {2, 3}, 2, 4}).status, 0u);
    EXPECT_EQ(target.BeginJob({6, "user_2", {2, 3}, 2, 4}).status, VESK_STATUS_NOT_FOUND);
    EXPECT_EQ(target.DeleteReservation("user_1"), VESK_STATUS_HAS_JOBS);
    EXPECT_EQ(target.CreateReservation("user_2", 0x8002, {3}, VESK_LIMIT_NOT_GIVEN), VESK_STATUS_GUID_RESERVED);
    log_send("RESERVE", 1, "", 0, "", "-A- something is wrong");
    EXPECT_EQ(
        FailedChecks(state, target),
        (std::vector<std::string>{"reservation user_1 is left, with 2 HCAs and 1 jobs", "8 trees are still counted",
                                  "2 HCAs are still reserved", "1 reservation ids are still in use", "1 jobs still run",
                                  "file " + dir_ + "/reservation.user_1 is left", "1 level-1 records",
                                  "requests that the fabric counts as failed: 1, not 0"}));

    EXPECT_EQ(target.EndJob(5), VESK_STATUS_SUCCESS);
    EXPECT_EQ(target.EndJob(5), VESK_STATUS_NOT_FOUND);
    EXPECT_EQ(target.DeleteReservation("user_1"), VESK_STATUS_SUCCESS);
    EXPECT_EQ(FailedChecks(state, target),
              (std::vector<std::string>{"1 level-1 records", "requests that the fabric counts as failed: 1, not 0"}));
}

// The restart of the daemon: the figures and the chart do not tell that the replay was stopped, twice.
TEST_F(ReplayTest, ResumedReplayEndsAsAnUninterruptedOne) {
    WriteStartOfExampleTrace();
    for (const std::string mode : {"--planes 2 --trees 3 --num-trees 6 --max-jobs-per-hca 1", "--auto-by-pkeys",
                                   "--auto-by-pkeys --per group --default-num-trees 6", "--per job --log-level 5"}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(RunProgram(mode + " --json --svg whole.svg start.swf"), 0) << errors_;
        EXPECT_EQ(errors_, "");
        const json whole = ReportedFigures();

        const std::string in_state = " --persistent-dir state start.swf";
        ASSERT_EQ(RunProgram(mode + " --stop-after 60" + in_state), 0) << errors_;
        EXPECT_FALSE(ReservationFilesIn(Path("state")).empty());
        ASSERT_EQ(RunProgram("--resume --stop-after 120" + in_state), 0) << errors_;
        ASSERT_EQ(RunProgram("--resume --json --svg resumed.svg" + in_state), 0) << errors_;
        EXPECT_EQ(ReportedFigures(), whole);
        EXPECT_EQ(Content(Path("resumed.svg")), Content(Path("whole.svg")));
        EXPECT_TRUE(std::filesystem::is_empty(Path("state")));
    }
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
        EXPECT_NE(entry.path().filename().string().substr(0, 19), "reservation-replay.") << "temporary directory left";
    }
}

TEST_F(ReplayTest, StoppedReplayIsNotOverwrittenMistakenOrHalfResumed) {
    WriteStartOfExampleTrace();
    const std::string in_state = " --persistent-dir state start.swf";
    ASSERT_EQ(RunProgram("--stop-after 80" + in_state), 0) << errors_;
    const std::string checkpoint = Content(Path("state/replay_checkpoint.json"));
    WriteFile("other.swf", JobLine(1, 0, -1, 10, 1, -1, 1));
    for (const auto& [arguments, refusal] : std::vector<std::pair<std::string, std::string>>{
             {in_state, "--persistent-dir: state holds a stopped replay; go on with it by --resume"},
             {"--resume --per job" + in_state, "--per: \"job\", but the replay was stopped with \"user\""},
             {"--resume --persistent-dir state other.swf",
              "other.swf: is not the trace of the replay that was stopped in state"},
             {"--resume other.swf", "--resume requires --persistent-dir"},
             {"--num-trees 24576 other.swf", "--num-trees: Value 24576 not in range 0 to 24575"},
             {"--svg none/chart.svg other.swf", "--svg: none/chart.svg: No such file or directory"}}) {
        EXPECT_EQ(RunProgram(arguments), 2) << arguments;
        EXPECT_EQ(output_, "");
        EXPECT_EQ(errors_, "reservation-replay: " + refusal + "\n");
        EXPECT_EQ(Content(Path("state/replay_checkpoint.json")), checkpoint);
    }

    const std::string file = Path("state/" + ReservationFilesIn(Path("state")).front());
    const std::string reservation = Content(file);
    std::filesystem::remove(file);
    EXPECT_EQ(RunProgram("--resume" + in_state), 1);
    EXPECT_NE(errors_.find("was not taken back at start-up"), std::string::npos) << errors_;
    Write(file, reservation);
    WriteFile("state/replay_checkpoint.json", checkpoint.substr(0, checkpoint.size() / 2));
    EXPECT_EQ(RunProgram("--resume" + in_state), 2);
    EXPECT_EQ(errors_.find("reservation-replay: state/replay_checkpoint.json: is damaged"), 0u) << errors_;
    WriteFile("state/replay_checkpoint.json", checkpoint);
    EXPECT_EQ(RunProgram("--resume" + in_state), 0) << errors_;

    WriteFile("state/reservation.user_1", "");
    EXPECT_EQ(RunProgram(in_state), 2);
    EXPECT_EQ(errors_, "reservation-replay: --persistent-dir: state holds reservations already: reservation.user_1\n");
}

}    // namespace
