// The whole life of the daemon, run on the test's own thread. Real: everything of the daemon, signals, files, sockets.
// Not real: the hub (a recording broker) and the agent (a recording library).
#include "daemon/VXControllerDaemon.h"

#include "daemon/Trace.h"
#include "hub/Exceptions.h"
#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/support/Eventually.h"
#include "tests/support/RecordingBroker.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/daemon/LockHolder.h"
#include "tests/unit/daemon/RecordingAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <functional>
#include <map>
#include <thread>

using namespace testing_support;
using Sentrel::VXController;

namespace {

using Lines = std::vector<std::string>;

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

bool traceIsOff() {
    return std::atomic_ref(traceInited).load() == 0;
}

struct ADaemon : testing::Test {
    DaemonRoot root;
    Recording& hub = Recording::instance();
    RecordingAgent& agent = RecordingAgent::instance();
    std::map<std::string, std::vector<std::function<void()>>> during;

    ADaemon() {
        std::setlocale(LC_CTYPE, "C.UTF-8"); // as the program does
        traceAt(5);
        hub.before = [this](const std::string& call) { happen(call); };
        agent.before = [this](const std::string& call) { happen("agent " + call); };
    }

    /// Sets the levels of the flows whose lines tell the order of start and stop. What runs on a thread of its own
    /// stays silent, so that there is one order; the agent's part in it shows in its calls.
    void traceAt(int level) {
        std::string document = "<TraceValues>";
        for (const char* flow : {"stDaemonFlow", "stCmdFlow", "hcFlow"}) {
            document += std::string("<") + flow + ">" + std::to_string(level) + "</" + flow + ">";
        }
        writeFile(root.traceLevels(), document + "</TraceValues>");
    }

    /// Has something happen in the middle of the next call of that name; of several, one a call.
    void when(const std::string& call, std::function<void()> action) { during[call].push_back(std::move(action)); }
    void raiseWhen(const std::string& call, int signal) {
        when(call, [signal] { raise(signal); });
    }

    void happen(const std::string& call) {
        const auto found = during.find(call);
        if (found != during.end() && !found->second.empty()) {
            const std::function<void()> action = std::move(found->second.front());
            found->second.erase(found->second.begin());
            action();
        }
    }

    std::int32_t runDaemon() { return VXController::main(0, nullptr); }

