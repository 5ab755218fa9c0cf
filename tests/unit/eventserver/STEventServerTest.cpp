// The event socket and its one thread. Real: sockets, clients, files, threads, the reporter behind. Not real: the hub
// (a recording broker) and the agent (a recording library). A client that reads to the end of its connection has been
// served, so no test waits for time to pass.
#include "events/STEventServer.h"

#include "daemon/Trace.h"
#include "events/STEventData.h"
#include "tests/support/Eventually.h"
#include "tests/support/RecordingBroker.h"
#include "tests/support/TraceLog.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/daemon/RecordingAgent.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <thread>

using namespace testing_support;
using Sentrel::STEventServer;

namespace {

using Lines = std::vector<std::string>;

/// A browser component's connection.
class Client {
public:
    explicit Client(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        m_connected = connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { hangUp(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool connected() const { return m_connected; }
    bool send(const std::string& message) const {
        return ::send(m_fd, message.data(), message.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
    }
    /// All that comes until the server has closed the connection, which is when it has done with the message.
    std::string readToTheEnd() const {
        std::string all;
        std::array<char, 4096> some{};
        for (ssize_t got = 0; (got = read(m_fd, some.data(), some.size())) > 0;) {
            all.append(some.data(), static_cast<std::size_t>(got));
        }
        return all;
    }
    void hangUp() {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = -1;
    }

private:
    int m_fd;
    bool m_connected = false;
};

STEventData record(const std::string& eventId, const std::string& url, const std::string& process) {
    STEventData event{};
    eventId.copy(event.eventId, sizeof event.eventId);
    url.copy(event.url, sizeof event.url);
    process.copy(event.browserProcessName, sizeof event.browserProcessName);
    event.urlRating = -100;
    event.action = 3;
    event.inAllowBlockList = 1;
    event.blockedInAllowBlockList = 2;
    event.blockedInCategory = 4;
    event.blockedCategoryId = 105;
    event.isPhishing = 6;
    event.isRpxReachable = 7;
    event.count = 8;
    event.userAction = 9;
    return event;
}

std::string bytesOf(const STEventData& event) {
    return {reinterpret_cast<const char*>(&event), sizeof event};
}

STEventData recordOf(std::string bytes) {
    bytes.resize(sizeof(STEventData), '\0');
    STEventData event{};
    std::memcpy(&event, bytes.data(), sizeof event);
    return event;
}

template <std::size_t Size>
std::string textOf(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

Lines fieldLines(const STEventData& event) {
    const std::string prefix = "STEventServer::processSocketEvent - ";
    return {prefix + "Event ID - " + textOf(event.eventId) + " ",
            prefix + "URL - " + textOf(event.url) + " ",
            prefix + "BrowserProcess Name - " + textOf(event.browserProcessName) + " ",
            prefix + "URL rating - " + std::to_string(event.urlRating) + " ",
            prefix + "URL In AllowBlock List - " + std::to_string(event.inAllowBlockList) + " ",
            prefix + "Blocked In AllowBlock List - " + std::to_string(event.blockedInAllowBlockList) + " ",
            prefix + "Blocked In Category - " + std::to_string(event.blockedInCategory) + " ",
            prefix + "Blocked In CategoryID - " + std::to_string(event.blockedCategoryId) + " ",
            prefix + "Is Phishing URL - " + std::to_string(event.isPhishing) + " ",
            prefix + "Is RPX Reachable - " + std::to_string(event.isRpxReachable) + " "};
}

const std::string kHeader = "------------------ EVENT SERVER RECIEVED DATA ------------------";
const std::string kEnd = "------------------ END ------------------";

Lines recordLines(const STEventData& event) {
    Lines lines = fieldLines(event);
    lines.insert(lines.begin(), kHeader);
    lines.push_back(kEnd);
    return lines;
}

/// A URL that the reporter drops, so that a test sees the server alone.
constexpr const char* kDropped = "nowhere";

struct AnEventServer : testing::Test {
    DaemonRoot root;
    TraceLog log;
    Recording& hub = Recording::instance();
    RecordingAgent& agent = RecordingAgent::instance();

    AnEventServer() {
        agent.decrypt = [](const std::string& text) { return "clear " + text; };
        mgsFlowvalue = 0;
    }
    ~AnEventServer() override { STEventServer::releaseInstance(); }

    STEventServer& start() const {
        STEventServer::getInstance()->start();
        return *STEventServer::getInstance();
    }
    std::string exchange(const std::string& message) const {
        const Client client(root.eventSocket());
        EXPECT_TRUE(client.connected());
        EXPECT_TRUE(client.send(message));
        return client.readToTheEnd();
    }
    /// Proves that the server still serves.
    void expectService() const {
        const std::string reply = exchange(std::string("Decrypt still\0", 14));
        EXPECT_EQ(reply.substr(0, 11), "clear still");
        EXPECT_EQ(reply.size(), 1024u);
    }
    std::size_t count(const std::string& start) const {
        const Lines lines = log.lines();
        return static_cast<std::size_t>(std::count_if(
            lines.begin(), lines.end(), [&start](const std::string& line) { return line.rfind(start, 0) == 0; }));
    }
    bool eventuallyTraced(const std::string& start, std::size_t times = 1) const {
        return eventually([&] { return count(start) >= times; });
    }
    bool waitsInSelect(std::size_t times = 1) const {
        return eventuallyTraced("STEventServer::monitorFd - Inside while blocking on Select for fd ", times);
    }
    /// Only the lines of records, in their order.
    Lines tracedRecords() const {
        Lines records;
        bool inside = false;
        for (const std::string& line : log.lines()) {
            inside = inside || line == kHeader;
            if (inside) {
                records.push_back(line);
            }
            inside = inside && line != kEnd;
        }
        return records;
    }
};

// --- setting up ---------------------------------------------------------------------------------------------------

TEST_F(AnEventServer, OpensItsSocketForEveryLocalUserWhateverTheUmask) {
    umask(077);
    start();
    struct stat status {};
    ASSERT_EQ(stat(root.eventSocket().c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777u, 0777u);
    expectService();
}

TEST_F(AnEventServer, TracesItsSetUpLineByLine) {
    STEventServer::getInstance();
    EXPECT_EQ(log.lines(), (Lines{"STEventServer::STEventServer - Entered",
                                  "STEventServer::STEventServer -  result code No file of the same path: do nothing"}));
}

TEST_F(AnEventServer, TracesThatThereWasNoNodeAtLevelThreeAndNotBelow) {
    ipcFlowvalue = 2;
    STEventServer::getInstance();
    EXPECT_EQ(log.lines(), (Lines{"STEventServer::STEventServer - Entered"}));
}

TEST_F(AnEventServer, IsOneInstanceUntilItIsReleased) {
    STEventServer* const first = STEventServer::getInstance();
    EXPECT_EQ(STEventServer::getInstance(), first);
}

TEST_F(AnEventServer, HoldsSigpipeBackOnTheThreadThatMadeIt) {
    STEventServer::getInstance();
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    for (int signal = 1; signal < 32; ++signal) {
        EXPECT_EQ(sigismember(&mask, signal) == 1, signal == SIGPIPE) << signal;
    }
}

TEST_F(AnEventServer, RemovesAStaleSocketNodeOfACrash) {
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        root.eventSocket().copy(address.sun_path, sizeof address.sun_path - 1);
        const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        close(stale);
    }
    start();
    EXPECT_EQ(count("STEventServer::STEventServer -  result code No file"), 0u);
    expectService();
}

TEST_F(AnEventServer, RemovesARegularFileAtItsPathTheSameWay) {
    writeFile(root.eventSocket(), "no socket");
    start();
    expectService();
}

struct AnUnusableEventServer : AnEventServer {
    /// Sets the server up at @p level and gives the lines of that.
    Lines setUpAt(int level) {
        ipcFlowvalue = level;
        start();
        return log.lines();
    }
    const std::string notReady =
        "STEventServer::start - Error unable on start Event Server as socket connection is not ready";
};

TEST_F(AnUnusableEventServer, ExistsAndDoesNothingWhenADirectoryIsAtItsPath) {
    std::filesystem::create_directory(root.eventSocket());
    EXPECT_EQ(setUpAt(1), (Lines{"STEventServer::STEventServer - Error unlinking the existing socket node", notReady}));
    EXPECT_TRUE(std::filesystem::is_directory(root.eventSocket()));
    EXPECT_FALSE(Client(root.eventSocket()).connected());
}

TEST_F(AnUnusableEventServer, SaysThatItCannotBindWhenItsDirectoryIsMissing) {
    std::filesystem::remove_all(root.shared());
    EXPECT_EQ(setUpAt(1),
              (Lines{"STEventServer::STEventServer - Error in binding to server socket with retCode - -1, - "
                     "errno - 2 and error - No such file or directory",
                     notReady}));
    EXPECT_FALSE(std::filesystem::exists(root.shared()));
}

TEST_F(AnUnusableEventServer, NamesTheFailedStatWhenItsDirectoryIsAFile) {
    std::filesystem::remove_all(root.shared());
    writeFile(root.shared(), "no directory");
    EXPECT_EQ(setUpAt(1),
              (Lines{"STEventServer::STEventServer Error in Select errno = 20 and error = Not a directory", notReady}));
}

TEST_F(AnUnusableEventServer, IsSilentAtLevelZero) {
    std::filesystem::create_directory(root.eventSocket());
    EXPECT_TRUE(setUpAt(0).empty());
}

TEST_F(AnUnusableEventServer, NamesTheFailedSocketWhenThereAreNoDescriptors) {
    ipcFlowvalue = 0;
    STEventServer::getInstance(); // once before, as a sanitizer's first look at a class wants descriptors of its own
    STEventServer::releaseInstance();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    ipcFlowvalue = 1;
    STEventServer* const server = STEventServer::getInstance();
    setrlimit(RLIMIT_NOFILE, &before);
    server->start();
    EXPECT_EQ(log.lines(), (Lines{"STEventServer::STEventServer - Create socket() system call failed with errno=24 and "
                                  "error=Too many open files",
                                  notReady}));
}

TEST_F(AnUnusableEventServer, RefusesADescriptorThatItCouldNotWaitFor) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 64);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < FD_SETSIZE - 1) {
        taken.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(taken.back(), 0);
    }
    ipcFlowvalue = 1;
    start();
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_EQ(log.lines(), (Lines{"STEventServer::STEventServer - Create socket() system call failed with errno=24 and "
                                  "error=Too many open files",
                                  notReady}));
}

/// A root so deep that its socket's path does not fit a socket address.
struct ADeepRoot : testing::Test {
    DaemonRoot shallow;
    std::string deep = shallow.path() + "/" + std::string(100, 'd');
    ADeepRoot() { setInstallRoot(deep); }
    ~ADeepRoot() override { STEventServer::releaseInstance(); }
};

TEST_F(ADeepRoot, IsRefusedInsteadOfBindingACutName) {
    std::filesystem::create_directories(deep + "/Users/Shared/.orvanta");
    const TraceLog log;
    ipcFlowvalue = 1;
    STEventServer::getInstance()->start();
    EXPECT_EQ(log.lines().front(),
              "STEventServer::STEventServer - Error in binding to server socket with retCode - -1, "
              "- errno - 36 and error - File name too long");
    EXPECT_TRUE(std::filesystem::is_empty(deep + "/Users/Shared/.orvanta"));
}

// --- starting and stopping ----------------------------------------------------------------------------------------

TEST_F(AnEventServer, TracesItsLifeLineByLine) {
    start();
    ASSERT_TRUE(waitsInSelect());
    const std::string waits = log.lines().back();
    STEventServer::releaseInstance();
    Lines expected{"STEventServer::STEventServer - Entered",
                   "STEventServer::STEventServer -  result code No file of the same path: do nothing",
                   "STEventServer::start - Entered",
                   "STEventServer::start - invoking run on a seperate thread",
                   "STEventServer::run loop entered",
                   "STEventServer::monitorFd - Entered",
                   waits,
                   "STEventServer::releaseInstance - Invoked ",
                   "STEventServer::~STEventServer - Entered",
                   "STEventServer::~STEventServer - closing socket"};
    const Lines lines = log.lines();
    ASSERT_GT(lines.size(), expected.size());
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(expected.size())), expected);
    // From the wake-up on two threads write.
    EXPECT_THAT(lines, testing::IsSupersetOf({"STEventServer::~STEventServer - waiting for pthread to terminate",
                                              "STEventServer::monitorFd - Shutting down."}));
    EXPECT_EQ(lines[lines.size() - 2], "STEventServer::~STEventServer - Completed");
    EXPECT_EQ(lines.back(), "STEventServer::releaseInstance - Completed ");
}

TEST_F(AnEventServer, StopsPromptlyWhileNoClientIsConnected) {
    start();
    ASSERT_TRUE(waitsInSelect());
    STEventServer::releaseInstance(); // would hang here
    EXPECT_TRUE(log.has("STEventServer::monitorFd - Shutting down."));
    EXPECT_FALSE(Client(root.eventSocket()).connected());
}

TEST_F(AnEventServer, StopsThoughItWasNeverStarted) {
    STEventServer::getInstance();
    STEventServer::releaseInstance();
    EXPECT_FALSE(log.has("STEventServer::~STEventServer - waiting for pthread to terminate"));
}

TEST_F(AnEventServer, LeavesItsNodeBehind) {
    start();
    STEventServer::releaseInstance();
    EXPECT_TRUE(std::filesystem::is_socket(root.eventSocket()));
}

TEST_F(AnEventServer, ClosesItsDescriptor) {
    const int first = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(first);
    start();
    STEventServer::releaseInstance();
    const int again = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(again);
    EXPECT_EQ(again, first);
}

TEST_F(AnEventServer, MayBeReleasedWhenThereIsNone) {
    STEventServer::releaseInstance();
    EXPECT_EQ(log.lines(),
              (Lines{"STEventServer::releaseInstance - Invoked ", "STEventServer::releaseInstance - Completed "}));
    ipcFlowvalue = 1;
    STEventServer::releaseInstance();
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(AnEventServer, WaitsAtItsEndForAClientThatIsConnectedAndSilent) {
    start();
    const auto silent = std::make_unique<Client>(root.eventSocket());
    ASSERT_TRUE(eventuallyTraced("STEventServer::processSocketEvent - Going to read data from socket"));
    std::thread stopping([] { STEventServer::releaseInstance(); });
    EXPECT_TRUE(eventuallyTraced("STEventServer::~STEventServer - waiting for pthread to terminate"));
    const STEventData event = record("late", kDropped, "p");
    EXPECT_TRUE(silent->send(bytesOf(event))); // it is still served
    stopping.join();
    EXPECT_EQ(tracedRecords(), recordLines(event));
    EXPECT_EQ(log.lines().back(), "STEventServer::releaseInstance - Completed ");
}

TEST_F(AnEventServer, GoesOnAfterAnInterruptedWait) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const auto threads = [] {
        std::set<std::string> ids;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
            ids.insert(entry.path().filename());
        }
        return ids;
    };
    std::thread([] {}).join(); // a sanitizer's own thread comes with the first one
    const std::set<std::string> before = threads();
    start();
    ASSERT_TRUE(waitsInSelect());
    std::set<std::string> own = threads();
    std::erase_if(own, [&before](const std::string& id) { return before.count(id) != 0; });
    ASSERT_EQ(own.size(), 1u);
    EXPECT_TRUE(eventually([&] {
        syscall(SYS_tgkill, getpid(), std::stoi(*own.begin()), SIGUSR1);
        return log.has("STEventServer::monitorFds - Interrupted system call so continue");
    }));
    EXPECT_TRUE(log.has("STEventServer::monitorFds - errno = 4 and error = Interrupted system call"));
    expectService();
}

