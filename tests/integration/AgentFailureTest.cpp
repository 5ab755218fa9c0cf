// A machine whose broker is away, refuses, or comes back, and clients that come and go meanwhile.
#include "platform/hvbagent/SecretBox.h"
#include "tests/integration/AgentFixture.h"
#include "tests/support/Files.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;

constexpr int kCycles = 500;

std::size_t threadsOfThisProcess() {
    return countEntries("/proc/self/task");
}

std::size_t openFiles() {
    return countEntries("/proc/self/fd");
}

/// Listens like a broker, hears the client's first words and hangs up.
class HangsUp {
public:
    HangsUp() {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof m_address;
        auto* const address = reinterpret_cast<sockaddr*>(&m_address);
        if (::bind(m_listener, address, size) != 0 || ::listen(m_listener, 1) != 0 ||
            ::getsockname(m_listener, address, &size) != 0) {
            throw std::runtime_error("cannot listen");
        }
    }
    HangsUp(const HangsUp&) = delete;
    HangsUp& operator=(const HangsUp&) = delete;
    ~HangsUp() { ::close(m_listener); }

    std::uint16_t port() const { return ntohs(m_address.sin_port); }

    /// Waits for that many clients, one after the other.
    void hangUp(int times) const {
        for (int i = 0; i < times; ++i) {
            const int client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            std::array<char, 256> words{};
            EXPECT_GT(::recv(client, words.data(), words.size(), 0), 0);
            ::close(client);
        }
    }

private:
    int m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in m_address{};
};

TEST_F(AMachine, ConnectsAgainWhenTheBrokerWasKilled) {
    MqttBroker broker(root());
    enrol(broker.port());
    start();
    ASSERT_TRUE(isConnected());
    broker.kill9();
    ASSERT_TRUE(eventually([this] { return information() == L"2"; }));
    broker.restart();
    ASSERT_TRUE(isConnected());
    MqttObserver observer(broker.port());
    EXPECT_EQ(nextJson(observer, "state")["state"], "online");
    EXPECT_FALSE(nextJson(observer, "properties").is_null());
    observer.publish(topic("policy"), policy(1));
    EXPECT_EQ(answerAbout(observer, policy(1))["enforced"], true);
}

TEST_F(AMachine, ConnectsWhenABrokerThatWasUnreachableAtStartComes) {
    MqttBroker broker(root());
    broker.kill9();
    enrol(broker.port());
    start();
    ASSERT_TRUE(eventually([] { return AgentLines::instance().count("Connection refused") > 0; }))
        << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
    broker.restart();
    EXPECT_TRUE(isConnected());
}

TEST_F(AMachine, PublishesTheResultThatItCouldNotSendWhileTheBrokerWasAway) {
    MqttBroker broker(root());
    std::promise<void> enforcing;
    std::promise<void> brokerIsDead;
    m_calls.onPolicy = [&](const SectionsHandle&) {
        enforcing.set_value();
        testing_support::await(brokerIsDead.get_future(), "the end of the MQTT broker");
        return true;
    };
    enrol(broker.port());
    start();
    ASSERT_TRUE(isConnected());
    MqttObserver(broker.port()).publish(topic("policy"), policy(9));
    testing_support::await(enforcing.get_future(), "the policy at its enforcement");
    broker.kill9();
    ASSERT_TRUE(eventually([this] { return information() == L"2"; }));
    brokerIsDead.set_value();
    broker.restart();
    MqttObserver observer(broker.port());
    EXPECT_EQ(answerAbout(observer, policy(9))["fate"], "in force");
}

TEST_F(AMachine, TellsAReasonOnceHoweverOftenItTries) {
    HangsUp broker;
    enrol(broker.port());
    start();
    broker.hangUp(4);
    EXPECT_EQ(AgentLines::instance().count("no connection"), 1U) << AgentLines::instance().all();
}

