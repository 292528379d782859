// Reservation files: what is written when, what a restart reads back, and what becomes of bad files.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <sstream>

#include "host/dov_msg.h"
#include "host/log.h"
#include "tests/files.h"
#include "tests/reservation/test_daemon.h"

namespace {

namespace fs = std::filesystem;

Description Described(const std::string& key, const Guids& guids) {
    return {key, 0x7fff, 1, guids, {1, 2, 3, 64, VESK_LIMIT_NOT_GIVEN, 0, 4294967294}, 255};
}

std::string Packed(const Description& description) {
    const vesk_reservation_info info = description.Info();
    return Pack(&info);
}

TEST(Message, IsTextThatRoundTrips) {
    const Guids guids{1, 0x0200000000a1b2c0, UINT64_MAX};
    Guids many(1000);
    std::iota(many.begin(), many.end(), 1);
    std::string every_byte;
    for (int c = 1; c < 256; ++c) every_byte.push_back(static_cast<char>(c));
    for (const std::string& key : {every_byte, std::string(), std::string(256, '\\'), std::string(256, '\x01')}) {
        for (const Guids& list : {guids, many, Guids()})
            EXPECT_EQ(Unpack(Packed(Described(key, list))), Described(key, list).Text());
    }
    const Description described = Described("a b\\\x1f\x7f", guids);
    vesk_reservation_info info = described.Info();
    EXPECT_EQ(Unpack(Pack(&info), 17), "bad");
    EXPECT_EQ(Pack(&info, 15), "");
    EXPECT_EQ("\n" + Pack(&info), R"(
vesk_reservation_info 1
reservation_key a b\\\x1f\x7f
pkey 0x7fff
state 1
num_guids 3
guid 0x0000000000000001
guid 0x0200000000a1b2c0
guid 0xffffffffffffffff
limits 1 2 3 64 none 0 4294967294
auto_created 255
checksum 0xedb818a03e6db3f8
)");
    EXPECT_EQ("\n" + Pack(nullptr), R"(
vesk_reservation_info 1
checksum 0xe849af8ce6ae85e6
)");
    EXPECT_EQ(Unpack(Pack(nullptr)), "no record");

    info.guids = nullptr;
    EXPECT_EQ(Pack(&info), "");
    info.num_guids = 0;
    std::memset(info.reservation_key, 'k', VESK_KEY_SIZE);
    EXPECT_EQ(Pack(&info), "");
}

TEST(Message, RefusesWhatPackingDoesNotWrite) {
    const std::string good = Packed(Described("a\\b\x01", {1, 2}));
    ASSERT_EQ(Sealed(good), good);
    // Each puts something else in the place of what the text holds; $ is a newline.
    std::istringstream faults(
        "info 1>info 2|vesk_reservation_info 1>|vesk_reservation_info 1$>|guids 2>guids 1|guids 2>guids 3|"
        "guids 2>guids 4294967295|guids 2>guids 02|guids 2>guids +2|num_guids 2$>|"
        "num_guids 2$guid 0x0000000000000001$guid 0x0000000000000002$>num_guids 9$|guid 0x0000000000000002$>|"
        "0000002$>0000002$guid 0x0000000000000002$|0x0000000000000002>2|000000002$>$|"
        "0x0000000000000002>0x0000000g00000002|0002$>000g$|0x7fff>0x7FFF|0x7fff>0x17fff|0x7fff>0x7ff|0x7fff>32767|"
        "state 1>state  1|state 1>state |state 1>state 4294967296|state 1$>|state 1$>state 1$state 1$|state 1$>state 1 "
        "$|"
        "state 1$>state 1\r$|created 255>created 256|created 255>created -1|auto_created 255$>|255$>255$$|"
        "64 none>64 4294967295|64 none>64 None|64 none>64none|64 none>64|64 none>64 none none|a\\\\b>a\\b|"
        "\\x01>\\x5c|\\x01>\\x61|\\x01>\\x00|a\\\\b>a\x02|\\x01>\\x1|\\x01>\\|a\\\\b>" +
        std::string(256, 'k'));
    for (std::string fault; std::getline(faults, fault, '|');) {
        for (char& c : fault) c = c == '$' ? '\n' : c;
        std::string text = good;
        const size_t middle = fault.find('>');
        const size_t at = text.find(fault.substr(0, middle));
        ASSERT_NE(at, std::string::npos) << fault;
        EXPECT_EQ(Unpack(Sealed(text.replace(at, middle, fault.substr(middle + 1)))), "bad") << fault;
    }
    EXPECT_EQ(Unpack(Sealed("vesk_reservation_info 1\n\n")), "bad");
    EXPECT_EQ(Unpack(Sealed("")), "bad");
    EXPECT_EQ(Unpack(good + good), "bad");
    const std::string longer = good + '\0' + "more";
    EXPECT_NE(Unpack(longer), "bad");
    EXPECT_TRUE(dov_msg_fills(VESK_MSG_TYPE_RESERVATION_INFO, good.c_str(), good.size()));
    EXPECT_FALSE(dov_msg_fills(VESK_MSG_TYPE_RESERVATION_INFO, longer.c_str(), longer.size()));
    EXPECT_FALSE(dov_msg_fills(17, good.c_str(), good.size()));
    for (size_t i = 0; i < good.size(); ++i) {
        EXPECT_EQ(Unpack(good.substr(0, i)), "bad") << i;
        for (int bit = 0; bit < 8; ++bit) {
            std::string flipped = good;
            flipped[i] = static_cast<char>(flipped[i] ^ 1 << bit);
            EXPECT_EQ(Unpack(flipped), "bad") << i;
        }
    }
}

// Files are loaded in any order, and what a directory fails with depends on the file system.
std::string SortedRecords(TestDaemon& daemon) {
    std::istringstream seen(daemon.Take());
    std::vector<std::string> records{""};
    for (std::string line; std::getline(seen, line);) {
        line.empty() ? void(records.back() += "\n") : records.push_back(line + "\n");
    }
    std::erase_if(records, [](const auto& record) { return record.find("reservation.directory") != record.npos; });
    std::sort(records.begin(), records.end());
    return std::accumulate(records.begin(), records.end(), std::string());
}

TEST(Load, DeletesBadFilesAndGoesOn) {
    TestDaemon daemon;
    const Description stored = Described("L", {2});
    daemon.Create("K", {1});
    fs::copy(daemon.PathOf("K"), daemon.PathOf("copy"));
    Write(daemon.PathOf("15"), "vesk_reservatio");
    Write(daemon.PathOf("16"), "vesk_reservation");
    Write(daemon.PathOf("nul"), Packed(stored) + '\0');
    Write(daemon.PathOf("no-record"), Pack(nullptr));
    Write(daemon.PathOf("zz"), Packed(stored));
    Write(daemon.options.persistent_dir + "/xreservation.L", "not ours");
    fs::create_directory(daemon.PathOf("directory"));
    fs::create_symlink("nowhere", daemon.PathOf("dangling"));
    mkfifo(daemon.PathOf("pipe").c_str(), 0600);
    vesk_dov_msg* msg = nullptr;
    for (const char* key : {"15", "16", "nul", "directory", "dangling", "pipe"})
        EXPECT_EQ(daemon.manager->BuildDataFromReservationFile(daemon.PathOf(key).c_str(), msg), -1) << key;
    daemon.Take();
    log_set_level(2);
    daemon.manager->ReadPersistentReservationInfoFiles();

    EXPECT_EQ(daemon.FileNames(), " K copy dangling directory pipe zz xreservation.L");
    EXPECT_EQ(Describe(daemon.Reservation("L").info), stored.Text());
    EXPECT_EQ(SortedRecords(daemon), R"(
1 BuildDataFromReservationFile: Reservation file DIR/reservation.dangling could not be opened - No such file or directory

1 BuildDataFromReservationFile: Reservation file DIR/reservation.pipe could not be opened - Invalid argument

1 BuildDataFromReservationFile: Reservation file UNPACK failed: DIR/reservation.16

1 BuildDataFromReservationFile: Reservation file UNPACK failed: DIR/reservation.nul

1 BuildDataFromReservationFile: Size of reservation file is too low[15], file: DIR/reservation.15

2 ReadPersistentReservationInfoFiles: No data in reservation file DIR/reservation.no-record
2 ReadPersistentReservationInfoFiles: Reservation file DIR/reservation.K is ignored, its key is already loaded: K
2 ReadPersistentReservationInfoFiles: Reservation file DIR/reservation.copy is ignored, its key is already loaded: K
)");
}

TEST(Load, LeavesTooLongPathsAlone) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    Write(daemon.PathOf("a"), Packed(Described("fits", {1})));
    Write(daemon.PathOf("ab"), Packed(Described("too long", {2})));
    const size_t dir_length = 4095 - std::strlen("/reservation.a");
    daemon.options.persistent_dir += (dir_length - dir.size()) % 2 == 0 ? "" : "/";
    while (daemon.options.persistent_dir.size() < dir_length) daemon.options.persistent_dir += "/.";

    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(SortedRecords(daemon), R"(
2 ReadPersistentReservationInfoFiles: Path of reservation file is too long, skipping it: DIR/reservation.ab
3 BuildDataFromReservationFile: parsing reservation file DIR/reservation.a

3 InternalCreateNewReservation: Reservation with key=fits, id=16716770344006086001, allocated with 1 guids, num trees limit: 64
3 ReadPersistentReservationInfoFiles: Checking persistent directory for reservation files

)");
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.manager->DeleteAllPersistentReservationFiles();
    daemon.options.persistent_dir = dir;
    EXPECT_EQ(daemon.FileNames(), " ab");
}

