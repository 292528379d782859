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
#include "host/record_text.h"
#include "tests/files.h"
#include "tests/reservation/test_daemon.h"

namespace {

namespace fs = std::filesystem;

// The packed record, or "" when it is refused.
std::string Pack(const vesk_reservation_info* info, int type = VESK_MSG_TYPE_RESERVATION_INFO) {
    vesk_dov_msg msg{{}, const_cast<vesk_reservation_info*>(info)};
    char* buffer = nullptr;
    uint64_t length = 0;
    const int result = dov_msg_pack(0, type, 0, &msg, &buffer, &length);
    EXPECT_EQ(result != 0, buffer == nullptr);
    std::string text(buffer != nullptr ? buffer : "", length);
    free(buffer);
    return text;
}

// The description in a packed text, "no record", or "bad" when it is refused.
std::string Unpack(const std::string& text, int type = VESK_MSG_TYPE_RESERVATION_INFO) {
    vesk_dov_msg* msg = nullptr;
    const int result = dov_msg_unpack(0, type, text.c_str(), &msg);
    EXPECT_EQ(result != 0, msg == nullptr);
    if (msg == nullptr) return "bad";
    const auto* info = static_cast<const vesk_reservation_info*>(msg->data);
    const std::string description = info != nullptr ? Describe(*info) : "no record";
    dov_vesk_msg_release(type, msg);
    return description;
}

vesk_reservation_info Record(const std::string& key, Guids& guids) {
    vesk_reservation_info info{"", 0x7fff, 1, 0, nullptr, {1, 2, 3, 64, VESK_LIMIT_NOT_GIVEN, 0, 4294967294}, 255};
    vesk_copy_key(info.reservation_key, key.c_str());
    info.num_guids = static_cast<uint32_t>(guids.size());
    info.guids = guids.empty() ? nullptr : guids.data();
    return info;
}

// The text with its checksum put right, for faults that the checksum does not show.
std::string Sealed(const std::string& text) {
    const std::string body = text.substr(0, text.rfind("checksum "));
    char line[sizeof("checksum 0x0123456789abcdef\n")];
    std::snprintf(line, sizeof(line), "checksum 0x%016lx\n", RecordTextChecksum(body));
    return body + line;
}

TEST(Message, IsTextThatRoundTrips) {
    Guids guids{1, 0x0200000000a1b2c0, UINT64_MAX};
    Guids none;
    std::string every_byte;
    for (int c = 1; c < 256; ++c) every_byte.push_back(static_cast<char>(c));
    for (const std::string& key : {every_byte, std::string(), std::string(256, '\\'), std::string(256, '\x01')}) {
        for (Guids* list : {&guids, &none}) {
            const vesk_reservation_info info = Record(key, *list);
            const std::string text = Pack(&info);
            EXPECT_EQ(Unpack(text), Describe(info));
            EXPECT_EQ(Unpack(text, 17), "bad");
            EXPECT_EQ(Pack(&info, 15), "");
        }
    }
    vesk_reservation_info info = Record("a b\\\x1f\x7f", guids);
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
    info.guids = guids.data();
    std::memset(info.reservation_key, 'k', VESK_KEY_SIZE);
    EXPECT_EQ(Pack(&info), "");
}

TEST(Message, RefusesWhatPackingDoesNotWrite) {
    Guids guids{1, 2};
    const vesk_reservation_info info = Record("a\\b\x01", guids);
    const std::string good = Pack(&info);
    ASSERT_EQ(Sealed(good), good);
    // Each puts something else in the place of what the text holds; $ is a newline.
    std::istringstream faults(
        "info 1>info 2|guids 2>guids 1|guids 2>guids 3|guids 2>guids 4294967295|guids 2>guids 02|guids 2>guids +2|"
        "num_guids 2$>|guid 0x0000000000000002$>|0000002$>0000002$guid 0x0000000000000002$|0x0000000000000002>2|"
        "0x7fff>0x7FFF|0x7fff>0x17fff|0x7fff>0x7ff|0x7fff>32767|state 1>state  1|state 1>state 4294967296|state 1$>|"
        "state 1$>state 1$state 1$|state 1$>state 1 $|state 1$>state 1\r$|created 255>created 256|created 255>created "
        "-1|"
        "auto_created 255$>|255$>255$$|64 none>64 4294967295|64 none>64 None|64 none>64|64 none>64 none none|"
        "a\\\\b>a\\b|\\x01>\\x5c|\\x01>\\x61|\\x01>\\x00|a\\\\b>a\x02|\\x01>\\x1|\\x01>\\|a\\\\b>" +
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
    for (size_t length = 0; length < good.size(); ++length) EXPECT_EQ(Unpack(good.substr(0, length)), "bad") << length;
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
    Guids guids{2};
    const vesk_reservation_info info = Record("L", guids);
    daemon.Create("K", {1});
    fs::copy(daemon.PathOf("K"), daemon.PathOf("copy"));
    Write(daemon.PathOf("15"), "vesk_reservatio");
    Write(daemon.PathOf("16"), "vesk_reservation");
    Write(daemon.PathOf("nul"), Pack(&info) + '\0');
    Write(daemon.PathOf("no-record"), Pack(nullptr));
    Write(daemon.PathOf("zz"), Pack(&info));
    Write(daemon.PathOf("huge"), "");
    fs::resize_file(daemon.PathOf("huge"), (uintmax_t{1} << 37) + 1);
    Write(daemon.options.persistent_dir + "/xreservation.L", "not ours");
    fs::create_directory(daemon.PathOf("directory"));
    fs::create_symlink("nowhere", daemon.PathOf("dangling"));
    mkfifo(daemon.PathOf("pipe").c_str(), 0600);
    daemon.Take();
    log_set_level(2);
    daemon.manager->ReadPersistentReservationInfoFiles();

    EXPECT_EQ(daemon.FileNames(), " K copy dangling directory pipe zz xreservation.L");
    EXPECT_EQ(Describe(daemon.Reservation("L").info), Describe(info));
    EXPECT_EQ(SortedRecords(daemon), R"(
1 BuildDataFromReservationFile: Failed to read Reservation file DIR/reservation.huge - basic_ios::clear: iostream error

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
    Guids one{1}, two{2};
    const vesk_reservation_info fits = Record("fits", one), too_long = Record("too long", two);
    Write(daemon.PathOf("a"), Pack(&fits));
    Write(daemon.PathOf("ab"), Pack(&too_long));
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

TEST(Purge, DeletesOnlyInTheAutomaticMode) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    daemon.Create("K", {1});
    daemon.Take();
    log_set_level(4);
    daemon.manager->DeleteAllPersistentReservationFiles();
    daemon.options.reservation_auto_by_pkeys = true;
    Write(dir + "/other", "");
    for (const char* directory : {"", "/missing", "/other"}) {
        daemon.options.persistent_dir = dir + directory;
        daemon.manager->DeleteAllPersistentReservationFiles();
    }
    daemon.options.persistent_dir = dir;
    EXPECT_EQ(daemon.FileNames(), " other");
    EXPECT_EQ(daemon.Take(), R"(
3 DeleteAllPersistentReservationFiles: Deleting all persistent reservation files from directory: DIR

3 DeleteFile: Delete file at DIR/reservation.K

4 DeleteAllPersistentReservationFiles: Deleted reservation file: DIR/reservation.K
3 DeleteAllPersistentReservationFiles: Deleted 1 persistent reservation files
3 DeleteAllPersistentReservationFiles: Deleting all persistent reservation files from directory: DIR/missing

3 ChechIfDirExists: Persistent directory at DIR/missing does not exist
3 DeleteAllPersistentReservationFiles: Deleted 0 persistent reservation files
3 DeleteAllPersistentReservationFiles: Deleting all persistent reservation files from directory: DIR/other

1 ChechIfDirExists: Failed to open directory: DIR/other - Not a directory

3 DeleteAllPersistentReservationFiles: Deleted 0 persistent reservation files
)");
}

TEST(Store, WritesWholeFilesAndLogsWhatItCannot) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    Write(daemon.PathOf("K"), std::string(5000, 'x'));
    fs::create_symlink("/dev/full", daemon.PathOf("full"));
    fs::create_directory(daemon.PathOf("a"));
    log_set_level(2);
    daemon.Create("K", {1});
    daemon.Create("full", {2});
    daemon.Create("a/b", {3});    // a key may name a file in a directory below, if it is there
    daemon.Create("b/c", {4});
    EXPECT_EQ(daemon.Stored(), daemon.PathOf("K") + ": K 0x7fff state 1 {1} limits -,-,-,-,-,-,- auto 0\n");
    EXPECT_TRUE(fs::exists(daemon.PathOf("a/b")));

    // A record that cannot be packed leaves an empty file. Replacing is deleting and writing; deleting nothing is
    // silent.
    vesk_reservation_info bad{"bad", 1, 1, 1, nullptr, {}, 0};
    daemon.manager->CreateReservationInfoFile(bad, dir);
    EXPECT_EQ(fs::file_size(daemon.PathOf("bad")), 0u);
    bad.num_guids = 0;
    log_set_level(3);
    daemon.manager->UpdateReservationInfoFile(bad, dir);
    daemon.manager->DeleteReservationInfoFile(Record("unknown", daemon.sent_guids), dir);
    EXPECT_EQ(fs::file_size(daemon.PathOf("bad")), Pack(&bad).size());
    EXPECT_EQ(daemon.Take(), R"(
created K; files K a full
reply 0: K 0x7fff state 1 {1} limits -,-,-,-,-,-,- auto 0
created full; files K a full
2 CreateReservationInfoFile: Failed to write to File DIR/reservation.full

reply 0: full 0x7fff state 1 {2} limits -,-,-,-,-,-,- auto 0
created a/b; files K a full
reply 0: a/b 0x7fff state 1 {3} limits -,-,-,-,-,-,- auto 0
created b/c; files K a full
2 CreateReservationInfoFile: File DIR/reservation.b/c could not be opened

reply 0: b/c 0x7fff state 1 {4} limits -,-,-,-,-,-,- auto 0
1 CreateReservationInfoFile: Create reservation info file failed DIR/reservation.bad

3 DeleteFile: Delete file at DIR/reservation.bad

)");
}

}    // namespace
