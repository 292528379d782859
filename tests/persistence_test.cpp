// Reservation files: what is written when, what a restart reads back, and what becomes of bad files.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "host/dov_msg.h"
#include "host/hash_bytes.h"
#include "host/log.h"
#include "tests/test_daemon.h"

namespace {

namespace fs = std::filesystem;

void Write(const std::string& path, const std::string& content) { std::ofstream(path, std::ios::binary) << content; }

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
    std::snprintf(line, sizeof(line), "checksum 0x%016lx\n", HashBytes(body));
    return body + line;
}

TEST(Message, RoundTrips) {
    std::string every_byte;
    for (int c = 1; c < 256; ++c) every_byte.push_back(static_cast<char>(c));
    Guids guids{1, 0x0200000000a1b2c0, UINT64_MAX};
    Guids none;
    for (const std::string& key : {every_byte, std::string(), std::string(256, '\\'), std::string(256, '\x01')}) {
        for (Guids* list : {&guids, &none}) {
            const vesk_reservation_info info = Record(key, *list);
            const std::string text = Pack(&info);
            EXPECT_EQ(text.find('\0'), std::string::npos);
            EXPECT_EQ(Unpack(text), Describe(info));
            EXPECT_EQ(Unpack(text, 17), "bad");
            EXPECT_EQ(Pack(&info, 15), "");
        }
    }
    EXPECT_GE(Pack(nullptr).size(), 16u);
    EXPECT_EQ(Unpack(Pack(nullptr)), "no record");

    vesk_reservation_info info = Record("K", guids);
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
        "a\\\\b>a\\b|a\\\\b>a\\x5cb|a\\\\b>a\\x61|a\\\\b>a\\x00|a\\\\b>a\x02|\\x01>\\x1|\\x01>\\|a\\\\b>" +
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
}

// One start-up over a directory in which every file is a reservation's with one byte changed, cut off or appended.
TEST(Load, RefusesAFileDamagedAnywhere) {
    TestDaemon daemon;
    Guids guids{3, 0xabcdef0123456789};
    const vesk_reservation_info info = Record("K", guids);
    const std::string good = Pack(&info);
    size_t num_files = 0;
    const auto write = [&](const std::string& text) { Write(daemon.PathOf(std::to_string(num_files++)), text); };
    for (size_t at = 0; at < good.size(); ++at) {
        std::string text = good;
        const char byte = good[at];
        for (const int other : {0, byte ^ 0x01, byte ^ 0x20, byte ^ 0x80, byte ^ 0xff}) {
            text[at] = static_cast<char>(other);
            EXPECT_EQ(Unpack(text), "bad") << at;
            write(text);
        }
        EXPECT_EQ(Unpack(good.substr(0, at)), "bad") << at;
        write(good.substr(0, at));
    }
    for (int byte = 0; byte < 256; ++byte) write(good + static_cast<char>(byte));
    write(good + good);
    Write(daemon.PathOf("good"), good);
    log_set_level(2);

    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(daemon.FileNames(), " good");
    EXPECT_EQ(daemon.manager->reservations.size(), 1u);
    const std::string records = daemon.Take();    // each ends in two newlines
    EXPECT_EQ(static_cast<size_t>(std::count(records.begin(), records.end(), '\n')), 1 + 2 * num_files);
}

TEST(Load, BringsBackReservationsAndJobs) {
    TestDaemon daemon;
    daemon.options.max_jobs_per_hca = 4;
    daemon.options.reservation_default_num_trees = 100;
    daemon.Create("A", {1, 2}, {7, 6, 5, 4, 3, 2, 1}, 0x8001);
    daemon.Create("B", {3}, TreesLimit(50));
    daemon.Create("C", {0xfffffffffffffffe, 5});
    daemon.Delta("C", {}, {5, 0xfffffffffffffffe});
    daemon.Create(std::string(243, 'k'), {6});
    daemon.Create("D", {9});
    fs::rename(daemon.PathOf("D"), daemon.PathOf("named.otherwise"));
    auto& keys_by_id = daemon.manager->reservation_keys_by_id;
    keys_by_id.erase(daemon.Reservation("B").reservation_id);
    daemon.manager->SetReservationId(*daemon.manager->reservations.at("B"), 77);
    daemon.Admit(1, "A", {1, 2}, 2, 3);
    daemon.Admit(2, "B", {3});
    daemon.Run(3, "B", {3, 1});    // spans two reservations
    const std::string before = daemon.State();
    daemon.Restart();
    daemon.Take();

    daemon.manager->ReadPersistentReservationInfoFiles();
    const std::string records = daemon.Take();
    EXPECT_EQ(daemon.State(), before);
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_NE(records.find("\nerror B_3 8 0 0 0\nend B_3\n"), std::string::npos);
    EXPECT_EQ(records.find("created"), std::string::npos);

    // Once in a process.
    daemon.Restart();
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(daemon.Take(), "\n");
}

