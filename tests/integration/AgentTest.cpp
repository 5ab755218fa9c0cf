// An enrolled machine and its broker: state, policies, properties. Trouble with the broker is in AgentFailureTest.cpp.
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/SecretBox.h"
#include "tests/integration/AgentFixture.h"
#include "tests/support/OtherProcess.h"

#include <sodium.h>

#include <csignal>
#include <filesystem>
#include <thread>

namespace {

using namespace testing_support;
using HVBEnterprise::agent::base64Of;
using HVBEnterprise::agent::sha256Of;

/// A machine whose broker is there and whose client runs.
class AnEnrolledMachine : public AMachine {
protected:
    void begin(const json& configuration = json::object()) {
        enrol(m_broker.port(), configuration);
        start();
    }

    /// Publishes a policy for this machine. @return what the machine says of it then
    json resultOf(const std::string& policy) {
        m_observer.publish(topic("policy"), policy);
        return answerAbout(m_observer, policy);
    }

    MqttBroker m_broker{root()};
    MqttObserver m_observer{m_broker.port()};
};

TEST_F(AnEnrolledMachine, SaysOnlineWhenItConnectsAndOfflineWhenItIsReleased) {
    begin();
    const json online = nextJson(m_observer, "state");
    EXPECT_EQ(online["state"], "online");
    EXPECT_EQ(online["time"].get<std::string>().size(), std::string("2000-01-01T00:00:00.000Z").size());
    EXPECT_TRUE(isConnected());
    release();
    EXPECT_EQ(nextJson(m_observer, "state")["state"], "offline");
    EXPECT_EQ(information(), L"0");
    const auto retained = MqttObserver(m_broker.port()).next(topic("state"));
    ASSERT_TRUE(retained);
    EXPECT_TRUE(retained->retained);
}

TEST_F(AMachine, IsSaidToBeOfflineByTheBrokerWhenItsProcessIsKilled) {
    MqttBroker broker(root());
    enrol(broker.port());
    std::optional<OtherProcess> process;
    process.emplace(::geteuid(), ::getegid(), std::vector<gid_t>{}, [this](const std::function<void()>& ready) {
        start();
        if (isConnected()) {
            ready();
        }
        ::pause();
    });
    MqttObserver observer(broker.port());
    ASSERT_EQ(nextJson(observer, "state")["state"], "online");
    process.reset(); // kill -9
    EXPECT_EQ(nextJson(observer, "state")["state"], "offline");
}

TEST_F(AnEnrolledMachine, EnforcesAPolicyAndReportsTheResult) {
    std::wstring seen;
    m_calls.onPolicy = [&](const SectionsHandle& policy) {
        seen = valueOf(policy);
        return true;
    };
    begin();
    const json result = resultOf(policy(3, "caf\xC3\xA9"));
    EXPECT_EQ(result["version"], 3);
    EXPECT_EQ(result["id"], "test");
    EXPECT_EQ(result["sha256"], sha256Of(policy(3, "caf\xC3\xA9")));
    EXPECT_EQ(result["fate"], "in force");
    EXPECT_EQ(result["enforced"], true);
    EXPECT_EQ(result["topic"], "machine");
    release();
    EXPECT_EQ(seen, L"caf\u00E9");
}

TEST_F(AnEnrolledMachine, ReportsAFailedEnforcementAndEnforcesTheSamePolicyAgain) {
    std::atomic<bool> works{false};
    m_calls.onPolicy = [&](const SectionsHandle&) { return works.load(); };
    begin();
    EXPECT_EQ(resultOf(policy(1))["enforced"], false);
    EXPECT_EQ(resultOf(policy(1))["enforced"], false);
    works = true;
    EXPECT_EQ(resultOf(policy(1))["enforced"], true);
    EXPECT_EQ(resultOf(policy(1))["enforced"], true);
    EXPECT_EQ(m_calls.policies, 3); // the last time it was in force already
}

TEST_F(AnEnrolledMachine, CountsAnExceptionOfAServiceAsAFailureAndGoesOn) {
    m_calls.onPolicy = [](const SectionsHandle&) -> bool { throw std::runtime_error("no\ndisk"); };
    m_calls.onCollect = [](bool, SectionsHandle&) -> bool { throw 7; }; // of a type that nobody knows
    begin();
    EXPECT_EQ(resultOf(policy(1))["enforced"], false);
    EXPECT_EQ(resultOf(policy(2))["enforced"], false);
    EXPECT_EQ(AgentLines::instance().count(R"(no\x0adisk)"), 2U) << AgentLines::instance().all();
}

TEST_F(AnEnrolledMachine, RefusesWhatIsNoNewPolicyAndKeepsTheOneInForce) {
    begin();
    ASSERT_EQ(resultOf(policy(5))["enforced"], true);
    const std::string saved = readFile(policyFile());
    for (const std::string& bad :
         {policy(4), policy(5, "0"), std::string("{\"version\": 6,"), std::string(R"({"version": 6, "more": 1})"),
          std::string("\xFF\xFE"), std::string(4 << 20U, ' ') + "{}", std::string(6 << 20U, ' ')}) {
        const json result = resultOf(bad);
        EXPECT_EQ(result["fate"], "refused") << result;
        EXPECT_TRUE(result["why"].is_string()) << result;
    }
    EXPECT_EQ(readFile(policyFile()), saved);
    EXPECT_EQ(m_calls.policies, 1);
}

TEST_F(AnEnrolledMachine, TakesOnlyPoliciesWithAGoodSignatureWhenItHasAKey) {
    ASSERT_GE(sodium_init(), 0);
    std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> publicKey{};
    std::array<unsigned char, crypto_sign_SECRETKEYBYTES> secretKey{};
    crypto_sign_keypair(publicKey.data(), secretKey.data());
    const auto textOf = [](const auto& bytes) {
        return base64Of({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    };
    const auto signedPolicy = [&](const std::string& document, const std::string& delivered) {
        std::array<unsigned char, crypto_sign_BYTES> signature{};
        crypto_sign_detached(signature.data(), nullptr, reinterpret_cast<const unsigned char*>(document.data()),
                             document.size(), secretKey.data());
        return json{{"payload", base64Of(delivered)}, {"signature", textOf(signature)}}.dump();
    };
    begin({{"policy_public_key", textOf(publicKey)}});
    const auto fateOf = [&](const std::string& message, const std::string& document) {
        m_observer.publish(topic("policy"), message);
        return answerAbout(m_observer, document)["fate"];
    };
    EXPECT_EQ(fateOf(policy(1), policy(1)), "refused");
    EXPECT_EQ(fateOf(signedPolicy(policy(1), policy(2)), policy(2)), "refused");
    EXPECT_EQ(m_calls.policies, 0);
    EXPECT_EQ(fateOf(signedPolicy(policy(1), policy(1)), policy(1)), "in force");
}

TEST_F(AnEnrolledMachine, TakesThePoliciesOfItsGroupsAndOfTheSite) {
    begin({{"groups", {"pilots"}}});
    ASSERT_TRUE(isConnected());
    m_observer.publish("orvanta/v1/here/group/all/policy", groupPolicy(1, "all"));
    EXPECT_EQ(answerAbout(m_observer, groupPolicy(1, "all"))["topic"], "group/all");
    m_observer.publish("orvanta/v1/here/group/others/policy", groupPolicy(2, "others"));
    m_observer.publish("orvanta/v1/elsewhere/m1/policy", policy(3));
    m_observer.publish("orvanta/v1/here/group/pilots/policy", groupPolicy(4, "pilots"));
    EXPECT_EQ(answerAbout(m_observer, groupPolicy(4, "pilots"))["topic"], "group/pilots");
    EXPECT_EQ(m_calls.policies, 2);
}

TEST_F(AnEnrolledMachine, EnforcesOnlyTheHighestOfThePoliciesThatTheBrokerRetains) {
    std::vector<std::string> groups;
    for (int i = 0; i < 32; ++i) {
        groups.push_back("g" + std::to_string(i));
        m_observer.publish("orvanta/v1/here/group/" + groups.back() + "/policy", groupPolicy(10 + i, groups.back()));
    }
    m_observer.publish("orvanta/v1/here/group/all/policy", groupPolicy(100, "all"));
    m_observer.publish(topic("policy"), policy(5));
    begin({{"groups", groups}});
    EXPECT_EQ(answerAbout(m_observer, groupPolicy(100, "all"))["enforced"], true);
    EXPECT_EQ(m_calls.policies, 1) << "none on the way";
    MqttObserver later(m_broker.port());
    const json statement = nextJson(later, "policy/result");
    EXPECT_EQ(statement["passed_over"].size(), 33U);
    EXPECT_TRUE(statement["refused"].is_null());
}

TEST_F(AnEnrolledMachine, SaysWhatIsInForceAtEveryConnection) {
    begin();
    ASSERT_EQ(resultOf(policy(3))["enforced"], true);
    release();
    m_broker.kill9();
    m_broker.restart();
    MqttObserver later(m_broker.port());
    start();
    const json answer = answerAbout(later, policy(3));
    EXPECT_EQ(answer["fate"], "in force");
    EXPECT_EQ(nextJson(later, "state")["state"], "online");
    EXPECT_EQ(nextJson(later, "properties")["full"], true);
}

TEST_F(AnEnrolledMachine, TakesAnotherDocumentsWayBackByAnEpoch) {
    begin();
    ASSERT_EQ(resultOf(policy(900))["enforced"], true);
    EXPECT_EQ(resultOf(policy(1))["fate"], "refused");
    EXPECT_EQ(resultOf(policy(1, "1", {{"epoch", 2}}))["fate"], "in force");
}

TEST_F(AnEnrolledMachine, HasSavedAPolicyWhenItEnforcesIt) {
    std::string seen;
    struct stat facts {};
    m_calls.onPolicy = [&](const SectionsHandle&) {
        seen = readFile(policyFile());
        return ::stat(policyFile().c_str(), &facts) == 0;
    };
    begin();
    EXPECT_EQ(resultOf(policy(1))["enforced"], true);
    release();
    EXPECT_EQ(seen, policy(1));
    EXPECT_EQ(facts.st_mode & 07777U, 0600U);
}

TEST_F(AnEnrolledMachine, RefusesAPolicyThatItCannotSave) {
    begin();
    ASSERT_EQ(resultOf(policy(1))["enforced"], true);
    const std::string away = root().varDirectory() + ".away";
    std::filesystem::rename(root().varDirectory(), away);
    EXPECT_NE(resultOf(policy(2))["why"].get<std::string>().find("cannot be saved"), std::string::npos);
    std::filesystem::rename(away, root().varDirectory());
    EXPECT_EQ(m_calls.policies, 1);
    EXPECT_EQ(resultOf(policy(2))["enforced"], true);
}

TEST_F(AMachine, EnforcesTheSavedPolicyAtStartWithoutABroker) {
    enrol(freeLoopbackPort());
    writeFile(policyFile(), policy(7, "saved"), 0644);
    std::promise<std::wstring> seen;
    m_calls.onPolicy = [&](const SectionsHandle& policy) {
        seen.set_value(valueOf(policy));
        return true;
    };
    start();
    EXPECT_EQ(testing_support::await(seen.get_future(), "the saved policy"), L"saved");
    EXPECT_EQ(information(), L"2");
}

TEST_F(AnEnrolledMachine, LeavesASavedPolicyThatItCannotReadUntilAnotherComes) {
    writeFile(policyFile(), "{ half a poli", 0644);
    begin();
    ASSERT_TRUE(eventually([] { return AgentLines::instance().count("saved policy cannot be used") == 1; }));
    EXPECT_EQ(readFile(policyFile()), "{ half a poli");
    EXPECT_EQ(resultOf(policy(1))["enforced"], true);
    EXPECT_EQ(readFile(policyFile()), policy(1));
    EXPECT_EQ(m_calls.policies, 1);
}

TEST_F(AnEnrolledMachine, DoesNotEnforceAgainWhatTheBrokerDeliversOnceMore) {
    begin();
    ASSERT_EQ(resultOf(policy(1))["enforced"], true);
    release();
    start(); // enforces the saved one; the broker's retained one follows
    EXPECT_EQ(answerAbout(m_observer, policy(1))["enforced"], true);
    EXPECT_EQ(AgentLines::instance().count("enforcing the saved policy, version 1"), 1U);
    EXPECT_EQ(m_calls.policies, 2);
}

TEST_F(AnEnrolledMachine, KeepsThePolicyInForceWhenTheTopicIsCleared) {
    begin();
    ASSERT_EQ(resultOf(policy(1))["enforced"], true);
    m_observer.publish(topic("policy"), "");
    EXPECT_TRUE(eventually([] { return AgentLines::instance().count("was cleared") == 1; }));
    EXPECT_EQ(readFile(policyFile()), policy(1));
    EXPECT_EQ(resultOf(policy(2))["version"], 2);
}

TEST_F(AnEnrolledMachine, HoldsPoliciesBackUntilSomebodyEnforcesThem) {
    enrol(m_broker.port());
    create();
    ASSERT_TRUE(m_agent->registerPropertyCollectionService(std::make_unique<RecordingCollection>(m_calls)));
    ASSERT_TRUE(isConnected());
    m_observer.publish(topic("policy"), policy(1));
    m_observer.publish(topic("collect"), R"({"full": false})", false);
    ASSERT_FALSE(nextJson(m_observer, "properties").is_null());
    EXPECT_EQ(m_observer.count(topic("policy/result")), 0U);
    ASSERT_TRUE(m_agent->registerPolicyEnforcementService(std::make_unique<RecordingEnforcement>(m_calls)));
    EXPECT_EQ(answerAbout(m_observer, policy(1))["enforced"], true);
}

TEST_F(AnEnrolledMachine, PublishesItsPropertiesWhenItConnectsAndAfterAPolicy) {
    begin();
    const json first = nextJson(m_observer, "properties");
    EXPECT_EQ(first["full"], true);
    EXPECT_EQ(first["sections"]["General"]["Language"], "en");
    EXPECT_EQ(first["sections"]["Options"]["bSTEnabled"], "1");
    ASSERT_EQ(resultOf(policy(1))["enforced"], true);
    EXPECT_EQ(nextJson(m_observer, "properties")["full"], true);
    const auto retained = MqttObserver(m_broker.port()).next(topic("properties"));
    ASSERT_TRUE(retained);
    EXPECT_TRUE(retained->retained);
}

TEST_F(AnEnrolledMachine, PublishesAllPropertiesOrTheGeneralOnesOnRequest) {
    begin();
    ASSERT_EQ(nextJson(m_observer, "properties")["full"], true);
    m_observer.publish(topic("collect"), R"({"full": false})", false);
    const json general = nextJson(m_observer, "properties");
    EXPECT_EQ(general["full"], false);
    EXPECT_EQ(general["sections"].size(), 1U);
    m_observer.publish(topic("collect"), R"({"full": true})", false);
    EXPECT_EQ(nextJson(m_observer, "properties")["full"], true);
}

TEST_F(AnEnrolledMachine, IgnoresARequestToCollectThatIsNone) {
    begin();
    ASSERT_EQ(nextJson(m_observer, "properties")["full"], true);
    for (const char* bad : {"", "full", R"({"full": 1})", R"({"full": true, "more": 1})", "[]", "\xFF"}) {
        m_observer.publish(topic("collect"), bad, false);
    }
    m_observer.publish(topic("collect"), R"({"full": false})", false);
    EXPECT_EQ(nextJson(m_observer, "properties")["full"], false); // the next one is the good request's
    EXPECT_EQ(AgentLines::instance().count("request to collect is ignored"), 6U) << AgentLines::instance().all();
}

TEST_F(AnEnrolledMachine, IgnoresARetainedRequestToCollect) {
    m_observer.publish(topic("collect"), R"({"full": false})", true);
    begin();
    EXPECT_TRUE(eventually([] { return AgentLines::instance().count("retained request to collect") == 1; }));
}

TEST_F(AnEnrolledMachine, MakesOneCallAtATime) {
    begin();
    ASSERT_FALSE(nextJson(m_observer, "state").is_null()); // its subscriptions were before that
    constexpr int policies = 25;
    for (int version = 1; version <= policies; ++version) {
        m_observer.publish(topic("policy"), policy(version), false);
        m_observer.publish(topic("collect"), R"({"full": true})", false);
    }
    EXPECT_EQ(answerAbout(m_observer, policy(policies))["enforced"], true);
    EXPECT_LE(m_calls.policies, policies) << "those that another one replaces while they wait are not enforced";
    EXPECT_TRUE(eventually([this] { return m_calls.collections > 0; })) << "when no policy waits any more";
    EXPECT_EQ(m_calls.overlaps, 0);
}

TEST_F(AnEnrolledMachine, CallsTheModuleOnThreadsThatNoSignalLandsOn) {
    std::atomic<int> open{0};
    const auto look = [&] {
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        for (const int signal : {SIGTERM, SIGUSR1, SIGUSR2, SIGHUP, SIGPIPE}) {
            open += sigismember(&blocked, signal) == 1 ? 0 : 1;
        }
        return true;
    };
    m_calls.onPolicy = [&](const SectionsHandle&) { return look(); };
    m_calls.onCollect = [&](bool, SectionsHandle&) { return look(); };
    begin();
    ASSERT_EQ(resultOf(policy(1))["enforced"], true);
    ASSERT_FALSE(nextJson(m_observer, "properties").is_null());
    release();
    EXPECT_EQ(open, 0);
    EXPECT_EQ(AgentLines::instance().count("connected to the broker"), 1U); // from the network thread
    EXPECT_EQ(AgentLines::instance().withSignals(), 0);
}

TEST_F(AMachine, LeavesTheProcesssDispositionOfBrokenPipesAlone) {
    MqttBroker broker(root());
    std::signal(SIGPIPE, SIG_DFL);
    enrol(broker.port());
    start();
    ASSERT_TRUE(isConnected());
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

TEST_F(AMachine, IsUnmanagedWithoutAConfiguration) {
    create();
    EXPECT_EQ(m_agent, nullptr);
    EXPECT_EQ(AgentLines::instance().all(), "");
}

TEST_F(AMachine, IsUnmanagedWithABadConfigurationAndSaysWhatIsWrongWhere) {
    enrol(1, {{"intervall", 60}});
    create();
    EXPECT_EQ(m_agent, nullptr);
    EXPECT_EQ(AgentLines::instance().count("this machine is not managed: " + configurationFile() +
                                           ": /intervall: is not known here"),
              1U)
        << AgentLines::instance().all();
}

TEST_F(AMachine, KnowsNothingOfOtherInformation) {
    enrol(freeLoopbackPort());
    create();
    std::wstring answer = L"unchanged";
    EXPECT_FALSE(m_agent->getAgentInformation(1, answer));
    EXPECT_EQ(answer, L"unchanged");
}

TEST_F(AMachine, TakesOneServiceOfEachKindAndNoneWhenItIsReleased) {
    enrol(freeLoopbackPort());
    start();
    std::unique_ptr<HVBEnterprise::IAgentPropertyCollection> second = std::make_unique<RecordingCollection>(m_calls);
    EXPECT_FALSE(m_agent->registerPropertyCollectionService(std::move(second)));
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(m_calls.servicesAlive, 3);
    release();
    EXPECT_EQ(m_calls.servicesAlive, 1);
    EXPECT_FALSE(m_agent->registerPropertyCollectionService(std::move(second)));
    EXPECT_NE(second, nullptr);
}

TEST_F(AMachine, DeciphersWithItsKeyFile) {
    using HVBEnterprise::agent::SecretKey;
    enrol(freeLoopbackPort());
    create();
    const SecretKey key = SecretKey::generate();
    key.save(keyFile());
    std::string message = encrypted(key, std::string("pass\0word", 9));
    std::string clear = "before";
    m_agent->decryptMessage(message, 3, clear);
    EXPECT_EQ(clear, std::string("pass\0word", 9));
    clear = "before";
    EXPECT_THROW(m_agent->decryptMessage(message, 4, clear), std::runtime_error);
    message.back() = message.back() == '=' ? 'A' : '=';
    EXPECT_THROW(m_agent->decryptMessage(message, 3, clear), std::runtime_error);
    std::remove(keyFile().c_str());
    EXPECT_THROW(m_agent->decryptMessage(message, 3, clear), std::runtime_error);
    EXPECT_EQ(clear, "before");
    release();
    EXPECT_THROW(m_agent->decryptMessage(message, 3, clear), std::runtime_error);
}

} // namespace
