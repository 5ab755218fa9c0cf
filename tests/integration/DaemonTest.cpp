// The whole daemon on a real bus with a real hvbd, looked at from outside.
#include "events/ReportRecords.h"
#include "tests/support/ArchiveValue.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace testing_support {
namespace {

DetailReportData detailOf(const Machine::Stored& record) {
    return valueIn<DetailReportData>(record.detail);
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

class ADaemon : public ::testing::Test {
protected:
    void SetUp() override {
        machine.setTraceLevels(5);
        machine.startHub();
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    }
    void TearDown() override {
        if (machine.daemon().isRunning()) {
            EXPECT_EQ(machine.stopDaemon(), 0);
        }
    }

    std::string pidFile() { return machine.root().varDirectory() + "/.STPid"; }

    Machine machine;
};

TEST_F(ADaemon, BringsABrowsersDecisionToTheHubsStore) {
    machine.deliver(sampleEvent("http://host.example/path"));
    const auto records = machine.stored();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].source, 7);
    EXPECT_EQ(records[0].type, 8);
    EXPECT_EQ(records[0].count, 1);
    const DetailReportData detail = detailOf(records[0]);
    EXPECT_EQ(detail.attributes.at(L"SourceURL"), L"http://host.example/path");
    EXPECT_EQ(detail.attributes.at(L"SourceProcessName"), L"firefox");
    EXPECT_EQ(detail.attributes.at(L"ThreatActionTaken"), L"blocked");
}

TEST_F(ADaemon, KeepsEventsInTheOrderOfTheirConnections) {
    constexpr int events = 50;
    for (int number = 0; number < events; ++number) {
        machine.deliver(sampleEvent("http://host.example/" + std::to_string(number)));
    }
    const auto records = machine.stored();
    ASSERT_EQ(records.size(), static_cast<std::size_t>(events));
    for (int number = 0; number < events; ++number) {
        EXPECT_EQ(detailOf(records[static_cast<std::size_t>(number)]).attributes.at(L"SourceURL"),
                  L"http://host.example/" + std::to_wstring(number));
    }
}

