// The daemon's start and stop where nothing is in its way but what it can do without.
#include "hub/VXHealthCheckImpl.h"
#include "tests/unit/daemon/DaemonFixture.h"
#include "tests/unit/daemon/DaemonTraceLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

using namespace testing_support;
using Sentrel::VXController;

namespace {

TEST_F(ADaemon, StartsAndStopsInItsOrderOfHubCalls) {
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

struct ADaemonAtALevel : ADaemon, testing::WithParamInterface<int> {};

TEST_P(ADaemonAtALevel, TracesStartAndStopLineByLine) {
    traceAt(GetParam());
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), textsUpTo(GetParam(), startLines() + sigtermLines() + stopLines() + releaseLines()));
}

INSTANTIATE_TEST_SUITE_P(OfTheSix, ADaemonAtALevel, testing::Range(0, 6));

TEST_F(ADaemon, RegistersItsReceiversBeforeItConnects) {
    doDuring("start", [this] {
        EXPECT_NE(hub.commandInterface, nullptr);
        EXPECT_NE(hub.healthCheckInterface, nullptr);
        EXPECT_NE(hub.eventInterface, nullptr);
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
}

TEST_F(ADaemon, MakesItsTraceLogWithMode0744AndClosesItAtTheEnd) {
    umask(077);
    raiseDuring("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    struct stat status {};
    ASSERT_EQ(stat(root.traceLog().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0744u);
    EXPECT_TRUE(traceIsOff());
}

TEST_F(ADaemon, LeavesTheEventSocketBehind) {
    raiseDuring("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_TRUE(std::filesystem::is_socket(root.eventSocket()));
}

TEST_F(ADaemon, StartsWithoutALevelFileAndWritesAnEmptyLog) {
    std::filesystem::remove(root.traceLevels());
    raiseDuring("start", SIGTERM);
    testing::internal::CaptureStderr();
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: unable to parse file \"" + root.traceLevels() + "\"\n");
    EXPECT_TRUE(std::filesystem::exists(root.traceLog()));
    EXPECT_EQ(readFile(root.traceLog()), "");
}

TEST_F(ADaemon, RunsAndStopsSilentlyWhenTheLogCannotBeOpened) {
    std::filesystem::create_directory(root.traceLog());
    doDuring("start", [] {
        EXPECT_EQ(traceInited, 1);
        EXPECT_EQ(logFilePtr, nullptr);
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, ServesTheHubThoughTheEventSocketCannotBeSetUp) {
    std::filesystem::create_directories(root.eventSocket() + "/in the way");
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, AnswersAHealthCheckBeforeItsAgentWrapperExists) {
    doDuring("setEventInterface", [] { EXPECT_TRUE(Sentrel::VXHealthCheckImpl().handleHealthCheck()); });
    raiseDuring("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_THAT(agent.calls(), testing::Not(testing::Contains("getAgentInformation")));
}

TEST_F(ADaemon, AsksForTheManagedStatusAtAHealthCheck) {
    doDuring("start", [this] {
        EXPECT_TRUE(hub.healthCheckInterface->handleHealthCheck());
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "getAgentInformation", "releaseInstance"}));
    EXPECT_THAT(root.traceLines(), testing::IsSupersetOf({"VXHealthCheckImpl::handleHealthCheck - Entered",
                                                          "VXHealthCheckImpl::handleHealthCheck - Exiting"}));
}

TEST_F(ADaemon, HasOneControllerUntilItIsReleased) {
    VXController* const first = VXController::getInstance();
    EXPECT_EQ(VXController::getInstance(), first);
    EXPECT_EQ(first->agentWrapper(), nullptr);
    EXPECT_FALSE(first->policyEnabled());
    first->setPolicyEnabled(true);
    EXPECT_TRUE(first->policyEnabled());
    VXController::releaseInstance();
    VXController::releaseInstance();
    EXPECT_FALSE(VXController::getInstance()->policyEnabled());
    VXController::releaseInstance();
}

TEST_F(ADaemon, HasTheOneModuleIdAndTheTwoSubscriptionsInTheirOrder) {
    raiseDuring("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_THAT(hub.calls(), testing::IsSupersetOf({"setHVId 7", "subscribeForEvent 1005", "subscribeForEvent 1007"}));
}

} // namespace
