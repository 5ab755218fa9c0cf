// What the libraries' own threads do when memory stays short: the process lives, and works again when there is some.
// Bus, MQTT broker and threads are real; operator new fails on one kind of thread at a time.
#include "tests/support/ShortMemory.h"
#include "platform/hvbhelpers/RecordKeeper.h"
#include "tests/integration/AgentFixture.h"
#include "tests/integration/BrokerFixture.h"
#include "tests/support/FakeHub.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using namespace testing_support;
using namespace broker_tests;
using HVB::detail::RecordKeeper;

constexpr const char* kReader = "hvb-reader";
constexpr const char* kCallback = "hvb-callback";
constexpr const char* kSpool = "hvb-spool";
constexpr const char* kNetwork = "agent-network";
constexpr const char* kAgentCallback = "agent-callback";

/// A module on a real bus, whose event handler fails.
class AModuleShortOfMemory : public ABroker {
protected:
    AModuleShortOfMemory() {
        processRoot(); // the install root is read once, and the machine's tests need it
        m_module.onCommand = echo;
        m_module.onEvent = [this](HVB::EventData&) -> bool {
            ++m_events;
            throw std::runtime_error("a text that is long enough to need memory of its own");
        };
    }

    bool answers() {
        try {
            return roundTrip(100001, L"text") == L"text";
        } catch (const HVB::HVBException&) {
            return false;
        }
    }
    std::string healthError() {
        RawClient client(m_bus.socketPath());
        const auto request = HVB::bus::newCall(client.bus(), HVB::bus::moduleName(7), HVB::bus::modulePath(7),
                                               HVB::bus::kModuleInterface, HVB::bus::kHealthCheckMember);
        return client.errorOf(*request);
    }

    HubBus m_bus{m_root};
    std::atomic<int> m_events{0};
};

TEST_F(AModuleShortOfMemory, OutlivesTheEndOfTheBusOnItsReader) {
    const Life life = startModule7();
    ASSERT_TRUE(answers());
    {
        const ShortMemory memory(kReader);
        m_bus.kill9();
        m_bus.restart();
        ASSERT_TRUE(eventually([&] { return memory.failures() > 3; }));
    }
    EXPECT_TRUE(eventually([this] { return answers(); }));
}

TEST_F(AModuleShortOfMemory, OutlivesCallsThatItsReaderCannotTake) {
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    {
        const ShortMemory memory(kReader);
        EXPECT_NE(client.errorOf(*client.command(100001)), "");
        EXPECT_NE(healthError(), "");
        EXPECT_GT(memory.failures(), 0U);
    }
    EXPECT_EQ(client.errorOf(*client.command(100001)), "");
    EXPECT_EQ(healthError(), "");
}

TEST_F(AModuleShortOfMemory, AnswersAnErrorWhereAHandlerCannotRun) {
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    {
        const ShortMemory memory(kCallback);
        EXPECT_EQ(client.errorOf(*client.command(100001)), HVB::bus::kErrorFailed);
        EXPECT_GT(memory.failures(), 0U);
    }
    EXPECT_EQ(client.errorOf(*client.command(100001)), "");
}

TEST_F(AModuleShortOfMemory, OutlivesAnEventThatFails) {
    const Life life = startModule7();
    subscribe(1005);
    {
        const ShortMemory memory(kCallback);
        RawClient(m_bus.socketPath()).emit(1005, 1);
        ASSERT_TRUE(eventually([&] { return memory.failures() > 0; }));
    }
    RawClient(m_bus.socketPath()).emit(1005, 2);
    EXPECT_TRUE(eventually([this] { return m_events == 1; }));
    EXPECT_TRUE(answers());
}

TEST_F(AModuleShortOfMemory, AnswersThatItIsStopped) {
    const Life life = startModule7();
    broker().stop();
    const ShortMemory memory(kCallback);
    EXPECT_EQ(healthError(), HVB::bus::kErrorStopped);
}

class ARecordKeeperShortOfMemory : public testing::Test {
protected:
    static void hand(RecordKeeper& keeper, const std::wstring& text) {
        HVB::LogRequest request;
        request.m_sourceId = 7;
        request.m_text = text;
        keeper.hand(request);
    }

    PrivateRoot m_root;
    HubBus m_bus{m_root};
};

TEST_F(ARecordKeeperShortOfMemory, DeliversWhatWaitsWhenThereIsMemoryAgain) {
    RecordKeeper keeper(m_bus.socketPath(), m_root.varDirectory() + "/reports.spool", [](const std::string&) {});
    keeper.begin();
    hand(keeper, L"a report that is long enough to need memory of its own");
    for (const std::size_t spared : {0U, 20U}) { // it fails in one place or another
        const ShortMemory memory(kSpool, spared);
        m_bus.kill9();
        m_bus.restart();
        ASSERT_TRUE(eventually([&] { return memory.failures() > 0; }));
    }
    FakeHub hub(m_bus.socketPath());
    EXPECT_TRUE(eventually([&] { return keeper.counts().waiting == 0; }));
    EXPECT_EQ(hub.records().size(), 1U);
    keeper.end();
}

/// A machine with a broker of its own.
class AMachineShortOfMemory : public AMachine {
protected:
    MqttBroker m_broker{root()};
};

TEST_F(AMachineShortOfMemory, ConnectsAgainWhenThereIsMemory) {
    enrol(m_broker.port());
    start();
    ASSERT_TRUE(isConnected());
    {
        const ShortMemory memory(kNetwork);
        m_broker.kill9();
        m_broker.restart();
        ASSERT_TRUE(eventually([&] { return memory.failures() > 3; }));
    }
    EXPECT_TRUE(isConnected());
}

TEST_F(AMachineShortOfMemory, EnforcesTheNextPolicyAfterOneThatItHadNoMemoryFor) {
    enrol(m_broker.port());
    start();
    ASSERT_TRUE(isConnected());
    MqttObserver observer(m_broker.port());
    ASSERT_FALSE(nextJson(observer, "properties").is_null());
    {
        const ShortMemory memory(kAgentCallback);
        observer.publish(topic("policy"), policy(1));
        ASSERT_TRUE(eventually([&] { return memory.failures() > 0; }));
    }
    observer.publish(topic("policy"), policy(2));
    EXPECT_EQ(answerAbout(observer, policy(2))["fate"], "in force");
}

} // namespace
