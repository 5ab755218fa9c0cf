// A second daemon is started while the first one runs: the newest has everything, and the older one goes quiet.
// Daemons, hub, bus and MQTT broker are real.
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/integration/HvbdSystemLog.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/MqttBroker.h"
#include "tests/support/MqttObserver.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {
namespace {

namespace bus = HVB::bus;
namespace fs = std::filesystem;

/// A machine whose daemon runs, and others that are started beside it.
class ASecondDaemon : public testing::Test {
protected:
    void start() {
        m_machine.setTraceLevels(5);
        m_machine.initSettings();
        m_machine.startHub();
        ASSERT_TRUE(m_machine.startDaemon()) << m_machine.daemon().output();
        awaitUntil("the first daemon", [this] { return started() == 1 && owner() == first().pid(); });
    }

    ChildProcess& first() { return m_machine.daemon(); }

    /// How many daemons have made their event socket, which is the last step of a start.
    std::size_t started() const { return m_machine.traced("STEventServer::start - invoking run on a seperate thread"); }

    /// Starts one more and waits until it has the hub's name and listens.
    std::unique_ptr<ChildProcess> startAnother() {
        const std::size_t before = started();
        auto another = std::make_unique<ChildProcess>(
            programUnderTest("SENTRELD_ROOTED"),
            ChildOptions{.arguments = {},
                         .environment = {"SENTREL_INSTALL_ROOT=" + m_machine.root().path().string()},
                         .outputFile = m_machine.root().file("another.out"),
                         .uid = {},
                         .gid = {}});
        awaitUntil("another daemon", [&] { return started() > before && owner() == another->pid(); });
        return another;
    }

    /// The reply of the bus itself to a question about module 7's name; null when the bus refuses.
    bus::MessagePtr ask(const char* member) {
        const bus::BusPtr connection = bus::openBus(m_machine.bus().socketPath(), patience());
        const auto request = bus::newCall(*connection, bus::kDriver, bus::kDriverPath, bus::kDriver, member);
        bus::check(sd_bus_message_append(request.get(), "s", bus::moduleName(7).c_str()), "append");
        try {
            return bus::call(*connection, *request, patience());
        } catch (const bus::CallError&) {
            return nullptr;
        }
    }

    /// The process that has the hub's name; 0 when none has.
    pid_t owner() {
        const bus::MessagePtr reply = ask("GetConnectionUnixProcessID");
        std::uint32_t pid = 0;
        if (reply != nullptr) {
            bus::check(sd_bus_message_read(reply.get(), "u", &pid), "read");
        }
        return static_cast<pid_t>(pid);
    }

    /// How many processes have the name or wait for it.
    std::size_t owners() {
        const bus::MessagePtr reply = ask("ListQueuedOwners");
        std::size_t count = 0;
        if (reply != nullptr && sd_bus_message_enter_container(reply.get(), 'a', "s") > 0) {
            for (const char* name = nullptr; sd_bus_message_read(reply.get(), "s", &name) > 0;) {
                ++count;
            }
        }
        return count;
    }

    bool hasSpool(const ChildProcess& daemon) {
        const fs::path spool = m_machine.root().varDirectory() + "/reports.spool";
        const auto entries = fs::directory_iterator("/proc/" + std::to_string(daemon.pid()) + "/fd");
        return std::any_of(begin(entries), end(entries), [&](const fs::directory_entry& entry) {
            std::error_code error;
            return fs::read_symlink(entry.path(), error) == spool;
        });
    }

    static bool hasThread(const ChildProcess& daemon, const std::string& name) {
        const auto entries = fs::directory_iterator("/proc/" + std::to_string(daemon.pid()) + "/task");
        return std::any_of(begin(entries), end(entries), [&](const fs::directory_entry& entry) {
            std::string line;
            std::getline(std::ifstream(entry.path() / "comm") >> std::ws, line);
            return line == name;
        });
    }

    void expectReports(const std::string& url) {
        const std::size_t before = m_machine.stored().size();
        m_machine.deliver(sampleEvent(url));
        EXPECT_TRUE(eventually([&] { return m_machine.stored().size() == before + 1; })) << url;
    }

