// What the PID file lets the daemon do: one that is locked, or cannot be made, refuses the start.
#include "tests/unit/daemon/DaemonFixture.h"
#include "tests/unit/daemon/DaemonTraceLines.h"
#include "tests/unit/daemon/LockHolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

using namespace testing_support;

namespace {

TEST_F(ADaemon, HasItsPidFileWhileItRunsAndNoneAfterwards) {
    doDuring("start", [this] {
        EXPECT_EQ(readFile(root.pidFile()), std::to_string(getpid()));
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
}

TEST_F(ADaemon, StartsWhileAnotherRunsAndOverwritesItsPid) {
    writeFile(root.pidFile(), "4711"); // the other one holds no lock while it runs
    doDuring("start", [this] {
        EXPECT_EQ(readFile(root.pidFile()), std::to_string(getpid()));
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
}

struct ARefusedDaemon : ADaemon {
    LockHolder other{root.pidFile()};
    ARefusedDaemon() { writeFile(root.pidFile(), "4711"); }
};

TEST_F(ARefusedDaemon, EndsWithMinusOneAndDoesNothingMore) {
    EXPECT_EQ(runDaemon(), -1);
    EXPECT_EQ(hub.calls(), createCalls());
    EXPECT_TRUE(agent.calls().empty());
    EXPECT_FALSE(std::filesystem::exists(root.eventSocket()));
    EXPECT_EQ(readFile(root.pidFile()), "4711");
    EXPECT_FALSE(traceIsOff());
}

TEST_F(ARefusedDaemon, TracesWhy) {
    EXPECT_EQ(runDaemon(), -1);
    const TracedLines refused{
        {1, " VXController::createPidFile  -  test lock gave erro 11(Resource temporarily unavailable) for pid file "
            "for my pid = " +
                std::to_string(getpid())},
        {3, "VXController::main -  Create PID file returned false. Aborting start"},
        {5, "VXCommandImpl::~VXCommandImpl"}};
    EXPECT_EQ(root.traceLines(), textsOf(linesBeforePidFile() + refused));
}

TEST_F(ARefusedDaemon, TracesTheRefusalAloneBelowLevelThree) {
    traceAt(2);
    EXPECT_EQ(runDaemon(), -1);
    const Lines lines = root.traceLines();
    ASSERT_EQ(lines.size(), 2u); // the controller's health check receiver was created, then the refusal
    EXPECT_THAT(lines[1], testing::StartsWith(" VXController::createPidFile  -  test lock gave erro 11("));
}

TEST_F(ADaemon, IsRefusedWithoutTheDirectoryOfThePidFile) {
    // The log and the levels are elsewhere, so that there is something to read.
    std::filesystem::create_directory(root.path() + "/kept");
    std::filesystem::rename(root.traceLevels(), root.path() + "/kept/levels");
    std::filesystem::create_symlink(root.path() + "/kept/levels", root.traceLevels());
    std::filesystem::create_symlink(root.path() + "/nowhere/.STPid", root.pidFile());
    EXPECT_EQ(runDaemon(), -1);
    EXPECT_EQ(root.traceLines(),
              textsOf(linesBeforePidFile() +
                      TracedLines{{3, "VXController::main -  Create PID file returned false. Aborting start"},
                                  {5, "VXCommandImpl::~VXCommandImpl"}}));
    EXPECT_EQ(hub.calls(), createCalls());
}

} // namespace