    std::string getBroker() const { return "getInstance " + root.hubSocket(); }
    Lines stopCalls() const { return {getBroker(), "stop"}; }
    Lines createCalls() const { return {getBroker(), "setEventInterface"}; }
    Lines connectCalls() const {
        return {getBroker(),
                "setHVId 7",
                "setCommandInterface",
                "setHealthCheckInterface",
                "start true",
                "subscribeForEvent 1005",
                "subscribeForEvent 1007"};
    }
};

struct TracedLine {
    int level;
    std::string text;
};

using TracedLines = std::vector<TracedLine>;

Lines allButTheLastOf(Lines lines) {
    lines.pop_back();
    return lines;
}

/// Those of @p lines that are written at @p level.
Lines upTo(int level, const TracedLines& lines) {
    Lines texts;
    for (const TracedLine& line : lines) {
        if (line.level <= level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

TracedLines operator+(TracedLines left, const TracedLines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TracedLines toThePidFile() {
    return {{2, "VXHealthCheckImpl::VXHealthCheckImpl - Object created"},
            {5, "VXCommandImpl::VXCommandImpl"},
            {3, "VXController::main - started tracing"}};
}

TracedLines pidWritten() {
    return {{3, " VXController::createPidFile  - locked pidfile and wrote our pid " + std::to_string(getpid())}};
}

TracedLines agentStarted() {
    return {{3, "VXController::main - Starting OA Agent Wrapper"}};
}

TracedLines hubStarted() {
    return {{3, "VXController::main - Starting HVB"},
            {2, "VXController::startHVB - Entered"},
            {5, "VXController::startHVB - Exiting"}};
}

TracedLines started() {
    return toThePidFile() + pidWritten() + agentStarted() + hubStarted();
}

TracedLines sigterm() {
    return {{3, " terminationHandler - Recieved sigterm. Going down"}};
}

TracedLines stopping() {
    return {{3, "VXController::main - Stopping Sentrel"},
            {2, "VXController::main -removing pid file"},
            {5, "VXCommandImpl::~VXCommandImpl"}};
}

TracedLines released() {
    return {{3, "VXController::removePidFile - Entered"},
            {2, "VXHealthCheckImpl::~VXHealthCheckImpl - Object destroyed"},
            {2, "VXController::main() - Exiting"}};
}

constexpr int kAll = 5;

// --- start and stop -----------------------------------------------------------------------------------------------

TEST_F(ADaemon, StartsAndStopsInItsOrderOfHubCalls) {
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

struct ADaemonAtALevel : ADaemon, testing::WithParamInterface<int> {};

TEST_P(ADaemonAtALevel, TracesStartAndStopLineByLine) {
    traceAt(GetParam());
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), upTo(GetParam(), started() + sigterm() + stopping() + released()));
}

INSTANTIATE_TEST_SUITE_P(OfTheSix, ADaemonAtALevel, testing::Range(0, 6));

TEST_F(ADaemon, RegistersItsReceiversBeforeItConnects) {
    when("start", [this] {
        EXPECT_NE(hub.commandInterface, nullptr);
        EXPECT_NE(hub.healthCheckInterface, nullptr);
        EXPECT_NE(hub.eventInterface, nullptr);
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
}

TEST_F(ADaemon, HasItsPidFileWhileItRunsAndNoneAfterwards) {
    when("start", [this] {
        EXPECT_EQ(readFile(root.pidFile()), std::to_string(getpid()));
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
}

TEST_F(ADaemon, MakesItsTraceLogWithMode0744AndClosesItAtTheEnd) {
    umask(077);
    raiseWhen("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    struct stat status {};
    ASSERT_EQ(stat(root.traceLog().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0744u);
    EXPECT_TRUE(traceIsOff());
}

TEST_F(ADaemon, LeavesTheEventSocketBehind) {
    raiseWhen("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_TRUE(std::filesystem::is_socket(root.eventSocket()));
}

TEST_F(ADaemon, StartsWithoutALevelFileAndWritesAnEmptyLog) {
    std::filesystem::remove(root.traceLevels());
    raiseWhen("start", SIGTERM);
    testing::internal::CaptureStderr();
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: unable to parse file \"" + root.traceLevels() + "\"\n");
    EXPECT_TRUE(std::filesystem::exists(root.traceLog()));
    EXPECT_EQ(readFile(root.traceLog()), "");
}

TEST_F(ADaemon, RunsAndStopsSilentlyWhenTheLogCannotBeOpened) {
    std::filesystem::create_directory(root.traceLog());
    when("start", [] {
        EXPECT_EQ(traceInited, 1);
        EXPECT_EQ(logFilePtr, nullptr);
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, ServesTheHubThoughTheEventSocketCannotBeSetUp) {
    std::filesystem::create_directories(root.eventSocket() + "/in the way");
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, AnswersAHealthCheckBeforeItsAgentWrapperExists) {
    when("setEventInterface", [] { EXPECT_TRUE(Sentrel::VXHealthCheckImpl().handleHealthCheck()); });
    raiseWhen("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_THAT(agent.calls(), testing::Not(testing::Contains("getAgentInformation")));
}

TEST_F(ADaemon, TakesAHealthCheckAsTheOccasionToAskForTheManagedStatus) {
    when("start", [this] {
        EXPECT_TRUE(hub.healthCheckInterface->handleHealthCheck());
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "getAgentInformation", "releaseInstance"}));
    EXPECT_THAT(root.traceLines(), testing::IsSupersetOf({"VXHealthCheckImpl::handleHealthCheck - Entered",
                                                          "VXHealthCheckImpl::handleHealthCheck - Exiting"}));
}

// --- a refused start ----------------------------------------------------------------------------------------------

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
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile() + refused));
}

TEST_F(ARefusedDaemon, TracesOnlyTheRefusalAtLevelOneAndNoAbortingBelowThree) {
    traceAt(2);
    EXPECT_EQ(runDaemon(), -1);
    const Lines lines = root.traceLines();
    ASSERT_EQ(lines.size(), 2u); // the controller's health check receiver was created, then the refusal
    EXPECT_THAT(lines[1], testing::StartsWith(" VXController::createPidFile  -  test lock gave erro 11("));
}

TEST_F(ADaemon, WithoutTheDirectoryOfThePidFileIsRefusedWithoutALineOfThePidStep) {
    // The log and the levels are elsewhere, so that there is something to read.
    std::filesystem::create_directory(root.path() + "/kept");
    std::filesystem::rename(root.traceLevels(), root.path() + "/kept/levels");
    std::filesystem::create_symlink(root.path() + "/kept/levels", root.traceLevels());
    std::filesystem::create_symlink(root.path() + "/nowhere/.STPid", root.pidFile());
    EXPECT_EQ(runDaemon(), -1);
    EXPECT_EQ(root.traceLines(),
              upTo(kAll, toThePidFile() +
                             TracedLines{{3, "VXController::main -  Create PID file returned false. Aborting start"},
                                         {5, "VXCommandImpl::~VXCommandImpl"}}));
    EXPECT_EQ(hub.calls(), createCalls());
}

TEST_F(ADaemon, StartsWhileAnotherRunsAndOverwritesItsPid) {
    writeFile(root.pidFile(), "4711"); // the other one holds no lock while it runs
    when("start", [this] {
        EXPECT_EQ(readFile(root.pidFile()), std::to_string(getpid()));
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
}

// --- failures -----------------------------------------------------------------------------------------------------

struct AnyOther {};

struct Kind {
    const char* name;
    std::function<void()> fail;
    Lines lines;
};

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all{
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

std::vector<Failure> everyFailure(const std::vector<const char*>& operations) {
    std::vector<Failure> all;
    for (const char* operation : operations) {
        for (std::size_t kind = 0; kind < kinds().size(); ++kind) {
            all.push_back({operation, kind});
        }
    }
    return all;
}

std::string nameOf(const testing::TestParamInfo<Failure>& test) {
    return std::string(test.param.operation) + "_" + kinds()[test.param.kind].name;
}

struct AFailingDaemon : ADaemon, testing::WithParamInterface<Failure> {
    const Kind& kind() const { return kinds()[GetParam().kind]; }
    AFailingDaemon() { when(GetParam().operation, kind().fail); }
};

/// What the hub was asked for up to and with the operation that failed.
Lines upToWith(const Lines& calls, const std::string& operation) {
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
    const Lines before = upTo(kAll, toThePidFile() + pidWritten() + agentStarted() + hubStarted());
    EXPECT_EQ(root.traceLines(),
              allButTheLastOf(before) + Lines{"VXCommandImpl::~VXCommandImpl"} + kind().lines + upTo(kAll, released()));
    // Delivery is stopped, as the receiver of commands is gone; the broker itself is left alone.
    EXPECT_EQ(hub.calls(), createCalls() + upToWith(connectCalls(), GetParam().operation) + stopCalls());
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
    EXPECT_FALSE(std::filesystem::exists(root.eventSocket()));
    EXPECT_TRUE(traceIsOff());
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseHubFailsAtTheConnect,
                         testing::ValuesIn(everyFailure({"setHVId", "setCommandInterface", "setHealthCheckInterface",
                                                         "start", "subscribeForEvent"})),
                         nameOf);

using ADaemonWhoseHubFailsBeforeThePidStep = AFailingDaemon;

TEST_P(ADaemonWhoseHubFailsBeforeThePidStep, UnlinksThePidFileEvenIfItBelongsToARunningDaemon) {
    writeFile(root.pidFile(), "4711");
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
    const Lines before = upTo(kAll, toThePidFile()); // the last one comes behind what failed
    EXPECT_EQ(root.traceLines(),
              allButTheLastOf(before) + Lines{"VXCommandImpl::~VXCommandImpl"} + kind().lines + upTo(kAll, released()));
    EXPECT_EQ(hub.calls(), upToWith(createCalls(), GetParam().operation) + stopCalls());
    EXPECT_TRUE(agent.calls().empty());
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseHubFailsBeforeThePidStep,
                         testing::ValuesIn(everyFailure({"getInstance", "setEventInterface"})), nameOf);

using ADaemonWhoseHubFailsAtTheEnd = AFailingDaemon;

TEST_P(ADaemonWhoseHubFailsAtTheEnd, TracesItAndGoesOnWithTheRelease) {
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), upTo(kAll, started() + sigterm()) +
                                     Lines({"VXController::main - Stopping Sentrel", "VXCommandImpl::~VXCommandImpl"}) +
                                     kind().lines + upTo(kAll, released()));
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseHubFailsAtTheEnd, testing::ValuesIn(everyFailure({"releaseInstance"})),
                         nameOf);

using ADaemonWhoseAgentFails = AFailingDaemon;

TEST_P(ADaemonWhoseAgentFails, TracesItAndEndsWithZeroWithoutAWrapper) {
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile() + pidWritten() + agentStarted()) +
                                     Lines{"VXCommandImpl::~VXCommandImpl"} + kind().lines + upTo(kAll, released()));
    EXPECT_EQ(hub.calls(), createCalls() + stopCalls());
}

INSTANTIATE_TEST_SUITE_P(At, ADaemonWhoseAgentFails, testing::ValuesIn(everyFailure({"agent createInstance"})),
                         [](const auto& test) { return std::string(kinds()[test.param.kind].name); });

TEST_F(ADaemon, TracesAFailureAtLevelOneAndNotBelow) {
    traceAt(1);
    when("start", kinds().front().fail);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), kinds().front().lines);
}

TEST_F(ADaemon, IsSilentAboutAFailureAtLevelZero) {
    traceAt(0);
    when("start", kinds().front().fail);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_TRUE(root.traceLines().empty());
}

TEST_F(ADaemon, GoesDownOnSigtermThoughTheHubCannotBeTold) {
    raiseWhen("start", SIGTERM);
    when("stop", kinds().front().fail);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), upTo(kAll, started() + sigterm() + stopping() + released()));
}

// --- SIGTERM at each gate -----------------------------------------------------------------------------------------

TEST_F(ADaemon, StoppedBeforeAnythingExistsStillStartsAndFallsThrough) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    raise(SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), stopCalls() + createCalls() + connectCalls() + Lines{"releaseInstance"});
    // The handler came before the levels and the log, and made the controller with its receiver of health checks.
    const Lines all = upTo(kAll, started() + stopping() + released());
    EXPECT_EQ(root.traceLines(), Lines(all.begin() + 1, all.end()));
}

TEST_F(ADaemon, StoppedBeforeThePidStepStillStartsAndFallsThrough) {
    raiseWhen("setEventInterface", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + stopCalls() + connectCalls() + Lines{"releaseInstance"});
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile() + sigterm() + pidWritten() + agentStarted() + hubStarted() +
                                                stopping() + released()));
}