    Machine m_machine;
};

TEST_F(ASecondDaemon, HasTheHubsNameAndTheSpool) {
    start();
    ASSERT_TRUE(eventually([this] { return hasSpool(first()); }));
    const auto second = startAnother();
    EXPECT_TRUE(eventually([&] { return hasSpool(*second); }));
    EXPECT_TRUE(eventually([&] { return !hasSpool(first()); }));
    expectReports("http://host.example/second");
    const auto third = startAnother();
    EXPECT_TRUE(eventually([&] { return hasSpool(*third) && !hasSpool(*second); }));
    expectReports("http://host.example/third");
}

TEST_F(ASecondDaemon, IsNotWaitedForByTheFirst) {
    start();
    {
        const auto second = startAnother();
        EXPECT_EQ(owners(), 1U);
        m_machine.bus().kill9();
        m_machine.bus().restart();
        ASSERT_TRUE(eventually([&] { return owner() == second->pid(); }));
        EXPECT_TRUE(eventually([this] { return !hasThread(first(), "hvb-reader"); }));
        EXPECT_EQ(owners(), 1U);
        EXPECT_EQ(second->terminate(), 0);
    }
    EXPECT_EQ(owner(), 0) << "the first takes nothing back";
    EXPECT_TRUE(first().isRunning());
}

/// The first was held up and has not heard of the second, and the bus on which it would have is gone.
TEST_F(ASecondDaemon, IsLeftTheNameByAFirstThatComesBackToTheBus) {
    start();
    ASSERT_EQ(::kill(first().pid(), SIGSTOP), 0);
    m_machine.bus().kill9();
    m_machine.bus().restart();
    const auto second = startAnother();
    ASSERT_EQ(::kill(first().pid(), SIGCONT), 0);
    EXPECT_TRUE(eventually([this] { return !hasThread(first(), "hvb-reader"); }));
    EXPECT_EQ(owner(), second->pid());
    EXPECT_EQ(owners(), 1U);
    expectReports("http://host.example/second");
}

TEST_F(ASecondDaemon, ServesOnWhenTheFirstEnds) {
    start();
    const auto second = startAnother();
    EXPECT_EQ(first().terminate(), 0);
    EXPECT_EQ(owner(), second->pid());
    expectReports("http://host.example/second");
}

TEST_F(ASecondDaemon, IsToldOfOnceByTheFirst) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can have a system log of its own; what reaches it was not tested";
    }
    SystemLogSocket log(m_machine.root().file("dev"));
    start();
    log.lines();
    const auto second = startAnother();
    std::size_t told = 0;
    awaitUntil("the line", [&] {
        for (const std::string& line : log.lines()) {
            told += line.find("another process of module 7 has taken over") != std::string::npos ? 1U : 0U;
            EXPECT_EQ(line.find("no spool"), std::string::npos) << line;
        }
        return told > 0;
    });
    m_machine.bus().kill9();
    m_machine.bus().restart();
    awaitUntil("the second", [&] { return owner() == second->pid(); });
    for (const std::string& line : log.lines()) {
        told += line.find("has taken over") != std::string::npos ? 1U : 0U;
    }
    EXPECT_EQ(told, 1U);
}

TEST_F(ASecondDaemon, HasTheAgentsSession) {
    MqttBroker broker(m_machine.root());
    const nlohmann::json enrolment = {
        {"broker", {{"host", "127.0.0.1"}, {"port", broker.port()}}}, {"site", "here"}, {"machine", "m1"}};
    std::ofstream(m_machine.root().hubConfigDirectory() + "/agent.json") << enrolment.dump();
    start();
    MqttObserver observer(broker.port());
    const auto state = [&] {
        const auto message = observer.next("orvanta/v1/here/m1/state");
        return message ? nlohmann::json::parse(message->payload).value("state", "") : "none";
    };
    ASSERT_EQ(state(), "online");
    ASSERT_TRUE(hasThread(first(), "agent-network"));
    const auto second = startAnother();
    EXPECT_TRUE(eventually([this] { return !hasThread(first(), "agent-network"); }));
    EXPECT_TRUE(hasThread(*second, "agent-network"));
    std::string last = state();
    while (last != "online") {
        ASSERT_NE(last, "none");
        last = state();
    }
    EXPECT_EQ(second->terminate(), 0);
    EXPECT_EQ(state(), "offline") << "the second's own farewell: it was connected to its end";
}

} // namespace
} // namespace testing_support
