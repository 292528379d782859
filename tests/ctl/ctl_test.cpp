// The control program's own work: lists of GUIDs, declarations, the plan of steps, refusals and tables in words.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ctl/apply_plan.h"
#include "ctl/declaration.h"
#include "ctl/describe.h"
#include "ctl/errors.h"
#include "ctl/guid_list.h"
#include "ctl/refusal.h"
#include "util/text.h"

namespace reservationctl {
namespace {

namespace v1 = reservation::v1;

// The message of the UsageError that the operation throws.
template <typename Operation>
std::string FaultOf(Operation operation) {
    try {
        operation();
    } catch (const UsageError& error) {
        return error.what();
    }
    return "none";
}

// What a daemon holds, as far as plans go: it refuses to let one reservation take the GUIDs of another.
class Model {
public:
    explicit Model(const Reservations& reservations) : reservations_(reservations) {}

    const Reservations& Listing() const { return reservations_; }

    // Returns whether the request is carried out.
    bool CarryOut(const v1::CreateReservationRequest& request) {
        if (Find(request.key()) != reservations_.end() || request.guids().empty()) return false;
        v1::Reservation& reservation = *reservations_.Add();
        reservation.set_key(request.key());
        reservation.set_pkey(request.pkey());
        if (request.has_limits()) *reservation.mutable_limits() = request.limits();
        return Take(reservation, request.guids());
    }

    bool CarryOut(const v1::UpdateReservationRequest& request) {
        const auto found = Find(request.key());
        if (found == reservations_.end()) return false;
        auto& guids = *found->mutable_guids();
        for (const uint64_t guid : request.remove_guids()) {
            const auto held = std::find(guids.begin(), guids.end(), guid);
            if (held == guids.end()) return false;
            guids.erase(held);
        }
        return Take(*found, request.add_guids());
    }

    bool CarryOut(const v1::DeleteReservationRequest& request) {
        const auto found = Find(request.key());
        if (found == reservations_.end()) return false;
        reservations_.erase(found);
        return true;
    }

private:
    bool Take(v1::Reservation& reservation, const google::protobuf::RepeatedField<uint64_t>& guids) const {
        std::set<uint64_t> held;
        for (const v1::Reservation& other : reservations_) held.insert(other.guids().begin(), other.guids().end());
        reservation.mutable_guids()->MergeFrom(guids);
        return std::none_of(guids.begin(), guids.end(), [&](uint64_t guid) { return held.contains(guid); });
    }

    Reservations::iterator Find(const std::string& key) {
        const auto has_key = [&](const v1::Reservation& reservation) { return reservation.key() == key; };
        return std::find_if(reservations_.begin(), reservations_.end(), has_key);
    }

