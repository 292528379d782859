// The control program in this process, with a daemon of its own: what it prints, asks and refuses.

#include <fnmatch.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ctl/command_line.h"
#include "ctl/describe.h"
#include "tests/files.h"
#include "tests/programs/program.h"

namespace reservationctl {
namespace {

namespace v1 = reservation::v1;

// Standard input that somebody types when the program asks for it, after something else has happened.
class Typist : public std::stringbuf {
public:
    Typist(std::string text, std::function<void()> meanwhile)
        : text_(std::move(text)), meanwhile_(std::move(meanwhile)) {}

private:
    int_type underflow() override {
        if (meanwhile_) std::exchange(meanwhile_, nullptr)();
        if (!text_.empty()) str(std::exchange(text_, ""));
        return std::stringbuf::underflow();
    }

    std::string text_;
    std::function<void()> meanwhile_;
};

std::string Replaced(const std::string& text, const std::string& what, const std::string& with) {
    return std::regex_replace(text, std::regex(what), with);
}

class CtlTest : public testing::Test {
protected:
    CtlTest() {
        Start("--reservation-allow-ending-jobs");
        setenv("RESERVATIOND_ADDRESS", ("unix:" + dir_.path() + "/socket").c_str(), 1);
    }

    void Start(const std::string& option) {
        daemon_.reset();
        const std::string dir = dir_.path();
        daemon_ = std::make_unique<Program>(std::vector<std::string>{RESERVATIOND, "--config", "/dev/null",
                                                                     "--persistent-dir", dir + "/state", "--socket",
                                                                     dir + "/socket", "--reservation-mode", option});
        daemon_->WaitFor(" serves ");
    }

    void WriteFile(const std::string& name, const std::string& text) const { Write(dir_.path() + "/" + name, text); }

    void Declare(const std::string& name, const std::string& reservations) const {
        WriteFile(name, "{\"reservations\": [" + reservations + "]} // a comment");
    }

    // What the command prints, with DIR for the test's directory, and its exit status when that is not 0.
    std::string Ctl(const std::string& command, const std::string& input = "",
                    const std::function<void()>& meanwhile = nullptr) const {
        std::istringstream words(Replaced(command, "DIR", dir_.path()));
        std::vector<std::string> arguments(std::istream_iterator<std::string>(words), {});
        std::vector<const char*> argv{"reservationctl"};
        for (const std::string& argument : arguments) argv.push_back(argument == "''" ? "" : argument.c_str());
        Typist typist(input, meanwhile);
        std::ostringstream output;
        std::streambuf* const before[] = {std::cin.rdbuf(&typist), std::cout.rdbuf(output.rdbuf()),
                                          std::cerr.rdbuf(output.rdbuf())};
        const auto status = static_cast<int>(RunCommandLine(static_cast<int>(argv.size()), argv.data()));
        std::cin.rdbuf(before[0]);
        std::cout.rdbuf(before[1]);
        std::cerr.rdbuf(before[2]);
        const std::string text =
            Replaced(Replaced(output.str(), dir_.path(), "DIR"), "(daemon|ended|its reservation): .*", "$1: REASON");
        return Replaced(text, "20\\d\\d-\\d\\d-\\d\\dT[0-9:]{8}Z", "TIME") +
               (status == 0 ? "" : "exit " + std::to_string(status) + "\n");
    }

    // Carries out the commands of a session as a terminal shows it, and expects to see the same.
    void ExpectSession(const std::string& session) const {
        std::istringstream lines(session);
        std::string seen;
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with("$ ")) continue;
            const size_t input = line.find(" <<< ");
            seen += line + "\n" + Ctl(line.substr(2, input - 2), input == line.npos ? "" : line.substr(input + 5));
        }
        EXPECT_EQ(seen, session);
    }

