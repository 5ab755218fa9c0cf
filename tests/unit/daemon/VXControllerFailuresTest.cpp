// A start or stop in which the hub or the agent throws, with each kind of exception.
#include "hub/Exceptions.h"
#include "tests/unit/daemon/DaemonFixture.h"
#include "tests/unit/daemon/DaemonTraceLines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

struct AnyOther {};

struct ExceptionKind {
    const char* name;
    std::function<void()> fail;
    Lines lines;
};

const std::vector<ExceptionKind>& exceptionKinds() {
    static const std::vector<ExceptionKind> all{
        {"HVBException",
         [] { throw HVB::HVBException(-111, "no hub\nhere"); },
         {"VXController::main - Caught HVB Exception no hub\\x0ahere", ""}},
        {"VXException",
         [] { throw Sentrel::VXException(5, "Caf\xC3\xA9 \xFF"); },
         {"VXController::main - Caught VXException Caf\xC3\xA9 \\xff", ""}},
        {"StandardException",
         [] { throw std::runtime_error("unknown"); },
         {"VXController::main - Caught unknown exception"}},
        {"AnyOther", [] { throw AnyOther{}; }, {"VXController::main - Caught unknown exception"}},
    };
    return all;
}

struct Failure {
    const char* operation;
    std::size_t kind;
};

std::vector<Failure> failuresAt(const std::vector<const char*>& operations) {
    std::vector<Failure> all;
    for (const char* operation : operations) {
        for (std::size_t kind = 0; kind < exceptionKinds().size(); ++kind) {
            all.push_back({operation, kind});
        }
    }
    return all;
}

std::string nameOf(const testing::TestParamInfo<Failure>& test) {
    return std::string(test.param.operation) + "_" + exceptionKinds()[test.param.kind].name;
}

struct AFailingDaemon : ADaemon, testing::WithParamInterface<Failure> {
    const ExceptionKind& kind() const { return exceptionKinds()[GetParam().kind]; }
    AFailingDaemon() { doDuring(GetParam().operation, kind().fail); }
};

/// What the hub was asked for up to and with the operation that failed.
Lines callsThrough(const Lines& calls, const std::string& operation) {
    Lines some;
    for (const std::string& call : calls) {
        some.push_back(call);
        if (call.substr(0, call.find(' ')) == operation) {
            break;
        }
    }
    return some;
}

using ADaemonWhoseHubFailsAtTheConnect = AFailingDaemon;

TEST_P(ADaemonWhoseHubFailsAtTheConnect, TracesItOnceReleasesAllAndEndsWithZero) {
    EXPECT_EQ(runDaemon(), 0);
    const Lines before = textsOf(linesBeforePidFile() + pidFileLines() + agentLines() + hubLines());
    EXPECT_EQ(root.traceLines(),
              withoutLast(before) + Lines{"VXCommandImpl::~VXCommandImpl"} + kind().lines + textsOf(releaseLines()));
    // Delivery has ended, as the receiver of commands is gone; the broker itself is left alone.
    EXPECT_EQ(hub.calls(), createCalls() + callsThrough(connectCalls(), GetParam().operation) + endDeliveryCalls());
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
    EXPECT_FALSE(std::filesystem::exists(root.eventSocket()));
    EXPECT_TRUE(traceIsOff());
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseHubFailsAtTheConnect,
                         testing::ValuesIn(failuresAt({"setHVId", "setCommandInterface", "setHealthCheckInterface",
                                                       "start", "subscribeForEvent"})),
                         nameOf);

TEST_P(ADaemonWhoseHubFailsAtTheConnect, TakesItsReceiversBackBeforeTheyAreFreed) {
    bool wereFreed = true;
    doDuring("setEventInterface", [] {}); // at the start
    doDuring("setEventInterface",
             [&] { wereFreed = std::ranges::count(root.traceLines(), "VXCommandImpl::~VXCommandImpl") > 0; });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_FALSE(wereFreed);
    EXPECT_EQ(hub.commandInterface, nullptr);
    EXPECT_EQ(hub.healthCheckInterface, nullptr);
    EXPECT_EQ(hub.eventInterface, nullptr);
}

using ADaemonWhoseHubFailsBeforeThePidStep = AFailingDaemon;

TEST_P(ADaemonWhoseHubFailsBeforeThePidStep, UnlinksThePidFileEvenOfARunningDaemon) {
    writeFile(root.pidFile(), "4711");
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
    const Lines before = textsOf(linesBeforePidFile()); // the last one comes behind what failed
    EXPECT_EQ(root.traceLines(),
              withoutLast(before) + Lines{"VXCommandImpl::~VXCommandImpl"} + kind().lines + textsOf(releaseLines()));
    EXPECT_EQ(hub.calls(), callsThrough(createCalls(), GetParam().operation) + endDeliveryCalls());
    EXPECT_TRUE(agent.calls().empty());
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseHubFailsBeforeThePidStep,
                         testing::ValuesIn(failuresAt({"getInstance", "setEventInterface"})), nameOf);

using ADaemonWhoseHubFailsAtTheEnd = AFailingDaemon;

TEST_P(ADaemonWhoseHubFailsAtTheEnd, TracesItAndGoesOnWithTheRelease) {
    raiseDuring("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), textsOf(startLines() + sigtermLines()) +
                                     Lines({"VXController::main - Stopping Sentrel", "VXCommandImpl::~VXCommandImpl"}) +
                                     kind().lines + textsOf(releaseLines()));
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseHubFailsAtTheEnd, testing::ValuesIn(failuresAt({"releaseInstance"})), nameOf);

using ADaemonWhoseAgentFails = AFailingDaemon;

TEST_P(ADaemonWhoseAgentFails, TracesItAndEndsWithZeroWithoutAWrapper) {
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), textsOf(linesBeforePidFile() + pidFileLines() + agentLines()) +
                                     Lines{"VXCommandImpl::~VXCommandImpl"} + kind().lines + textsOf(releaseLines()));
    EXPECT_EQ(hub.calls(), createCalls() + endDeliveryCalls());
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseAgentFails, testing::ValuesIn(failuresAt({"agent createInstance"})),
                         [](const auto& test) { return std::string(exceptionKinds()[test.param.kind].name); });

TEST_F(ADaemon, TracesAFailureAtLevelOneAndNotBelow) {
    traceAt(1);
    doDuring("start", exceptionKinds().front().fail);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), exceptionKinds().front().lines);
}

TEST_F(ADaemon, IsSilentAboutAFailureAtLevelZero) {
    traceAt(0);
    doDuring("start", exceptionKinds().front().fail);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_TRUE(root.traceLines().empty());
}

TEST_F(ADaemon, StopsOnSigtermThoughTheHubFails) {
    raiseDuring("start", SIGTERM);
    doDuring("stop", exceptionKinds().front().fail);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), textsOf(startLines() + sigtermLines() + stopLines() + releaseLines()));
}

} // namespace