TEST(Load, DeletesBadFilesAndGoesOn) {
    TestDaemon daemon;
    Guids guids{1};
    const vesk_reservation_info info = Record("K", guids);
    Write(daemon.PathOf(""), "");
    Write(daemon.PathOf("15"), "vesk_reservatio");
    Write(daemon.PathOf("16"), "vesk_reservation");
    Write(daemon.PathOf("no-record"), Pack(nullptr));
    Write(daemon.PathOf("zz"), Pack(&info));
    Write(daemon.options.persistent_dir + "/reservation", "not ours");
    Write(daemon.options.persistent_dir + "/xreservation.K", "not ours");
    fs::create_directory(daemon.PathOf("directory"));
    fs::create_symlink("nowhere", daemon.PathOf("dangling"));
    daemon.manager->ReadPersistentReservationInfoFiles();

    EXPECT_EQ(daemon.FileNames(), " reservation dangling directory zz xreservation.K");
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(Describe(daemon.Reservation("K").info), Describe(info));
    const std::string records = daemon.Take();
    for (const char* expected :
         {"\n1 BuildDataFromReservationFile: Size of reservation file is too low[0], file: DIR/reservation.\n\n3 "
          "DeleteFile: ",
          "\n1 BuildDataFromReservationFile: Size of reservation file is too low[15], file: DIR/reservation.15\n\n",
          "\n1 BuildDataFromReservationFile: Reservation file UNPACK failed: DIR/reservation.16\n\n",
          "\n2 ReadPersistentReservationInfoFiles: No data in reservation file DIR/reservation.no-record\n3 "
          "DeleteFile: ",
          "\n1 BuildDataFromReservationFile: Reservation file DIR/reservation.dangling could not be opened - No such "
          "file "}) {
        EXPECT_NE(records.find(expected), std::string::npos) << expected << "not in " << records;
    }
}

TEST(Load, KeepsTheFirstOfTwoFilesWithOneKeyOrGuid) {
    TestDaemon daemon;
    Guids one{1}, two{2};
    const vesk_reservation_info first = Record("K", one), second = Record("K", two);
    Write(daemon.PathOf("x"), Pack(&first));
    Write(daemon.PathOf("y"), Pack(&second));
    daemon.Run(1, "K", {1});
    daemon.Run(2, "K", {2});
    daemon.manager->ReadPersistentReservationInfoFiles();
    const std::string ignored = daemon.Reservation("K").info.guids[0] == 1 ? "DIR/reservation.y" : "DIR/reservation.x";
    const std::string records = daemon.Take();
    const size_t at = records.find("\n2 ReadPersistentReservationInfoFiles: ");
    ASSERT_NE(at, std::string::npos) << records;
    EXPECT_NE(records.find(ignored, at), std::string::npos) << records;
    EXPECT_NE(records.find(": K\n", at), std::string::npos) << records;
    EXPECT_EQ(daemon.FileNames(), " x y");
    EXPECT_EQ(RegistryFault(*daemon.manager), "");
    EXPECT_EQ(daemon.RunningJobs().size(), 1u);    // the first file ended the job that does not fit, the second none

    // A GUID that two reservations list stays with the first; whichever is deleted takes the GUID's entry along.
    Guids held{daemon.Reservation("K").info.guids[0]};
    const vesk_reservation_info other = Record("L", held);
    daemon.manager->InternalCreateNewReservation(new ReservationInfo(&other));
    EXPECT_EQ(RegistryFault(*daemon.manager, false), "");
    EXPECT_EQ(daemon.manager->hca_infos.at(held[0]).reservation, &daemon.Reservation("K"));
    EXPECT_EQ(daemon.Delete("L"), 0u);
    EXPECT_TRUE(daemon.manager->hca_infos.empty());
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
    EXPECT_EQ(daemon.manager->reservations.size(), 1u);
    EXPECT_TRUE(daemon.manager->reservations.contains("fits"));
    EXPECT_NE(daemon.Take().find("\n2 ReadPersistentReservationInfoFiles: "), std::string::npos);
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.manager->DeleteAllPersistentReservationFiles();
    daemon.options.persistent_dir = dir;
    EXPECT_EQ(daemon.FileNames(), " ab");
}

TEST(Load, DeletesUnreadWhenToldTo) {
    TestDaemon daemon;
    daemon.options.load_persistent_reservations = false;
    daemon.Create("K", {1});
    Write(daemon.options.persistent_dir + "/other", "");
    daemon.Restart();
    daemon.Take();
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(daemon.FileNames(), " other");
    EXPECT_EQ(daemon.Take(), R"(
3 ReadPersistentReservationInfoFiles: Checking persistent directory for reservation files

3 DeleteFile: Delete file at DIR/reservation.K

)");
}

