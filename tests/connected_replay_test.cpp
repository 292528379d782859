// The replay program and a daemon, as processes.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "program.h"

namespace {

using nlohmann::json;
using Arguments = std::vector<std::string>;

Arguments operator+(Arguments all, const Arguments& more) {
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

// Jobs of ten users, many of which start or end together.
std::string CrowdedTrace(int jobs) {
    std::mt19937 random(1);
    const auto below = [&](unsigned limit) { return std::to_string(random() % limit); };
    std::string trace;
    for (int i = 1; i <= jobs; ++i) {
        trace += std::to_string(i) + " " + std::to_string(i / 20) + "00 -1 " + below(4) + "00 " +
                 std::to_string(1 + random() % 12) + " -1 -1 -1 -1 -1 -1 " + below(10) + " 1 -1 -1 -1 -1 -1\n";
    }
    return trace;
}

class ConnectedReplayTest : public testing::Test {
protected:
    ConnectedReplayTest() : dir_(std::filesystem::temp_directory_path() / "connected_replay.XXXXXX") {
        EXPECT_NE(mkdtemp(dir_.data()), nullptr);
        std::ofstream(trace()) << CrowdedTrace(120);
    }
    ~ConnectedReplayTest() override {
        daemon_.reset();
        std::filesystem::remove_all(dir_);
    }

    std::string trace() const { return dir_ + "/crowded.swf"; }
    std::string address() const { return "unix:" + dir_ + "/socket"; }

    void StartDaemon(const Arguments& options) {
        daemon_ = std::make_unique<Program>(Arguments{RESERVATIOND, "--config", "/dev/null", "--persistent-dir",
                                                      dir_ + "/state", "--socket", dir_ + "/socket"} +
                                            options);
        daemon_->WaitFor("serves");
    }

    // Runs the program to its end, on 64 HCAs; output_ is all that it prints. Returns its exit status.
    int Replay(const Arguments& arguments) {
        Program replay(Command(arguments));
        const int status = replay.Wait();
        output_ = replay.Output();
        return status;
    }

    Arguments Command(const Arguments& arguments) const {
        return Arguments{REPLAY_PROGRAM, "--hcas", "64", "--json", trace()} + arguments;
    }

    // What is known of a replay in this process and through a daemon alike.
    json Figures() const {
        json figures = json::parse(output_);
        for (const char* other : {"timing", "start_up", "records", "daemon"}) figures.erase(other);
        figures["settings"].erase("log_level");
        return figures;
    }

    std::string dir_;
    std::unique_ptr<Program> daemon_;
    std::string output_;
};

TEST_F(ConnectedReplayTest, FiguresAreThoseOfOneProcessWhateverTheNumberOfClients) {
    struct Mode {
        Arguments daemon, in_process, connected;
    };
    for (const auto& [daemon, in_process, connected] :
         {Mode{{}, {}, {}},
          Mode{{"--max-jobs-per-hca", "1", "--reservation-default-num-trees", "9"},
               {"--max-jobs-per-hca", "1", "--default-num-trees", "9", "--trees", "4"},
               {"--trees", "4"}},
          Mode{{"--reservation-auto-by-pkeys"}, {"--auto-by-pkeys"}, {}}}) {
        SCOPED_TRACE(testing::PrintToString(in_process));
        ASSERT_EQ(Replay(in_process), 0) << output_;
        const json expected = Figures();
        EXPECT_GT(expected["jobs"]["waited"], 0);
        EXPECT_EQ(expected["jobs"]["refused"] > 0, !connected.empty());
        StartDaemon(Arguments{"--reservation-mode"} + daemon);
        for (const std::string clients : {"1", "8"}) {
            ASSERT_EQ(Replay(connected + Arguments{"--connect", address(), "--clients", clients}), 0) << output_;
            EXPECT_EQ(Figures(), expected) << clients;
        }
        daemon_->Signal(SIGTERM);
        EXPECT_EQ(daemon_->Wait(), 0);
    }
}

TEST_F(ConnectedReplayTest, DaemonThatCannotBeUsedIsToldApartFromOneThatGoesAway) {
    const auto refusal = [&](const Arguments& arguments) {
        EXPECT_EQ(Replay(arguments), 2);
        return output_;
    };
    const Arguments connect = {"--connect", address()};
    const std::string start = "reservation-replay: " + address() + ": ";
    EXPECT_EQ(refusal(connect).find(start + "no daemon answers"), 0u) << output_;
    EXPECT_EQ(refusal({"--connect", "localhost:1"}),
              "reservation-replay: --tls-ca is missing: localhost:1 is reached over TLS\n");
    EXPECT_EQ(refusal(connect + Arguments{"--stop-after", "3"}),
              "reservation-replay: --stop-after excludes --connect\n");
    StartDaemon({});
    EXPECT_EQ(refusal(connect), start + "the daemon runs without --reservation-mode\n");

    daemon_.reset();
    StartDaemon({"--reservation-mode"});
    EXPECT_EQ(
        refusal(connect + Arguments{"--auto-by-pkeys"}),
        "reservation-replay: --auto-by-pkeys: " + address() + ": the daemon does not make reservations from pkeys\n");
    Program replay(Command(connect + Arguments{"--clients", "4"}));
    while (!std::filesystem::exists(dir_ + "/state/reservation.user_1")) ASSERT_EQ(replay.Output(), "");
    daemon_.reset();
    EXPECT_EQ(replay.Wait(), 1);
    EXPECT_EQ(replay.Output().find(start + "no daemon answers"), 0u) << replay.Output();
    EXPECT_EQ(replay.Output().find('\n'), replay.Output().size() - 1) << "more than one line: " << replay.Output();

    StartDaemon({"--reservation-mode"});
    EXPECT_EQ(refusal(connect).find(start + "the daemon has "), 0u) << output_;
}

}    // namespace