    Reservations reservations_;
};

Reservations Parse(const std::string& reservations) {
    return ParseDeclaration("{\"reservations\": [" + reservations + "]}", "test");
}

// The steps in words, carried out one by one; those that wait are marked.
std::string PlanAndCarryOut(Model& model, const Reservations& wanted) {
    std::string text = "\n";
    for (const Step& step : PlanChanges(model.Listing(), wanted)) {
        text += (step.waits ? "then " : "") + Describe(step) + "\n";
        EXPECT_TRUE(std::visit([&](const auto& request) { return model.CarryOut(request); }, step.request)) << text;
    }
    return text;
}

TEST(GuidListTest, ReadsWhatPeopleWriteAndFoldsItAgain) {
    const std::string path = testing::TempDir() + "ctl_test_guids";
    std::ofstream(path) << "# hosts of rack 7\n0x30-0x31, 50 # 0x32\n\n0200:0000:00a1:b2c0\r\n";
    std::istringstream input("0x40\n0x41");
    GuidList guids = ReadGuids({"0x10-0x12,19", "-", "@" + path}, "--guids", input);
    EXPECT_EQ(guids.size(), 10U);
    std::sort(guids.begin(), guids.end());
    EXPECT_EQ(FoldGuids(guids), "0x10-0x13,0x30-0x32,0x40-0x41,0x200000000a1b2c0");
    EXPECT_EQ(FoldGuids(guids, 21), "0x10-0x13,0x30-0x32,... (3 more)");
    EXPECT_EQ(FaultOf([&] { ReadGuids({"-"}, "--add", input); }), "--add: standard input has been read already");

    GuidList last;
    ParseGuids("0xfffffffffffffffe-18446744073709551615", "", last);
    EXPECT_EQ(FoldGuids(last), "0xfffffffffffffffe-0xffffffffffffffff");
    EXPECT_EQ(FoldGuids({}), "");
}

TEST(GuidListTest, NamesTheItemAndTheLineAtFault) {
    const std::string path = testing::TempDir() + "ctl_test_faulty_guids";
    std::ofstream(path) << "0x30\n0x31,zz-2\n";
    std::istringstream input;
    EXPECT_EQ(FaultOf([&] { ReadGuids({"@" + path}, "--guids", input); }),
              path + ":2: 'zz-2' is not a GUID or a range of GUIDs, such as 0x1f, 31 or 0x10-0x1f");
    EXPECT_EQ(FaultOf([&] { ReadGuids({"@/nowhere"}, "--guids", input); }), "--guids: /nowhere cannot be opened");
    for (const char* item : {"0x", "-3", "3-", "1-2-3", "0x1g", "1.5", "+1", "18446744073709551616", "@x", "a:b:c:d",
                             "0200:0000:00a1b:2c0", "0", "0-5", "5-4", "1-0xffffffffffffffff"}) {
        EXPECT_EQ(FaultOf([&] { ReadGuids({std::string("1,") + item}, "--add", input); }).find("--add: '"), 0U) << item;
    }
}

TEST(DeclarationTest, RefusesWhatCannotBecomeTrue) {
    for (const auto& [text, fault] : std::vector<std::pair<std::string, std::string>>{
             {R"({"key": "a"})", "test: reservation 1 (a): has no member \"guids\""},
             {R"({"guids": [1]})", "test: reservation 1: has no key"},
             {R"({"key": "a", "guids": [1]}, {"key": "b", "pkey": "0x10000", "guids": []})",
              "test: reservation 2 (b): '0x10000' is not a number from 0 to 65535"},
             {R"({"key": "a", "guids": ["1-5"]}, {"key": "b", "guids": [7, "0x5"]})",
              "test: GUID 0x5 of reservation b is there already, in reservation a"},
             {R"({"key": "a", "guids": [1]}, {"key": "a", "guids": [2]})", "test: reservation a is there twice"},
             {R"({"key": "a", "guids": [1], "pky": 1})", "test: reservation 1 (a): pky: Cannot find field."}}) {
        EXPECT_EQ(FaultOf([&text = text] { Parse(text); }), fault);
    }
    EXPECT_EQ(FaultOf([] { ParseDeclaration("{\"reservations\": [],\n oops}", "f"); }).find("f: parse error at line 2"),
              0U);
    EXPECT_NE(FaultOf([] { ParseDeclaration(R"({"status": "STATUS_MODE_DISABLED", "reservations": []})", "f"); }),
              "none");
}

TEST(PlanTest, MovesGuidsWithoutTakingOneThatIsHeld) {
    Model model(Parse(R"({"key": "A", "pkey": 1, "guids": ["1-4"]}, {"key": "B", "pkey": 1, "guids": ["5-8"]},
                         {"key": "C", "pkey": 1, "guids": ["9-10"]}, {"key": "D", "pkey": 1, "guids": ["11-12"]},
                         {"key": "E", "pkey": 1, "guids": [13], "limits": {"numTrees": 4}})"));
    const Reservations wanted = Parse(R"(
        {"key": "A", "pkey": 1, "guids": ["5-8"]},
        {"key": "B", "pkey": 1, "guids": ["1-4", 9]},
        {"key": "D", "pkey": "0x2", "guids": ["11-12"]},
        {"key": "E", "pkey": 1, "guids": [14], "limits": {"num_trees": 4, "limit0": 4294967295}},
        {"key": "F", "pkey": 1, "guids": [10, 15]},
        {"key": "G", "pkey": 1, "guids": [16], "limits": {"numTrees": 2}},
        {"key": "H", "pkey": 1, "guids": []})");
    EXPECT_EQ(PlanAndCarryOut(model, wanted), R"(
change A: remove 4 GUIDs (0x1-0x4)
change B: remove 4 GUIDs (0x5-0x8)
change E: remove 1 GUID (0xd), add 1 GUID (0xe)
delete C
delete D, because its pkey becomes 0x2 instead of 0x1
then change A: add 4 GUIDs (0x5-0x8)
then change B: add 5 GUIDs (0x1-0x4,0x9)
then create D: pkey 0x2, limits none, 2 GUIDs (0xb-0xc)
then create F: pkey 0x1, limits none, 2 GUIDs (0xa,0xf)
create G: pkey 0x1, limits num_trees=2, 1 GUID (0x10)
create H: pkey 0x1, limits none, 1 GUID (0x11), because nothing is created without GUIDs
then change H: remove 1 GUID (0x11)
)");
    EXPECT_EQ(PlanAndCarryOut(model, wanted), "\n");
}

// Every arrangement of four GUIDs in two reservations becomes every other one.
TEST(PlanTest, ReachesEveryArrangementAndThenHasNothingToDo) {
    constexpr int kNumArrangements = 81;    // each GUID in A, in B, or free
    const auto arrangement = [](int number) {
        std::map<int, std::string> guids;
        for (int guid = 1; guid <= 4; ++guid, number /= 3) {
            std::string& list = guids[number % 3];
            list += (list.empty() ? "" : ",") + std::to_string(guid);
        }
        const std::string pkey = guids[0].size() > 3 ? "2" : "1";
        return Parse(R"({"key": "A", "pkey": 1, "guids": [)" + guids[1] + R"(]}, {"key": "B", "pkey": )" + pkey +
                     R"(, "guids": [)" + guids[2] + "]}");
    };
    for (int from = 0; from < kNumArrangements; ++from) {
        for (int to = 0; to < kNumArrangements; ++to) {
            Model model(arrangement(from));
            PlanAndCarryOut(model, arrangement(to));
            ASSERT_EQ(PlanAndCarryOut(model, arrangement(to)), "\n") << from << " to " << to;
        }
    }
}

TEST(DescribeTest, AlignsTablesAndKeepsControlCharactersOut) {
    Reservations reservations = Parse(R"({"key": "größe", "pkey": "0x8001", "guids": ["1-100"]},
                                         {"key": "b\u001b[2J", "pkey": 1, "guids": []})");
    reservations[0].set_max_trees(24575);
    reservations[1].set_max_trees(4);
    reservations[1].set_used_trees(3);
    EXPECT_EQ(DescribeInTable(reservations),
              "KEY         PKEY  HCAS           TREES  JOBS  GUIDS\n"
              "größe     0x8001   100  0 of unlimited     0  0x1-0x64\n"
              "b\\x1b[2J     0x1     0          3 of 4     0\n");
}

TEST(DescribeTest, TellsWhatARefusalRanInto) {
    v1::ReservationReply reply;
    EXPECT_FALSE(IsCarriedOut(reply));    // ignored: there is no entry with a state
    EXPECT_NE(DescribeRefusal(reply).find("reservation-auto-by-pkeys"), std::string::npos);
    reply.add_reservations()->set_state(1);
    EXPECT_TRUE(IsCarriedOut(reply));

    reply.set_status(v1::STATUS_GUIDS_USED_BY_JOB);
    reply.set_status_name("STATUS_GUIDS_USED_BY_JOB");
    reply.mutable_conflict()->set_guid(0x10);
    reply.mutable_conflict()->set_reservation_key("A");
    reply.mutable_conflict()->add_job_ids(7);
    EXPECT_FALSE(IsCarriedOut(reply));
    EXPECT_NE(DescribeRefusal(reply).find("GUID 0x10, reservation A, job 7\n"), std::string::npos);
}

TEST(TextTest, KnowsUtf8) {
    for (const char* text : {"", "plain", "gr\xc3\xb6\xc3\x9f", "\xe2\x82\xac", "\xf0\x9f\x98\x80"})
        EXPECT_TRUE(util::IsUtf8(text));
    for (const char* text : {"\xff", "\xc3", "a\x80", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82"})
        EXPECT_FALSE(util::IsUtf8(text));
}

}    // namespace
}    // namespace reservationctl