TEST_F(AnEventServer, GoesOnAfterAConnectionThatItHadNoDescriptorFor) {
    start();
    exchange("x"); // everything exists from here on, so that only the connection wants a descriptor
    const std::size_t served = count("STEventServer::processSocketEvent - Going to read data from socket");
    const Client silent(root.eventSocket());
    ASSERT_TRUE(eventuallyTraced("STEventServer::processSocketEvent - Going to read data from socket", served + 1));
    const Client next(root.eventSocket());
    EXPECT_TRUE(next.send("y"));
    std::ifstream file(log.path());
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_TRUE(silent.send("x")); // the thread is free for the next one, and has no descriptor for it
    const std::string failed = "Error in accept coonection. errno = 24 and error = Too many open files";
    EXPECT_TRUE(eventually([&file, &failed] {
        file.clear();
        std::string line;
        while (std::getline(file, line)) {
            if (line.find(failed) != std::string::npos) {
                return true;
            }
        }
        return false;
    }));
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(next.readToTheEnd(), "");
    expectService();
}

// --- connections --------------------------------------------------------------------------------------------------

TEST_F(AnEventServer, OutlivesAClientThatConnectsAndCloses) {
    start();
    Client(root.eventSocket()).hangUp();
    EXPECT_TRUE(eventuallyTraced(
        "STEventServer::processSocketEvent - nothing to read from connection so closing session with client"));
    expectService();
    EXPECT_TRUE(tracedRecords().empty());
}