    // `table` has lines "COMMAND => OUTPUT", in which a | stands for a newline and a * for anything. In place of a
    // command there may be reservations, which are declared and applied.
    void ExpectOutputs(const std::string& table) const {
        std::istringstream lines(table);
        for (std::string line; std::getline(lines, line);) {
            const size_t arrow = line.find(" => ");
            std::string command = line.substr(0, arrow);
            if (std::regex_match(command, std::regex("\\{.*|oops|7"))) {
                Declare("declared", std::exchange(command, "apply --yes DIR/declared"));
            }
            const std::string output = Replaced(Ctl(command), "\n", "|");
            EXPECT_EQ(fnmatch(line.substr(arrow + 4).c_str(), output.c_str(), FNM_NOESCAPE), 0) << line << "\n"
                                                                                                << output;
        }
    }

    // The same for commands that end with a message and this status.
    void ExpectFaults(int status, const std::string& table) const {
        const std::string end = "|exit " + std::to_string(status) + "|";
        ExpectOutputs(Replaced(Replaced(table, " => ", " => reservationctl: "), "([^\n])(\n|$)", "$1" + end + "\n"));
    }

    const TemporaryDirectory dir_;
    std::unique_ptr<Program> daemon_;
};

constexpr char kBefore[] = R"({"key": "A", "pkey": 1, "guids": ["1-4"]}, {"key": "B", "pkey": 1, "guids": ["5-8"]},
    {"key": "C", "pkey": 1, "guids": ["9-10"]}, {"key": "D", "pkey": 1, "guids": ["11-12"]},
    {"key": "E", "pkey": 1, "guids": [13], "limits": {"numTrees": 4}}, {"key": "I", "pkey": 1, "guids": [18]},
    {"key": "K", "pkey": 1, "guids": [19], "limits": {"numTrees": 4}})";

constexpr char kAfter[] = R"({"key": "A", "pkey": 1, "guids": ["4-8"]}, {"key": "B", "pkey": 1, "guids": [9, "1-3"]},
    {"key": "D", "pkey": "0x2", "guids": ["11-12"]}, {"key": "F", "pkey": 1, "guids": [10, 15]},
    {"key": "E", "pkey": 1, "guids": [14], "limits": {"num_trees": 4, "limit0": 4294967295}},
    {"key": "G", "pkey": 1, "guids": [16], "limits": {"numTrees": 2, "limit6": 1}},
    {"key": "H", "pkey": 1, "guids": []}, {"key": "I", "pkey": 1, "guids": [18], "autoCreated": true},
    {"key": "K", "pkey": 1, "guids": [19], "limits": {"numTrees": 5}})";

constexpr char kPlan[] = R"(1. change A: remove 3 GUIDs (0x1-0x3)
2. change B: remove 4 GUIDs (0x5-0x8)
3. change E: remove 1 GUID (0xd), add 1 GUID (0xe)
4. delete C
   would end 1 job: 7
5. delete D, because its pkey becomes 0x2 instead of 0x1
6. delete I, because its mark as made from pkeys changes
7. delete K, because its limits change
8. change A: add 4 GUIDs (0x5-0x8)
9. change B: add 4 GUIDs (0x1-0x3,0x9)
10. create D: pkey 0x2, limits none, 2 GUIDs (0xb-0xc)
11. create F: pkey 0x1, limits none, 2 GUIDs (0xa,0xf)
12. create G: pkey 0x1, limits num_trees=2,limit6=1, 1 GUID (0x10)
13. create H: pkey 0x1, limits none, 1 GUID (0x11), because nothing is created without GUIDs
14. change H: remove 1 GUID (0x11)
15. create I: pkey 0x1, limits none, 1 GUID (0x12)
16. create K: pkey 0x1, limits num_trees=5, 1 GUID (0x13)
16 steps, ending 1 job
)";

