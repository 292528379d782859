// What a start makes of store, journal and files: a table.

#include "daemon/engine/recovery.h"

#include <absl/strings/str_cat.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "daemon/state/packed_record.h"

namespace reservationd {
namespace {

// "A 1 2": the record of reservation A with GUIDs 1 and 2, packed. Any other text stands for itself.
std::string Pack(const std::string& text) {
    std::istringstream words(text);
    vesk_reservation_info info{};
    std::string key;
    words >> key;
    vesk_copy_key(info.reservation_key, key.c_str());
    std::vector<uint64_t> guids;
    for (uint64_t guid = 0; words >> guid;) guids.push_back(guid);
    if (guids.empty()) return text;
    info.num_guids = static_cast<uint32_t>(guids.size());
    info.guids = guids.data();
    return PackRecord(info);
}

struct File {
    std::string key_in_name;
    std::string text;    // "/": a directory
    int64_t time;
};

struct Entry {
    std::string key;
    std::string text;
    int64_t time;
    std::string intended_text = "";
};

struct Case {
    const char* what;
    JournalTrust trust;
    std::vector<std::string> stored;
    std::vector<Entry> journal;
    std::vector<File> files;
    std::string expected;
    std::set<std::string> damaged_keys = {};
};

// "read x; take A; aside x: is damaged; write A; remove A; confirm A; ", in this order.
std::string Carried(const Case& test) {
    std::map<std::string, StoredReservation> stored;
    for (const std::string& text : test.stored) stored[text.substr(0, text.find(' '))] = {Pack(text), 1};
    std::map<std::string, JournalEntry> journal;
    for (const Entry& entry : test.journal) {
        const std::string text = Pack(entry.text);
        JournalEntry& made = journal[entry.key] = {{text.size(), entry.time}, ChecksumOfText(text), std::nullopt};
        if (!entry.intended_text.empty()) made.intended_checksum = ChecksumOfText(Pack(entry.intended_text));
    }
    std::vector<FoundFile> files;
    std::map<std::string, std::string> texts;
    for (const File& file : test.files) {
        const std::string name = FileNameOf(file.key_in_name);
        texts[name] = Pack(file.text);
        files.push_back({name, {texts[name].size(), file.time}, file.text != "/"});
    }
    std::string steps;
    const auto read = [&](const FoundFile& file) -> absl::StatusOr<std::string> {
        absl::StrAppend(&steps, "read ", KeyInFileName(file.name), "; ");
        return texts[file.name];
    };
    const RecoveryPlan plan = PlanRecovery({stored, test.damaged_keys, journal, test.trust, files, read});
    for (const auto& [key, packed] : plan.taken) absl::StrAppend(&steps, "take ", key, "; ");
    for (const FileToSetAside& file : plan.set_aside) {
        absl::StrAppend(&steps, "aside ", KeyInFileName(file.name), ": ", file.reason, "; ");
    }
    for (const std::string& key : plan.keys_to_write) absl::StrAppend(&steps, "write ", key, "; ");
    for (const std::string& key : plan.keys_to_remove) absl::StrAppend(&steps, "remove ", key, "; ");
    for (const auto& [key, entry] : plan.confirmed) absl::StrAppend(&steps, "confirm ", key, "; ");
    return steps;
}

TEST(RecoveryTest, TheStoreIsTheTruthAndAnOperatorsGoodFileIsTaken) {
    constexpr auto kFull = JournalTrust::kFull;
    constexpr auto kDied = JournalTrust::kMachineDied;
    constexpr auto kNone = JournalTrust::kNone;
    const Case cases[] = {
        {"files as the daemon left them are not read", kFull, {"A 1"}, {{"A", "A 1", 1}}, {{"A", "A 1", 1}}, ""},
        {"a file older than the store", kFull, {"A 1 2"}, {{"A", "A 1", 1}}, {{"A", "A 1", 1}}, "write A; "},
        {"a file that is gone", kFull, {"A 1"}, {{"A", "A 1", 1}}, {}, "write A; "},
        {"a file of a deleted reservation", kFull, {}, {{"A", "A 1", 1}}, {{"A", "A 1", 1}}, "remove A; "},
        {"what is left of one", kFull, {}, {{"A", "A 1", 1}}, {}, "remove A; "},
        {"a file written before the daemon could note it",
         kFull,
         {"A 1 2 3"},
         {{"A", "A 1", 1, "A 1 2"}},
         {{"A", "A 1 2", 2}},
         "read A; write A; "},
        {"a file that was touched", kFull, {"A 1"}, {{"A", "A 1", 1}}, {{"A", "A 1", 2}}, "read A; confirm A; "},
        {"an operator's file", kFull, {"A 1"}, {{"A", "A 1", 1}}, {{"A", "A 1 7", 9}}, "read A; take A; write A; "},
        {"one of a reservation that the daemon has changed since",
         kFull,
         {"A 1 2"},
         {{"A", "A 1", 1, "A 1 2"}},
         {{"A", "A 7", 9}},
         "read A; take A; write A; "},
        {"a new one, under another name", kFull, {}, {}, {{"x", "A 1", 1}}, "read x; take A; write A; remove x; "},
        {"two with one key",
         kFull,
         {},
         {},
         {{"x", "A 1", 1}, {"y", "A 2", 1}},
         "read x; read y; take A; aside y: holds reservation A, which has a file of its own; write A; remove x; "},
        {"one more of a stored reservation",
         kFull,
         {"A 1"},
         {{"A", "A 1", 1}},
         {{"A", "A 1", 1}, {"x", "A 2", 1}},
         "read x; aside x: holds reservation A, which has a file of its own; "},
        {"GUIDs of another reservation",
         kFull,
         {"A 1"},
         {{"A", "A 1", 1}},
         {{"A", "A 1", 1}, {"B", "B 1 2", 1}},
         "read B; aside B: gives reservation B the GUID 0x1, which reservation A has; "},
        {"a GUID that goes from one to the other",
         kFull,
         {"A 1", "B 2"},
         {},
         {{"A", "A 1 2", 1}, {"B", "B 3", 1}},
         "read A; read B; take A; take B; write A; write B; "},
        {"one that cannot, as the other file is refused",
         kFull,
         {"A 1", "B 2", "C 4"},
         {},
         {{"A", "A 1 2", 1}, {"B", "B 4", 1}, {"C", "C 4", 1}},
         "read A; read B; read C; aside B: gives reservation B the GUID 0x4, which reservation C has; "
         "aside A: gives reservation A the GUID 0x2, which reservation B has; write A; write B; confirm C; "},
        {"files that no reservation is in",
         kFull,
         {"d 1"},
         {},
         {{"README", "text", 1},
          {"a", "a 2 1", 1},
          {"b", "b 1 1", 1},
          {"c", "c 0 1", 1},
          {"d", "/", 1},
          {"e", "a/b 1", 1}},
         "read README; read a; read b; read c; read e; aside README: is damaged; "
         "aside a: holds GUIDs that are repeated or not ascending; aside b: holds GUIDs that are repeated or not "
         "ascending; aside c: holds GUID 0; aside d: is not a regular file; aside e: holds a key that contains a "
         "slash; "
         "write d; "},
        {"after a loss of power every file is read",
         kDied,
         {"A 1", "B 2", "C 3"},
         {{"A", "A 1", 1}, {"B", "B 5", 1}, {"C", "C 3", 1}},
         {{"A", "A 1", 1}, {"B", "B 5", 1}, {"C", "C 6", 1}, {"D", "D 4", 1}},
         "read A; read B; read C; read D; aside C: differs from the store, and may be older: reservation C; "
         "aside D: differs from the store, and may be older: reservation D; write B; write C; confirm A; "},
        {"without a journal, too",
         kNone,
         {"A 1", "B 2"},
         {{"B", "B 5", 1}},
         {{"A", "A 1", 1}, {"B", "B 5", 1}, {"C", "C 3", 1}},
         "read A; read B; read C; take C; aside B: differs from the store, and may be older: reservation B; "
         "write B; write C; confirm A; "},
        {"a reservation damaged in the store comes back from its file",
         kFull,
         {},
         {{"A", "A 1", 1}, {"B", "B 2", 1}},
         {{"A", "A 1", 1}},
         "read A; take A; write A; remove B; ",
         {"A", "B"}},
    };
    for (const Case& test : cases) EXPECT_EQ(Carried(test), test.expected) << test.what;
}

}    // namespace
}    // namespace reservationd