TEST_F(AnEventServer, ClosesTheConnectionBehindAnEventAndSendsNothingBack) {
    start();
    EXPECT_EQ(exchange(bytesOf(record("1", kDropped, "p"))), "");
    expectService();
}

TEST_F(AnEventServer, TracesAConnectionLineByLine) {
    start();
    ASSERT_TRUE(waitsInSelect());
    const std::size_t before = log.lines().size();
    const STEventData event = record("42", kDropped, "safari");
    exchange(bytesOf(event));
    ASSERT_TRUE(waitsInSelect(2));
    Lines lines = log.lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    ASSERT_GT(lines.size(), 8u);
    const auto numberOf = [](const std::string& line) { return line.substr(line.rfind(' ') + 1); };
    const std::string client = numberOf(lines[4]);
    Lines expected{"STEventServer::monitorFd - select returned 1",
                   "STEventServer::run - FD is set so read the data from socket",
                   "STEventServer::processSocketEvent - Entered",
                   "STEventServer::processSocketEvent - Going to accept a connection from client",
                   "STEventServer::processSocketEvent - Going to read data from socket with clientFD " + client,
                   "STEventServer::processSocketEvent - Server Received: 42 at " + client};
    const Lines fields = recordLines(event);
    expected.insert(expected.end(), fields.begin(), fields.end());
    expected.push_back("EventReporter::sendSTEvent - Invoked ");
    expected.push_back("EventReporter::sendBlockEventToHVB - Invoked ");
    expected.push_back(lines.back());
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(lines.back().rfind("STEventServer::monitorFd - Inside while blocking on Select for fd ", 0), 0u);
}

