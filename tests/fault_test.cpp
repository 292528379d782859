// Faults from outside: a full disk, directories and files that cannot be used or change under the manager's hands, and
// sudden death. Above each test stands what must hold.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <thread>

#include "tests/program.h"
#include "tests/test_daemon.h"

namespace {

namespace fs = std::filesystem;

std::string Content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void Write(const std::string& path, const std::string& content) { std::ofstream(path, std::ios::binary) << content; }

size_t CountOf(const std::string& what, const std::string& text) {
    size_t count = 0;
    for (size_t at = text.find(what); at != text.npos; at = text.find(what, at + 1)) ++count;
    return count;
}

// Runs a part of a test in a process of its own, and expects it to succeed.
void RunInChild(const std::function<void()>& part) {
    const pid_t child = fork();
    if (child == 0) {
        part();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// The change is made and answered, and a record tells that the file could not be written. No other file is touched. The
// next change that finds room stores the whole reservation.
TEST(Fault, DiskIsFullAtAnyByte) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2});
    daemon.Create("L", {3});
    daemon.Delta("K", {4}, {});
    const std::string whole = Content(daemon.PathOf("K"));
    const std::string other = Content(daemon.PathOf("L"));
    daemon.Delta("K", {}, {4});
    const std::string before = daemon.Stored();
    std::signal(SIGXFSZ, SIG_IGN);
    for (size_t room = 0; room <= whole.size(); ++room) {
        daemon.Take();
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        const rlimit full{room, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        const uint32_t status = daemon.Delta("K", {4}, {});
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(status, 0u);
        EXPECT_EQ(CountOf("\n2 CreateReservationInfoFile: Failed to write to File DIR/reservation.K\n", daemon.Take()),
                  room < whole.size() ? 1u : 0u);
        EXPECT_EQ(Content(daemon.PathOf("K")), whole.substr(0, room));
        EXPECT_EQ(RegistryFault(*daemon.manager), "");
        EXPECT_EQ(daemon.Delta("K", {}, {4}), 0u);
        EXPECT_EQ(daemon.Stored(), before);
    }
    EXPECT_EQ(Content(daemon.PathOf("L")), other);
}

// A crash in the middle of a write leaves the start of the file, or its length with zeros at the end. Such a file is
// never loaded, wherever it breaks off, but deleted, with a record that names it; every other reservation is loaded
// whole.
TEST(Fault, CrashInTheMiddleOfAWrite) {
    TestDaemon daemon;
    daemon.Create("K", {1, 2});
    daemon.Create("L", {3}, TreesLimit(5));
    const std::string before = daemon.State();
    const std::string whole = Content(daemon.PathOf("K"));
    for (size_t length = 0; length < whole.size(); ++length) {
        std::string text = whole.substr(0, length);
        Write(daemon.PathOf("cut" + std::to_string(length)), text);
        text.resize(whole.size());
        Write(daemon.PathOf("zeros" + std::to_string(length)), text);
    }
    daemon.Restart();
    daemon.Take();
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(CountOf("\n1 BuildDataFromReservationFile: ", daemon.Take()), 2 * whole.size());
    EXPECT_EQ(daemon.State(), before);
    EXPECT_EQ(daemon.FileNames(), " K L");
}

// Requests succeed and the registry holds what they did; every file that could not be opened is told of. A reservation
// is stored again by its next change when the directory is back. A file that could not be deleted is loaded again by
// the next start-up. One that cannot be read is neither loaded nor deleted, and keeps none of the others from being
// loaded.
TEST(Fault, DirectoryOrFileThatCannotBeUsed) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    daemon.Create("K", {1});
    fs::rename(dir, dir + ".gone");
    daemon.Take();
    EXPECT_EQ(daemon.Delta("K", {2}, {}), 0u);
    EXPECT_EQ(daemon.Create("L", {3}), 0u);
    EXPECT_EQ(daemon.Delete("L"), 0u);
    EXPECT_EQ(CountOf("\n2 CreateReservationInfoFile: File DIR/reservation.", daemon.Take()), 2u);
    fs::rename(dir + ".gone", dir);
    EXPECT_EQ(daemon.Delta("K", {3}, {}), 0u);
    EXPECT_EQ(daemon.Stored(), daemon.PathOf("K") + ": " + Describe(daemon.Reservation("K").info) + "\n");
    daemon.Create("hidden", {4});
    Write(daemon.PathOf("M"), Content(daemon.PathOf("K")));