TEST(Load, WorksWithoutReservationModeAndEndsItsJobs) {
    TestDaemon daemon;
    daemon.Create("K", {1});
    daemon.Admit(4, "K", {1});
    daemon.Restart();
    daemon.options.reservation_mode = false;
    daemon.Take();
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(daemon.Take(), R"(
3 ReadPersistentReservationInfoFiles: Checking persistent directory for reservation files

3 BuildDataFromReservationFile: parsing reservation file DIR/reservation.K

3 GetReservationByJob: Reservation mode not enabled
2 HandleAlreadyRunningJobs: Detected a mismatch of reservations for external_job_id K_4. Ending the job.
error K_4 8 0 0 0
end K_4 accounted
3 InternalCreateNewReservation: Reservation with key=K, id=#K, allocated with 1 guids, num trees limit: no limit
)");
}

TEST(Load, IsDecidedByItsFirstCall) {
    TestDaemon daemon;
    daemon.Create("K", {1});
    daemon.Restart();
    daemon.Take();
    daemon.options.reservation_auto_by_pkeys = true;
    daemon.manager->ReadPersistentReservationInfoFiles();
    daemon.options.reservation_auto_by_pkeys = false;
    daemon.manager->ReadPersistentReservationInfoFiles();
    EXPECT_EQ(daemon.Take(), "\n");
    EXPECT_EQ(daemon.FileNames(), " K");
}

TEST(Purge, DeletesOnlyInTheAutomaticMode) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    daemon.Create("K", {1});
    Write(dir + "/other", "");
    daemon.Take();
    const auto purge = [&](bool mode, bool auto_by_pkeys) {
        daemon.options.reservation_mode = mode;
        daemon.options.reservation_auto_by_pkeys = auto_by_pkeys;
        daemon.manager->DeleteAllPersistentReservationFiles();
    };
    purge(true, false);
    purge(false, true);
    log_set_level(4);
    purge(true, true);
    EXPECT_EQ(daemon.FileNames(), " other");
    for (const char* no_directory : {"/missing", "/other"}) {
        daemon.options.persistent_dir = dir + no_directory;
        purge(true, true);
    }
    daemon.options.persistent_dir = dir;
    // What cannot be opened stays, but counts.
    fs::create_symlink("nowhere", daemon.PathOf("L"));
    purge(true, true);
    EXPECT_EQ(daemon.FileNames(), " other L");
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
3 DeleteAllPersistentReservationFiles: Deleting all persistent reservation files from directory: DIR

4 DeleteAllPersistentReservationFiles: Deleted reservation file: DIR/reservation.L
3 DeleteAllPersistentReservationFiles: Deleted 1 persistent reservation files
)");
}

TEST(Store, WritesWholeFilesAndLogsWhatItCannot) {
    TestDaemon daemon;
    const std::string dir = daemon.options.persistent_dir;
    const std::string long_key(256, 'k');
    Write(daemon.PathOf("K"), std::string(5000, 'x'));
    fs::create_symlink("/dev/full", daemon.PathOf("full"));
    log_set_level(2);
    daemon.options.persistent_dir += "/";
    EXPECT_EQ(daemon.Create("K", {1}), 0u);
    daemon.options.persistent_dir = dir;
    EXPECT_EQ(fs::file_size(daemon.PathOf("K")), Pack(&daemon.Reservation("K").info).size());
    EXPECT_EQ(daemon.Create("full", {2}), 0u);
    EXPECT_EQ(daemon.Create("a/b", {3}), 0u);
    EXPECT_EQ(daemon.Create(long_key, {4}), 0u);    // longer than a file's name may be
    EXPECT_TRUE(daemon.manager->reservations.contains(long_key));
    std::string records = daemon.Take();
    for (const std::string& expected : {std::string("Failed to write to File DIR/reservation.full\n\n"),
                                        std::string("File DIR/reservation.a/b could not be opened\n\n"),
                                        "File DIR/reservation." + long_key + " could not be opened\n\n"}) {
        EXPECT_NE(records.find("\n2 CreateReservationInfoFile: " + expected), std::string::npos) << records;
    }

    // A key may name a file in a directory below.
    fs::create_directory(daemon.PathOf("a"));
    daemon.Delta("a/b", {7}, {});
    EXPECT_TRUE(fs::exists(daemon.PathOf("a/b")));
    daemon.Delete("a/b");
    EXPECT_FALSE(fs::exists(daemon.PathOf("a/b")));

    // A record that cannot be packed leaves an empty file. Replacing is deleting and writing; deleting nothing is
    // silent.
    vesk_reservation_info bad{"bad", 1, 1, 1, nullptr, {}, 0};
    fs::remove(daemon.PathOf("full"));
    daemon.Take();
    log_set_level(3);
    daemon.manager->CreateReservationInfoFile(bad, dir);
    EXPECT_EQ(fs::file_size(daemon.PathOf("bad")), 0u);
    bad.num_guids = 0;
    daemon.manager->UpdateReservationInfoFile(bad, dir);
    daemon.manager->DeleteReservationInfoFile(Record("unknown", daemon.sent_guids), dir);
    EXPECT_EQ(fs::file_size(daemon.PathOf("bad")), Pack(&bad).size());
    EXPECT_EQ(daemon.Take(), R"(
1 CreateReservationInfoFile: Create reservation info file failed DIR/reservation.bad

3 DeleteFile: Delete file at DIR/reservation.bad

)");
}

}    // namespace
