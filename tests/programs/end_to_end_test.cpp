// The programs as they are run: processes, sockets, signals, and sudden death.

#include <google/protobuf/text_format.h>
#include <grp.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <iomanip>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "reservation/v1/reservation.grpc.pb.h"
#include "tests/files.h"
#include "tests/programs/program.h"

namespace {

namespace fs = std::filesystem;
namespace v1 = reservation::v1;
using Stub = v1::ReservationService::Stub;

std::unique_ptr<Stub> Connect(const std::string& address, const std::shared_ptr<grpc::ChannelCredentials>& credentials =
                                                              grpc::InsecureChannelCredentials()) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);    // a connection of its own
    return v1::ReservationService::NewStub(grpc::CreateCustomChannel(address, credentials, arguments));
}

template <typename Request, typename Reply>
using Method = grpc::Status (Stub::*)(grpc::ClientContext* context, const Request& request, Reply* reply);

template <typename Request, typename Reply>
grpc::Status Call(Stub& stub, Method<Request, Reply> method, const Request& request, Reply* reply) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
    return (stub.*method)(&context, request, reply);
}

template <typename Request>
Request RequestFor(const std::string& key) {
    Request request;
    request.set_key(key);
    return request;
}

// How a method, of any service, answers the bytes of a request.
grpc::Status CallRaw(const std::shared_ptr<grpc::Channel>& channel, const std::string& method,
                     const std::string& request, std::string* reply_text = nullptr) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
    const grpc::Slice slice(request);
    const grpc::ByteBuffer message(&slice, 1);
    grpc::ByteBuffer reply;
    std::promise<grpc::Status> outcome;
    grpc::GenericStub(channel).UnaryCall(&context, method, {}, &message, &reply,
                                         [&](const grpc::Status& status) { outcome.set_value(status); });
    const grpc::Status status = outcome.get_future().get();
    grpc::Slice bytes;
    if (reply_text != nullptr && reply.DumpToSingleSlice(&bytes).ok()) {
        reply_text->assign(reinterpret_cast<const char*>(bytes.begin()), bytes.size());
    }
    return status;
}

std::string Replaced(const std::string& text, const std::string& what, const std::string& with) {
    return std::regex_replace(text, std::regex(what), with);
}

class EndToEndTest : public testing::Test {
protected:
    EndToEndTest() { WriteFile("conf", ""); }

    std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }
    std::string Address() const { return "unix:" + Path("socket"); }

    sockaddr_un AddressOf(const std::string& name) const {
        sockaddr_un address{AF_UNIX, {}};
        Path(name).copy(address.sun_path, sizeof(address.sun_path) - 1);
        return address;
    }

    void WriteFile(const std::string& name, const std::string& text) const { Write(Path(name), text); }

    // The words of a command, in which DIR stands for the test's directory.
    std::vector<std::string> Words(const std::string& command) const {
        std::istringstream words(Replaced(command, "DIR", dir_.path()));
        return {std::istream_iterator<std::string>(words), {}};
    }

    // What the command prints, with DIR and TIME, and its exit status when that is not 0.
    std::string Run(const std::string& command) const {
        Program program(Words(command));
        const int status = program.Wait();
        return Replaced(Replaced(program.Output(), dir_.path(), "DIR"), "20\\d\\d-\\d\\d-\\d\\dT[0-9:]{8}Z", "TIME") +
               (status == 0 ? "" : "exit " + std::to_string(status) + "\n");
    }

    std::string Ctl(const std::string& arguments) const {
        return Run(RESERVATIONCTL " --address unix:DIR/socket " + arguments);
    }

    // Carries out the commands of a session as a terminal shows it, and expects to see the same.
    void ExpectSession(const std::string& session) const {
        std::istringstream lines(session);
        std::string seen;
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("$ ")) seen += line + "\n" + Ctl(line.substr(2));
        }
        EXPECT_EQ(seen, session);
    }

    std::unique_ptr<Program> Launch(const std::string& options, const std::string& dir = "state",
                                    const std::string& socket = "socket") const {
        return std::make_unique<Program>(Words(RESERVATIOND " --config DIR/conf --persistent-dir DIR/" + dir +
                                               " --socket DIR/" + socket + " " + options));
    }

    std::unique_ptr<Program> Serve(const std::string& options = "") const {
        auto daemon = Launch(options);
        daemon->WaitFor(" serves ");
        return daemon;
    }

    // The daemon's records of changes and denials: "local: EndJob 7: ended\n".
    static std::string AuditOf(const Program& daemon) {
        const std::string records = Replaced(daemon.Output(), "\\S+ AUDIT ([^\n]*\n)|[^\n]*\n", "$1");
        return Replaced(records, "127.0.0.1:\\d+", "ADDRESS");
    }

    const TemporaryDirectory dir_;
};

