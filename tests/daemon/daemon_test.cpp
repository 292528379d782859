// The daemon's engine without its network: what was answered is there after the process dies, and what was not is not.

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <sstream>
#include <stdexcept>
#include <string>

#include "daemon/engine/engine.h"
#include "daemon/log_sink.h"
#include "daemon/storage/sqlite_store.h"
#include "tests/files.h"

namespace reservationd {
namespace {

namespace fs = std::filesystem;
namespace v1 = reservation::v1;

class DaemonTest : public testing::Test {
protected:
    DaemonTest() {
        settings.options.persistent_dir = dir_.path();
        settings.options.reservation_mode = true;
        OpenLog(PathOf("log"), 3);
    }

    std::string PathOf(const std::string& name) const { return dir_.path() + "/" + name; }

    EngineSettings settings;

private:
    const TemporaryDirectory dir_;
};

// An engine whose calls are waited for. Requests are in protocol buffers' text format.
class Daemon {
public:
    explicit Daemon(const EngineSettings& settings) : engine(settings) {}

    template <typename Request, typename Reply>
    Reply Call(bool changes_something, void (ReservationState::*operation)(const Request&, Reply*),
               const std::string& fields) {
        Request request;
        EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(fields, &request));
        Reply reply;
        const auto run = [&](ReservationState& state) {
            reply.Clear();
            (state.*operation)(request, &reply);
        };
        std::promise<std::string> refusal;
        engine.Submit({changes_something, run, [&](Refusal, const std::string& text) { refusal.set_value(text); }});
        EXPECT_EQ(refusal.get_future().get(), "");
        return reply;
    }

    v1::ReservationReply Create(const std::string& fields) {
        return Call(true, &ReservationState::CreateReservation, fields);
    }
    v1::BeginJobReply Begin(const std::string& fields) { return Call(true, &ReservationState::BeginJob, fields); }
    std::string ReportPort(const std::string& fields) {
        return Call(true, &ReservationState::ReportPort, fields).reservation_key();
    }

    // A line for each reservation and each job: "A {1,2} 2 trees, jobs 7", "job 7 of A" with " waits" if not counted.
    std::string State() {
        std::ostringstream text;
        const v1::ReservationReply all = Call(false, &ReservationState::GetReservations, "with_details: true");
        for (const v1::Reservation& reservation : all.reservations()) {
            text << reservation.key() << " {";
            for (const uint64_t guid : reservation.guids()) text << guid << ",";
            text << "} " << reservation.used_trees() << " trees, jobs";
            for (const uint64_t job_id : reservation.job_ids()) text << " " << job_id;
            text << "\n";
        }
        const v1::ListJobsReply running = Call(false, &ReservationState::ListJobs, "");
        for (const v1::Job& job : running.jobs()) {
            text << "job " << job.job_id() << " of " << job.reservation_key() << (job.accounted() ? "\n" : " waits\n");
        }
        return text.str();
    }

    // "1 CREATED A; 2 JOB_END A 7; "
    std::string Events() {
        std::ostringstream text;
        v1::Event event;
        for (uint64_t next = engine.events().oldest(); next <= engine.events().newest(); ++next) {
            EXPECT_EQ(engine.events().Read(next, &event, nullptr), EventLog::Outcome::kEvent);
            text << event.sequence() << v1::Event::Kind_Name(event.kind()).substr(std::string("KIND").size()) << " "
                 << event.reservation_key() << (event.job_id() != 0 ? " " + std::to_string(event.job_id()) : "")
                 << "; ";
        }
        return text.str();
    }