TEST_F(AnEventServer, TracesTheFrameOfARecordAtLevelThreeAndItsFieldsAtFour) {
    start();
    const STEventData event = record("42", kDropped, "safari");
    ipcFlowvalue = 3;
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords(), (Lines{kHeader, kEnd}));
    EXPECT_EQ(count("STEventServer::processSocketEvent - Server Received"), 0u);
    ipcFlowvalue = 2;
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords(), (Lines{kHeader, kEnd}));
    ipcFlowvalue = 4;
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords().size(), 2u + 12u);
}

TEST_F(AnEventServer, ServesOneClientAfterTheOtherSoASilentOneHoldsUpTheRest) {
    start();
    const Client silent(root.eventSocket());
    ASSERT_TRUE(eventuallyTraced("STEventServer::processSocketEvent - Going to read data from socket"));
    const STEventData second = record("second", kDropped, "p");
    const Client next(root.eventSocket());
    EXPECT_TRUE(next.send(bytesOf(second))); // is there in full before the first one has said anything
    const STEventData first = record("first", kDropped, "p");
    EXPECT_TRUE(silent.send(bytesOf(first)));
    EXPECT_EQ(next.readToTheEnd(), "");
    Lines expected = recordLines(first);
    const Lines rest = recordLines(second);
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(tracedRecords(), expected);
}