TEST(LoadAndPurge, NeedADirectory) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    daemon.options.persistent_dir += "/missing";
    daemon.manager->ReadPersistentReservationInfoFiles();
    daemon.options.reservation_auto_by_pkeys = true;
    Write(dir + "/other", "");
    for (const char* directory : {"/missing", "/other"}) {
        daemon.options.persistent_dir = dir + directory;
        daemon.manager->DeleteAllPersistentReservationFiles();
    }
    daemon.options.persistent_dir = dir;
    EXPECT_EQ(daemon.manager->ChechIfDirExists(dir), 0);
    EXPECT_EQ(daemon.manager->ChechIfDirExists("missing"), 1);
    EXPECT_EQ(daemon.manager->ChechIfDirExists(dir + "/other"), -1);
    EXPECT_EQ(daemon.Take(), R"(
3 ReadPersistentReservationInfoFiles: Checking persistent directory for reservation files

3 ChechIfDirExists: Persistent directory at DIR/missing does not exist
3 DeleteAllPersistentReservationFiles: Deleting all persistent reservation files from directory: DIR/missing

3 ChechIfDirExists: Persistent directory at DIR/missing does not exist
3 DeleteAllPersistentReservationFiles: Deleted 0 persistent reservation files
3 DeleteAllPersistentReservationFiles: Deleting all persistent reservation files from directory: DIR/other

1 ChechIfDirExists: Failed to open directory: DIR/other - Not a directory

3 DeleteAllPersistentReservationFiles: Deleted 0 persistent reservation files
3 ChechIfDirExists: Persistent directory at missing does not exist
1 ChechIfDirExists: Failed to open directory: DIR/other - Not a directory

)");
}