TEST_F(ADaemon, StoppedWhileTheAgentWrapperIsBuiltStillStartsAndFallsThrough) {
    raiseWhen("agent createInstance", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + stopCalls() + connectCalls() + Lines{"releaseInstance"});
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile() + pidWritten() + agentStarted() + sigterm() + hubStarted() +
                                                stopping() + released()));
}

TEST_F(ADaemon, ToldTwiceToStopStopsOnce) {
    raiseWhen("setEventInterface", SIGTERM);
    raiseWhen("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(hub.calls(), createCalls() + stopCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, ToldToStopWhileItStopsGoesOnStopping) {
    raiseWhen("start", SIGTERM);
    raiseWhen("releaseInstance", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), upTo(kAll, started() + sigterm() + stopping() + sigterm() + released()));
}

TEST_F(ADaemon, ToldToStopWhileItFailsGoesOnReleasing) {
    when("start", [] {
        raise(SIGTERM);
        throw HVB::HVBException(-111, "no hub");
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(root.pidFile()));
}

// --- SIGHUP -------------------------------------------------------------------------------------------------------

TEST_F(ADaemon, ReReadsItsLevelsOnSighupAndTracesNothingFromThenOn) {
    when("agent createInstance", [this] {
        traceAt(4);
        raise(SIGHUP);
    });
    raiseWhen("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(stDaemonFlowvalue, 4);
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile() + pidWritten() + agentStarted()));
    EXPECT_EQ(hub.calls(), createCalls() + connectCalls() + stopCalls() + Lines{"releaseInstance"});
}