    RunInChild([&] {
        constexpr uid_t kNobody = 65534;
        fs::permissions(daemon.PathOf("hidden"), fs::perms::none);
        fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec);
        if (geteuid() == 0) {
            ASSERT_EQ(chown(dir.c_str(), kNobody, kNobody), 0);
            ASSERT_EQ(setresuid(kNobody, kNobody, kNobody), 0);
        }
        EXPECT_EQ(daemon.Create("N", {9}), 0u);
        EXPECT_EQ(daemon.Delete("K"), 0u);
        EXPECT_EQ(RegistryFault(*daemon.manager), "");
        EXPECT_EQ(daemon.FileNames(), " K M hidden");
        daemon.Restart();
        daemon.Take();
        daemon.manager->ReadPersistentReservationInfoFiles();
        EXPECT_EQ(RegistryFault(*daemon.manager), "");
        EXPECT_TRUE(daemon.manager->reservations.contains("K"));
        EXPECT_FALSE(daemon.manager->reservations.contains("hidden"));
        EXPECT_NE(daemon.Take().find("file DIR/reservation.hidden could not be opened - Permission denied"),
                  std::string::npos);
        EXPECT_EQ(daemon.FileNames(), " K M hidden");
    });
    fs::permissions(dir, fs::perms::owner_all);
}

// What does not change is loaded whole. Of what does, each file is loaded as it once was, deleted or left alone.
TEST(Fault, FilesChangeWhileTheyAreLoaded) {
    TestDaemon daemon;
    constexpr uint64_t kNumSteady = 500;
    for (uint64_t i = 1; i <= kNumSteady; ++i) daemon.Create("steady" + std::to_string(i), {i});
    const std::string steady = daemon.State();
    daemon.Create("restless", {1'000'000, 2'000'000});
    const std::string path = daemon.PathOf("restless");
    const std::string text = Content(path);
    daemon.Restart();
    daemon.Take();

    std::atomic<bool> is_over = false;
    std::thread changes([&] {
        std::mt19937 random;
        while (!is_over) {
            const std::string name = path + std::to_string(random() % 50);
            Write(name, text.substr(0, random() % (text.size() + 1)));
            if (random() % 4 == 0) fs::remove(name);
            if (random() % 4 == 0) Write(name, text);
        }
    });
    daemon.manager->ReadPersistentReservationInfoFiles();
    is_over = true;
    changes.join();
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    const auto found = daemon.manager->reservations.find("restless");
    if (found != daemon.manager->reservations.end()) daemon.Delete("restless");
    for (int i = 0; i < 50; ++i) fs::remove(path + std::to_string(i));
    fs::remove(path);
    EXPECT_EQ(daemon.State(), steady);
}

#ifdef REPLAY_PROGRAM
// At most the one file that was being written is lost: it is deleted. All others are loaded, and the registry is whole.
TEST(Fault, ReplayIsKilled) {
    std::mt19937 random;
    for (int round = 0; round < 10; ++round) {
        TestDaemon daemon;
        {
            Program replay({REPLAY_PROGRAM, "--persistent-dir", daemon.options.persistent_dir, EXAMPLE_TRACE});
            while (fs::is_empty(daemon.options.persistent_dir)) ASSERT_EQ(replay.Output(), "");
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
        }
        RunInChild([&] {
            const size_t num_files = CountOf(" user_", daemon.FileNames());
            daemon.manager->ReadPersistentReservationInfoFiles();
            const size_t num_lost = CountOf("\n1 BuildDataFromReservationFile: ", daemon.Take());
            EXPECT_LE(num_lost, 1u);
            EXPECT_EQ(daemon.manager->reservations.size(), num_files - num_lost);
            EXPECT_EQ(CountOf(" user_", daemon.FileNames()), num_files - num_lost);
            EXPECT_EQ(RegistryFault(*daemon.manager), "");
        });
    }
}
#endif

}    // namespace