TEST_F(AMachine, TellsAReasonAgainWhenItWasConnectedMeanwhile) {
    MqttBroker broker(root());
    broker.kill9();
    enrol(broker.port());
    start();
    const auto refusals = [] { return AgentLines::instance().count("Connection refused"); };
    ASSERT_TRUE(eventually([&] { return refusals() == 1; }));
    broker.restart();
    ASSERT_TRUE(isConnected());
    broker.kill9();
    EXPECT_TRUE(eventually([&] { return refusals() == 2; })) << AgentLines::instance().all();
}

TEST_F(AMachine, ConnectsWhenTheCredentialsThatWereRefusedAreMended) {
    MqttBroker broker(root(), {.withPasswords = true, .certificates = nullptr});
    broker.setPassword("m1", "right");
    broker.kill9();
    broker.restart();
    const std::string file = root().file("credentials.json");
    writeFile(file, R"({"user": "m1", "password": "wrong"})", 0600);
    enrol(broker.port(), {{"broker", {{"credentials", file}}}});
    start();
    ASSERT_TRUE(eventually([] { return AgentLines::instance().count("refuses this machine") == 1; }))
        << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
    writeFile(file, R"({"user": "m1", "password": "right"})", 0600);
    EXPECT_TRUE(isConnected());
    EXPECT_EQ(AgentLines::instance().count("refuses this machine"), 1U);
    EXPECT_EQ(AgentLines::instance().count("wrong"), 0U);
}

TEST_F(AMachine, StaysManagedAndEnforcesItsPolicyWhileItsCredentialsCannotBeRead) {
    MqttBroker broker(root(), {.withPasswords = true, .certificates = nullptr});
    broker.setPassword("m1", "right");
    broker.kill9();
    broker.restart();
    const std::string file = root().file("late-credentials.json");
    writeFile(policyFile(), policy(7, "saved"), 0644);
    enrol(broker.port(), {{"broker", {{"credentials", file}}}});
    std::promise<void> enforced;
    m_calls.onPolicy = [&](const SectionsHandle&) {
        enforced.set_value();
        return true;
    };
    start();
    testing_support::await(enforced.get_future(), "the saved policy");
    ASSERT_TRUE(eventually([&] { return AgentLines::instance().count(file) == 1; })) << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
    writeFile(file, R"({"user": "m1", "password": "right"})", 0600);
    EXPECT_TRUE(isConnected());
}

TEST_F(AMachine, StaysManagedWhileTheAuthorityOfItsBrokerCannotBeRead) {
    MqttCertificates certificates(root());
    MqttBroker broker(root(), {.withPasswords = false, .certificates = &certificates});
    const std::string authority = root().file("late-ca.pem");
    enrol(broker.port(), {{"broker", {{"tls", {{"ca", authority}}}}}});
    start();
    ASSERT_TRUE(eventually([&] { return AgentLines::instance().count("no connection") == 1; }))
        << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
    std::filesystem::copy_file(certificates.authority(), authority);
    EXPECT_TRUE(isConnected());
}

TEST_F(AMachine, ConnectsWhenACertificateThatHadExpiredIsRenewed) {
    MqttCertificates certificates(root());
    certificates.issueExpired();
    MqttBroker broker(root(), {.withPasswords = false, .certificates = &certificates});
    enrol(broker.port(), {{"broker", {{"tls", {{"ca", certificates.authority()}}}}}});
    start();
    ASSERT_TRUE(eventually([] { return AgentLines::instance().count("certificate") > 0; }))
        << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
    certificates.issueGood();
    broker.kill9();
    broker.restart();
    EXPECT_TRUE(isConnected()) << AgentLines::instance().all();
}

TEST_F(AMachine, DoesNotTalkToABrokerOfAnotherAuthority) {
    MqttCertificates certificates(root());
    MqttBroker broker(root(), {.withPasswords = false, .certificates = &certificates});
    const PrivateRoot elsewhere;
    const MqttCertificates others(elsewhere);
    enrol(broker.port(), {{"broker", {{"tls", {{"ca", others.authority()}}}}}});
    start();
    EXPECT_TRUE(eventually([] { return AgentLines::instance().count("certificate") > 0; }))
        << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
}

