// SIGHUP and SIGUSR2 at the start, all three signals while the daemon waits, and the handlers by themselves.
#include "hub/Exceptions.h"
#include "tests/support/Eventually.h"
#include "tests/support/UnixSocket.h"
#include "tests/unit/daemon/DaemonFixture.h"
#include "tests/unit/daemon/DaemonTraceLines.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

using namespace testing_support;
using Sentrel::VXController;

// Two calls of the start are led here by the linker (--wrap), so that a signal can come in the middle of each.
extern "C" {

xmlDocPtr __real_xmlParseFile(const char* path);
xmlDocPtr __wrap_xmlParseFile(const char* path);
int __real_chmod(const char* path, mode_t mode);
int __wrap_chmod(const char* path, mode_t mode);

static int signalWhileLevelsAreRead = 0; // 0: none; each comes once
static int signalWhileLogIsOpened = 0;

xmlDocPtr __wrap_xmlParseFile(const char* path) {
    if (const int signal = std::exchange(signalWhileLevelsAreRead, 0); signal != 0) {
        raise(signal);
    }
    return __real_xmlParseFile(path);
}

int __wrap_chmod(const char* path, mode_t mode) {
    if (const int signal = std::exchange(signalWhileLogIsOpened, 0); signal != 0) {
        raise(signal);
    }
    return __real_chmod(path, mode);
}

} // extern "C"

namespace {

// --- SIGHUP -------------------------------------------------------------------------------------------------------

TEST_F(ADaemon, ReReadsItsLevelsOnSighupAndTracesNothingFromThenOn) {
    doDuring("agent createInstance", [this] {
        traceAt(4);
        raise(SIGHUP);
    });
    raiseDuring("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(stDaemonFlowvalue, 4);
    EXPECT_EQ(root.traceLines(), textsOf(linesBeforePidFile() + pidFileLines() + agentLines()));
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, OutlivesASecondSighup) {
    raiseDuring("setEventInterface", SIGHUP);
    raiseDuring("agent createInstance", SIGHUP);
    doDuring("start", [] {
        raise(SIGHUP);
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), textsOf(linesBeforePidFile()));
    EXPECT_TRUE(traceIsOff());
}

TEST_F(ADaemon, OutlivesASighupBeforeItsLogIsOpenAndTracesLater) {
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
    raise(SIGHUP);
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), textsOf(startLines() + sigtermLines() + stopLines() + releaseLines()));
}

TEST_F(ADaemon, TakesASighupThatCameWhileItReadItsLevelsBeforeItOpensItsLogAndTracesLater) {
    signalWhileLevelsAreRead = SIGHUP;
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), textsOf(startLines() + sigtermLines() + stopLines() + releaseLines()));
}

TEST_F(ADaemon, TakesASighupThatCameWhileItOpenedItsLogBeforeItsFirstLine) {
    signalWhileLogIsOpened = SIGHUP;
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), Lines{});
}

TEST_F(ADaemon, KeepsItsLevelsWhenTheLevelFileIsGoneAtSighup) {
    doDuring("agent createInstance", [this] {
        std::filesystem::remove(root.traceLevels());
        raise(SIGHUP);
    });
    raiseDuring("start", SIGTERM);
    testing::internal::CaptureStderr();
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: unable to parse file \"" + root.traceLevels() + "\"\n");
    EXPECT_EQ(stDaemonFlowvalue, 5);
}

// --- SIGUSR2 ------------------------------------------------------------------------------------------------------

TracedLines pluginChangeLines(bool withWrapper) {
    TracedLines lines{{2, "VXController::pluginChangeHandler entered with Signal " + std::to_string(SIGUSR2) +
                              " -> refer Signal.h for signal details"}};
    if (withWrapper) {
        lines.push_back({1, "SIGUSR2 signal received"});
    }
    return lines;
}

TEST_F(ADaemon, IgnoresSigusr2BeforeItsAgentWrapperExists) {
    raiseDuring("setEventInterface", SIGUSR2);
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "releaseInstance"}));
    EXPECT_EQ(root.traceLines(), textsOf(linesBeforePidFile() + pluginChangeLines(false) + pidFileLines() +
                                         agentLines() + hubLines() + sigtermLines() + stopLines() + releaseLines()));
}

TEST_F(ADaemon, HoldsASigusr2BackUntilItsAgentWrapperIsBuilt) {
    raiseDuring("agent createInstance", SIGUSR2);
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "releaseInstance", "createInstance", "releaseInstance"}));
    EXPECT_EQ(root.traceLines(),
              textsOf(linesBeforePidFile() + pidFileLines() + agentLines() + pluginChangeLines(true) + hubLines() +
                      sigtermLines() + stopLines() + releaseLines()));
}

TEST_F(ADaemon, ReloadsThePluginsOnEachSigusr2) {
    raiseDuring("agent createInstance", SIGUSR2);
    raiseDuring("agent releaseInstance", SIGUSR2); // arrives while the first is at work
    raiseDuring("setHVId", SIGUSR2);
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    const Lines calls = agent.calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "createInstance"), 4);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "releaseInstance"), 4);
}

