// What sentrelctl doctor finds of the broker of an enrolled machine. Broker, hub and daemon are real.
#include "tests/integration/DoctorFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/MqttBroker.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace testing_support {
namespace {

/// An enrolled machine and its broker.
class AMachineWithABroker : public AnInstallation {
protected:
    void enrolAt(const std::string& host, std::uint16_t port, const std::string& further = "") {
        const std::string path = std::string(kConfig) + "/agent.json";
        write(path, R"({"broker": {"host": ")" + host + R"(", "port": )" + std::to_string(port) + further +
                        R"(}, "site": "here", "machine": "m1"})");
        setMode(path, 0644);
    }
    void start() {
        m_machine.startHub();
        ASSERT_TRUE(m_machine.startDaemon());
    }
    std::string where(std::uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

    std::string m_meanwhile = "; the machine keeps the policy that it has, and gets no new one";
};

TEST_F(AMachineWithABroker, IsFineWhenItsDaemonIsConnected) {
    const MqttBroker broker(m_machine.root());
    enrolAt("127.0.0.1", broker.port());
    EXPECT_EQ(finding("broker").what, "the broker at " + where(broker.port()) + " takes connections")
        << "nothing more can be said without a daemon";
    start();
    EXPECT_TRUE(eventually([&] {
        return finding("broker") == Finding{"ok", "sentreld is connected to the broker at " + where(broker.port()), ""};
    }));
}

TEST_F(AMachineWithABroker, FailsWhenTheBrokerIsAway) {
    MqttBroker broker(m_machine.root());
    enrolAt("127.0.0.1", broker.port());
    start();
    broker.kill9();
    expectFailed("broker", "nobody takes connections at the broker's " + where(broker.port()) + m_meanwhile,
                 std::string("Start the broker, or mend its address in ") + kConfig +
                     "/agent.json and restart sentreld",
                 "broker-away");
}

TEST_F(AMachineWithABroker, FailsWhenTheBrokersNameDoesNotResolve) {
    enrolAt("broker.invalid", 1883);
    const Finding found = finding("broker");
    // Where no name service answers at all, the time runs out first.
    EXPECT_TRUE(found.id == "broker-unresolved" || found.id == "broker-silent") << found.id;
}

TEST_F(AMachineWithABroker, FailsWhenTheBrokerTakesOthersButNotTheDaemon) {
    const MqttBroker broker(m_machine.root(), {.withPasswords = true});
    enrolAt("127.0.0.1", broker.port());
    start();
    std::optional<Finding> found;
    EXPECT_TRUE(eventually([&] {
        found = finding("broker");
        return found->id == "broker-unconnected";
    }));
    EXPECT_EQ(found->what, "the broker at " + where(broker.port()) + " takes connections, and sentreld has none");
}

} // namespace
} // namespace testing_support