TEST_F(EndToEndTest, AnOperatorsSession) {
    auto daemon = Serve("--reservation-mode --durability machine");
    EXPECT_EQ(fs::status(Path("socket")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    Ctl("create A --pkey 0x8001 --guids 0x10-0x17 --num-trees 4");
    Ctl("job begin 7 --guids 0x10,0x11 --planes 2");
    Ctl("update A --add 0x18 --remove 0x17");
    const std::string facts = Ctl("status");
    for (const char* fact :
         {"store  *DIR/state", "reserved HCAs  *8", "events kept  *1 to 2", "durability  *machine", "jobs  *1"}) {
        EXPECT_TRUE(std::regex_search(facts, std::regex(fact + std::string("\n")))) << fact << " in " << facts;
    }
    WriteFile("backup", Ctl("list --json"));
    for (const char* command : {"job end 7", "delete A", "delete A", "pkeys report 0x10 1 --pkeys 1"}) Ctl(command);
    Ctl("apply DIR/backup --yes");
    ExpectSession(R"($ apply DIR/backup
nothing to change: 1 reservation as declared
$ watch --from 2 --count 3
next event: 2
2  TIME  reservation A updated
3  TIME  reservation A removed
4  TIME  reservation A created
)");
    Program watcher(Words(RESERVATIONCTL " --address unix:DIR/socket watch --from 1"));
    watcher.WaitFor("\n4  ");
    daemon->Signal(SIGTERM);
    EXPECT_EQ(daemon->Wait(), 0);
    EXPECT_EQ(watcher.Wait(), 3);
    watcher.WaitFor("the daemon is stopping");
    EXPECT_EQ(Replaced(AuditOf(*daemon), "\nlocal: ", "; "),
              "local: CreateReservation 'A': STATUS_SUCCESS; BeginJob 7: RESULT_ADMITTED; UpdateReservation 'A': "
              "STATUS_SUCCESS; EndJob 7: ended; DeleteReservation 'A': STATUS_SUCCESS; DeleteReservation 'A': "
              "STATUS_NOT_FOUND; ReportPort 0x10 1: nothing changed; Transact of 1: accepted; CreateReservation 'A': "
              "STATUS_SUCCESS\n");
    const std::string check = RESERVATIOND " --config DIR/conf --persistent-dir DIR/state --check-store";
    EXPECT_EQ(Run(check), "The store in DIR/state is good.\n");
    EXPECT_TRUE(Ctl("list").ends_with("\nexit 3\n"));
    daemon = Serve("--reservation-mode --no-load-persistent-reservations");
    EXPECT_EQ(Ctl("list --keys") + Ctl("watch --from 5 --count 1"), "next event: 5\n5  TIME  reservation A removed\n");
}

TEST_F(EndToEndTest, EveryRefusalSaysWhyAndChangesNothing) {
    const auto daemon = Serve("--reservation-mode --max-request-bytes 65536");
    Ctl("create A --pkey 0x8001 --guids 0x10-0x17 --num-trees 4");
    Ctl("create B --pkey 0x8002 --guids 0x20,0x21");
    Ctl("job begin 7 --guids 0x10,0x11 --trees 2");
    Ctl("job begin 9 --guids 0x20");
    const std::string before = Ctl("list --json");
    const std::pair<const char*, const char*> refusals[] = {
        {"update A --add 1,0x17", "STATUS_DUPLICATE_GUID: a .*GUID 0x17, reservation A\n.*: leave .*exit 1"},
        {"create A --pkey 0x8001 --guids 0x10-0x17,0x20 --num-trees 4",
         "STATUS_GUID_RESERVED: a .*GUID 0x20, reservation B, job 9\n.*: remove .*exit 1"},
        {"update none --add 1", "STATUS_INVALID_KEY: the .*find such an existing reservation.*: see .*exit 6"},
        {"update A --remove 0x20", "STATUS_INVALID_GUIDS: there .*not part of the reservation.*: see .*exit 1"},
        {"show none", "STATUS_NOT_FOUND: there .*: see .*exit 6"},
        {"delete A", "STATUS_HAS_JOBS: the .*reservation A, job 7\n.*: wait .*exit 1"},
        {"create A --pkey 1 --guids 1", "STATUS_PKEY_MISMATCH: the .*original: 0x8001, new: 0x0001.*: give .*exit 1"},
        {"create A --pkey 0x8001 --guids 1 --num-trees 5", "STATUS_LIMITS_MISMATCH: the .*: give .*exit 1"},
        {"update A --remove 0x11,0x12", "STATUS_GUIDS_USED_BY_JOB: a .*GUID 0x11, .*, job 7\n.*: wait .*exit 1"},
        {"job begin 8 --guids 0x10,0x20", "RESULT_NO_RESERVATION: no .*guid=0x20 in reservation_key=B.*: see .*exit 6"},
        {"job begin 8 --guids 0x10 --trees 3", "RESULT_LIMIT_EXCEEDED: the .*already using 2 trees.*: see .*exit 1"},
        {"job begin 7 --guids 0x10", "RESULT_ALREADY_RUNNING: a job with this id runs .*: see .*exit 1"},
        {"watch --from 9", "event 9 is not there.*, the next one to happen 3\nexit 1"},
        {"create C --pkey 1 --guids 0x100-0x5000", "nothing has been changed: .* 65536.*exit 1"}};
    for (const auto& [command, expected] : refusals) {
        const std::string output = Replaced(Ctl(command), "\n", "@");
        EXPECT_TRUE(std::regex_search(output, std::regex(Replaced(expected, "\n", "@")))) << command << ": " << output;
    }
    const auto stub = Connect(Address());
    const auto channel = grpc::CreateChannel(Address(), grpc::InsecureChannelCredentials());
    for (const auto& [request, fault] :
         {std::pair("\x0a\5\x1a\3\x0a\1\xff", "operations.delete_reservation.key is not UTF-8"),
          std::pair("\x0a\2", "the message is no reservation.v1.TransactRequest")}) {
        const grpc::Status status = CallRaw(channel, "/reservation.v1.ReservationService/Transact", request);
        EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
        EXPECT_EQ(status.error_message(), fault);
    }
    grpc::ClientContext contexts[65];
    std::vector<std::unique_ptr<grpc::ClientReader<v1::Event>>> watches;
    for (grpc::ClientContext& context : contexts) watches.push_back(stub->Watch(&context, {}));
    v1::Event start;
    std::map<std::string, int> outcomes;
    for (const auto& watch : watches) ++outcomes[watch->Read(&start) ? "" : watch->Finish().error_message()];
    EXPECT_EQ(outcomes[""], 64);
    EXPECT_EQ(outcomes["the connection has 64 watches and sessions, and may have no more"], 1);
    EXPECT_TRUE(Ctl("watch --from 1 --count 1").starts_with("next event: 1\n"));
    for (grpc::ClientContext& context : contexts) context.TryCancel();
    EXPECT_EQ(Ctl("list --json"), before);
}

TEST_F(EndToEndTest, AClientThatHangsDelaysNobody) {
    const auto daemon = Serve();
    const sockaddr_un address = AddressOf("socket");
    const std::string half_frame("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n\0\0\0\4\0\0\0\0\0\0\4\0\1\4", 38);
    for (const std::string& bytes : {std::string(), std::string(1000, '\xff'), half_frame}) {
        const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        ASSERT_EQ(send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    Program watcher(Words(RESERVATIONCTL " --address unix:DIR/socket watch --count 2000"));
    watcher.WaitFor("next event: 1");
    watcher.Signal(SIGSTOP);

    // More events than lie between a daemon and a client that does not read.
    const std::string key(200, 'k');
    auto create = RequestFor<v1::CreateReservationRequest>(key);
    create.add_guids(1);
    const auto stub = Connect(Address());
    v1::ReservationReply reply;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(Call(*stub, &Stub::CreateReservation, create, &reply).ok());
        ASSERT_TRUE(Call(*stub, &Stub::DeleteReservation, RequestFor<v1::DeleteReservationRequest>(key), &reply).ok());
    }
    watcher.Signal(SIGCONT);
    EXPECT_EQ(watcher.Wait(), 0);
    EXPECT_NE(watcher.Output().find("\n2000  "), std::string::npos);
}

TEST_F(EndToEndTest, ConnectionsBeyondTheDescriptorsAreClosedUntilOthersEnd) {
    rlimit old_limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old_limit), 0);
    const rlimit low_limit{160, old_limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low_limit), 0);
    const auto daemon = Launch("");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old_limit), 0);
    daemon->WaitFor(" serves ");
    // The daemon speaks first on a connection that it keeps.
    const sockaddr_un address = AddressOf("socket");
    const auto is_kept = [&](int connection) {
        EXPECT_EQ(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        char byte = 0;
        return recv(connection, &byte, 1, 0) == 1;
    };
    std::vector<int> connections(200);
    for (int& connection : connections) connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto num_kept = std::count_if(connections.begin(), connections.end(), is_kept);
    EXPECT_GT(num_kept, 50);
    EXPECT_LT(num_kept, 160);
    for (const int connection : connections) close(connection);
    for (bool is_served = false; !is_served;) {
        const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        is_served = is_kept(connection);
        close(connection);
    }
    EXPECT_EQ(Ctl("list --keys"), "");
}