TEST_F(ADaemon, OutlivesASecondSighup) {
    raiseWhen("setEventInterface", SIGHUP);
    raiseWhen("agent createInstance", SIGHUP);
    when("start", [] {
        raise(SIGHUP);
        raise(SIGTERM);
    });
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile()));
    EXPECT_TRUE(traceIsOff());
}

TEST_F(ADaemon, OutlivesASighupBeforeItsLogIsOpenAndTracesLater) {
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
    raise(SIGHUP);
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines(), upTo(kAll, started() + sigterm() + stopping() + released()));
}

TEST_F(ADaemon, ComplainsOnStderrWhenTheLevelFileIsGoneAtSighupAndKeepsItsLevels) {
    when("agent createInstance", [this] {
        std::filesystem::remove(root.traceLevels());
        raise(SIGHUP);
    });
    raiseWhen("start", SIGTERM);
    testing::internal::CaptureStderr();
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: unable to parse file \"" + root.traceLevels() + "\"\n");
    EXPECT_EQ(stDaemonFlowvalue, 5);
}

// --- SIGUSR2 ------------------------------------------------------------------------------------------------------

TracedLines pluginChange(bool withWrapper) {
    TracedLines lines{{2, "VXController::pluginChangeHandler entered with Signal " + std::to_string(SIGUSR2) +
                              " -> refer Signal.h for signal details"}};
    if (withWrapper) {
        lines.push_back({1, "SIGUSR2 signal received"});
    }
    return lines;
}