/// A broker that takes in only machines that show a certificate of its authority.
class AMachineWithACertificate : public AMachine {
protected:
    void enrolWith(const CertificateFiles& own) {
        enrol(m_broker.port(),
              {{"broker",
                {{"tls", {{"ca", m_certificates.authority()}, {"certificate", own.certificate}, {"key", own.key}}}}}});
    }
    static bool isTold(const std::string& part) {
        return eventually([&] { return AgentLines::instance().count(part) > 0; });
    }

    MqttCertificates m_certificates{root()};
    MqttBroker m_broker{root(), {.withPasswords = false, .certificates = &m_certificates, .asksForCertificate = true}};
};

TEST_F(AMachineWithACertificate, IsTakenInWhereTheBrokerAsksForOne) {
    enrolWith(m_certificates.issueFor("m1"));
    start();
    EXPECT_TRUE(isConnected()) << AgentLines::instance().all();
}

TEST_F(AMachineWithACertificate, IsTakenInAfterAReloadWhenItWasEnrolledWithoutOne) {
    enrol(m_broker.port(), {{"broker", {{"tls", {{"ca", m_certificates.authority()}}}}}});
    start();
    ASSERT_TRUE(isTold("no connection to the broker"));
    EXPECT_EQ(information(), L"2");
    release();
    enrolWith(m_certificates.issueFor("m1"));
    start();
    EXPECT_TRUE(isConnected()) << AgentLines::instance().all();
}

TEST_F(AMachineWithACertificate, ConnectsByItselfWhenOneThatWasRefusedIsReplaced) {
    const PrivateRoot elsewhere;
    const CertificateFiles own =
        MqttCertificates(elsewhere).issueFor("m1"); // of an authority that the broker does not know
    enrolWith(own);
    start();
    ASSERT_TRUE(isTold("no connection to the broker"));
    EXPECT_EQ(information(), L"2");
    const CertificateFiles good = m_certificates.issueFor("m1");
    std::filesystem::rename(good.key, own.key);
    std::filesystem::rename(good.certificate, own.certificate);
    EXPECT_TRUE(isConnected()) << AgentLines::instance().all();
}

TEST_F(AMachineWithACertificate, ConnectsByItselfWhenOneThatWasNotThereComes) {
    const CertificateFiles good = m_certificates.issueFor("good");
    const CertificateFiles own{.certificate = root().file("m1.crt"), .key = root().file("m1.key")};
    std::filesystem::rename(good.key, own.key);
    enrolWith(own);
    start();
    ASSERT_TRUE(isTold("a TLS file cannot be read")) << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
    std::filesystem::rename(good.certificate, own.certificate);
    EXPECT_TRUE(isConnected()) << AgentLines::instance().all();
}

TEST_F(AMachineWithACertificate, ConnectsOnlyWhenNobodyElseMayReadItsKey) {
    const CertificateFiles own = m_certificates.issueFor("m1");
    ASSERT_EQ(::chmod(own.key.c_str(), 0640), 0);
    enrolWith(own);
    start();
    ASSERT_TRUE(isTold(own.key + ": others than its owner may access it")) << AgentLines::instance().all();
    EXPECT_EQ(information(), L"2");
    ASSERT_EQ(::chmod(own.key.c_str(), 0600), 0);
    EXPECT_TRUE(isConnected()) << AgentLines::instance().all();
}

TEST_F(AMachine, IsReleasedWhileTheBrokerAnswersNothing) {
    MqttBroker broker(root());
    enrol(broker.port());
    start();
    ASSERT_TRUE(isConnected());
    broker.stop();
    release();
    EXPECT_EQ(information(), L"0");
    EXPECT_EQ(m_calls.servicesAlive, 0);
    broker.cont();
}