TEST_F(ADaemon, SurvivesAnAgentThatFailsAtAReload) {
    raiseDuring("setHVId", SIGUSR2);
    doDuring("agent createInstance", [] {});
    doDuring("agent createInstance", [] { throw HVB::HVBException(-111, "no hub"); });
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines().back(), "VXController::main() - Exiting");
}

// --- signals while the daemon waits -------------------------------------------------------------------------------

/// Runs a story against the running daemon on a thread that takes no signals.
struct ARunningDaemon : ADaemon {
    bool connectToEventSocket() const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool isConnected = connectSocket(fd, root.eventSocket());
        close(fd);
        return isConnected;
    }

    template <class Story>
    std::int32_t runDaemonDuring(Story story) {
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
        std::thread teller([this, &story] {
            EXPECT_TRUE(eventually([this] { return connectToEventSocket(); }));
            story();
            kill(getpid(), SIGTERM);
        });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        const std::int32_t result = runDaemon();
        teller.join();
        return result;
    }
};

TEST_F(ARunningDaemon, StopsOnSigterm) {
    EXPECT_EQ(runDaemonDuring([] {}), 0);
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
    EXPECT_EQ(root.traceLines(), textsOf(startLines() + sigtermLines() + stopLines() + releaseLines()));
}

TEST_F(ARunningDaemon, EndsTracingOnSighupAndStopsCleanlyOnSigterm) {
    EXPECT_EQ(runDaemonDuring([this] {
                  traceAt(4);
                  kill(getpid(), SIGHUP);
                  EXPECT_TRUE(eventually(traceIsOff));
              }),
              0);
    EXPECT_EQ(root.traceLines(), textsOf(startLines()));
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
    EXPECT_EQ(stDaemonFlowvalue, 4);
}

TEST_F(ARunningDaemon, ReloadsThePluginsOnSigusr2) {
    EXPECT_EQ(runDaemonDuring([this] {
                  kill(getpid(), SIGUSR2);
                  EXPECT_TRUE(eventually([this] { return agent.calls().size() == 3; }));
              }),
              0);
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "releaseInstance", "createInstance", "releaseInstance"}));
    EXPECT_EQ(root.traceLines(),
              textsOf(startLines() + pluginChangeLines(true) + sigtermLines() + stopLines() + releaseLines()));
}

TEST_F(ARunningDaemon, StopsUnderAStormOfSignals) {
    EXPECT_EQ(runDaemonDuring([this] {
                  for (int round = 0; round < 500; ++round) {
                      kill(getpid(), round % 2 == 0 ? SIGHUP : SIGUSR2);
                      EXPECT_TRUE(connectToEventSocket());
                  }
              }),
              0);
    EXPECT_EQ(hub.calls().back(), "releaseInstance");
}

// --- a handler that gets another signal than its own ---------------------------------------------------------------

struct AHandler : ADaemon {
    AHandler() {
        traceLogOpen();
        VXController::getInstance();
    }
    void traceLogOpen() {
        stDaemonFlowvalue = 5;
        Sentrel::trace::openTraceLog(root.traceLog());
    }
    ~AHandler() override { Sentrel::trace::closeTraceLog(); }
};

TEST_F(AHandler, OfSigtermOnlyTracesForAnotherSignal) {
    VXController::terminationHandler(SIGHUP);
    EXPECT_TRUE(hub.calls().empty());
    EXPECT_FALSE(Sentrel::gShouldTerminate);
    EXPECT_EQ(root.traceLines(), textsOf(sigtermLines()));
}

TEST_F(AHandler, OfSigtermTracesAtLevelThreeAndNotBelow) {
    stDaemonFlowvalue = 2;
    VXController::terminationHandler(SIGTERM);
    EXPECT_TRUE(Sentrel::gShouldTerminate);
    EXPECT_TRUE(root.traceLines().empty());
    EXPECT_EQ(hub.calls(), stopCalls());
}

TEST_F(AHandler, OfSighupDoesNothingForAnotherSignal) {
    VXController::reloadHandler(SIGTERM);
    EXPECT_EQ(traceInited, 1);
    EXPECT_TRUE(root.traceLines().empty());
}

TEST_F(AHandler, OfSigusr2OnlyTracesForAnotherSignal) {
    VXController::pluginChangeHandler(SIGTERM);
    EXPECT_EQ(root.traceLines(), (Lines{"VXController::pluginChangeHandler entered with Signal 15 -> refer Signal.h "
                                        "for signal details"}));
    EXPECT_TRUE(agent.calls().empty());
}

TEST_F(AHandler, OfSigusr2TracesItsEntryAtLevelTwoAndNotBelow) {
    stDaemonFlowvalue = 1;
    VXController::pluginChangeHandler(SIGUSR2);
    EXPECT_TRUE(root.traceLines().empty());
}

TEST_F(AHandler, LeavesTheInterruptedCodeItsErrno) {
    doDuring("getInstance", [] { errno = EIO; });
    errno = ENOENT;
    VXController::terminationHandler(SIGTERM);
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