TEST_F(CtlTest, ApplyShowsItsPlanAsksAndDoesThatOrNothing) {
    Declare("before", kBefore);
    Declare("after", kAfter);
    EXPECT_EQ(Ctl("apply DIR/before", "yes\n").find("exit"), std::string::npos);
    Ctl("job begin 7 --guids 10");
    const std::string before = Ctl("list --json") + Ctl("job list");
    EXPECT_EQ(Ctl("apply DIR/after --dry-run", "y\n"), kPlan);
    EXPECT_EQ(Ctl("apply DIR/after --dry-run --yes"), kPlan);
    for (const char* answer : {"", "\n", "n\n", "Yes?\n"}) {
        EXPECT_EQ(Ctl("apply DIR/after", answer),
                  kPlan + std::string("Carry this out? [y/N] nothing has been changed\nexit 1\n"));
    }
    EXPECT_EQ(Ctl("list --json") + Ctl("job list"), before);

    // What comes in between, while somebody thinks about the answer: a job to be ended, another reservation, and a job
    // that may not be ended.
    const std::string meanwhile =
        "reservationctl: something has changed meanwhile: nothing has been done; run it again (";
    const auto begin_job = [&] { Ctl("job begin 8 --guids 11"); };
    EXPECT_EQ(Ctl("apply DIR/after", "y\n", begin_job),
              kPlan + ("Carry this out? [y/N] " + meanwhile) +
                  "job 8 would be ended, which allowed_consequences do not say)\nexit 7\n");
    Ctl("job end 8");
    EXPECT_EQ(Ctl("list --json") + Ctl("job list"), before);
    const auto take_guid = [&] { Ctl("create J --pkey 1 --guids 16"); };
    EXPECT_EQ(Ctl("apply DIR/after", "Y\n", take_guid),
              kPlan + ("Carry this out? [y/N] " + meanwhile) +
                  "expected_version is 7, but meanwhile the newest event is 8)\nexit 7\n");
    Ctl("delete J");
    EXPECT_EQ(Ctl("apply DIR/after", "Y\n"), kPlan + std::string("Carry this out? [y/N] done\nended 1 job: 7\n"));
    ExpectSession(R"($ apply DIR/after
nothing to change: 9 reservations as declared
$ list
KEY  PKEY  HCAS           TREES  JOBS  GUIDS
A     0x1     5  0 of unlimited     0  0x4-0x8
B     0x1     4  0 of unlimited     0  0x1-0x3,0x9
D     0x2     2  0 of unlimited     0  0xb-0xc
E     0x1     1          0 of 4     0  0xe
F     0x1     2  0 of unlimited     0  0xa,0xf
G     0x1     1          0 of 2     0  0x10
H     0x1     0  0 of unlimited     0
I     0x1     1  0 of unlimited     0  0x12
K     0x1     1          0 of 5     0  0x13
)");
    // A step that is refused is shown, and ends the plan.
    Ctl("job begin 9 --guids 4");
    Start("--reservation-mode");
    const std::string plan =
        "1. change A: remove 1 GUID (0x4)\n2. change B: add 1 GUID (0x4)\n2 steps, ending 0 jobs\n";
    Declare("moved", Replaced(Replaced(kAfter, "4-8", "5-8"), "1-3", "1-4"));
    EXPECT_TRUE(Ctl("apply DIR/moved --yes").starts_with(plan + "step 1 would be refused: STATUS_GUIDS_USED_BY_JOB: "));
    EXPECT_EQ(Ctl("apply - --yes", "{\"reservations\": [" + std::string(kAfter) + "]}"),
              "nothing to change: 9 reservations as declared\n");
}