TEST_F(AnEventServer, HandsAnEventToTheReporter) {
    start();
    exchange(bytesOf(record("1", "http://bad.example/page", "firefox")));
    STEventServer::releaseInstance(); // its thread has ended
    ASSERT_FALSE(hub.logs.empty());
    EXPECT_EQ(hub.logs.front().sourceId, 7);
    EXPECT_NE(hub.logs.front().detailText.find(L"http://bad.example/page"), std::wstring::npos);
}

// --- messages of every length -------------------------------------------------------------------------------------

TEST_F(AnEventServer, TakesAShortMessageAsARecordThatIsZeroBehindItWhateverCameBefore) {
    start();
    STEventData secret{};
    std::memset(&secret, 'S', sizeof secret);
    const std::string whole = bytesOf(record("0123456789abcde", std::string(271, 'u'), std::string(63, 'p')));
    Lines expected;
    for (std::size_t length = 1; length < kEventRecordBytes; ++length) {
        exchange(bytesOf(secret));
        exchange(whole.substr(0, length));
        for (const STEventData& event : {secret, recordOf(whole.substr(0, length))}) {
            const Lines lines = recordLines(event);
            expected.insert(expected.end(), lines.begin(), lines.end());
        }
    }
    EXPECT_EQ(tracedRecords(), expected);
}

