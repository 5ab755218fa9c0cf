// Every event that the daemon took is in the hub's store, once and in order, whatever becomes of hub, bus, disk and
// daemon meanwhile. Bus, hvbd, daemon, kills and disks are real. A longer run of the same is bench/NothingLost.cpp.
#include "platform/hvbhelpers/SpoolHead.h"
#include "tests/support/Browsing.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"
#include "tests/support/OwnDisk.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

constexpr int kEventsPerSecond = 50;
constexpr const char* kLost = "EventReporter::sendBlockEventToHVB - Exception ";

class AMachineUnderEvents : public testing::Test {
protected:
    void SetUp() override {
        machine.setTraceLevels(3);
        machine.startHub();
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    }

    /// Returns when a further @p count events were dealt with.
    static void awaitEvents(const Browsing& browsing, std::size_t count) {
        const std::size_t goal = browsing.sent() + count;
        awaitUntil("events", [&] { return browsing.sent() >= goal; });
    }

    void expectNothingLost() {
        const Account account = settledAccount(machine);
        EXPECT_TRUE(account.isRight()) << account;
        EXPECT_GT(account.taken, 0U);
        RecordProperty("account", testing::PrintToString(account));
    }

    /// Waiting records, as the spool says.
    std::uint64_t waiting() const {
        const auto counts = HVB::detail::spoolCounts(machine.root().varDirectory() + "/reports.spool");
        return counts ? counts->waiting : 0;
    }

    mutable Machine machine;
};

TEST_F(AMachineUnderEvents, LosesNothingWhileHvbdRestartsTwentyTimes) {
    Browsing browsing(machine, "restarts", kEventsPerSecond);
    for (int restart = 0; restart < 20; ++restart) {
        awaitEvents(browsing, 3);
        machine.hub().kill(restart % 2 == 0 ? SIGKILL : SIGTERM);
        awaitEvents(browsing, 3);
        machine.startHub();
    }
    browsing.stop();
    expectNothingLost();
    EXPECT_EQ(machine.traced(kLost), 0U);
}

TEST_F(AMachineUnderEvents, LosesNothingWhileTheBusRestartsTwentyTimes) {
    Browsing browsing(machine, "restarts", kEventsPerSecond);
    for (int restart = 0; restart < 20; ++restart) {
        awaitEvents(browsing, 3);
        machine.bus().kill9();
        awaitEvents(browsing, 3);
        machine.bus().restart();
    }
    browsing.stop();
    expectNothingLost();
    EXPECT_EQ(machine.traced(kLost), 0U);
}

TEST_F(AMachineUnderEvents, LosesNothingWhileHvbdIsStopped) {
    Browsing browsing(machine, "stopped", kEventsPerSecond);
    awaitEvents(browsing, 5);
    machine.hub().hold();
    awaitEvents(browsing, 100);
    EXPECT_GE(waiting(), 99U);
    machine.hub().kill(SIGCONT);
    browsing.stop();
    expectNothingLost();
    EXPECT_EQ(machine.traced(kLost), 0U);
    EXPECT_TRUE(eventually([this] { return waiting() == 0; }));
}

TEST_F(AMachineUnderEvents, LosesNothingWhileTheBusIsStopped) {
    Browsing browsing(machine, "stopped", kEventsPerSecond);
    awaitEvents(browsing, 5);
    machine.bus().stop();
    awaitEvents(browsing, 100);
    machine.bus().cont();
    browsing.stop();
    expectNothingLost();
}

TEST_F(AMachineUnderEvents, LosesNothingWhileTheHubsDiskIsFull) {
    OwnDisk disk;
    machine.stopDaemon(); // a process sees the mounts that there were when it started
    machine.hub().kill(SIGKILL);
    machine.bus().kill9();
    const std::string trouble = disk.mount(machine.root().hubVarDirectory(), "size=1m");
    if (!trouble.empty()) {
        GTEST_SKIP() << trouble << "; a full disk was not tested";
    }
    machine.bus().restart();
    machine.startHub();
    ASSERT_TRUE(machine.startDaemon());
    Browsing browsing(machine, "full", kEventsPerSecond);
    awaitEvents(browsing, 5);
    disk.fill();
    ASSERT_TRUE(eventually([this] { return waiting() > 20; })) << "the hub's disk is full";
    disk.free();
    awaitEvents(browsing, 5);
    browsing.stop();
    expectNothingLost();
    EXPECT_EQ(machine.traced(kLost), 0U);
    machine.kill9Daemon();
    machine.hub().kill(SIGKILL);
    machine.bus().kill9();
}