TEST_F(CtlTest, EveryReplyIsShownInWords) {
    WriteFile("hosts", "# hosts of rack 7\n0x30-0x31, 50 # 0x33\n\n0200:0000:00a1:b2c0\r\n");
    ExpectSession(
        R"($ create größe --pkey 0x8001 --guids 19,0x10-0x12 --guids @DIR/hosts --guids - --num-trees 8 --limit limit0=0 --auto-created <<< 0x40 65 # 66
in force:
KEY      PKEY  HCAS   TREES  JOBS  GUIDS
größe  0x8001    10  0 of 8     0  0x10-0x13,0x30-0x32,0x40-0x41,0x200000000a1b2c0
$ create B --pkey 7 --guids 0x100,0x102,0x104,0x106,0x108,0x10a,0x10c,0x10e,0x110,0x112,0x114 --num-trees 24575 --dry-run
would be in force:
KEY  PKEY  HCAS           TREES  JOBS  GUIDS
B     0x7    11  0 of unlimited     0  0x100,0x102,0x104,0x106,0x108,0x10a,0x10c,0x10e,0x110,0x112,... (1 more)
$ job begin 6 --guids 0x11 --start 1000000000
job 6 admitted to reservation größe, id 9134505343215937736
$ job begin 7 --guids 0x10 --reservation größe
job 7 admitted to reservation größe, id 9134505343215937736
$ job begin 8 --guids 0x10 --start 4000000000
job 8 admitted to reservation größe, id 9134505343215937736
$ job begin 9 --guids 0x10 --start 1000000000
job 9 admitted to reservation größe, id 9134505343215937736
$ job list größe
JOB  RESERVATION  STARTED               PLANES  TREES  COUNTED  HCAS  GUIDS
  6  größe        TIME       1      1  yes         1  0x11
  7  größe        -                          1      1  yes         1  0x10
  8  größe        TIME       1      1  yes         1  0x10
  9  größe        TIME       1      1  yes         1  0x10
$ job reconcile --from - <<< 6 999999999
ended job 9 of größe, started TIME
left 2 jobs alone: unknown to the scheduler, but just begun or without a start time
$ job reconcile --from - --all --min-age 0 --dry-run <<< 6 1000000001
would end job 6 of größe, started TIME
would end job 7 of größe, started -
left 1 job alone: unknown to the scheduler, but just begun or without a start time
$ job end 8 --start 3999999999
job 8 was not running
$ job end 8
job 8 ended
$ job reconcile --from - --all <<< 
ended job 6 of größe, started TIME
ended job 7 of größe, started -
$ job begin 7 --guids 0x10,0x11 --trees 2 --planes 3
job 7 admitted to reservation größe, id 9134505343215937736
$ show größe
key              größe
id               9134505343215937736
state            active
created          TIME
pkey             0x8001
made from pkeys  yes
limits           limit0=0,num_trees=8
trees            6 of 8
jobs             7
HCAs             10
GUIDs            0x10-0x13,0x30-0x32,0x40-0x41,0x200000000a1b2c0
$ update größe --add 0x11
refused: STATUS_DUPLICATE_GUID: a GUID is listed twice, or is to be added and is in the reservation already
  the daemon: REASON
  in the way: GUID 0x11, reservation größe
  what helps: leave that GUID out
exit 1
$ update größe --remove 0x11
in force:
KEY      PKEY  HCAS   TREES  JOBS  GUIDS
größe  0x8001     9  0 of 8     0  0x10,0x12-0x13,0x30-0x32,0x40-0x41,0x200000000a1b2c0
ended 1 job: 7
$ job end 7
job 7 was not running
$ pkeys report 0x10 1 --pkeys none
nothing changed: the HCA is in reservation größe
$ pkeys report 0x11 1 --pkeys 1
nothing changed: the HCA is in no reservation
$ delete größe
deleted:
KEY      PKEY  HCAS   TREES  JOBS  GUIDS
größe  0x8001     9  0 of 8     0  0x10,0x12-0x13,0x30-0x32,0x40-0x41,0x200000000a1b2c0
$ create large --pkey 1 --guids 0x40000-0x80000
in force:
KEY    PKEY    HCAS           TREES  JOBS  GUIDS
large   0x1  262145  0 of unlimited     0  0x40000-0x80000
$ create larger --pkey 1 --guids 0x80001-0xc0001
in force:
KEY     PKEY    HCAS           TREES  JOBS  GUIDS
larger   0x1  262145  0 of unlimited     0  0x80001-0xc0001
$ list
KEY     PKEY    HCAS           TREES  JOBS  GUIDS
large    0x1  262145  0 of unlimited     0  0x40000-0x80000
larger   0x1  262145  0 of unlimited     0  0x80001-0xc0001
$ watch --from 1 --count 5
next event: 1
1  TIME  reservation größe created
2  TIME  job 7 of größe lost its reservation: REASON
3  TIME  job 7 of größe is to be ended: REASON
4  TIME  reservation größe updated
5  TIME  reservation größe removed
)");
}