TEST_F(EndToEndTest, TheSocketIsOpenToAGroup) {
    const gid_t id = geteuid() == 0 ? 1 : getegid();    // root can take one that files do not get anyway
    const auto daemon = Serve(std::string("--socket-group ") + getgrgid(id)->gr_name);
    struct stat facts {};
    ASSERT_EQ(stat(Path("socket").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_gid, id);
    EXPECT_EQ(facts.st_mode & 0777U, 0660U);
}

TEST_F(EndToEndTest, ASessionAnswersInOrderAndEndsWithTheDaemon) {
    constexpr uint64_t kNumOperations = 500;    // more than may be unanswered
    const auto daemon = Serve();
    {
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
        const auto session = Connect(Address())->Session(&context);
        std::thread writer([&] {
            for (uint64_t id = 1; id <= kNumOperations; ++id) {
                v1::SessionRequest request;
                request.set_id(id);
                auto& create = *request.mutable_operation()->mutable_create_reservation();
                create.set_key(id % 100 == 0 ? "a/b" : "R" + std::to_string(id));
                create.add_guids(id % 7 == 0 ? 1 : id);
                EXPECT_TRUE(session->Write(request));
            }
        });
        v1::SessionReply reply;
        for (uint64_t id = 1; id <= kNumOperations && session->Read(&reply); ++id) {
            EXPECT_EQ(reply.id(), id);
            EXPECT_EQ(reply.error_code(), id % 100 == 0 ? 3U : 0U);
            EXPECT_EQ(reply.error_message().substr(0, 9), id % 100 == 0 ? "key 'a/b'" : "");
            EXPECT_EQ(reply.reply().reservation().status(), id % 7 == 0 && id % 100 != 0 ? 6 : 0);
        }
        writer.join();
        EXPECT_EQ(reply.id(), kNumOperations);
        daemon->Signal(SIGTERM);
        EXPECT_FALSE(session->Read(&reply));
        EXPECT_EQ(session->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
    }
    EXPECT_EQ(daemon->Wait(), 0);
    const std::string audit = AuditOf(*daemon);
    EXPECT_TRUE(std::count(audit.begin(), audit.end(), '\n') == kNumOperations - 5 ||
                audit.find(" changes left out here\n") != audit.npos);
}

TEST_F(EndToEndTest, ASecondDaemonIsTurnedAway) {
    const auto daemon = Serve();
    const auto on_same_directory = Launch("", "state", "other");
    EXPECT_EQ(on_same_directory->Wait(), 1);
    on_same_directory->WaitFor(Path("state") + " is in use by process " + std::to_string(daemon->pid()));
    const auto on_same_socket = Launch("", "other", "socket");
    EXPECT_EQ(on_same_socket->Wait(), 1);
    on_same_socket->WaitFor(Path("socket") + ": another process listens on it");
    EXPECT_EQ(Ctl("list --keys"), "");
}

TEST_F(EndToEndTest, SighupReadsTheOptionsAgain) {
    const int service_manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf("notify");
    ASSERT_EQ(bind(service_manager, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    WriteFile("conf", "reservation-mode = true\n");
    const auto daemon = Serve("");
    Ctl("create A --pkey 1 --guids 1,2");
    Ctl("create B --pkey 1 --guids 3");
    Ctl("job begin 7 --guids 3");
    const auto reload = [&](const std::string& options, const std::string& message) {
        WriteFile("conf", options);
        daemon->Signal(SIGHUP);
        daemon->WaitFor(message);
    };
    reload("reservation-mode = perhaps\n", "The options stay as they are");
    reload(
        "reservation-mode = true\nreservation-allow-guid-override = true\nreservation-allow-ending-jobs = true\n"
        "log-level = 4\n",
        "Option reservation-allow-guid-override: ");
    ExpectSession(R"($ update A --add 3
in force:
KEY  PKEY  HCAS           TREES  JOBS  GUIDS
A     0x1     3  0 of unlimited     0  0x1-0x3
deleted reservation B, whose GUIDs are taken
ended 1 job: 7
)");
    daemon->WaitFor("Got a reservation update request");    // a record of level 4
    reload("reservation-mode = false\n", "Option reservation-mode: 'true' becomes ");
    EXPECT_TRUE(Ctl("update A --add 4").starts_with("refused: STATUS_MODE_DISABLED: the "));
    EXPECT_TRUE(Ctl("job begin 8 --guids 1").starts_with("refused: RESULT_MODE_DISABLED: the "));
    WriteFile("conf", "log = " + Path("log") + "\nkept-events = 9\n");
    for (const int signal : {SIGHUP, SIGTERM}) daemon->Signal(signal);
    EXPECT_EQ(daemon->Wait(), 0);
    EXPECT_NE(Content(Path("log")).find("Option kept-events: '10000' becomes '9' at the next start\n"),
              std::string::npos);
    std::string notifications;
    char text[100];
    for (ssize_t size = 0; (size = recv(service_manager, text, sizeof(text), MSG_DONTWAIT)) > 0;) {
        notifications += std::string(text, static_cast<size_t>(size)) + " ";
    }
    close(service_manager);
    const std::string reloaded = "RELOADING=1 READY=1 ";
    EXPECT_EQ(notifications, "READY=1 " + reloaded + reloaded + reloaded + reloaded + "STOPPING=1 ");
}

TEST_F(EndToEndTest, OptionsThatCannotBeUsedAreNamed) {
    WriteFile("conf", "max-jobs = 1\n");
    WriteFile("nameless", "read-only = [\"\"]\n");
    WriteFile("empty", "");
    const std::string tls = " --tcp 127.0.0.1:1 --tls-key DIR/empty --tls-cert DIR/empty --tls-ca ";
    const std::pair<std::string, const char*> faults[] = {
        {"--config DIR/conf", "DIR/conf: no such option, or not readable: .*max-jobs.*exit 2"},
        {"--log-level 0", "--log-level: Value 0 not in range 1 to 5.exit 2"},
        {"--log-level 6", "--log-level: Value 6 not in range 1 to 5.exit 2"},
        {"--kept-events 0", "--kept-events: Value 0 not in range 1 to 10000000.exit 2"},
        {"--max-request-bytes 1023", "--max-request-bytes: Value 1023 not in range 1024 to 1073741824.exit 2"},
        {"--durability disk", "--durability: disk not in .process,machine..exit 2"},
        {"--tcp host", "--tcp: host is not host:port.exit 2"},
        {"--tcp host:0", "--tcp: host:0 is not host:port.exit 2"},
        {"--tcp host:1x", "--tcp: host:1x is not host:port.exit 2"},
        {"--tcp host:1", "--tcp requires --tls-(ca|cert|key).exit 2"},
        {"--tls-cert x", "--tls-cert requires --tcp.exit 2"},
        {"--read-only x", "--read-only requires --tcp.exit 2"},
        {tls + "DIR/none", "tls-ca DIR/none: cannot be read: No such file or directory.exit 1"},
        {tls + "DIR/empty", "tls-ca DIR/empty: the file is empty.exit 1"},
        {tls + "x --config DIR/nameless", "--full-access, --read-only: a name is empty.exit 2"},
        {"--socket DIR/none/socket", "cannot listen on DIR/none/socket: No such file or directory.exit 1"},
        {"--socket-group no-such", "socket-group no-such: there is no such group.exit 1"},
        {"--persistent-dir DIR/none/state", "persistent-dir DIR/none/state: cannot be made: No such .*exit 1"},
        {"--socket DIR/" + std::string(sizeof(sockaddr_un::sun_path) - Path("").size(), 's'),
         "socket DIR/s*: the path is too long.exit 1"}};
    for (const auto& [options, expected] : faults) {
        std::string command = RESERVATIOND " " + options;
        for (const std::string name : {"config", "persistent-dir", "socket"}) {
            if (options.find("--" + name + " ") != std::string::npos) continue;
            command += " --" + name + (name == "config" ? " /dev/null" : " DIR/" + name);
        }
        const std::string output = Replaced(Run(command), "\n", "@");
        EXPECT_TRUE(std::regex_match(output, std::regex(std::string("reservationd: ") + expected + "@"))) << output;
    }
}

TEST_F(EndToEndTest, PortsMakeReservationsFromTheirPkeys) {
    const auto daemon = Serve("--reservation-mode --reservation-auto-by-pkeys");
    EXPECT_EQ(Ctl("pkeys report 0x10 1 --pkeys 0x8001,0x7fff"),
              "changed: the HCA is in reservation reservation_0x7fff\n");
    EXPECT_TRUE(Ctl("create A --pkey 1 --guids 1").starts_with("refused: ignored: the daemon "));
    EXPECT_EQ(Ctl("list --keys"), "reservation_0x7fff\n");
}

TEST_F(EndToEndTest, AFullDiskRefusesChangesUntilThereIsSpace) {
    auto daemon = Serve();
    Ctl("create A --pkey 1 --guids 1,2");
    Ctl("job begin 7 --guids 1");
    Ctl("update none --add 1");
    const auto look = [&] {
        EXPECT_TRUE(
            std::regex_search(Ctl("status"), std::regex("durability *process\n[^]*refused creates and updates *1\n")));
        return Ctl("list --json") + Ctl("job list");
    };
    const std::string before = look();
    rlimit limit{};
    const rlimit full{1, RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_FSIZE, &full, &limit), 0);
    for (const char* command :
         {"update A --add 3", "job begin 8 --guids 2", "job end 7", "create B --pkey 1 --guids 3"}) {
        EXPECT_EQ(Ctl(command),
                  "reservationctl: nothing has been changed, try again later: DIR/state/reservationd.sqlite: "
                  "the store cannot be written: disk I/O error\nexit 5\n");
    }
    {
        grpc::ClientContext context;
        const auto session = Connect(Address())->Session(&context);
        v1::SessionRequest request;
        request.mutable_operation()->mutable_end_job()->set_job_id(7);
        v1::SessionReply reply;
        EXPECT_TRUE(session->Write(request) && session->Read(&reply));
        EXPECT_EQ(reply.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
        context.TryCancel();
    }
    EXPECT_EQ(look(), before);
    const auto health = [channel = grpc::CreateChannel(Address(), grpc::InsecureChannelCredentials())] {
        std::string reply;
        CallRaw(channel, "/grpc.health.v1.Health/Check", "", &reply);
        return reply;
    };
    EXPECT_EQ(health(), "\x08\2");    // NOT_SERVING
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    daemon->WaitFor("The store can be written again");
    EXPECT_EQ(health(), "\x08\1");
    Ctl("job begin 8 --guids 2");
    daemon.reset();
    daemon = Serve();
    ExpectSession(R"($ list
KEY  PKEY  HCAS           TREES  JOBS  GUIDS
A     0x1     2  2 of unlimited     2  0x1-0x2
)");
}

TEST_F(EndToEndTest, TlsLetsInWhomItsCertificatesName) {
    WriteFile("make-certificates", R"sh(
make() {
    openssl req -x509 -noenc -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -subj $2 \
        -keyout $1.key -out $1.pem $3
}
signed_by() { echo -addext subjectAltName=IP:127.0.0.1 -CA $1.pem -CAkey $1.key; }
cd ${0%/*} && make ca /CN=ca && make other-ca /CN=other-ca && make forger /CN=operator "$(signed_by other-ca)" &&
    make nameless /O=operator "$(signed_by ca)" || exit
for name in daemon operator viewer stranger; do make $name /CN=$name "$(signed_by ca)" || exit; done
)sh");
    ASSERT_EQ(Program({"sh", Path("make-certificates")}).Wait(), 0);
    const std::string address = "127.0.0.1:" + std::to_string(20'000 + getpid() % 10'000);
    const auto files_of = [](const std::string& name) {
        return Replaced(" --tls-ca DIR/ca.pem --tls-cert DIR/NAME.pem --tls-key DIR/NAME.key ", "NAME", name);
    };
    WriteFile("conf", "full-access = operator\nread-only = viewer\n");
    auto daemon = Serve("--tcp " + address + files_of("daemon"));
    const auto run_as = [&](const std::string& name, const std::string& command) {
        return Run(RESERVATIONCTL " --address " + address + files_of(name) + command);
    };
    const std::string denied = "reservationctl: not allowed: the certificate's common name ";
    EXPECT_TRUE(run_as("operator", "create A --pkey 1 --guids 1").starts_with("in force:\n"));
    EXPECT_EQ(run_as("viewer", "list --keys"), "A\n");
    EXPECT_TRUE(run_as("viewer", "delete A --dry-run").starts_with("would be deleted:\n"));
    EXPECT_EQ(run_as("viewer", "delete A"), denied + "'viewer' allows reading only\nexit 4\n");
    EXPECT_EQ(run_as("stranger", "list"), denied + "'stranger' allows nothing here\nexit 4\n");
    for (const char* files : {"ca.pem --tls-cert DIR/forger.pem --tls-key DIR/forger.key",
                              "ca.pem --tls-cert DIR/viewer.pem --tls-key DIR/operator.key",
                              "other-ca.pem --tls-cert DIR/viewer.pem --tls-key DIR/viewer.key"}) {
        const std::string output = Run(RESERVATIONCTL " --address " + address + " list --tls-ca DIR/" + files);
        EXPECT_TRUE(std::regex_match(output, std::regex("reservationctl: no TLS connection to .*\nexit 4\n")))
            << output;
    }
    EXPECT_EQ(AuditOf(*daemon),
              "CN 'operator' at ipv4:ADDRESS: CreateReservation 'A': STATUS_SUCCESS\n"
              "CN 'viewer' at ipv4:ADDRESS: DeleteReservation: denied\n"
              "CN 'stranger' at ipv4:ADDRESS: GetReservations: denied\n");

    const std::string service = "/reservation.v1.ReservationService/";
    const std::map<std::string, bool> may_be_called_by_readers = {
        {service + "CreateReservation", false},
        {service + "UpdateReservation", false},
        {service + "DeleteReservation", false},
        {service + "GetReservations", true},
        {service + "BeginJob", false},
        {service + "EndJob", false},
        {service + "ListJobs", true},
        {service + "ListNodes", true},
        {service + "ReportPort", false},
        {service + "Transact", false},
        {service + "Session", false},
        {service + "Watch", true},
        {service + "GetDaemonInfo", true},
        {"/grpc.health.v1.Health/Check", true},
        {"/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", true},
        {"/unknown.Service/Method", false}};
    for (const std::string name : {"operator", "viewer", "stranger", "nameless"}) {
        const auto channel =
            grpc::CreateChannel(address, grpc::SslCredentials({Content(Path("ca.pem")), Content(Path(name + ".key")),
                                                               Content(Path(name + ".pem"))}));
        for (const auto& [method, may_read] : may_be_called_by_readers) {
            // Field 1 is 9: an event that is not there for Watch, so that its stream ends.
            const grpc::StatusCode code = CallRaw(channel, method, "\x08\x09").error_code();
            EXPECT_EQ(code == grpc::StatusCode::UNIMPLEMENTED, method.starts_with("/unknown") && name == "operator");
            const bool is_denied = !(name == "operator" || (name == "viewer" && may_read));
            EXPECT_EQ(code == grpc::StatusCode::PERMISSION_DENIED, is_denied) << name << " " << method;
            const std::string record = "CN '" + (name == "nameless" ? "" : name) + "'" +
                                       Replaced(": " + method, ": " + service, " at ipv4:ADDRESS: ") + ": denied\n";
            EXPECT_EQ(AuditOf(*daemon).ends_with(record), is_denied) << record;
        }
    }
    daemon.reset();
    daemon = Serve("--tcp " + address + files_of("daemon"));
    Launch("--tcp a..b:1" + files_of("daemon"), "other", "socket2")->WaitFor("cannot listen on a..b:1: ");

    const std::string ca = Content(Path("ca.pem"));
    for (const auto& credentials : {grpc::InsecureChannelCredentials(), grpc::SslCredentials({ca, "", ""})}) {
        v1::DaemonInfo info;
        EXPECT_EQ(Call(*Connect(address, credentials), &Stub::GetDaemonInfo, {}, &info).error_code(),
                  grpc::StatusCode::UNAVAILABLE);
    }
    EXPECT_EQ(Ctl("list --keys"), "A\n");

    // New lists hold for open connections, new certificates for later ones; what does not fit changes nothing.
    const auto stub =
        Connect(address, grpc::SslCredentials({ca, Content(Path("operator.key")), Content(Path("operator.pem"))}));
    grpc::ClientContext session_context, watch_context;
    const auto session = stub->Session(&session_context);
    const auto watch = stub->Watch(&watch_context, {});
    v1::Event event;
    ASSERT_TRUE(watch->Read(&event));
    const auto error_of_operation = [&] {
        v1::SessionRequest request;
        request.mutable_operation()->mutable_end_job()->set_job_id(7);
        v1::SessionReply reply;
        EXPECT_TRUE(session->Write(request) && session->Read(&reply));
        return reply.error_code();
    };
    const std::string key = Content(Path("daemon.key"));
    WriteFile("daemon.key", Content(Path("viewer.key")));
    WriteFile("conf", "full-access = viewer\nlog-level = 9\n");
    daemon->Signal(SIGHUP);
    daemon->WaitFor("The options stay as they are");
    WriteFile("conf", "full-access = viewer\n");
    daemon->Signal(SIGHUP);
    daemon->WaitFor("is not the key of");
    EXPECT_EQ(error_of_operation(), grpc::StatusCode::OK);
    EXPECT_EQ(run_as("viewer", "delete A"), denied + "'viewer' allows reading only\nexit 4\n");
    WriteFile("daemon.key", key);
    WriteFile("ca.pem", Content(Path("other-ca.pem")));
    daemon->Signal(SIGHUP);
    daemon->WaitFor("Option read-only");
    WriteFile("ca.pem", ca);
    EXPECT_EQ(error_of_operation(), grpc::StatusCode::PERMISSION_DENIED);
    Ctl("update A --add 2");
    EXPECT_FALSE(watch->Read(&event));
    EXPECT_EQ(watch->Finish().error_code(), grpc::StatusCode::PERMISSION_DENIED);
    EXPECT_TRUE(run_as("viewer", "delete A").ends_with("\nexit 4\n"));    // its authority is not known any more
    session->WritesDone();
    EXPECT_TRUE(session->Finish().ok());
}

// ---- The replay through the daemon ----

class ConnectedReplayTest : public EndToEndTest {
protected:
    using Json = nlohmann::json;

    // Jobs of ten users, many of which start or end together.
    ConnectedReplayTest() {
        const auto below = [&](unsigned limit) { return std::to_string(random_() % limit); };
        std::string trace;
        for (int i = 1; i <= 120; ++i) {
            trace += std::to_string(i) + " " + std::to_string(i / 20) + "00 -1 " + below(4) + "00 " +
                     std::to_string(1 + random_() % 12) + " -1 -1 -1 -1 -1 -1 " + below(10) + " 1 -1 -1 -1 -1 -1\n";
        }
        WriteFile("crowded.swf", trace);
    }

    std::string Replay(const std::string& options) const { return Run(kReplay + options); }

    // What is known of a replay in this process and through a daemon alike.
    static Json Figures(const std::string& output) {
        Json figures = Json::parse(output);
        for (const char* other : {"timing", "start_up", "log_records", "daemon"}) figures.erase(other);
        figures["settings"].erase("log_level");
        return figures;
    }

    const std::string kReplay = REPLAY_PROGRAM " --hcas 64 --json DIR/crowded.swf ";
    const std::string kConnect = "--connect unix:DIR/socket ";
    std::mt19937 random_;
};

TEST_F(ConnectedReplayTest, FiguresAreThoseOfOneProcessWhateverTheNumberOfClients) {
    struct Mode {
        std::string daemon, in_process, connected;
    };
    for (const auto& [daemon, in_process, connected] :
         {Mode{"", "", ""},
          Mode{"--max-jobs-per-hca 1 --reservation-default-num-trees 9",
               "--max-jobs-per-hca 1 --default-num-trees 9 --trees 4", "--trees 4 "},
          Mode{"--reservation-auto-by-pkeys", "--auto-by-pkeys", ""}}) {
        const Json expected = Figures(Replay(in_process));
        EXPECT_GT(expected["jobs"]["waited"], 0);
        EXPECT_EQ(expected["jobs"]["refused"] > 0, !connected.empty());
        const auto server = Serve("--reservation-mode " + daemon);
        for (const std::string clients : {"1", "8 --in-flight 16"}) {
            EXPECT_EQ(Figures(Replay(connected + kConnect + "--clients " + clients)), expected) << daemon << clients;
        }
        server->Signal(SIGTERM);
        EXPECT_EQ(server->Wait(), 0);
    }
}

TEST_F(ConnectedReplayTest, DaemonThatCannotBeUsedIsToldApartFromOneThatGoesAway) {
    const std::string start = "reservation-replay: unix:DIR/socket: ";
    EXPECT_TRUE(Replay(kConnect).starts_with(start + "no daemon answers"));
    EXPECT_EQ(Replay("--connect localhost:1"),
              "reservation-replay: --tls-ca is missing: localhost:1 is reached over TLS\nexit 2\n");
    EXPECT_EQ(Replay(kConnect + "--stop-after 3"), "reservation-replay: --stop-after excludes --connect\nexit 2\n");
    auto daemon = Serve("--no-reservation-mode");
    EXPECT_EQ(Replay(kConnect), start + "the daemon runs without --reservation-mode\nexit 2\n");

    daemon.reset();
    daemon = Serve();
    EXPECT_EQ(Replay(kConnect + "--auto-by-pkeys"),
              "reservation-replay: --auto-by-pkeys: unix:DIR/socket: the daemon does not make reservations from "
              "pkeys\nexit 2\n");
    const auto stub = Connect(Address());
    v1::DaemonInfo info;
    Program replay(Words(kReplay + kConnect + "--clients 2 --in-flight 2"));
    while (Call(*stub, &Stub::GetDaemonInfo, {}, &info).ok() && info.last_sequence() == 0)
        ASSERT_EQ(replay.Output(), "");
    daemon.reset();
    EXPECT_EQ(replay.Wait(), 1);
    EXPECT_EQ(replay.Output().find("reservation-replay: " + Address() + ": no daemon answers"), 0u);
    EXPECT_EQ(replay.Output().find('\n'), replay.Output().size() - 1) << "more than one line: " << replay.Output();

    daemon = Serve();
    EXPECT_TRUE(Replay(kConnect).starts_with(start + "the daemon has "));
}

// ---- Nodes ----

template <typename Message>
Message Parsed(const std::string& fields) {
    Message message;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(fields, &message));
    return message;
}

TEST_F(EndToEndTest, NodesAreResolvedByTheTableInForce) {
    WriteFile("nodes", "n[1-9] 0x11-0x19 0x21-0x29");
    const auto daemon = Serve("--nodes DIR/nodes");
    const auto stub = Connect(Address());
    auto together = Parsed<v1::TransactRequest>(R"(
        operations { create_reservation { key: 'A' nodes: 'n[8-9]' guids: [0x11, 0x99] } }
        operations { update_reservation { key: 'A' add_free_nodes { count: 2 } remove_nodes: 'n8' with_nodes: true } }
        operations { create_reservation { key: 'B' free_nodes { count: 1 among: ['n[4,3]', 'n3'] } } }
        operations { begin_job { job_id: 7 nodes: 'n[2,9]' trees: 1 } }
        dry_run: true)");
    for (const bool dry_run : {true, false}) {
        together.set_dry_run(dry_run);
        v1::TransactReply done;
        ASSERT_TRUE(Call(*stub, &Stub::Transact, together, &done).ok());
        EXPECT_TRUE(done.accepted()) << done.DebugString();
        const v1::ReservationReply& updated = done.replies(1).reservation();
        EXPECT_EQ(updated.picked_nodes(), "n[2-3]");
        EXPECT_EQ(updated.reservations(0).nodes().whole(), "n[2-3,9]");
        EXPECT_EQ(updated.reservations(0).nodes().partial(), "n1");
        EXPECT_EQ(updated.reservations(0).nodes().num_other_guids(), 1u);
        EXPECT_EQ(done.replies(2).reservation().picked_nodes(), "n4");
    }
    auto listing = Parsed<v1::ListNodesRequest>("nodes: 'n[1,4,9]' guids: [0x98, 0x99] page_size: 2");
    std::string holders;
    do {
        v1::ListNodesReply page;
        ASSERT_TRUE(Call(*stub, &Stub::ListNodes, listing, &page).ok());
        for (const v1::NodeInfo& node : page.nodes()) {
            holders += node.name() + " " + std::to_string(node.state());
            for (const v1::Hca& hca : node.hcas()) {
                holders += " " + hca.reservation_key() + (hca.job_ids().empty() ? "" : std::to_string(hca.job_ids(0)));
            }
            holders += ";";
        }
        listing.set_page_token(page.next_page_token());
    } while (!listing.page_token().empty());
    EXPECT_EQ(holders, "n1 2 A ;n4 1 B B;n9 1 A7 A7; 0 ; 1 A;");

    // A session's operations, before and after the table is read again.
    grpc::ClientContext context;
    const auto session = stub->Session(&context);
    const auto answer = [&](const std::string& operation) {
        v1::SessionReply reply;
        EXPECT_TRUE(session->Write(Parsed<v1::SessionRequest>("operation {" + operation + "}")) &&
                    session->Read(&reply));
        return reply.has_reply() ? reply.reply().reservation().picked_nodes() : reply.error_message();
    };
    const std::string create = "create_reservation { key: 'C' nodes: 'x1' }";
    const std::string unknown = "nodes: node 'x1' is not in the daemon's table of nodes";
    EXPECT_EQ(answer(create), unknown);
    WriteFile("nodes", "x1 0x31\nx2 0x31\n");
    daemon->Signal(SIGHUP);
    daemon->WaitFor("The table of nodes stays as it is: " + Path("nodes") +
                    ":2: GUID 0x31 of x2 is x1's already, by line 1");
    EXPECT_EQ(answer(create), unknown);
    EXPECT_EQ(answer("update_reservation { key: 'B' add_free_nodes { count: 1 } }"), "n5");
    WriteFile("nodes", "x[1-40] 0x31-0x58");
    daemon->Signal(SIGHUP);
    daemon->WaitFor("names 40 nodes with 40 HCAs");
    EXPECT_EQ(answer(create), "");

    // Of those who want free nodes at once, none gets another one's: the 39 that are left are given away 3 by 3.
    std::atomic<int> num_done = 0;
    std::vector<std::thread> threads;
    for (const char* client : {"P", "Q", "R", "S"}) {
        threads.emplace_back([&, own = Connect(Address()), key = std::string(client)] {
            for (const char* number : {"1", "2", "3", "4"}) {
                auto request = RequestFor<v1::CreateReservationRequest>(key + number);
                request.mutable_free_nodes()->set_count(3);
                v1::ReservationReply reply;
                EXPECT_TRUE(Call(*own, &Stub::CreateReservation, request, &reply).ok());
                if (reply.status() == v1::STATUS_SUCCESS) ++num_done;
                EXPECT_TRUE(reply.status() == v1::STATUS_SUCCESS || reply.status() == v1::STATUS_TOO_FEW_FREE_NODES);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(num_done, 13);
}

TEST_F(EndToEndTest, FaultyTableOfNodesRefusesTheStart) {
    WriteFile("nodes", "n1\nn2 0\n");
    const auto daemon = Launch("--nodes DIR/nodes");
    EXPECT_EQ(daemon->Wait(), 1);
    EXPECT_EQ(Replaced(daemon->Output(), dir_.path(), "DIR"),
              "reservationd: DIR/nodes:1: 'n1' has no GUIDs\nDIR/nodes:2: '0' is no GUID: GUIDs begin at 1\n");
}

// ---- Sudden death ----

// A client that always makes the same changes, so that their number tells what the daemon must have: change 1 gives the
// client's reservation a GUID, change 2 begins a job on it, change 3 replaces the GUID, which ends the job, and so on.
struct BusyClient {
    enum class Way { kCalls, kTransacts, kSession };    // kTransacts: two changes at a time

    const uint64_t number;
    const Way way;
    std::atomic<uint64_t> num_answered = 0;
    uint64_t num_sent = 0;

    std::string Key() const { return "client" + std::to_string(number); }
    uint64_t GuidAfter(uint64_t num_changes) const { return number * 1'000'000 + (num_changes + 1) / 2; }

    // The line of its reservation in a list of all; empty when there is none.
    std::string LineAfter(uint64_t num_changes) const {
        std::ostringstream line;
        line << "\n"
             << Key() << "   0x0     1  " << (num_changes % 2 != 0 ? "0 of unlimited     0" : "6 of unlimited     1")
             << "  0x" << std::hex << GuidAfter(num_changes) << "\n";
        return num_changes == 0 ? "" : line.str();
    }

    // What was answered must be in the list; what was sent and not answered may be, up to one of the changes, but not
    // half a Transact.
    void Recognise(const std::string& list) {
        const uint64_t step = way == Way::kTransacts ? 2 : 1;
        uint64_t num_done = num_sent;
        while (num_done > num_answered && list.find(LineAfter(num_done)) == list.npos) num_done -= step;
        EXPECT_NE(list.find(LineAfter(num_done)), list.npos) << num_answered << " to " << num_sent << list;
        num_answered = num_sent = num_done;
    }

    // Sends change after change until one fails.
    void Work(const std::string& address) {
        const auto stub = Connect(address);
        if (way == Way::kSession) return WorkInSession(*stub);
        const uint64_t step = way == Way::kTransacts ? 2 : 1;
        do num_sent += step;
        while (way == Way::kTransacts ? Transact(*stub) : MakeCall(*stub));
    }

    bool Acknowledge(bool is_ok) {
        if (is_ok) num_answered = num_sent;
        return is_ok;
    }

    v1::Operation Change(uint64_t change) const {
        v1::Operation operation;
        if (change % 2 != 0) {
            operation.mutable_create_reservation()->set_key(Key());
            operation.mutable_create_reservation()->add_guids(GuidAfter(change));
            return operation;
        }
        v1::BeginJobRequest& request = *operation.mutable_begin_job();
        request.set_job_id(GuidAfter(change));
        request.add_guids(GuidAfter(change));
        request.set_planes(2);
        request.set_trees(3);
        return operation;
    }

    bool MakeCall(Stub& stub) {
        const v1::Operation change = Change(num_sent);
        v1::ReservationReply reservation_reply;
        v1::BeginJobReply job_reply;
        return Acknowledge(
            change.has_begin_job()
                ? Call(stub, &Stub::BeginJob, change.begin_job(), &job_reply).ok()
                : Call(stub, &Stub::CreateReservation, change.create_reservation(), &reservation_reply).ok());
    }

    bool Transact(Stub& stub) {
        v1::TransactRequest request;
        for (const uint64_t change : {num_sent - 1, num_sent}) *request.add_operations() = Change(change);
        v1::TransactReply reply;
        return Acknowledge(Call(stub, &Stub::Transact, request, &reply).ok() && reply.accepted());
    }

    void WorkInSession(Stub& stub) {
        constexpr uint64_t kMaxInFlight = 16;
        grpc::ClientContext context;
        const auto session = stub.Session(&context);
        v1::SessionReply reply;
        do {
            while (num_sent < num_answered + kMaxInFlight) {
                v1::SessionRequest request;
                *request.mutable_operation() = Change(++num_sent);
                if (!session->Write(request)) break;
            }
        } while (session->Read(&reply) && reply.error_code() == 0 && ++num_answered > 0);
        while (session->Read(&reply)) continue;
        session->Finish();
    }
};

class SuddenDeathTest : public EndToEndTest {
protected:
    void ExpectEventsWithoutGap() const {
        v1::DaemonInfo info;
        EXPECT_TRUE(Call(*Connect(Address()), &Stub::GetDaemonInfo, {}, &info).ok());
        const std::string newest = std::to_string(info.last_sequence());
        const std::string events = Ctl("watch --from 1 --count " + newest);
        EXPECT_EQ(std::count(events.begin(), events.end(), '\n'), static_cast<ptrdiff_t>(info.last_sequence() + 1));
        EXPECT_NE(events.find("\n" + newest + "  "), std::string::npos);
    }

    void SleepAtMost(unsigned millis) { std::this_thread::sleep_for(std::chrono::milliseconds(random_() % millis)); }

    std::mt19937 random_;
};

TEST_F(SuddenDeathTest, NothingThatWasAnsweredIsLost) {
    const char* const wanted_rounds = std::getenv("SUDDEN_DEATHS");
    const int num_rounds = wanted_rounds != nullptr ? std::stoi(wanted_rounds) : 10;
    const std::string options = "--reservation-allow-ending-jobs --kept-events 1000000";
    using enum BusyClient::Way;
    std::array<BusyClient, 4> clients{{{1, kCalls}, {2, kTransacts}, {3, kSession}, {4, kSession}}};
    for (int round = 0; round <= num_rounds; ++round) {
        {
            const auto dies_early = Launch(options);
            SleepAtMost(40);
        }
        auto daemon = Serve(options);
        const std::string list = Ctl("list");
        for (BusyClient& client : clients) client.Recognise(list);
        if (round == num_rounds) {
            ExpectEventsWithoutGap();
            daemon->Signal(SIGTERM);
            EXPECT_EQ(daemon->Wait(), 0);
            break;
        }
        std::vector<std::thread> threads;
        for (BusyClient& client : clients) threads.emplace_back([&] { client.Work(Address()); });
        const uint64_t enough = clients.front().num_answered + 10 + random_() % 50;
        while (clients.front().num_answered < enough) SleepAtMost(2);
        daemon->Signal(SIGKILL);
        for (std::thread& thread : threads) thread.join();
    }
    for (const BusyClient& client : clients) {
        std::ostringstream guid;
        guid << "\nguid 0x" << std::hex << std::setw(16) << std::setfill('0') << client.GuidAfter(client.num_answered);
        EXPECT_NE(Content(Path("state/reservation." + client.Key())).find(guid.str()), std::string::npos);
    }
}

}    // namespace
