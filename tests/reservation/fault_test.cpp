// Faults from outside: a full disk, and files that change under the manager's hands. Above each test stands what must
// hold.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "host/log.h"
#include "tests/files.h"
#include "tests/reservation/test_daemon.h"

namespace {

namespace fs = std::filesystem;

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