TEST_F(CtlTest, NodesStandForTheirHcas) {
    WriteFile("nodes", "node[01-06] 0x11-0x16 0x21-0x26\nlogin1 0x1\n");
    Start("--nodes=" + dir_.path() + "/nodes");
    Declare("declared", R"({"key": "A", "pkey": 1, "nodes": "node[03-04]"},
                           {"key": "C", "pkey": 1, "nodes": ["node05", "login1"], "guids": ["0x99"]})");
    ExpectSession(R"($ create A --pkey 1 --nodes node[01-02] --free 2 --among node[04-06],login1 --among node05
picked: node[04-05]
in force:
KEY  PKEY  HCAS           TREES  JOBS  NODES
A     0x1     8  0 of unlimited     0  node[01-02,04-05]
$ create B --pkey 2 --guids 0x13,0x99 --free 1 --dry-run
picked: node06
would be in force:
KEY  PKEY  HCAS           TREES  JOBS  NODES
B     0x2     4  0 of unlimited     0  node06, in part node03, 1 GUID of no node
$ create B --pkey 2 --free 4
refused: STATUS_TOO_FEW_FREE_NODES: too few nodes are free
  the daemon: REASON
  what helps: see 'nodes'; ask for fewer, or among others
exit 1
$ update A --remove-nodes node05 --add-free 1 --remove 0x24
picked: node03
in force:
KEY  PKEY  HCAS           TREES  JOBS  NODES
A     0x1     7  0 of unlimited     0  node[01-03], in part node04
$ create B --pkey 2 --nodes node[05,02]
refused: STATUS_GUID_RESERVED: a GUID belongs to another reservation and may not be taken from it
  the daemon: REASON
  in the way: GUID 0x12 of node node02, reservation A
  what helps: remove the GUID from that reservation first ('update KEY --remove'), or delete it; or turn the daemon's reservation-allow-guid-override on, and reservation-allow-ending-jobs if it has jobs
exit 1
$ update A --remove-nodes node06
refused: STATUS_INVALID_GUIDS: there are no GUIDs, or GUID 0 is among them, or GUIDs to remove are not in the reservation
  the daemon: REASON
  in the way: GUID 0x16 of node node06
  what helps: see 'show KEY' for the reservation's GUIDs
exit 1
$ job begin 7 --nodes node[01-02]
job 7 admitted to reservation A, id 6919333181322027406
$ job begin 8 --nodes node[02,05]
refused: RESULT_NO_RESERVATION: no reservation holds all of the job's HCAs
  the daemon: REASON
  in the way: GUID 0x15 of node node05
  what helps: see 'list' for who holds them, and create a reservation or add them to one
exit 6
$ job list
JOB  RESERVATION  STARTED  PLANES  TREES  COUNTED  HCAS  NODES
  7  A            -             1      1  yes         4  node[01-02]
$ list --no-nodes
KEY  PKEY  HCAS           TREES  JOBS  GUIDS
A     0x1     7  1 of unlimited     1  0x11-0x14,0x21-0x23
$ who node02 0x14-0x15 0x99
NODE    GUID  RESERVATION  PKEY  SINCE                 JOBS
node02  0x12  A             0x1  TIME  7
node02  0x22  A             0x1  TIME  7
node04  0x14  A             0x1  TIME  -
node04  0x24  -               -  -                     -
node05  0x15  -               -  -                     -
node05  0x25  -               -  -                     -
-       0x99  -               -  -                     -
$ job end 7
job 7 ended
$ apply DIR/declared --yes
1. change A: remove 4 GUIDs (0x11-0x12,0x21-0x22), add 1 GUID (0x24)
2. create C: pkey 0x1, limits none, 4 GUIDs (0x1,0x15,0x25,0x99)
2 steps, ending 0 jobs
done
$ nodes
NODE    STATE     HCAS  JOBS  RESERVATIONS
node01  free         2     0
node02  free         2     0
node03  reserved     2     0  A
node04  reserved     2     0  A
node05  reserved     2     0  C
node06  free         2     0
login1  reserved     1     0  C
7 nodes: 3 free, 4 reserved, 0 in part
)");
    EXPECT_NE(Ctl("show C").find("nodes            login1,node05, 1 GUID of no node\n"), std::string::npos);
    WriteFile("backup", Ctl("list --json"));
    EXPECT_EQ(Ctl("apply DIR/backup"), "nothing to change: 2 reservations as declared\n");
    ExpectFaults(2, R"(create D --pkey 1 => one of these is missing: --guids, --nodes, --free
create D --pkey 1 --nodes node[01 => the daemon cannot read the request: nodes 'node[01': at character 5: the bracket is *
update A --add-nodes node01,no => the daemon cannot read the request: add_nodes: node 'no' is not in the daemon's table *
who node9 => the daemon cannot read the request: nodes: node 'node9' is not in the daemon's table of nodes
update A --add-free 1 --among x => the daemon cannot read the request: add_free_nodes.among: node 'x' is not in the *
{"key": "D", "pkey": 1, "nodes": [7]} => DIR/declared: reservation 1 (D): "nodes" is not a string or an array of strings
)");
}

TEST_F(CtlTest, EveryReplyIsShownAsJson) {
    ExpectOutputs(R"(create A --pkey 1 --guids 1 --json => {| "status": "STATUS_SUCCESS",|*}|
create A --pkey 2 --guids 1 --json => {|*"STATUS_PKEY_MISMATCH"*}|refused: STATUS_PKEY_MISMATCH: *|exit 1|
job begin 7 --guids 1 --json => {|*"RESULT_ADMITTED"*"reservationKey": "A"*}|
job begin 7 --guids 9 --json => {|*"RESULT_ALREADY_RUNNING"*}|refused: RESULT_ALREADY_RUNNING: *|exit 1|
list --json => {| "status": "STATUS_SUCCESS",|*}|
job list --json => {| "jobs": *"jobId": "7"*}|
job end 7 --json => {| "wasRunning": true,|*"A"|}|
show A --json => {|*"guids": ?|*"1"|*}|
show B --json => {|*"STATUS_NOT_FOUND"*}|refused: STATUS_NOT_FOUND: *|exit 6|
status --json => {*"reservationMode": true,*}|
--version => [0-9]*.[0-9]*|
watch --from 1 --count 1 --json => {*"KIND_NONE"*}|{*"KIND_RESERVATION_CREATED"*}|
)");
}

TEST_F(CtlTest, EveryFaultIsNamedAndChangesNothing) {
    Ctl("create A --pkey 1 --guids 1");
    WriteFile("guids", "0x30\n0x31,zz-2\n");
    WriteFile("empty", "");
    WriteFile("number", "{\"reservations\": 7}");
    WriteFile("list", "[]");
    WriteFile("deep", std::string(300'000, '['));
    WriteFile("refused", R"({"status": "STATUS_MODE_DISABLED", "reservations": []})");
    ExpectFaults(2, R"(apply DIR/none => DIR/none: cannot be read: No such file or directory
apply DIR/empty => DIR/empty: parse error at line 1, *
apply DIR/number => DIR/number: is not an object with an array "reservations"
apply DIR/list => DIR/list: is not an object with an array "reservations"
apply DIR/deep => DIR/deep: has more than 16 levels
apply DIR/refused => DIR/refused: is the answer to a refused request: "STATUS_MODE_DISABLED"
apply - => standard input is the file and cannot answer a question, too: give --yes or --dry-run
update A --add @DIR/guids => DIR/guids:2: 'zz-2' is not a GUID or a range of GUIDs, such as 0x1f, 31 or 0x10-0x1f
update A --add @DIR => --add: DIR: cannot be read: Is a directory
update A --add - --remove - => --remove: standard input has been read already
update A --add 5-4 => --add: '5-4' is a range that ends before it begins
update A --add 2,1-10000000 => --add: '1-10000000' makes the list longer than 10000000 GUIDs
create B --pkey 0x10000 --guids 2 => --pkey: '0x10000' is not a number from 0 to 65535
create B --pkey 1 --guids 2 --num-trees 24576 => --num-trees: '24576' is not a number from 0 to 24575
create B --pkey 1 --guids 2 --limit num_trees=24576 => --limit num_trees: '24576' is not a number from 0 to 24575
create B --pkey 1 --guids 2 --limit limit9=1 => --limit: 'limit9=1' is not NAME=N with one of *
create B --pkey 1 --guids 2 --limit limit0 => --limit: 'limit0' is not NAME=N with one of *
create a/b --pkey 1 --guids 2 => the daemon cannot read the request: key 'a/b' contains a slash, *
show '' => KEY: is empty
job begin 0 --guids 1 => JOB: '0' is not a number from 1 to 18446744073709551615
job begin 1 --guids 1 --trees 256 => --trees: '256' is not a number from 1 to 255
job begin 1 --guids 1 --planes 0 => --planes: '0' is not a number from 1 to 255
pkeys report 1 1 --pkeys 1,,2 => --pkeys: '' is not a number from 0 to 65535
pkeys report 1 256 --pkeys none => PORT: '256' is not a number from 0 to 255
watch --count 0 => --count: '0' is not a number from 1 to 18446744073709551615
watch --from 0 => --from: '0' is not a number from 1 to 18446744073709551615
--timeout 0 list => --timeout: '0' is not a number from 1 to 86400
--tls-key x list => --tls-key: unix:DIR/socket is not reached over TLS
 => the command is missing; see --help
oops => DIR/declared: parse error at line 1, column 19: *
7 => DIR/declared: reservation 1 is not an object
{"key": "a"} => DIR/declared: reservation 1 (a): has no member "guids", and no "nodes"
{"key": "a", "guids": 1} => DIR/declared: reservation 1 (a): "guids" is not an array
{"guids": [1]} => DIR/declared: reservation 1: has no key
{"key": "a", "guids": [0]} => DIR/declared: reservation 1 (a): '0' is no GUID: GUIDs begin at 1
{"key": "a", "pkey": "0x10000", "guids": []} => DIR/declared: reservation 1 (a): '0x10000' is not a number from 0 to 65535
{"key": "a", "guids": [1], "pkey": 65536} => DIR/declared: reservation 1 (a): pkey 65536 is above 65535
{"key": "a", "guids": [1], "pky": 1} => DIR/declared: reservation 1 (a): pky: Cannot find field.
{"key": "a", "guids": ["1-5"]}, {"key": "b", "guids": [7, "0x5"]} => DIR/declared: GUID 0x5 of reservation b is there already, in reservation a
{"key": "a", "guids": [1]}, {"key": "a", "guids": [2]} => DIR/declared: reservation a is there twice
{"key": "a/\u202e", "guids": [2]} => the daemon cannot read the request: operations*: key 'a/\u202e' contains a slash, *
)");
    for (const char* item : {"0x", "-3", "3-", "1-2-3", "0x1g", "1.5", "+1", "18446744073709551616", "@x,y", "a:b:c:d",
                             "0200:0000:00a1b:2c0", "0200:0000:00a1-b2c0", "02:0:0000:00a1:b2c0"}) {
        ExpectFaults(2, std::string("update A --remove 1,") + item + " => --remove: '*' is not a GUID or a range of *");
    }
    ExpectFaults(2, "delete \xff => KEY: '\\xff' is not UTF-8");
    EXPECT_EQ(Ctl("list --keys") + Ctl("show A").substr(0, 4), "A\nkey ");
    EXPECT_TRUE(Ctl("--help").ends_with("  reservationctl apply backup.json\n"));
}

TEST_F(CtlTest, ADaemonThatDoesNotAnswerIsToldFromAWrongAddress) {
    ExpectFaults(2, R"(list --address foo => address 'foo' is neither unix:PATH nor host:port
list --address :1 => address ':1' is neither unix:PATH nor host:port
list --address a/b:1 => address 'a/b:1' is neither unix:PATH nor host:port
list --address unix: => address 'unix:' names no socket
list --address [::1]:65536 => address '?::1?:65536' has no port from 1 to 65535
list --address host:0 => address 'host:0' has no port from 1 to 65535
list --address host:1 => --tls-ca is missing: host:1 is reached over TLS
list --address host:1 --tls-ca /dev/null --tls-cert x => --tls-ca: /dev/null is not a PEM file
list --address host:1 --tls-ca DIR/ca => --tls-ca: DIR/ca: cannot be read: No such file or directory
)");
    ExpectFaults(1, "watch --from 9 => event 9 is not there*");
    daemon_->Signal(SIGSTOP);
    ExpectFaults(3, R"(list --address unix:DIR/none => no daemon serves at unix:DIR/none: *No such file or directory
list --timeout 1 => unix:DIR/socket has not answered within 1 s (--timeout); a change may have been made all the same
)");
}

TEST(DescribeTest, ShowsTheDaemonAndItsWarnings) {
    v1::DaemonInfo info;
    EXPECT_NE(Describe(info).find("\nfiles to be written          none\n"), std::string::npos);
    EXPECT_TRUE(Describe(info).ends_with("  unlimited\n"));
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(
        R"(version: "1.2" started_unix_millis: 86400999 persistent_dir: "/state" store_generation: 3 store_writable: true
        durability: "machine" unwritten_files: 4 unwritten_files_age_millis: 1540 oldest_sequence: 5 last_sequence: 6
        epoch: "e" reservation_default_num_trees: 4294967295 max_jobs_per_hca: 7 warnings: "the store\n")",
        &info));
    EXPECT_EQ(Replaced(Describe(info), "  +", "  "),
              "version  1.2\nstarted  1970-01-02T00:00:00Z\nstore  /state\nstarts on this store  3\n"
              "store can be written  yes\ndurability  machine\nfiles to be written  4, the oldest for 1.5 s\n"
              "reservations  0\nreserved HCAs  0\njobs  0\nrefused creates and updates  0\nevents kept  5 to 6\n"
              "epoch of the events  e\nreservation mode  no\nreservations from pkeys  no\nGUID override allowed  no\n"
              "ending jobs allowed  no\nstored reservations loaded  no\ndefault trees limit  none\n"
              "most jobs per HCA  7\nwarning  the store\\x0a\n");
}

TEST(DescribeTest, KeepsControlCharactersOffTheTerminal) {
    google::protobuf::RepeatedPtrField<v1::Reservation> reservations;
    reservations.Add()->set_key("b\x1b[2J\xe2\x80\xae");
    v1::Event event;
    event.set_kind(v1::Event::KIND_JOB_END);
    event.set_reason("\n\x1b[2J");
    EXPECT_EQ(DescribeInTable(reservations),
              "KEY             PKEY  HCAS   TREES  JOBS  GUIDS\n"
              "b\\x1b[2J\\u202e   0x0     0  0 of 0     0\n");
    EXPECT_EQ(Describe(event), "0  1970-01-01T00:00:00Z  job 0 of  is to be ended: \\x0a\\x1b[2J\n");
}

}    // namespace
}    // namespace reservationctl