TEST_F(AMachineUnderEvents, LosesNothingThatItTookWhenDaemonAndHvbdAreKilledAtRandom) {
    std::mt19937 random(7);
    Browsing browsing(machine, "kills", kEventsPerSecond);
    for (int round = 0; round < 12; ++round) {
        awaitEvents(browsing, 1 + random() % 8);
        switch (random() % 3) {
        case 0:
            machine.kill9Daemon();
            break;
        case 1:
            machine.hub().kill(SIGKILL);
            awaitEvents(browsing, random() % 4);
            machine.startHub();
            continue;
        default:
            machine.hub().kill(SIGKILL);
            awaitEvents(browsing, random() % 4);
            machine.kill9Daemon();
            machine.startHub();
        }
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    }
    browsing.stop();
    expectNothingLost();
}

TEST_F(AMachineUnderEvents, DeliversAfterItsNextStartWhatWaitedWhenItStopped) {
    machine.hub().kill(SIGKILL);
    machine.deliver(sampleEvent("http://host.example/one"));
    machine.deliver(sampleEvent("http://host.example/two"));
    EXPECT_EQ(machine.stopDaemon(), 0);
    EXPECT_EQ(waiting(), 2U);
    machine.startHub();
    ASSERT_TRUE(machine.startDaemon());
    machine.deliver(sampleEvent("http://host.example/three"));
    expectNothingLost();
    EXPECT_EQ(storedUrls(machine), (std::vector<std::string>{"http://host.example/one", "http://host.example/two",
                                                             "http://host.example/three"}));
}

TEST_F(AMachineUnderEvents, StopsAtOnceWhileRecordsWaitForAHubThatDoesNotAnswer) {
    machine.hub().hold();
    machine.deliver(sampleEvent("http://host.example/one"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(machine.stopDaemon(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kPatience / 2);
    EXPECT_EQ(waiting(), 1U);
}

TEST_F(AMachineUnderEvents, HasOneSpoolHoweverManyDaemonsRun) {
    Machine& other = machine;
    ChildProcess second(programUnderTest("SENTRELD_ROOTED"),
                        {.arguments = {},
                         .environment = {"SENTREL_INSTALL_ROOT=" + other.root().path().string()},
                         .outputFile = other.root().file("second.out"),
                         .uid = {},
                         .gid = {}});
    ASSERT_TRUE(
        eventually([&] { return machine.traced("STEventServer::start - invoking run on a seperate thread") == 2; }));
    machine.hub().kill(SIGKILL);
    machine.deliver(sampleEvent("http://host.example/second")); // the second one has the socket now
    EXPECT_EQ(machine.traced(kLost), 0U) << "and the spool";
    EXPECT_EQ(waiting(), 1U);
    second.terminate();
}

/// A daemon whose spool cannot be made loses what the hub does not take, and says so in its trace.
class AMachineWithoutASpool : public testing::Test {
protected:
    void SetUp() override {
        machine.setTraceLevels(5);
        fs::create_directory(machine.root().varDirectory() + "/reports.spool");
        machine.startHub();
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    }

    Machine machine;
};

TEST_F(AMachineWithoutASpool, LosesAnEventThatMeetsADeadHubWithItsTraceLine) {
    machine.hub().kill(SIGKILL);
    machine.deliver(sampleEvent());
    EXPECT_EQ(machine.traced(kLost), 1U);
    machine.startHub();
    machine.deliver(sampleEvent("http://host.example/back"));
    EXPECT_EQ(storedUrls(machine), std::vector<std::string>{"http://host.example/back"});
}

TEST_F(AMachineWithoutASpool, LosesAnEventThatMeetsAStoppedHubWithItsTraceLine) {
    machine.hub().hold();
    machine.deliver(sampleEvent());
    EXPECT_EQ(machine.traced(kLost), 1U);
    machine.hub().kill(SIGCONT);
}

TEST_F(AMachineWithoutASpool, MayStoreAnEventAllTheSameThatItsTraceCallsLost) {
    machine.hub().hold();
    machine.deliver(sampleEvent("http://host.example/late"));
    ASSERT_EQ(machine.traced(kLost), 1U);
    machine.hub().kill(SIGCONT); // the call has reached it and waits there
    EXPECT_TRUE(
        eventually([&] { return storedUrls(machine) == std::vector<std::string>{"http://host.example/late"}; }));
}

TEST_F(AMachineUnderEvents, HasNoLineOfLossForAnEventThatMeetsAStoppedHub) {
    machine.hub().hold();
    machine.deliver(sampleEvent("http://host.example/late"));
    EXPECT_EQ(machine.traced(kLost), 0U);
    machine.hub().kill(SIGCONT);
    ASSERT_TRUE(eventually([&] { return waiting() == 0; }));
    EXPECT_EQ(storedUrls(machine), std::vector<std::string>{"http://host.example/late"}) << "once";
}

TEST_F(AMachineWithoutASpool, LosesAnEventThatMeetsAStoppedBusWithItsTraceLine) {
    machine.bus().stop();
    machine.deliver(sampleEvent());
    EXPECT_EQ(machine.traced(kLost), 1U);
    machine.bus().cont();
}

} // namespace
} // namespace testing_support
