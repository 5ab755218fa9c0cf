// The event server's start and stop, and what its one thread outlives.
#include "tests/support/FreshStart.h"
#include "tests/unit/eventserver/EventServerFixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

using namespace testing_support;
using Sentrel::STEventServer;

namespace {

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

TEST_F(AnEventServer, WaitsAtItsEndForASilentClient) {
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

/// A server that has a connection waiting and no descriptor for it.
class AnEventServerWithoutDescriptors : public AnEventServer {
protected:
    AnEventServerWithoutDescriptors() {
        getrlimit(RLIMIT_NOFILE, &m_before);
        m_log.open(log.path());
    }
    ~AnEventServerWithoutDescriptors() override { setrlimit(RLIMIT_NOFILE, &m_before); }

    /// Starts it, and takes the descriptors away while a client waits.
    void runOut() {
        start();
        exchange("x"); // everything exists from here on, so that only the connection wants a descriptor
        silent.emplace(root.eventSocket());
        waiting.emplace(root.eventSocket());
        const rlimit almostNone{1, m_before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &almostNone);
        EXPECT_TRUE(silent->send("x")); // which frees the thread for the next one, if it was accepted already
    }
    void stop() {
        STEventServer::releaseInstance();
        setrlimit(RLIMIT_NOFILE, &m_before);
        makeEverythingFresh(); // the trace log, too
        setAllFlows(5);
        Sentrel::trace::openTraceLog(log.path());
    }

    /// Lines of failed accepts so far. Opens nothing.
    std::size_t failedAccepts() {
        m_log.clear();
        for (std::string line; std::getline(m_log, line);) {
            m_failed += line.find("Error in accept coonection. errno = 24") != std::string::npos ? 1U : 0U;
        }
        return m_failed;
    }

    std::optional<Client> silent;
    std::optional<Client> waiting;

private:
    rlimit m_before{};
    std::ifstream m_log;
    std::size_t m_failed = 0;
};

TEST_F(AnEventServerWithoutDescriptors, TriesTenTimesASecondAndTracesEachTime) {
    runOut();
    ASSERT_TRUE(eventually([&] { return failedAccepts() >= 1; }));
    const auto begin = std::chrono::steady_clock::now();
    const std::size_t before = failedAccepts();
    ASSERT_TRUE(eventually([&] { return failedAccepts() >= before + 5; }));
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::milliseconds(400));
    // One for each tenth of a second, and the one that was about to come.
    EXPECT_LE(failedAccepts() - before, static_cast<std::size_t>(taken / std::chrono::milliseconds(100)) + 2);
}

/// Several times, since the machine may be busy with something else just then.
TEST_F(AnEventServerWithoutDescriptors, StopsAtOnceBetweenTwoTries) {
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int round = 0; round < 5; ++round) {
        runOut();
        const std::size_t before = failedAccepts();
        ASSERT_TRUE(eventually([&] { return failedAccepts() > before; }));
        const auto begin = std::chrono::steady_clock::now();
        stop();
        shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_LT(shortest, std::chrono::milliseconds(50));
}

} // namespace
