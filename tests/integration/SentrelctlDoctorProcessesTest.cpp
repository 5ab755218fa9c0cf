// What sentrelctl doctor finds of the bus, of the processes and of what these leave behind.
#include "tests/integration/DoctorFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

// The bus.

TEST_F(AnInstallation, FailsWithoutTheHubsSocket) {
    const std::string path = std::string(kHubVar) + "/hvbdsocket64";
    m_machine.bus().kill9();
    fs::remove(at(path));
    const std::string start =
        std::string("Start the hub's bus: dbus-daemon --nofork --config-file=") + kConfig + "/hub-bus.conf";
    expectFailed("hub-socket", "there is no " + path, start);
    write(path, "");
    expectFailed("hub-socket", path + " is no socket", "Find out who put it there, remove it, and start the hub's bus");
}

TEST_F(AnInstallation, FailsWithABusThatDoesNotAnswer) {
    m_machine.bus().stop();
    expectFailed("hub-socket", std::string("the bus does not answer at ") + kHubVar + "/hvbdsocket64",
                 "Look at its dbus-daemon, and restart it");
    m_machine.bus().cont();
}

/// A bus whose configuration somebody has changed.
class AChangedBus : public AnInstallation {
protected:
    void letEverybody(const std::string& what) {
        const std::string path = std::string(kConfig) + "/hub-bus.conf";
        std::string text = readFile(at(path));
        text.insert(text.find("</policy>"), "<allow " + what + "/>");
        write(path, text);
        m_machine.bus().kill9();
        m_machine.bus().restart();
    }

    std::string m_advice = "Another configuration is in force: make it with 'hvbd --print-bus-config', and restart the "
                           "bus and all on it";
};

TEST_F(AChangedBus, FailsWhenItLetsAnOrdinaryUserAsk) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as an ordinary user";
    }
    m_machine.startHub();
    EXPECT_EQ(finding("bus-policy").result, "ok");
    letEverybody("send_destination=\"com.orvanta.hvb1.Hub\"");
    m_machine.startHub();
    expectFailed("bus-policy", "the bus lets an ordinary user ask for the health", m_advice);
}

TEST_F(AChangedBus, FailsWhenItLetsAnOrdinaryUserSendEvents) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as an ordinary user";
    }
    EXPECT_EQ(finding("bus-policy").result, "ok");
    letEverybody("send_type=\"signal\"");
    expectFailed("bus-policy", "the bus lets an ordinary user send events", m_advice);
}

// The processes.

TEST_F(ARunningInstallation, FailsWhenAProcessIsNotRunning) {
    m_machine.stopDaemon();
    expectFailed("sentreld", "sentreld is not on the bus", "Start sentreld; its messages are in the system log");
    m_machine.hub().terminate();
    expectFailed("hvbd", "hvbd is not on the bus", "Start hvbd; its messages are in the system log");
}

TEST_F(ARunningInstallation, FailsWhenAProcessHangs) {
    m_machine.daemon().hold();
    const Finding hung = finding("sentreld");
    EXPECT_EQ(hung.result, "failed");
    EXPECT_TRUE(hung.what.starts_with("sentreld does not answer: ")) << hung.what;
    EXPECT_EQ(hung.advice, "Restart sentreld");
    m_machine.daemon().kill(SIGCONT);
}

TEST_F(AnInstallation, TellsTheHealthThatHvbdFound) {
    m_machine.startHub({"--health-interval", "1"});
    ASSERT_TRUE(m_machine.startDaemon());
    ASSERT_TRUE(eventually([&] { return finding("health").what.starts_with("hvbd finds sentreld well since "); }));
    m_machine.kill9Daemon();
    ASSERT_TRUE(eventually([&] { return finding("health").result == "failed"; }));
    const Finding gone = finding("health");
    EXPECT_TRUE(gone.what.starts_with("hvbd found sentreld gone at ")) << gone.what;
    EXPECT_EQ(gone.advice, "Restart sentreld, unless it has just been started");
}

} // namespace
} // namespace testing_support
