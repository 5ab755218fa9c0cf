// SIGTERM at each step of the start and the stop.
#include "hub/Exceptions.h"
#include "tests/unit/daemon/DaemonFixture.h"
#include "tests/unit/daemon/DaemonTraceLines.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

using namespace testing_support;

namespace {

TEST_F(ADaemon, StartsAndEndsAtOnceWhenStoppedBeforeAnythingExists) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    raise(SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), stopCalls() + createCalls() + connectCalls() + Lines{"releaseInstance"});
    // The handler came before the levels and the log, and made the controller with its receiver of health checks.
    const Lines all = textsOf(startLines() + stopLines() + releaseLines());
    EXPECT_EQ(root.traceLines(), Lines(all.begin() + 1, all.end()));
}

TEST_F(ADaemon, StartsAndEndsAtOnceWhenStoppedBeforeThePidStep) {
    raiseDuring("setEventInterface", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + stopCalls() + connectCalls() + Lines{"releaseInstance"});
    EXPECT_EQ(root.traceLines(), textsOf(linesBeforePidFile() + sigtermLines() + pidFileLines() + agentLines() +
                                         hubLines() + stopLines() + releaseLines()));
}

TEST_F(ADaemon, StartsAndEndsAtOnceWhenStoppedWhileTheAgentWrapperIsBuilt) {
    raiseDuring("agent createInstance", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + stopCalls() + connectCalls() + Lines{"releaseInstance"});
    EXPECT_EQ(root.traceLines(), textsOf(linesBeforePidFile() + pidFileLines() + agentLines() + sigtermLines() +
                                         hubLines() + stopLines() + releaseLines()));
}

TEST_F(ADaemon, StopsOnceWhenItIsToldTwice) {
    raiseDuring("setEventInterface", SIGTERM);
    raiseDuring("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + stopCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, GoesOnStoppingWhenItIsToldAgain) {
    raiseDuring("start", SIGTERM);
    raiseDuring("releaseInstance", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(),
              textsOf(startLines() + sigtermLines() + stopLines() + sigtermLines() + releaseLines()));
}

TEST_F(ADaemon, RemovesItsPidFileWhenItIsToldToStopWhileItFails) {
    doDuring("start", [] {
        raise(SIGTERM);
        throw HVB::HVBException(-111, "no hub");
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
}

} // namespace
