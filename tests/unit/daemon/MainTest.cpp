// The program as its launcher sees it. Real: the process, its signals and its exit status. Not real: the hub and the
// agent, which are doubles inside it.
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/daemon/LockHolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>

using namespace testing_support;

namespace {

constexpr int kSignals[] = {SIGTERM, SIGHUP, SIGUSR2};

struct TheProgram : testing::Test {
    DaemonRoot root;
    const std::string program = required("SENTRELD_WITH_DOUBLES");
    pid_t pid = 0;

    static std::string required(const char* variable) {
        const char* value = std::getenv(variable);
        if (value == nullptr) {
            throw std::runtime_error(std::string(variable) + " is not set");
        }
        return value;
    }

    /// Signals the program and nobody else: a pid of 0 or less would mean others.
    void signal(int number) const {
        if (pid <= 1) {
            throw std::logic_error("the program does not run");
        }
        kill(pid, number);
    }

    /// Starts it with the three signals ignored until it has its handlers, so that none before is its death.
    void start() {
        for (const int number : kSignals) {
            ::signal(number, SIG_IGN);
        }
        std::string name = program;
        char* arguments[] = {name.data(), nullptr};
        const int error = posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments, environ);
        if (error != 0) {
            pid = 0;
            throw std::system_error(error, std::generic_category(), program);
        }
    }

    bool endsWithin(std::chrono::nanoseconds time) const {
        const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (fd < 0) {
            throw std::system_error(errno, std::generic_category(), "pidfd_open");
        }
        pollfd ended{fd, POLLIN, 0};
        const timespec limit{0, static_cast<long>(time.count())};
        const int ready = ppoll(&ended, 1, &limit, nullptr);
        close(fd);
        return ready == 1;
    }

    /// Its exit status; -1 when a signal ended it, -2 when nothing did. @p meanwhile is called until it has ended.
    template <class Meanwhile>
    int exitStatusWhile(Meanwhile meanwhile) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        bool inTime = true;
        while (inTime && !endsWithin(std::chrono::microseconds(50))) {
            meanwhile();
            inTime = std::chrono::steady_clock::now() < deadline;
        }
        if (!inTime) {
            signal(SIGKILL);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        pid = 0; // the number may be somebody else's by now
        if (!inTime) {
            ADD_FAILURE() << "waited 60 s in vain for the end of the program";
            return -2;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int exitStatus() {
        return exitStatusWhile([] {});
    }
};

TEST_F(TheProgram, EndsWithZeroOnSigterm) {
    writeFile(root.traceLevels(), "<TraceValues><stDaemonFlow>5</stDaemonFlow></TraceValues>");
    start();
    EXPECT_EQ(exitStatusWhile([this] { signal(SIGTERM); }), 0);
    ASSERT_FALSE(root.traceLines().empty());
    EXPECT_EQ(root.traceLines().back(), "VXController::main() - Exiting");
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
}

TEST_F(TheProgram, EndsWithZeroAfterARefusedStart) {
    const LockHolder other(root.pidFile());
    start();
    EXPECT_EQ(exitStatus(), 0);
    EXPECT_TRUE(std::filesystem::exists(root.pidFile()));
    EXPECT_FALSE(std::filesystem::exists(root.eventSocket()));
}

/// The program on a system that refuses it what RefusingSystem.cpp tells of.
struct TheProgramThatIsRefused : TheProgram {
    ~TheProgramThatIsRefused() override { unsetenv("SENTRELD_REFUSES"); }

    /// Its lines at @p level, after a run that SIGTERM ends.
    std::vector<std::string> linesWithout(const char* what, int level) {
        setenv("SENTRELD_REFUSES", what, 1);
        std::filesystem::remove(root.traceLog());
        writeFile(root.traceLevels(),
                  "<TraceValues><stDaemonFlow>" + std::to_string(level) + "</stDaemonFlow></TraceValues>");
        start();
        EXPECT_EQ(exitStatusWhile([this] { signal(SIGTERM); }), 0);
        return root.traceLines();
    }
    void expectLine(const std::string& line, int level, const char* without) {
        EXPECT_THAT(linesWithout(without, level), testing::Contains(line));
        EXPECT_THAT(linesWithout(without, level - 1), testing::Not(testing::Contains(line)));
    }
};

TEST_F(TheProgramThatIsRefused, StartsItsAgentWrapperThoughSigusr2CannotBeHeldBack) {
    expectLine("main - couldn't mask signal", 1, "mask");
    EXPECT_THAT(linesWithout("mask", 3), testing::IsSupersetOf({"VXController::main - Starting OA Agent Wrapper",
                                                                "VXController::main - Starting HVB"}));
}

TEST_F(TheProgramThatIsRefused, EndsWithZeroWhenItsPartsCannotBeReleased) {
    expectLine("Exception in VXController::~VXController", 2, "lock 3");
    EXPECT_EQ(linesWithout("lock 3", 2).back(), "VXController::main() - Exiting");
}

TEST_F(TheProgramThatIsRefused, EndsWithZeroWhenAFailureEscapesTheController) {
    std::filesystem::create_directory(root.eventSocket()); // so that no thread is left running
    expectLine("Exception in VXMain::main ", 1, "lock 1");
    EXPECT_EQ(linesWithout("lock 1", 5).back(), "Exception in VXMain::main ");
}

TEST_F(TheProgram, EndsWithZeroAtWhateverInstantSignalsLand) {
    // Also among its exit handlers, which free and lock what a handler would need.
    std::mt19937 random(4711);
    for (int round = 0; round < 60; ++round) {
        start();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        ASSERT_EQ(exitStatusWhile([this, &random] { signal(kSignals[random() % 3]); }), 0) << "round " << round;
    }
}

} // namespace
