// The event server on a system that refuses: listen, chmod, select and pthread_create fail as they are told to. Real:
// the socket, its queue, the trace log.
#include "events/STEventServer.h"

#include "daemon/Trace.h"
#include "tests/support/FlowLines.h"
#include "tests/support/Lines.h"
#include "tests/support/UnixSocket.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/eventserver/SocketCalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

using namespace testing_support;
using Sentrel::STEventServer;

namespace {

struct AnEventServerThatIsRefused : testing::Test {
    DaemonRoot root;
    SocketCalls& calls = SocketCalls::instance();

    ~AnEventServerThatIsRefused() override {
        calls = {};
        STEventServer::releaseInstance();
    }

    /// The lines of setting up and starting, each with its level.
    Lines setUpLines() const {
        return leveledLines(ipcFlowvalue, [] {
            STEventServer::getInstance()->start();
            const int level = ipcFlowvalue;
            ipcFlowvalue = 0;
            STEventServer::releaseInstance();
            ipcFlowvalue = level;
        });
    }
};

Lines afterTheStaleNode(const std::string& failure) {
    return {"2 STEventServer::STEventServer - Entered", "1 STEventServer::STEventServer - " + failure,
            "2 STEventServer::start - Entered",
            "1 STEventServer::start - Error unable on start Event Server as socket connection is not ready"};
}

TEST_F(AnEventServerThatIsRefused, DoesNotStartWithoutTheModeForEverybody) {
    STEventServer::getInstance();
    STEventServer::releaseInstance(); // its node is there from now on
    calls.chmodError = EPERM;
    EXPECT_EQ(setUpLines(), afterTheStaleNode("Error in changing permission"));
}

TEST_F(AnEventServerThatIsRefused, DoesNotStartWithoutAListeningSocket) {
    STEventServer::getInstance();
    STEventServer::releaseInstance();
    calls.listenError = EOPNOTSUPP;
    EXPECT_EQ(setUpLines(), afterTheStaleNode("Error in registering listener to socket"));
}

TEST_F(AnEventServerThatIsRefused, WaitsForNoThreadThatItDidNotGet) {
    calls.threadError = EAGAIN;
    const TraceLog log;
    STEventServer::getInstance()->start();
    STEventServer::releaseInstance();
    EXPECT_TRUE(log.has("STEventServer::start - invoking run on a seperate thread"));
    EXPECT_FALSE(log.has("STEventServer::~STEventServer - waiting for pthread to terminate"));
}

/// An install root whose socket's path has a length of the test's choice.
class RootWithASocketPathOf {
public:
    explicit RootWithASocketPathOf(std::size_t length) {
        const std::size_t missing = length - m_short.eventSocket().size() - 1;
        const std::string root = m_short.path() + "/" + std::string(missing, 'd');
        m_directory = root + "/Users/Shared/.orvanta";
        std::filesystem::create_directories(m_directory);
        setInstallRoot(root);
    }

    bool hasASocket() const { return !std::filesystem::is_empty(m_directory); }

private:
    DaemonRoot m_short;
    std::string m_directory;
};

TEST(AnEventServersPath, MayBeAsLongAsASocketAddressHolds) {
    for (const std::size_t length : {sizeof(sockaddr_un::sun_path) - 1, sizeof(sockaddr_un::sun_path)}) {
        const RootWithASocketPathOf root(length);
        STEventServer::getInstance();
        STEventServer::releaseInstance();
        EXPECT_EQ(root.hasASocket(), length < sizeof(sockaddr_un::sun_path)) << length;
    }
}

TEST(AnEventServersQueue, HoldsFiveAndTheOneInFront) {
    const DaemonRoot root;
    STEventServer::getInstance(); // nobody accepts
    constexpr int queueLength = 5;
    std::vector<int> clients;
    bool isConnected = true;
    while (isConnected && clients.size() < 100) {
        clients.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        isConnected = connectSocket(clients.back(), root.eventSocket());
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(clients.size() - 1, queueLength + 1u); // Linux lets one more in than was asked for
    for (const int client : clients) {
        close(client);
    }
    STEventServer::releaseInstance();
}

// --- waiting ------------------------------------------------------------------------------------------------------

int failWith(int error) {
    errno = error;
    return -1;
}

/// A server whose loop runs on the test's own thread until a failing select ends it.
struct AnEventServersLoop : AnEventServerThatIsRefused {
    STEventServer& server = *STEventServer::getInstance();

    /// @param answers what select does, one call after the other.
    template <class... Answers>
    Lines linesWhenSelectGives(Answers... answers) const {
        return leveledLines(
            ipcFlowvalue,
            [this, answers...] {
                calls.select = {answers...};
                server.monitorFd();
                EXPECT_TRUE(calls.select.empty()) << "it ended early";
            },
            [](const std::string& line) { return line.substr(0, line.find(" for fd ")); });
    }
};

const Lines kEntered{"2 STEventServer::monitorFd - Entered"};
const Lines kOutOfMemory{"4 STEventServer::monitorFd - Inside while blocking on Select",
                         "3 STEventServer::monitorFd - select returned -1",
                         "1 STEventServer::monitorFds - errno = 12 and error = Cannot allocate memory",
                         "2 STEventServer::monitorFds - blocking on select() failed so bail out"};

int endTheLoop() {
    return failWith(ENOMEM);
}

TEST_F(AnEventServersLoop, EndsWhenSelectFails) {
    EXPECT_EQ(linesWhenSelectGives(endTheLoop), kEntered + kOutOfMemory);
}

TEST_F(AnEventServersLoop, GoesOnWhenItsDescriptorIsClosed) {
    EXPECT_EQ(linesWhenSelectGives([] { return failWith(EBADF); }, endTheLoop),
              (kEntered +
               Lines{"4 STEventServer::monitorFd - Inside while blocking on Select",
                     "3 STEventServer::monitorFd - select returned -1",
                     "1 STEventServer::monitorFds - errno = 9 and error = Bad file descriptor"} +
               kOutOfMemory));
}

TEST_F(AnEventServersLoop, GoesOnWhenSelectIsInterrupted) {
    EXPECT_EQ(linesWhenSelectGives([] { return failWith(EINTR); }, endTheLoop),
              (kEntered +
               Lines{"4 STEventServer::monitorFd - Inside while blocking on Select",
                     "3 STEventServer::monitorFd - select returned -1",
                     "1 STEventServer::monitorFds - errno = 4 and error = Interrupted system call",
                     "3 STEventServer::monitorFds - Interrupted system call so continue"} +
               kOutOfMemory));
}

TEST_F(AnEventServersLoop, GoesOnWhenSelectGivesNothing) {
    EXPECT_EQ(linesWhenSelectGives([] { return 0; }, endTheLoop),
              (kEntered +
               Lines{"4 STEventServer::monitorFd - Inside while blocking on Select",
                     "3 STEventServer::monitorFd - select returned 0",
                     "5 STEventServer::monitorFd - select timeout so continue"} +
               kOutOfMemory));
}

TEST_F(AnEventServersLoop, EndsOnAnException) {
    EXPECT_EQ(linesWhenSelectGives([]() -> int { throw std::runtime_error("unknown"); }),
              (kEntered + Lines{"4 STEventServer::monitorFd - Inside while blocking on Select",
                                "1 STEventServer::monitorFds - Got unkown excpetion "}));
}

} // namespace