TEST_F(AnEventServer, TakesARecordOfExactlyItsLengthWhole) {
    start();
    const STEventData event = record("0123456789abcdef", std::string(272, 'u'), std::string(64, 'p')); // no terminators
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords(), recordLines(event));
}

TEST_F(AnEventServer, CountsOnlyTheFirst392BytesOfALongerMessage) {
    start();
    const STEventData event = record("long", kDropped, "p");
    for (const std::size_t more : {1u, 500u, 632u}) {
        exchange(bytesOf(event) + std::string(more, 'x'));
    }
    Lines expected;
    for (int round = 0; round < 3; ++round) {
        const Lines lines = recordLines(event);
        expected.insert(expected.end(), lines.begin(), lines.end());
    }
    EXPECT_EQ(tracedRecords(), expected);
}

TEST_F(AnEventServer, LosesWhatIsBehind1024BytesAndTakesNoSecondMessageFromIt) {
    start();
    const STEventData event = record("longest", kDropped, "p");
    const STEventData lost = record("lost", kDropped, "p");
    std::string message = bytesOf(event);
    message.resize(1024, 'x');
    exchange(message + bytesOf(lost));
    EXPECT_EQ(tracedRecords(), recordLines(event));
    expectService();
}

TEST_F(AnEventServer, TracesTextsThatAreNoUtf8OnOneLineEach) {
    start();
    exchange(bytesOf(record("a\nb", "Caf\xC3\xA9 \xFF\x1B[2J", "p\x80")));
    const Lines lines = tracedRecords();
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines[1], "STEventServer::processSocketEvent - Event ID - a\\x0ab ");
    EXPECT_EQ(lines[2], "STEventServer::processSocketEvent - URL - Caf\xC3\xA9 \\xff\\x1b[2J ");
    EXPECT_EQ(lines[3], "STEventServer::processSocketEvent - BrowserProcess Name - p\\x80 ");
    EXPECT_EQ(count("STEventServer::processSocketEvent - Server Received: a\\x0ab at "), 1u);
}

TEST_F(AnEventServer, OutlivesRandomBytes) {
    start();
    std::mt19937 random(20240229);
    for (int round = 0; round < 300; ++round) {
        std::string message(1 + random() % 1500, '\0');
        std::generate(message.begin(), message.end(), [&random] { return static_cast<char>(random()); });
        exchange(message);
    }
    EXPECT_EQ(count(kHeader), 300u);
    expectService();
}

// --- decrypt requests ---------------------------------------------------------------------------------------------

struct ADecryptRequest : AnEventServer {
    ADecryptRequest() { start(); }
    static std::string replyOf(const std::string& clearText) {
        std::string reply = clearText;
        reply.resize(1024, '\0');
        return reply;
    }
};

TEST_F(ADecryptRequest, IsAnsweredWithTheClearTextInExactly1024BytesZeroBehindIt) {
    EXPECT_EQ(exchange(std::string("Decrypt secret\0", 15)), replyOf("clear secret"));
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "decryptMessage secret"}));
    EXPECT_TRUE(tracedRecords().empty());
}

TEST_F(ADecryptRequest, WithoutATerminatorEndsWhereItEnds) {
    EXPECT_EQ(exchange("Decrypt secret"), replyOf("clear secret"));
}

TEST_F(ADecryptRequest, EndsAtItsTerminatorWhateverIsBehind) {
    EXPECT_EQ(exchange(std::string("Decrypt secret\0more", 19)), replyOf("clear secret"));
}