TEST_F(ADaemon, IgnoresSigusr2BeforeItsAgentWrapperExists) {
    raiseWhen("setEventInterface", SIGUSR2);
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "releaseInstance"}));
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile() + pluginChange(false) + pidWritten() + agentStarted() +
                                                hubStarted() + sigterm() + stopping() + released()));
}

TEST_F(ADaemon, ReloadsThePluginsForASigusr2ThatCameWhileTheWrapperWasBuiltOnceItIsThere) {
    raiseWhen("agent createInstance", SIGUSR2);
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "releaseInstance", "createInstance", "releaseInstance"}));
    EXPECT_EQ(root.traceLines(), upTo(kAll, toThePidFile() + pidWritten() + agentStarted() + pluginChange(true) +
                                                hubStarted() + sigterm() + stopping() + released()));
}

TEST_F(ADaemon, ReloadsThePluginsOnEachSigusr2) {
    raiseWhen("agent createInstance", SIGUSR2);
    raiseWhen("agent releaseInstance", SIGUSR2); // arrives while the first is at work
    raiseWhen("setHVId", SIGUSR2);
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    const Lines calls = agent.calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "createInstance"), 4);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "releaseInstance"), 4);
}

TEST_F(ADaemon, SurvivesAnAgentThatFailsAtAReload) {
    raiseWhen("setHVId", SIGUSR2);
    when("agent createInstance", [] {});
    when("agent createInstance", kinds().front().fail);
    raiseWhen("subscribeForEvent", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_EQ(root.traceLines().back(), "VXController::main() - Exiting");
}

// --- signals while the daemon waits -------------------------------------------------------------------------------

/// Runs a story against the running daemon on a thread that takes no signals.
struct ARunningDaemon : ADaemon {
    int connectToEventSocket() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = root.eventSocket();
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        close(fd);
        return result;
    }

    template <class Story>
    std::int32_t runDaemonDuring(Story story) {
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
        std::thread teller([this, &story] {
            EXPECT_TRUE(eventually([this] { return connectToEventSocket() == 0; }));
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
    EXPECT_EQ(root.traceLines(), upTo(kAll, started() + sigterm() + stopping() + released()));
}

TEST_F(ARunningDaemon, EndsTracingOnSighupAndStopsCleanlyOnSigterm) {
    EXPECT_EQ(runDaemonDuring([this] {
                  traceAt(4);
                  kill(getpid(), SIGHUP);
                  EXPECT_TRUE(eventually(traceIsOff));
              }),
              0);
    EXPECT_EQ(root.traceLines(), upTo(kAll, started()));
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
    EXPECT_EQ(root.traceLines(), upTo(kAll, started() + pluginChange(true) + sigterm() + stopping() + released()));
}

TEST_F(ARunningDaemon, StopsUnderAStormOfSignals) {
    EXPECT_EQ(runDaemonDuring([this] {
                  for (int round = 0; round < 500; ++round) {
                      kill(getpid(), round % 2 == 0 ? SIGHUP : SIGUSR2);
                      EXPECT_EQ(connectToEventSocket(), 0);
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
    EXPECT_EQ(root.traceLines(), upTo(kAll, sigterm()));
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
    when("getInstance", [] { errno = EIO; });
    errno = ENOENT;
    VXController::terminationHandler(SIGTERM);
    EXPECT_EQ(errno, ENOENT);
}

// --- the singleton ------------------------------------------------------------------------------------------------

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
    raiseWhen("start", SIGTERM);
    EXPECT_EQ(runDaemon(), 0);
    EXPECT_THAT(hub.calls(), testing::IsSupersetOf({"setHVId 7", "subscribeForEvent 1005", "subscribeForEvent 1007"}));
}

} // namespace
