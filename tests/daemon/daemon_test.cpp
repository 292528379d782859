// The daemon's engine without its network: what was answered is there after the process dies, and what was not is not.

#include <SQLiteCpp/SQLiteCpp.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "daemon/engine/engine.h"
#include "daemon/log_sink.h"
#include "daemon/storage/file_mirror.h"
#include "daemon/storage/mirror_journal.h"
#include "daemon/storage/reservation_files.h"
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

    // The names of the reservation files in a directory of the test's.
    std::string FilesIn(const std::string& dir) const {
        std::set<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(PathOf(dir)))
            names.insert(entry.path().filename());
        std::string text;
        for (const std::string& name : names) text += name.starts_with("reservation.") ? name + " " : "";
        return text;
    }

    EngineSettings settings;

private:
    const TemporaryDirectory dir_;
};

// An engine whose calls are waited for. Requests are in protocol buffers' text format.
class Daemon {
public:
    explicit Daemon(const EngineSettings& settings) : engine(settings) {}

    // Returns why the call was refused, or "".
    std::string Run(bool changes_something, const std::function<void(ReservationState& state)>& run) {
        std::promise<std::string> refusal;
        engine.Submit({changes_something, run, [&](Refusal, const std::string& text) { refusal.set_value(text); }});
        return refusal.get_future().get();
    }

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
        EXPECT_EQ(Run(changes_something, run), "");
        return reply;
    }

    v1::ReservationReply Create(const std::string& fields) {
        return Call(true, &ReservationState::CreateReservation, fields);
    }
    v1::BeginJobReply Begin(const std::string& fields) { return Call(true, &ReservationState::BeginJob, fields); }
    bool IsRefused(const std::string& fields) {
        v1::CreateReservationRequest request;
        google::protobuf::TextFormat::ParseFromString(fields, &request);
        v1::ReservationReply reply;
        return !Run(true, [&](ReservationState& state) { state.CreateReservation(request, &reply); }).empty();
    }
    v1::DaemonInfo Info() {
        v1::DaemonInfo info;
        Run(false, [&](ReservationState&) { engine.Describe(&info); });
        return info;
    }
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
            text << (reservation.id() == 0 ? "without id" : "") << "} " << reservation.used_trees() << " trees, jobs";
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