TEST_F(ADecryptRequest, SeesNothingOfAnEarlierLongerOne) {
    exchange("Decrypt " + std::string(1016, 's'));
    EXPECT_EQ(exchange("Decrypt x"), replyOf("clear x"));
}

TEST_F(ADecryptRequest, WithNoTextAsksForNothing) {
    EXPECT_EQ(exchange("Decrypt "), replyOf("clear "));
    EXPECT_EQ(agent.calls().back(), "decryptMessage ");
}

TEST_F(ADecryptRequest, OfTheLargestSizeIsReadWholeAndNothingBeyond) {
    agent.decrypt = [](const std::string& text) { return text; };
    EXPECT_EQ(exchange("Decrypt " + std::string(1016, 'x')), replyOf(std::string(1016, 'x')));
    exchange("Decrypt " + std::string(1016, 'x') + "yyy");
    EXPECT_EQ(agent.calls().back(), "decryptMessage " + std::string(1016, 'x'));
}

TEST_F(ADecryptRequest, WhoseClearTextIsLongerThanTheReplyIsCutAtItsEnd) {
    agent.decrypt = [](const std::string&) { return std::string(2000, 'c'); };
    EXPECT_EQ(exchange("Decrypt x"), std::string(1024, 'c'));
}

TEST_F(ADecryptRequest, WhoseClearTextHoldsATerminatorEndsThere) {
    agent.decrypt = [](const std::string&) { return std::string("clear\0hidden", 12); };
    EXPECT_EQ(exchange("Decrypt x"), replyOf("clear"));
}

TEST_F(ADecryptRequest, IsAnsweredWithZeroesWithoutAnAgent) {
    agent.present = false;
    EXPECT_EQ(exchange("Decrypt x"), replyOf(""));
}

TEST_F(ADecryptRequest, IsAnsweredWithZeroesWhenTheAgentThrows) {
    agent.decrypt = [](const std::string&) -> std::string { throw std::runtime_error("bad text"); };
    EXPECT_EQ(exchange("Decrypt x"), replyOf(""));
}

TEST_F(ADecryptRequest, IsToldFromAnEventByItsFirstEightBytesAlone) {
    std::string event = bytesOf(record("Decrypt ", kDropped, "p"));
    EXPECT_EQ(exchange(event), replyOf("clear "));
    for (const char* other : {"Decrypt", "decrypt x", "Decrypt\tx", " Decrypt x", "DecryptX"}) {
        EXPECT_EQ(exchange(other), "") << other;
    }
    EXPECT_EQ(count(kHeader), 5u);
}

TEST_F(ADecryptRequest, TracesItsTextAtLevelFourAndNotBelow) {
    exchange("Decrypt secret\n");
    EXPECT_EQ(count("STEventServer::processSocketEvent - encPass: secret\\x0a"), 1u);
    ipcFlowvalue = 3;
    exchange("Decrypt secret\n");
    EXPECT_EQ(count("STEventServer::processSocketEvent - encPass: "), 1u);
}

TEST_F(ADecryptRequest, OfAClientThatHasGoneGivesAFailedWriteAndNotADeadDaemon) {
    const Client silent(root.eventSocket());
    ASSERT_TRUE(eventuallyTraced("STEventServer::processSocketEvent - Going to read data from socket"));
    Client gone(root.eventSocket());
    EXPECT_TRUE(gone.send("Decrypt secret"));
    gone.hangUp(); // while the server waits for the first one
    EXPECT_TRUE(silent.send("x"));
    expectService();
    EXPECT_EQ(agent.calls()[1], "decryptMessage secret");
}

TEST_F(ADecryptRequest, WhoseHandlingThrowsIsTracedAndTheNextOneServed) {
    agent.before = [this](const std::string& call) {
        if (call == "createInstance" && agent.calls().size() == 1) {
            throw std::runtime_error("no agent library");
        }
    };
    Client unlucky(root.eventSocket());
    EXPECT_TRUE(unlucky.send("Decrypt x"));
    expectService();
    EXPECT_EQ(count("STEventServer::processSocketEvent - Got unkown excpetion "), 1u);
}

} // namespace