TEST_F(ADaemon, ServesOnAfterRecordsOfEveryLengthAndOfRandomBytes) {
    constexpr std::size_t largest = 1024;
    std::mt19937 random(20261121); // a fixed seed: a failure can be run again
    for (std::size_t length = 1; length <= largest; ++length) {
        std::string bytes(length, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        machine.deliver(bytes);
    }
    machine.deliver(sampleEvent("http://host.example/after"));
    const auto records = machine.stored();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(detailOf(records.back()).attributes.at(L"SourceURL"), L"http://host.example/after");
    EXPECT_EQ(machine.traced("STEventServer::processSocketEvent - Entered"),
              machine.traced("------------------ END ------------------") +
                  machine.traced("STEventServer::processSocketEvent - nothing to read from connection so closing "
                                 "session with client"));
}

TEST_F(ADaemon, ShowsNoByteOfAnEarlierClientInAReportOfAShortRecord) {
    machine.deliver(sampleEvent("http://host.example/secret-of-the-first-client"));
    const STEventData event = sampleEvent("http://host.example/short");
    const std::string bytes(reinterpret_cast<const char*>(&event), sizeof event);
    const std::size_t behindUrl = offsetof(STEventData, url) + std::strlen(event.url);
    machine.deliver(bytes.substr(0, behindUrl));
    const auto records = machine.stored();
    ASSERT_EQ(records.size(), 2U);
    const DetailReportData detail = detailOf(records[1]);
    EXPECT_EQ(detail.attributes.at(L"SourceURL"), L"http://host.example/short");
    EXPECT_EQ(detail.attributes.at(L"SourceProcessName"), L"");
    EXPECT_EQ(records[1].detail.find(L"secret"), std::wstring::npos);
    EXPECT_EQ(detail.info.find(L"Count")->second, L"0");
}

TEST_F(ADaemon, LosesNoTraceLineOfARecordThatIsNoText) {
    std::string bytes(392, '\xff');
    machine.deliver(bytes);
    EXPECT_EQ(machine.traced("STEventServer::processSocketEvent - Is RPX Reachable - -1 "), 1U);
    std::string escaped;
    for (int at = 0; at < 16; ++at) {
        escaped += "\\xff";
    }
    EXPECT_EQ(machine.traced("STEventServer::processSocketEvent - Event ID - " + escaped + " "), 1U);
}

TEST_F(ADaemon, AnswersADecryptRequestWithZerosWithoutAnAgent) {
    EventClient client(machine.eventSocket());
    client.send(std::string("Decrypt c2VjcmV0\0", 17));
    EXPECT_EQ(client.readAll(), std::string(1024, '\0'));
}

TEST_F(ADaemon, LosesNoEventOfTwentyClientsThatConnectAtOnce) {
    constexpr int clients = 20;
    std::vector<std::thread> threads;
    threads.reserve(clients);
    for (int number = 0; number < clients; ++number) {
        threads.emplace_back(
            [this, number] { machine.deliver(sampleEvent("http://h.example/" + std::to_string(number))); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(machine.stored().size(), static_cast<std::size_t>(clients));
}

TEST_F(ADaemon, KeepsTheOthersWaitingBehindASilentClient) {
    const auto served = [this] { return machine.traced("STEventServer::processSocketEvent - Entered"); };
    machine.deliver("x");
    const std::size_t before = served();
    EventClient silent(machine.eventSocket());
    ASSERT_TRUE(eventually([&] { return served() == before + 1; }));
    EventClient second(machine.eventSocket());
    const STEventData event = sampleEvent();
    second.send({reinterpret_cast<const char*>(&event), sizeof event});
    silent.close();
    static_cast<void>(second.readAll());
    EXPECT_EQ(machine.stored().size(), 1U);
}

TEST_F(ADaemon, WritesItsPidFileWithItsModeAndRemovesItAtTheEnd) {
    EXPECT_EQ(readFile(pidFile()), std::to_string(machine.daemon().pid()));
    EXPECT_EQ(modeOf(pidFile()), 0744U);
    EXPECT_EQ(modeOf(machine.root().varDirectory() + "/STTrace.log"), 0744U);
    EXPECT_EQ(modeOf(machine.eventSocket()), 0777U);
    EXPECT_EQ(machine.stopDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(pidFile()));
    EXPECT_TRUE(std::filesystem::exists(machine.eventSocket())); // the node stays until the next start
}

TEST_F(ADaemon, StartsASecondTimeAndOverwritesThePid) {
    Machine& first = machine;
    ChildOptions options;
    options.environment = {"SENTREL_INSTALL_ROOT=" + first.root().path().string()};
    options.outputFile = first.root().file("second.out");
    ChildProcess second(programUnderTest("SENTRELD_ROOTED"), options);
    EXPECT_TRUE(eventually([&] { return readFile(pidFile()) == std::to_string(second.pid()); })) << second.output();
    EXPECT_EQ(second.terminate(), 0);
}

TEST_F(ADaemon, StartsAgainOverTheSocketAndThePidFileOfACrash) {
    machine.daemon().kill(SIGKILL);
    EXPECT_EQ(machine.daemon().waitUntil(patience()), -SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(pidFile()));
    ASSERT_TRUE(machine.startDaemon());
    EXPECT_EQ(readFile(pidFile()), std::to_string(machine.daemon().pid()));
    machine.deliver(sampleEvent());
    EXPECT_EQ(machine.stored().size(), 1U);
}

TEST_F(ADaemon, TracesItsStartAndStopInOrder) {
    EXPECT_EQ(machine.stopDaemon(), 0);
    std::string all = readFile(machine.root().varDirectory() + "/STTrace.log");
    std::size_t from = 0;
    for (const char* expected :
         {"VXHealthCheckImpl::VXHealthCheckImpl - Object created\n", "VXCommandImpl::VXCommandImpl\n",
          "VXController::main - started tracing\n", " VXController::createPidFile  - locked pidfile and wrote our pid ",
          "VXController::main - Starting OA Agent Wrapper\n", "VXController::main - Starting HVB\n",
          "STEventServer::start - invoking run on a seperate thread\n",
          " terminationHandler - Recieved sigterm. Going down\n", "VXController::main - Stopping Sentrel\n",
          "VXController::main -removing pid file\n", "VXCommandImpl::~VXCommandImpl\n",
          "STEventServer::releaseInstance - Invoked \n", "STEventServer::~STEventServer - Completed\n",
          "VXHealthCheckImpl::~VXHealthCheckImpl - Object destroyed\n", "VXController::main() - Exiting\n"}) {
        const std::size_t at = all.find(expected, from);
        ASSERT_NE(at, std::string::npos) << expected << "\n" << all;
        from = at;
    }
    EXPECT_EQ(all.find("VXController::main() - Entered"), std::string::npos);
}

TEST_F(ADaemon, TracesNoMoreAfterSighupAndEndsCleanly) {
    machine.daemon().kill(SIGHUP);
    const auto fdsOfLog = [this] {
        std::size_t open = 0;
        const std::string fds = "/proc/" + std::to_string(machine.daemon().pid()) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(fds)) {
            std::error_code error;
            open += std::filesystem::read_symlink(entry.path(), error).filename() == "STTrace.log" ? 1U : 0U;
        }
        return open;
    };
    ASSERT_TRUE(eventually([&] { return fdsOfLog() == 0; }));
    const std::size_t before = machine.traceLines().size();
    machine.daemon().kill(SIGHUP);
    machine.deliver(sampleEvent());
    EXPECT_EQ(machine.stopDaemon(), 0) << machine.daemon().output();
    EXPECT_EQ(machine.traceLines().size(), before);
    EXPECT_EQ(machine.stored().size(), 1U);
}

TEST_F(ADaemon, ReloadsThePluginsOnSigusr2) {
    machine.daemon().kill(SIGUSR2);
    EXPECT_TRUE(eventually([this] { return machine.traced("SIGUSR2 signal received") == 1U; }));
    EXPECT_TRUE(eventually([this] { return machine.traced("VXHVBAgentWrapper::loadOAPlugins - Entered") == 2U; }));
}

TEST_F(ADaemon, AnswersTheHubsHealthCheck) {
    const char* asked = "VXHVBAgentWrapper - Product is in unmanaged mode";
    ASSERT_TRUE(eventually([&] { return machine.traced(asked) == 1; })) << "hvbd asks when the daemon has come";
    const HVB::bus::Deadline deadline = patience();
    const HVB::bus::BusPtr bus = HVB::bus::openBus(machine.bus().socketPath(), deadline);
    const auto request = HVB::bus::newCall(*bus, "com.orvanta.hvb1.Module7", "/com/orvanta/hvb1/Module7",
                                           "com.orvanta.hvb1.Module", "HealthCheck");
    const auto reply = HVB::bus::call(*bus, *request, deadline);
    int well = 0;
    ASSERT_GT(sd_bus_message_read(reply.get(), "b", &well), 0);
    EXPECT_EQ(well, 1);
    EXPECT_EQ(machine.traced(asked), 2U);
}

TEST_F(ADaemon, LivesThroughADeadBusAndReportsWhenItIsBack) {
    machine.bus().kill9();
    machine.deliver(sampleEvent("http://host.example/kept"));
    EXPECT_EQ(machine.traced("EventReporter::sendBlockEventToHVB - Exception "), 0U);
    machine.bus().restart();
    ASSERT_TRUE(eventually([this] { return machine.hubAnswers(); }));
    machine.deliver(sampleEvent("http://host.example/back"));
    ASSERT_TRUE(eventually([this] { return machine.stored().size() == 2; }));
    const auto records = machine.stored();
    EXPECT_EQ(detailOf(records[0]).attributes.at(L"SourceURL"), L"http://host.example/kept");
    EXPECT_EQ(detailOf(records[1]).attributes.at(L"SourceURL"), L"http://host.example/back");
}

TEST(ADaemonsStart, EndsWithStatusZeroAndALineWhenThereIsNoHub) {
    Machine machine;
    machine.setTraceLevels(5);
    machine.bus().kill9();
    machine.launchDaemon();
    EXPECT_EQ(machine.daemon().waitUntil(patience()), 0);
    std::size_t caught = 0;
    for (const std::string& line : machine.traceLines()) {
        caught += line.find("VXController::main - Caught HVB Exception ") != std::string::npos ? 1U : 0U;
    }
    EXPECT_EQ(caught, 1U);
    EXPECT_EQ(machine.traced("VXController::main() - Exiting"), 1U);
    EXPECT_FALSE(std::filesystem::exists(machine.root().varDirectory() + "/.STPid"));
}

TEST(ADaemonsTraceLog, HoldsTheUrlOfAnEventFromLevelTwoOn) {
    for (const int level : {1, 2}) {
        Machine machine;
        machine.setTraceLevels(level);
        machine.startHub();
        ASSERT_TRUE(machine.startDaemon());
        machine.deliver(sampleEvent("http://host.example/visited"));
        EXPECT_EQ(machine.stopDaemon(), 0);
        std::string log;
        for (const std::string& line : machine.traceLines()) {
            log += line + "\n";
        }
        EXPECT_NE(log.find("getHostIp  - Invoked"), std::string::npos) << "the event was traced";
        EXPECT_EQ(log.find("host.example/visited") != std::string::npos, level >= 2) << log;
    }
}

TEST(ADaemonsStart, SaysThatTheLevelFileIsMissing) {
    Machine machine;
    machine.startHub();
    ASSERT_TRUE(machine.startDaemon());
    EXPECT_EQ(machine.stopDaemon(), 0);
    EXPECT_EQ(machine.daemon().output(),
              "Error: unable to parse file \"" + machine.root().varDirectory() + "/traceValues.xml\"\n");
    EXPECT_EQ(readFile(machine.root().varDirectory() + "/STTrace.log"), "");
}

TEST(ADaemonsStart, ServesTheHubWhenTheEventSocketCannotBeSetUp) {
    Machine machine;
    machine.setTraceLevels(5);
    machine.startHub();
    std::filesystem::create_directories(machine.eventSocket() + "/in-the-way");
    machine.launchDaemon();
    EXPECT_TRUE(eventually([&] {
        return machine.traced("STEventServer::start - Error unable on start Event Server as socket connection is not "
                              "ready") == 1U;
    }));
    EXPECT_TRUE(machine.daemon().isRunning());
    EXPECT_EQ(machine.traced("STEventServer::STEventServer - Error unlinking the existing socket node"), 1U);
    EXPECT_EQ(machine.stopDaemon(), 0);
}

TEST(ADaemonsStart, IsRefusedWithStatusZeroWhileAnotherHoldsThePidFile) {
    Machine machine;
    machine.setTraceLevels(5);
    machine.startHub();
    const std::string path = machine.root().varDirectory() + "/.STPid";
    std::ofstream(path) << "stale";
    // A lock of this process stands for another start that is inside the same step.
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(lockf(fd, F_LOCK, 0), 0);
    machine.launchDaemon();
    EXPECT_EQ(machine.daemon().waitUntil(patience()), 0);
    EXPECT_EQ(machine.traced("VXController::main -  Create PID file returned false. Aborting start"), 1U);
    EXPECT_EQ(readFile(path), "stale");
    EXPECT_FALSE(std::filesystem::exists(machine.eventSocket()));
    close(fd);
}

} // namespace
} // namespace testing_support