    Engine engine;
};

// Runs `life` in a process of its own that then dies on the spot.
void DieAfter(const std::function<void()>& life) {
    const pid_t child = fork();
    if (child == 0) {
        life();
        std::raise(SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(DaemonTest, WhatWasAnsweredSurvivesTheProcessAndDamagedFiles) {
    settings.kept_events = 3;
    DieAfter([&] {
        Daemon daemon(settings);
        daemon.Create("key: 'A' guids: [3, 1, 2]");
        daemon.Create("key: 'B' guids: [8, 9]");
        daemon.Call(true, &ReservationState::UpdateReservation, "key: 'A' add_guids: 4");
        daemon.Begin("job_id: 7 guids: [1, 4] trees: 2");
        EXPECT_THROW(Engine second(settings), std::runtime_error);
    });
    const std::string record_of_a = Content(PathOf("reservation.A"));
    for (const char* name : {"reservation.A", "reservation.damaged"}) {
        Write(PathOf(name), record_of_a.substr(0, 40));
    }
    fs::remove(PathOf("reservation.B"));

    Daemon daemon(settings);
    EXPECT_EQ(daemon.State(),
              "A {1,2,3,4,} 2 trees, jobs 7\n"
              "B {8,9,} 0 trees, jobs\n"
              "job 7 of A\n");
    EXPECT_EQ(Content(PathOf("reservation.A")), record_of_a);
    EXPECT_TRUE(fs::exists(PathOf("reservation.B")));
    EXPECT_FALSE(fs::exists(PathOf("reservation.damaged")));

    // The job that runs is admitted again without being counted again.
    EXPECT_EQ(daemon.Begin("job_id: 7 guids: [4, 1] trees: 2").reservation_key(), "A");
    EXPECT_EQ(daemon.Begin("job_id: 7 guids: [1] trees: 2").result(), v1::BeginJobReply::RESULT_ALREADY_RUNNING);
    EXPECT_EQ(daemon.Create("key: 'C' guids: [9, 10]").conflict().reservation_key(), "B");
    daemon.Create("key: 'C' guids: [10]");
    EXPECT_EQ(daemon.Events(), "2_RESERVATION_CREATED B; 3_RESERVATION_UPDATED A; 4_RESERVATION_CREATED C; ");
    EXPECT_EQ(daemon.State(),
              "A {1,2,3,4,} 2 trees, jobs 7\n"
              "B {8,9,} 0 trees, jobs\n"
              "C {10,} 0 trees, jobs\n"
              "job 7 of A\n");
}

// An override has been committed, and the process died before it touched a file. An operator has added files, too.
TEST_F(DaemonTest, FilesFollowTheStoreUnlessTheyAreAnOperators) {
    DieAfter([&] {
        Daemon daemon(settings);
        daemon.Create("key: 'A' guids: [1]");
        daemon.Create("key: 'B' guids: [2]");
        daemon.Create("key: 'C' guids: [3]");
    });
    DieAfter([&] {
        EngineSettings elsewhere = settings;
        elsewhere.options.persistent_dir += "/elsewhere";
        Daemon daemon(elsewhere);
        daemon.Create("key: 'C' guids: [3, 4]");
        daemon.Create("key: 'D' guids: [5]");
        daemon.Create("key: 'E' guids: [6]");
    });
    const fs::path elsewhere = PathOf("elsewhere");
    {
        SqliteStore store(PathOf("reservationd.sqlite"), Durability::kProcess, 10);
        const StoredReservation grown{Content(elsewhere / "reservation.E"), 1};
        store.Commit(
            {.reservations = {{"B", std::nullopt}, {"E", grown}}, .jobs = {}, .events = {}, .clean_keys = {"C"}});
    }
    fs::copy_file(elsewhere / "reservation.C", PathOf("reservation.C"), fs::copy_options::overwrite_existing);
    fs::copy_file(elsewhere / "reservation.D", PathOf("reservation.misnamed"));
    fs::copy_file(elsewhere / "reservation.E", PathOf("reservation.stray"));

    Daemon daemon(settings);
    EXPECT_EQ(daemon.State(),
              "A {1,} 0 trees, jobs\n"
              "C {3,4,} 0 trees, jobs\n"
              "D {5,} 0 trees, jobs\n"
              "E {6,} 0 trees, jobs\n");
    EXPECT_FALSE(fs::exists(PathOf("reservation.B")));
    EXPECT_TRUE(fs::exists(PathOf("reservation.D")));
    EXPECT_EQ(Content(PathOf("reservation.E")), Content(elsewhere / "reservation.E"));
    EXPECT_TRUE(fs::exists(PathOf("ignored/reservation.stray")));
    EXPECT_EQ(daemon.Events(),
              "1_RESERVATION_CREATED A; 2_RESERVATION_CREATED B; 3_RESERVATION_CREATED C; 4_RESERVATION_UPDATED C; "
              "5_RESERVATION_CREATED D; ");
}

TEST_F(DaemonTest, ADryRunTellsWhatWouldHappenAndDoesNothing) {
    settings.options.reservation_allow_guid_override = true;
    settings.options.reservation_allow_ending_jobs = true;
    Daemon daemon(settings);
    daemon.Create("key: 'A' guids: [1, 2]");
    daemon.Create("key: 'B' guids: [3, 4]");
    daemon.Begin("job_id: 7 guids: [3] trees: 2");
    const std::string state = daemon.State();
    const std::string events = daemon.Events();

    const v1::ReservationReply foretold =
        daemon.Call(false, &ReservationState::CreateReservation, "key: 'A' guids: [2, 4] dry_run: true");
    EXPECT_EQ(daemon.State(), state);
    EXPECT_EQ(daemon.Events(), events);
    EXPECT_EQ(foretold.consequences().deleted_reservation_keys(0), "B");
    EXPECT_EQ(foretold.consequences().ended_job_ids(0), 7U);
    EXPECT_EQ(foretold.SerializeAsString(), daemon.Create("key: 'A' guids: [2, 4]").SerializeAsString());
    EXPECT_EQ(daemon.State(), "A {2,4,} 0 trees, jobs\n");
    EXPECT_EQ(daemon.Events(), events +
                                   "3_RESERVATION_UPDATED A; 4_JOB_ERROR B 7; 5_JOB_END B 7; "
                                   "6_RESERVATION_REMOVED B; ");
}

TEST_F(DaemonTest, JobsAreCountedAgainWhenTheirPortsAreReportedAgain) {
    settings.options.reservation_auto_by_pkeys = true;
    DieAfter([&] {
        Daemon daemon(settings);
        daemon.ReportPort("guid: 1 pkeys: 0x7fff");
        daemon.ReportPort("guid: 2 pkeys: 0x7fff");
        daemon.Begin("job_id: 7 guids: [1, 2] trees: 2");
    });
    Daemon daemon(settings);
    EXPECT_EQ(daemon.State(), "job 7 of reservation_0x7fff waits\n");
    EXPECT_EQ(daemon.ReportPort("guid: 2 pkeys: 0x7fff"), "reservation_0x7fff");
    EXPECT_EQ(daemon.State(), "reservation_0x7fff {2,} 0 trees, jobs\njob 7 of reservation_0x7fff waits\n");
    daemon.ReportPort("guid: 1 pkeys: 0x7fff");
    daemon.ReportPort("guid: 1 pkeys: 0x7fff");
    EXPECT_EQ(daemon.State(), "reservation_0x7fff {1,2,} 2 trees, jobs 7\njob 7 of reservation_0x7fff\n");
}

}    // namespace
}    // namespace reservationd