TEST_F(AMachine, IsReleasedOnlyWhenTheRunningCallHasEnded) {
    enrol(freeLoopbackPort());
    writeFile(policyFile(), policy(1), 0644);
    std::promise<void> enforcing;
    std::promise<void> goOn;
    std::atomic<bool> ended{false};
    m_calls.onPolicy = [&](const SectionsHandle&) {
        enforcing.set_value();
        testing_support::await(goOn.get_future(), "the test to let the enforcement go on");
        ended = true;
        return true;
    };
    start();
    testing_support::await(enforcing.get_future(), "the policy at its enforcement");
    bool endedBefore = false;
    std::thread releasing([&] {
        release();
        endedBefore = ended;
    });
    ASSERT_TRUE(eventually([this] { return information() == L"0"; })); // releasing has begun
    goOn.set_value();
    releasing.join();
    EXPECT_TRUE(endedBefore);
    EXPECT_EQ(m_calls.servicesAlive, 0);
}

TEST_F(AMachine, ComesAndGoesFiveHundredTimesWhilePoliciesAreEnforced) {
    MqttBroker broker(root());
    enrol(broker.port());
    std::atomic<bool> done{false};
    std::thread administrator([&] {
        MqttObserver observer(broker.port());
        for (int version = 1; !done; ++version) {
            observer.publish(topic("policy"), policy(version));
            observer.publish(topic("collect"), R"({"full": true})", false);
        }
    });
    start();
    ASSERT_TRUE(eventually([this] { return m_calls.policies > 0; }));
    const std::size_t threads = threadsOfThisProcess();
    const std::size_t files = openFiles();
    for (int i = 0; i < kCycles; ++i) {
        const int before = m_calls.policies;
        release();
        ASSERT_EQ(m_calls.servicesAlive, 0);
        start();
        ASSERT_TRUE(eventually([&] { return m_calls.policies > before; })) << i;
    }
    EXPECT_TRUE(
        eventually([&] { return threadsOfThisProcess() == threads; })); // a joined one's entry goes a moment later
    EXPECT_LE(openFiles(), files + 2);                                  // a connection that is just being made
    EXPECT_EQ(m_calls.overlaps, 0);
    done = true;
    administrator.join();
}

TEST_F(AMachine, ComesAndGoesFiveHundredTimesWhileTheBrokerIsAway) {
    enrol(freeLoopbackPort());
    writeFile(policyFile(), policy(1), 0644);
    start();
    ASSERT_TRUE(eventually([this] { return m_calls.policies > 0; }));
    const int before = m_calls.policies;
    const std::size_t threads = threadsOfThisProcess();
    const std::size_t files = openFiles();
    for (int i = 0; i < kCycles; ++i) {
        release();
        ASSERT_EQ(m_calls.servicesAlive, 0);
        start();
    }
    EXPECT_TRUE(
        eventually([&] { return threadsOfThisProcess() == threads; })); // a joined one's entry goes a moment later
    EXPECT_LE(openFiles(), files + 2);
    EXPECT_TRUE(eventually([&] { return m_calls.policies > before; }));
}

TEST_F(AMachine, AnswersOtherThreadsWhileItIsReleased) {
    using HVBEnterprise::agent::SecretKey;
    enrol(freeLoopbackPort());
    const SecretKey key = SecretKey::generate();
    key.save(keyFile());
    start();
    std::atomic<bool> done{false};
    std::atomic<int> answers{0};
    const std::string text = encrypted(key, "clear");
    HVBEnterprise::MsgBusEnterpriseAgent* const agent = m_agent;
    std::vector<std::thread> askers;
    askers.reserve(2);
    for (int i = 0; i < 2; ++i) {
        askers.emplace_back([&, agent] {
            while (!done) {
                std::wstring answer;
                std::string message = text;
                std::string clear;
                EXPECT_TRUE(agent->getAgentInformation(0, answer));
                EXPECT_TRUE(answer == L"0" || answer == L"2");
                try {
                    agent->decryptMessage(message, 3, clear);
                    EXPECT_EQ(clear, "clear");
                } catch (const std::runtime_error&) { // released just now
                }
                ++answers;
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        release();
        start();
    }
    EXPECT_TRUE(eventually([&] { return answers > 100; }));
    done = true;
    for (std::thread& asker : askers) {
        asker.join();
    }
}

} // namespace
