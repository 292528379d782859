// Faults from outside: a full disk, and directories and files that cannot be used or change under the manager's hands.
// Above each test stands what must hold.

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "host/log.h"
#include "tests/files.h"
#include "tests/reservation/test_daemon.h"

namespace {

namespace fs = std::filesystem;

constexpr int kSkipped = 77;    // a child's exit status

size_t CountOf(const std::string& what, const std::string& text) {
    size_t count = 0;
    for (size_t at = text.find(what); at != text.npos; at = text.find(what, at + 1)) ++count;
    return count;
}

std::map<std::string, std::string> Loaded(const TestDaemon& daemon) {
    std::map<std::string, std::string> descriptions;
    for (const auto& [key, reservation] : daemon.manager->reservations) descriptions[key] = Describe(reservation->info);
    return descriptions;
}

// Runs a part of a test in a process of its own, as the stored reservations are loaded once in a process, and expects
// it to succeed. An exception ends that process, which must not go on with the tests.
void RunInChild(const std::function<void()>& part) {
    const pid_t child = fork();
    if (child == 0) {
        [&]() noexcept { part(); }();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : testing::Test::IsSkipped() ? kSkipped : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipped) GTEST_SKIP();
    EXPECT_EQ(status, 0);
}

// Root may do everything. Tells whether there is a user who may not, and who can make directories of his own.
bool BecomeOrdinaryUser() {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
                           setresuid(kNobody, kNobody, kNobody) != 0)) {
        return false;
    }
    return access(fs::temp_directory_path().c_str(), R_OK | W_OK | X_OK) == 0;
}

// Full disk: the change is made and answered, a record names the file, and no other file is touched. The next change
// that finds room stores the whole reservation.
TEST(Fault, WriteBreaksOffAtAnyByte) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2, 4});
    daemon.Create("L", {3}, TreesLimit(5));
    const std::string whole = Content(daemon.PathOf("K"));
    daemon.Delta("K", {}, {4});
    const std::string before = daemon.State();
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    for (size_t room = 0; room <= whole.size(); ++room) {
        daemon.Take();
        const rlimit full{room, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        const uint32_t status = daemon.Delta("K", {4}, {});
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(status, 0u);
        EXPECT_EQ(CountOf("\n2 CreateReservationInfoFile: Failed to write to File DIR/reservation.K\n", daemon.Take()),
                  room < whole.size() ? 1u : 0u);
        EXPECT_EQ(RegistryFault(*daemon.manager), "");
        EXPECT_EQ(Content(daemon.PathOf("K")), whole.substr(0, room));
        EXPECT_EQ(daemon.Delta("K", {}, {4}), 0u);
        EXPECT_EQ(daemon.State(), before);
    }
}

// What there may be of a directory, and what then must come of one change, one creation and one deletion.
struct Outage {
    fs::perms directory;    // unknown: it is not there
    fs::perms files;
    size_t num_refused;    // files that cannot be written
    const char* left;    // the files afterwards
    size_t num_loaded;    // reservations, by a start-up
    const char* record;    // of that start-up
};

void Begin(const Outage& outage, const std::string& dir) {
    for (const auto& file : fs::directory_iterator(dir)) fs::permissions(file, outage.files);
    if (outage.directory == fs::perms::unknown) return fs::rename(dir, dir + ".gone");
    fs::permissions(dir, outage.directory);
}

void End(const Outage& outage, const std::string& dir) {
    if (outage.directory == fs::perms::unknown) fs::rename(dir + ".gone", dir);
    fs::permissions(dir, fs::perms::owner_all);
    for (const auto& file : fs::directory_iterator(dir)) fs::permissions(file, fs::perms::owner_all);
}