// Runs `life` with a daemon in a process of its own, which then dies on the spot.
void DieAfter(const EngineSettings& settings, const std::function<void(Daemon& daemon)>& life) {
    const pid_t child = fork();
    if (child == 0) {
        Daemon daemon(settings);
        life(daemon);
        std::raise(SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_F(DaemonTest, WhatWasAnsweredSurvivesTheProcessAndDamagedFiles) {
    settings.kept_events = 3;
    DieAfter(settings, [&](Daemon& daemon) {
        daemon.Create("key: 'A' guids: [3, 1, 2]");
        daemon.Create("key: 'B' guids: [8, 9]");
        daemon.Call(true, &ReservationState::UpdateReservation, "key: 'A' add_guids: 4");
        daemon.Begin("job_id: 7 guids: [1, 4] trees: 2 start_unix_millis: 5");
        EXPECT_THROW(Engine second(settings), std::runtime_error);
    });
    const auto created = [](Daemon& daemon) {
        return daemon.Call(false, &ReservationState::GetReservations, "key: 'A' with_details: true")
            .reservations(0)
            .created_unix_millis();
    };
    const int64_t created_before = created(*std::make_unique<Daemon>(settings));
    EXPECT_GT(created_before, 0);
    const std::string packed_a = Content(PathOf("reservation.A"));
    for (const char* name : {"reservation.A", "reservation.damaged"}) Write(PathOf(name), packed_a.substr(0, 40));
    fs::remove(PathOf("reservation.B"));

    auto daemon = std::make_unique<Daemon>(settings);
    EXPECT_EQ(daemon->State(),
              "A {1,2,3,4,} 2 trees, jobs 7\n"
              "B {8,9,} 0 trees, jobs\n"
              "job 7 of A\n");
    EXPECT_FALSE(fs::exists(PathOf("reservationd.sqlite-shm")) || fs::exists(PathOf("mirror.sqlite-shm")));
    EXPECT_EQ(created(*daemon), created_before);
    // The job that runs is admitted again without being counted again.
    EXPECT_EQ(daemon->Begin("job_id: 7 guids: [4, 1] trees: 2 start_unix_millis: 5").reservation_key(), "A");
    EXPECT_EQ(daemon->Begin("job_id: 7 guids: [1] trees: 2").result(), v1::BeginJobReply::RESULT_ALREADY_RUNNING);
    EXPECT_EQ(daemon->Create("key: 'C' guids: [9, 10]").conflict().reservation_key(), "B");
    daemon->Create("key: 'C' guids: [10]");
    EXPECT_EQ(daemon->Events(), "2_RESERVATION_CREATED B; 3_RESERVATION_UPDATED A; 4_RESERVATION_CREATED C; ");
    EXPECT_EQ(daemon->State(),
              "A {1,2,3,4,} 2 trees, jobs 7\n"
              "B {8,9,} 0 trees, jobs\n"
              "C {10,} 0 trees, jobs\n"
              "job 7 of A\n");

    daemon.reset();
    EXPECT_EQ(Content(PathOf("reservation.A")), packed_a);
    EXPECT_EQ(FilesIn(""), "reservation.A reservation.B reservation.C ");
    EXPECT_EQ(FilesIn("ignored"), "reservation.A reservation.damaged ");
}

// After a crash, with the files as they were before it. An operator has added and replaced some, too.
TEST_F(DaemonTest, FilesFollowTheStoreUnlessTheyAreAnOperators) {
    {
        Daemon daemon(settings);
        for (const char* fields : {"key: 'A' guids: 1", "key: 'B' guids: 2", "key: 'C' guids: 3"})
            daemon.Create(fields);
        EngineSettings elsewhere = settings;
        elsewhere.options.persistent_dir += "/elsewhere";
        Daemon other(elsewhere);
        for (const char* fields : {"key: 'A' guids: [1, 9]", "key: 'D' guids: 5", "key: 'E' guids: 4"})
            other.Create(fields);
    }
    DieAfter(settings, [&](Daemon& daemon) {
        daemon.Call(true, &ReservationState::UpdateReservation, "key: 'C' add_guids: 4");
        daemon.Call(true, &ReservationState::DeleteReservation, "key: 'B'");
    });
    for (const auto& [from, to] : {std::pair("A", "A"), std::pair("D", "misnamed"), std::pair("E", "E")}) {
        fs::copy_file(PathOf("elsewhere/reservation." + std::string(from)), PathOf("reservation." + std::string(to)),
                      fs::copy_options::overwrite_existing);
    }
    Write(PathOf("reservation.README"), "Do not touch.");
    {
        Daemon daemon(settings);
        EXPECT_EQ(daemon.State(), "A {1,9,} 0 trees, jobs\nC {3,4,} 0 trees, jobs\nD {5,} 0 trees, jobs\n");
    }
    EXPECT_EQ(FilesIn(""), "reservation.A reservation.C reservation.D ");
    EXPECT_EQ(FilesIn("ignored"), "reservation.E reservation.README ");
    EXPECT_NE(Content(PathOf("log"))
                  .find("Reservation file " + PathOf("reservation.E") +
                        " gives reservation E the GUID 0x4, which reservation C has. It is moved to " +
                        PathOf("ignored/reservation.E")),
              std::string::npos);
}

TEST_F(DaemonTest, AFileThatMayBeOlderThanTheStoreIsNotTaken) {
    const std::string file = PathOf("reservation.A");
    const std::string journal = PathOf("mirror.sqlite");
    Daemon(settings).Create("key: 'A' guids: 1");
    const std::string older = Content(file);
    Daemon(settings).Call(true, &ReservationState::UpdateReservation, "key: 'A' add_guids: 2");
    for (const bool has_lost_power : {true, false}) {
        Write(file, older);
        if (has_lost_power) {
            SQLite::Database(journal, SQLite::OPEN_READWRITE).exec("UPDATE meta SET boot_id = 'another', is_clean = 0");
        } else {
            Write(journal, std::string(100, 'x'));
            EXPECT_THROW(FindFaultsOfStore(PathOf("")), StoreError);
        }
        EXPECT_EQ(Daemon(settings).State(), "A {1,2,} 0 trees, jobs\n");
    }
    EXPECT_EQ(FilesIn("ignored"), "reservation.A reservation.A~1 ");
    EXPECT_NE(Content(PathOf("log")).find(journal + " is begun anew: "), std::string::npos);
}

TEST_F(DaemonTest, ADamagedRowIsSetAsideAndEverythingElseIsThere) {
    {
        Daemon daemon(settings);
        daemon.Create("key: 'A' guids: [1, 2]");
        daemon.Create("key: 'B' guids: 3");
        daemon.Begin("job_id: 7 guids: 1 trees: 2");
        daemon.Begin("job_id: 8 guids: 2 trees: 1");
    }
    const std::string store = PathOf("reservationd.sqlite");
    SQLite::Database(store, SQLite::OPEN_READWRITE)
        .exec(
            "UPDATE reservations SET packed = replace(packed, 'pkey', 'qkey') WHERE key = 'A';"
            "UPDATE jobs SET checksum = checksum + 1 WHERE job_id = 8; UPDATE events SET event = x'00' WHERE sequence "
            "= 1;");
    EXPECT_EQ(FindFaultsOfStore(PathOf("")).at(1), "job 8 is damaged");
    const auto expect_all_but_the_job = [&] {
        Daemon daemon(settings);
        EXPECT_EQ(daemon.State(), "A {1,2,} 2 trees, jobs 7\nB {3,} 0 trees, jobs\njob 7 of A\n");
        EXPECT_EQ(daemon.Events(), "1_NONE ; 2_RESERVATION_CREATED B; 3_RESERVATION_UPDATED A; ");
    };
    expect_all_but_the_job();
    EXPECT_NE(Content(PathOf("log")).find(settings.options.persistent_dir + ": stored job 8 is damaged"),
              std::string::npos);
    expect_all_but_the_job();
    EXPECT_EQ(SQLite::Database(store)
                  .execAndGet("SELECT group_concat(kind || ' ' || name || ' ' || typeof(content)) FROM damaged")
                  .getString(),
              "reservations A text,jobs 8 blob,events 1 blob");
}

TEST_F(DaemonTest, FilesThatCannotBeWrittenAreToldOfAndWrittenLater) {
    {
        Daemon daemon(settings);
        fs::remove(PathOf(".staging"));
        daemon.Create("key: 'A' guids: [1, 2]");
        v1::DaemonInfo info = daemon.Info();
        EXPECT_EQ(info.warnings_size(), 0);
        while (info.warnings_size() == 0) info = daemon.Info();
        EXPECT_EQ(info.warnings(0), "reservation files cannot be written: " + PathOf(".staging/0") +
                                        ": cannot be opened: No such file or directory");
        EXPECT_EQ(info.unwritten_files(), 1U);
        EXPECT_GE(info.unwritten_files_age_millis(), 1000U);
        EXPECT_EQ(FilesIn(""), "");

        daemon.engine.Stop();
        daemon.engine.Submit({true, nullptr, [](Refusal refusal, const std::string& text) {
                                  EXPECT_EQ(refusal, Refusal::kStopping);
                                  EXPECT_EQ(text, "the daemon is stopping");
                              }});
    }
    const Daemon writes_the_files(settings);
}

TEST_F(DaemonTest, AStoreThatIsNotAsItWasLeftIsNoticed) {
    const std::string store = PathOf("reservationd.sqlite");
    std::string epoch;
    const auto expect = [&](bool has_loss, const std::string& state) {
        Daemon daemon(settings);
        const v1::DaemonInfo info = daemon.Info();
        EXPECT_EQ(info.warnings_size(), has_loss ? 1 : 0);
        EXPECT_EQ(epoch != info.epoch(), has_loss);
        EXPECT_EQ(daemon.State(), state);
        epoch = info.epoch();
    };
    DieAfter(settings, [&](Daemon& daemon) {
        daemon.Create("key: 'A' guids: 1");
        for (const char* suffix : {"", "-wal"}) fs::copy_file(store + suffix, PathOf("copy") + suffix);
        daemon.Begin("job_id: 7 guids: 1 trees: 2");
    });
    epoch = SQLite::Database(store).execAndGet("SELECT id FROM identity").getString();
    expect(false, "A {1,} 2 trees, jobs 7\njob 7 of A\n");
    for (const char* suffix : {"", "-wal"}) fs::rename(PathOf("copy") + suffix, store + suffix);
    EXPECT_EQ(FindFaultsOfStore(PathOf("")).size(), 2U);
    EXPECT_TRUE(fs::exists(store + "-wal"));
    expect(true, "A {1,} 0 trees, jobs\n");
    EXPECT_EQ(FindFaultsOfStore(PathOf("")).size(), 0U);
    expect(false, "A {1,} 0 trees, jobs\n");
    fs::remove(store);
    expect(true, "A {1,} 0 trees, jobs\n");
    fs::remove(store);
    fs::remove(store + "-mark");
    expect(true, "A {1,} 0 trees, jobs\n");
    Write(store, "");
    expect(true, "A {1,} 0 trees, jobs\n");
    expect(false, "A {1,} 0 trees, jobs\n");

    Daemon daemon(settings);
    for (const char* suffix : {"", "-wal"}) {
        fs::rename(store + suffix, PathOf("moved"));
        EXPECT_TRUE(daemon.IsRefused("key: 'B' guids: 99")) << suffix;
        fs::copy_file(PathOf("moved"), store + suffix);
        EXPECT_TRUE(daemon.IsRefused("key: 'B' guids: 99")) << suffix << " replaced";
        fs::rename(PathOf("moved"), store + suffix);
        EXPECT_FALSE(daemon.IsRefused("key: 'B' guids: 99")) << suffix;
    }
    EXPECT_EQ(daemon.State(), "A {1,} 0 trees, jobs\nB {99,} 0 trees, jobs\n");
}

TEST_F(DaemonTest, ACallThatAlwaysFailsEndsTheProcess) {
    const auto fail = [](ReservationState&) { throw std::runtime_error("no memory"); };
    EXPECT_EXIT(Daemon(settings).Run(false, fail), testing::ExitedWithCode(EXIT_FAILURE), "");
    EXPECT_NE(Content(PathOf("log")).find("The daemon gives up: no memory\n"), std::string::npos);
}

// Modes that count no job keep all of them, for the next start or reload that counts them again.
TEST_F(DaemonTest, JobsOutliveAStartWithoutReservationMode) {
    const std::string state = "A {1,2,} 2 trees, jobs 7\njob 7 of A\n";
    {
        Daemon daemon(settings);
        daemon.Create("key: 'A' guids: [1, 2]");
        daemon.Begin("job_id: 7 guids: 1 trees: 2");
    }
    EngineSettings without_mode = settings;
    without_mode.options.reservation_mode = false;
    {
        Daemon daemon(without_mode);
        EXPECT_EQ(daemon.State(), "job 7 of A\n");
        daemon.engine.Reconfigure(settings);
        EXPECT_EQ(daemon.State(), state);
        EngineSettings with_cap = settings;
        with_cap.options.max_jobs_per_hca = 1;
        daemon.engine.Reconfigure(with_cap);
        EXPECT_EQ(daemon.Begin("job_id: 8 guids: 1 trees: 1").result(), v1::BeginJobReply::RESULT_LIMIT_EXCEEDED);
    }
    EXPECT_EQ(Daemon(settings).State(), state);
}

TEST_F(DaemonTest, WhoReadsAFileGetsAllOfOneText) {
    ReservationFiles files(PathOf(""));
    files.Write("reservation.A", "first");
    std::ifstream reader(PathOf("reservation.A"));
    files.Write("reservation.A", "second");
    fs::create_hard_link(PathOf("reservation.A"), PathOf("backup"));
    for (const char* text : {"third", "fourth", "fifth"}) files.Write("reservation.A", text);
    files.Remove("reservation.A");
    files.Write("reservation.B", "sixth");
    std::string read;
    EXPECT_EQ((reader >> read, read), "first");
    EXPECT_EQ(Content(PathOf("backup")), "second");
    EXPECT_EQ(Content(PathOf("reservation.B")), "sixth");
    EXPECT_EQ(FilesIn(""), "reservation.B ");
    EXPECT_LE(std::distance(fs::directory_iterator(PathOf(".staging")), {}), 2);

    EXPECT_EQ(files.Read(".staging", 5, "").status().message(), "is not a regular file");
    EXPECT_EQ(files.Read("backup", 5, "sec").status().message(), "is larger than 5 bytes");
    fs::create_directory_symlink(PathOf(".staging"), PathOf("ignored"));
    EXPECT_THROW(files.SetAside("reservation.B"), std::system_error);
}

TEST_F(DaemonTest, TheMirrorIsNeverFarBehindAndLeavesNothingOfDeletedKeys) {
    ReservationFiles files(PathOf(""));
    MirrorJournal journal(PathOf("mirror.sqlite"), {"store", 1});
    journal.Start({});
    size_t most_dirty_keys = 0;
    {
        FileMirror mirror(files, journal);
        const auto text = std::make_shared<const std::string>("text");
        for (int i = 0; i < 50'000; ++i) {
            mirror.WaitForRoom();
            mirror.Put({{std::to_string(i), text}, {std::to_string(i - 2), nullptr}});
            most_dirty_keys = std::max(most_dirty_keys, mirror.status().dirty_keys);
        }
        while (mirror.status().dirty_keys > 0) std::this_thread::yield();
    }
    EXPECT_LE(most_dirty_keys, 10'300U);
    EXPECT_EQ(FilesIn(""), "reservation.49998 reservation.49999 ");
    EXPECT_EQ(journal.Read().size(), 2U);
    EXPECT_EQ(journal.Read().at("49999").intended_checksum, std::nullopt);
}

TEST_F(DaemonTest, JobsAreCountedAgainWhenTheirPortsAreReportedAgain) {
    settings.options.reservation_auto_by_pkeys = true;
    DieAfter(settings, [&](Daemon& daemon) {
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

TEST_F(DaemonTest, ALargeDryRunLetsChangesPassAndSeesThem) {
    Daemon daemon(settings);
    v1::CreateReservationRequest request;
    request.set_key("A");
    for (uint64_t guid = 1; guid <= 20'000; ++guid) request.add_guids(guid);
    v1::ReservationReply foretold;
    std::string answers;
    std::promise<void> is_submitted, is_answered;
    daemon.engine.Submit(
        {false, [&](ReservationState&) { is_submitted.get_future().wait(); }, [](Refusal, const std::string&) {}});
    daemon.engine.Try({ScratchCopy(NamedBy(request)),
                       [&](ReservationState& scratch, const v1::StateVersion& version) {
                           answers += "dry run at " + std::to_string(version.sequence());
                           scratch.CreateReservation(request, &foretold);
                       },
                       [&](Refusal, const std::string&) { is_answered.set_value(); }});
    daemon.engine.Submit({true,
                          [&](ReservationState& state) {
                              v1::ReservationReply reply;
                              v1::CreateReservationRequest other;
                              other.set_key("B");
                              other.add_guids(5);
                              state.CreateReservation(other, &reply);
                          },
                          [&](Refusal, const std::string&) { answers += "change, "; }});
    is_submitted.set_value();
    is_answered.get_future().wait();
    EXPECT_EQ(answers, "change, dry run at 1");
    EXPECT_EQ(foretold.conflict().ShortDebugString(), "guid: 5 reservation_key: \"B\"");
    EXPECT_EQ(daemon.Info().failed_reservation_requests(), 0u);
}

}    // namespace
}    // namespace reservationd
