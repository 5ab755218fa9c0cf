// The PID file. Real: the file, its lock, the other process. What happens at the second lock is a test's
// choice (--wrap).
#include "daemon/VXControllerDaemon.h"

#include "daemon/Trace.h"
#include "tests/support/Lines.h"
#include "tests/support/TraceLog.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/daemon/LockHolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

using namespace testing_support;
using Sentrel::VXController;

extern "C" {

// The name that lockf has with large files.
int __real_lockf64(int fd, int command, off_t size);
int __wrap_lockf64(int fd, int command, off_t size);

static int errorOfLocking = 0;      // with which F_LOCK fails; 0: it does not
static int closedWhileLocking = -1; // a descriptor that somebody else closes just then; -1: none

int __wrap_lockf64(int fd, int command, off_t size) {
    if (command == F_LOCK && closedWhileLocking >= 0) {
        close(std::exchange(closedWhileLocking, -1));
    }
    if (command != F_LOCK || errorOfLocking == 0) {
        return __real_lockf64(fd, command, size);
    }
    errno = errorOfLocking;
    return -1;
}

} // extern "C"

namespace {

struct APidFile : testing::Test {
    DaemonRoot root;
    VXController& controller = *VXController::getInstance();
    TraceLog log;

    std::string ourPid() const { return std::to_string(getpid()); }
    std::string writtenLine() const {
        return " VXController::createPidFile  - locked pidfile and wrote our pid " + ourPid();
    }
    std::string refusedLine(int error) const {
        return " VXController::createPidFile  -  test lock gave erro " + std::to_string(error) + "(" +
               std::strerror(error) + ") for pid file for my pid = " + ourPid();
    }
    unsigned mode() const {
        struct stat status {};
        return stat(root.pidFile().c_str(), &status) == 0 ? status.st_mode & 07777u : 0u;
    }
    int firstFreeDescriptor() const {
        const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(fd);
        return fd;
    }
};

TEST_F(APidFile, HoldsOurPidWithoutANewline) {
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(readFile(root.pidFile()), ourPid());
    EXPECT_EQ(log.lines(), (Lines{writtenLine()}));
}

TEST_F(APidFile, TracesItsSuccessAtLevelThreeAndNotBelow) {
    stDaemonFlowvalue = 3;
    EXPECT_TRUE(controller.createPidFile());
    stDaemonFlowvalue = 2;
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(log.lines(), (Lines{writtenLine()}));
}

TEST_F(APidFile, HasMode0744WhateverTheUmask) {
    umask(077);
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(mode(), 0744u);
}

TEST_F(APidFile, FromAnEarlierRunIsTruncatedAndRewritten) {
    writeFile(root.pidFile(), "123456789 and more than a pid\n");
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(readFile(root.pidFile()), ourPid());
}

TEST_F(APidFile, WithoutItsDirectoryRefusesTheStartWithoutATraceLine) {
    std::filesystem::remove_all(root.var());
    EXPECT_FALSE(controller.createPidFile());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(APidFile, ThatAnotherProcessHasLockedRefusesTheStartAndIsLeftAsItIs) {
    writeFile(root.pidFile(), "4711");
    const LockHolder other(root.pidFile());
    EXPECT_FALSE(controller.createPidFile());
    EXPECT_EQ(readFile(root.pidFile()), "4711");
    EXPECT_EQ(mode(), 0744u); // also on the way out of a refusal
    EXPECT_EQ(log.lines(), (Lines{refusedLine(EAGAIN)}));
}

TEST_F(APidFile, TracesItsRefusalAtLevelOneAndNotBelow) {
    const LockHolder other(root.pidFile());
    stDaemonFlowvalue = 1;
    EXPECT_FALSE(controller.createPidFile());
    stDaemonFlowvalue = 0;
    EXPECT_FALSE(controller.createPidFile());
    EXPECT_EQ(log.lines(), (Lines{refusedLine(EAGAIN)}));
}

TEST_F(APidFile, ThatCannotBeLockedAfterItsTestIsLeftAsItIsAndIsNoObstacle) {
    writeFile(root.pidFile(), "4711");
    errorOfLocking = EDEADLK;
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(readFile(root.pidFile()), "4711");
    EXPECT_EQ(mode(), 0744u);
    stDaemonFlowvalue = 2;
    EXPECT_TRUE(controller.createPidFile());
    errorOfLocking = 0;
    EXPECT_EQ(log.lines(), (Lines{" VXController::createPidFile  -  error in locking pidfile 35(Resource deadlock "
                                  "avoided) for my pid " +
                                  ourPid()}));
}

TEST_F(APidFile, IsNotLockedOnceItIsWrittenSoALaterStartOverwritesThePid) {
    EXPECT_TRUE(controller.createPidFile());
    pid_t other = 0;
    EXPECT_EQ(exitValueOf([this] { return controller.createPidFile() ? 0 : 1; }), 0);
    other = static_cast<pid_t>(std::stol(readFile(root.pidFile())));
    EXPECT_NE(other, getpid());
    EXPECT_EQ(log.lines().back(),
              " VXController::createPidFile  - locked pidfile and wrote our pid " + std::to_string(other));
}

TEST_F(APidFile, WhoseModeCannotBeChangedIsTracedAtLevelThreeAndIsNoObstacle) {
    // The thread's name in /proc can be written and locked, and refuses a new mode.
    std::filesystem::create_symlink("/proc/self/comm", root.pidFile());
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(log.lines(), (Lines{writtenLine(), " chmod() error"}));
    stDaemonFlowvalue = 2;
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(APidFile, ReservesTheNumberOfItsDescriptorUntilItIsRemoved) {
    const int number = firstFreeDescriptor();
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_NE(firstFreeDescriptor(), number);
    controller.removePidFile();
    EXPECT_EQ(firstFreeDescriptor(), number);
}

TEST_F(APidFile, ReservesTheNumberOfItsDescriptorWhenALowerOneIsFree) {
    closedWhileLocking = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int lower = closedWhileLocking;
    const int number = firstFreeDescriptor();
    ASSERT_LT(lower, number);
    EXPECT_TRUE(controller.createPidFile());
    EXPECT_EQ(firstFreeDescriptor(), lower);
    EXPECT_EQ(fcntl(number, F_GETFD), FD_CLOEXEC);
    controller.removePidFile();
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

TEST_F(APidFile, IsUnlinkedWithATraceLineAtLevelThree) {
    EXPECT_TRUE(controller.createPidFile());
    controller.removePidFile();
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
    EXPECT_EQ(log.lines().back(), "VXController::removePidFile - Entered");
    stDaemonFlowvalue = 2;
    controller.removePidFile();
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(APidFile, OfSomebodyElseIsUnlinkedTooWhenThereWasNoPidStep) {
    writeFile(root.pidFile(), "4711");
    const int number = firstFreeDescriptor();
    controller.removePidFile(); // closes -1, which has no effect
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
    EXPECT_EQ(firstFreeDescriptor(), number);
}

} // namespace
