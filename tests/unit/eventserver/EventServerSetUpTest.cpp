// The event server's socket: how it is set up, and what keeps it from that.
#include "tests/support/UnixSocket.h"
#include "tests/unit/eventserver/EventServerFixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

using namespace testing_support;
using Sentrel::STEventServer;

namespace {

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
        const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_TRUE(bindSocket(stale, root.eventSocket()));
        close(stale);
    }
    start();
    EXPECT_EQ(count("STEventServer::STEventServer -  result code No file"), 0u);
    expectService();
}

TEST_F(AnEventServer, RemovesARegularFileAtItsPath) {
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

} // namespace