// Requests succeed and the registry holds what they did; every file that could not be written is told of. The next
// change after the outage stores the reservation whole. A file that could not be deleted is loaded by the next
// start-up. A start-up in an outage loads what can be read, tells what cannot, and deletes nothing.
void CheckOutage(const Outage& outage) {
    SCOPED_TRACE(outage.record);
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    daemon.Create("deleted", {1});
    daemon.Create("old", {2});
    daemon.Take();
    Begin(outage, dir);
    EXPECT_EQ(daemon.Delta("old", {4}, {}), 0u);
    EXPECT_EQ(daemon.Create("new", {3}), 0u);
    EXPECT_EQ(daemon.Delete("deleted"), 0u);
    End(outage, dir);
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(CountOf("\n2 CreateReservationInfoFile: File DIR/reservation.", daemon.Take()), outage.num_refused);
    EXPECT_EQ(daemon.FileNames(), outage.left);

    daemon.Delta("new", {5}, {});
    daemon.Delta("old", {6}, {});
    const std::string stored = daemon.Stored();
    for (const auto& [key, description] : Loaded(daemon)) EXPECT_EQ(CountOf(description, stored), 1u);
    daemon.Restart();
    Begin(outage, dir);
    daemon.manager->ReadPersistentReservationInfoFiles();
    End(outage, dir);
    EXPECT_EQ(daemon.manager->reservations.size(), outage.num_loaded);
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_GE(CountOf(outage.record, daemon.Take()), 1u);
    EXPECT_EQ(daemon.Stored(), stored);
}

TEST(Fault, DirectoryIsNotThere) {
    CheckOutage({fs::perms::unknown, fs::perms::owner_all, 2, " deleted old", 0, "directory at DIR does not exist"});
}

TEST(Fault, PermissionsAreLost) {
    constexpr fs::perms kAll = fs::perms::owner_all, kRead = fs::perms::owner_read, kNone = fs::perms::none;
    const char* const denied = "could not be opened - Permission denied";
    for (const Outage& outage :
         {Outage{kRead | fs::perms::owner_exec, kAll, 1, " deleted old", 3, "parsing"},
          Outage{kRead, kAll, 2, " deleted old", 0, denied},
          Outage{kNone, kAll, 2, " deleted old", 0, "directory: DIR - Permission denied"},
          Outage{kAll, kRead, 1, " new old", 2, "parsing"}, Outage{kAll, kNone, 1, " deleted new old", 0, denied}}) {
        RunInChild([&] {
            if (!BecomeOrdinaryUser()) GTEST_SKIP() << "no ordinary user who may use the temporary directory";
            CheckOutage(outage);
        });
    }
}

// What does not change is loaded whole. Of what does, each file is loaded as it once was, or deleted with a record.
TEST(Fault, FilesChangeWhileTheyAreLoaded) {
    TestDaemon daemon;
    // After the load has seen the size, before it reads.
    const std::map<std::string, std::function<void(const std::string& path)>> changes = {
        {"cut", [](const std::string& path) { fs::resize_file(path, 100); }},
        {"emptied", [](const std::string& path) { fs::resize_file(path, 0); }},
        {"grown", [](const std::string& path) { std::ofstream(path, std::ios::app) << "more"; }},
        {"removed", [](const std::string& path) { fs::remove(path); }}};
    daemon.Create("steady", {1});
    for (const auto& [key, change] : changes) daemon.Create(key, {1000 + daemon.manager->hca_infos.size()});
    std::map<std::string, std::string> expected = Loaded(daemon);
    daemon.Restart();
    std::string records;
    log_set_sink([&](const LogRecord& record) {
        records += record.message;
        for (const auto& [key, change] : changes) {
            if (record.message == "parsing reservation file " + daemon.PathOf(key) + "\n") change(daemon.PathOf(key));
        }
    });
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    for (const char* key : {"cut", "emptied"}) {
        expected.erase(key);
        EXPECT_EQ(CountOf("Failed to read Reservation file " + daemon.PathOf(key) + " - ", records), 1u);
        EXPECT_FALSE(fs::exists(daemon.PathOf(key)));
    }
    EXPECT_EQ(Loaded(daemon), expected);
}

}    // namespace