TEST(Store, WritesWholeFilesAndLogsWhatItCannot) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    Write(daemon.PathOf("K"), std::string(5000, 'x'));
    fs::create_symlink("/dev/full", daemon.PathOf("full"));
    fs::create_directory(daemon.PathOf("a"));
    for (const char* key : {"K", "full", "a/b", "b/c"})
        daemon.manager->CreateReservationInfoFile(Described(key, {1}).Info(), dir);
    EXPECT_EQ(Content(daemon.PathOf("K")), Packed(Described("K", {1})));
    EXPECT_EQ(Content(daemon.PathOf("a/b")), Packed(Described("a/b", {1})));    // in a directory that is there

    // A record that cannot be packed leaves an empty file. Replacing is deleting and writing; deleting nothing is
    // silent.
    vesk_reservation_info bad{"bad", 1, 1, 1, nullptr, {}, 0};
    daemon.manager->CreateReservationInfoFile(bad, dir);
    EXPECT_EQ(fs::file_size(daemon.PathOf("bad")), 0u);
    bad.num_guids = 0;
    daemon.manager->UpdateReservationInfoFile(bad, dir);
    daemon.manager->DeleteReservationInfoFile(Description{"unknown"}.Info(), dir);
    EXPECT_EQ(fs::file_size(daemon.PathOf("bad")), Pack(&bad).size());
    EXPECT_EQ(daemon.Take(), R"(
2 CreateReservationInfoFile: Failed to write to File DIR/reservation.full

2 CreateReservationInfoFile: File DIR/reservation.b/c could not be opened

1 CreateReservationInfoFile: Create reservation info file failed DIR/reservation.bad

3 DeleteFile: Delete file at DIR/reservation.bad

)");
}

}    // namespace
