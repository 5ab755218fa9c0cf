// The callback thread without a connection: what it calls when, and what it puts in the outbox. Real are the thread,
// the outbox and the store; the services are doubles that see the order.
#include "platform/hvbagent/AgentWorker.h"
#include "platform/hvbagent/AgentLimits.h"
#include "tests/support/Eventually.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <functional>
#include <future>
#include <vector>

namespace {

using namespace HVBEnterprise;
using namespace HVBEnterprise::agent;
using nlohmann::json;
using testing_support::eventually;

class Collection : public IAgentPropertyCollection {
public:
    explicit Collection(std::function<bool(bool, SectionsHandle&)> call) : m_call(std::move(call)) {}
    bool collectProperties(bool full, SectionsHandle& properties) override { return m_call(full, properties); }
    bool isSoftwareExists(const std::wstring /*softwareId*/) override { return true; }

private:
    std::function<bool(bool, SectionsHandle&)> m_call;
};

class Enforcement : public IAgentPolicyEnforcement {
public:
    explicit Enforcement(std::function<bool(const std::wstring&, const SectionsHandle&)> call)
        : m_call(std::move(call)) {}
    bool enforcePolicy(const std::wstring softwareId, const SectionsHandle& policy) override {
        return m_call(softwareId, policy);
    }
    bool enforcePolicy(const std::wstring /*softwareId*/, const std::wstring /*user*/, const std::wstring /*domain*/,
                       unsigned long /*session*/, tag_AgentLogonState /*state*/,
                       const SectionsHandle& /*policy*/) override {
        return true;
    }
    bool isPartialEnforcementSupported() override { return false; }

private:
    std::function<bool(const std::wstring&, const SectionsHandle&)> m_call;
};

/// A callback thread with an interval of an hour, or another.
class ACallbackThread : public ::testing::Test {
protected:
    ~ACallbackThread() override {
        if (m_worker != nullptr) {
            m_worker->end();
        }
    }

    void begin(std::chrono::seconds interval = std::chrono::hours(1)) {
        m_worker = std::make_unique<AgentWorker>(
            WorkerSettings{.softwareId = L"ID", .topics = Topics("s", "m"), .interval = interval},
            PolicyInForce(PolicyStore(m_root.varDirectory() + "/policy.json"), {}), m_outbox,
            std::make_shared<AgentLog>(nullptr));
        m_worker->begin();
    }
    void collectWith(std::function<bool(bool, SectionsHandle&)> call) {
        std::unique_ptr<IAgentPropertyCollection> service = std::make_unique<Collection>(std::move(call));
        ASSERT_TRUE(m_worker->take(service));
    }
    void enforceWith(std::function<bool(const std::wstring&, const SectionsHandle&)> call) {
        std::unique_ptr<IAgentPolicyEnforcement> service = std::make_unique<Enforcement>(std::move(call));
        ASSERT_TRUE(m_worker->take(service));
    }
    static std::string policy(int version) { return R"({"version": )" + std::to_string(version) + "}"; }

    /// The next message in the outbox; waits for it.
    Publication next() {
        std::optional<Publication> publication;
        EXPECT_TRUE(eventually([&] { return (publication = m_outbox->take()).has_value(); }));
        return publication.value_or(Publication{});
    }

    testing_support::PrivateRoot m_root;
    std::shared_ptr<Outbox> m_outbox = std::make_shared<Outbox>();
    std::unique_ptr<AgentWorker> m_worker;
};

TEST_F(ACallbackThread, EnforcesTheSavedPolicyThenWhatCameThenCollects) {
    PolicyStore(m_root.varDirectory() + "/policy.json").save(policy(5));
    m_outbox->setConnected(true);
    begin();
    std::vector<std::string> order; // unguarded on purpose: the thread sanitizer would see two at a time
    m_worker->collect(false);
    m_worker->policyArrived(policy(6));
    m_worker->policyArrived(policy(7));
    enforceWith([&](const std::wstring& id, const SectionsHandle&) {
        order.emplace_back(id == L"ID" ? "policy" : "policy of another");
        return true;
    });
    EXPECT_EQ(json::parse(next().payload)["version"], 6);
    EXPECT_EQ(json::parse(next().payload)["version"], 7);
    collectWith([&](bool full, SectionsHandle&) {
        order.emplace_back(full ? "full" : "general");
        return true;
    });
    const Publication properties = next();
    EXPECT_EQ(properties.topic, "orvanta/v1/s/m/properties");
    EXPECT_EQ(json::parse(properties.payload)["full"], true); // the policies asked for everything
    m_worker->end();
    EXPECT_EQ(order, (std::vector<std::string>{"policy", "policy", "policy", "full"}));
}

TEST_F(ACallbackThread, CollectsAtEachIntervalWhileItIsConnected) {
    begin(std::chrono::seconds(1));
    std::atomic<int> collections{0};
    collectWith([&](bool full, SectionsHandle&) {
        EXPECT_TRUE(full);
        ++collections;
        return true;
    });
    m_outbox->setConnected(true);
    (void)next();
    (void)next();
    EXPECT_GE(collections, 2);
}

TEST_F(ACallbackThread, MakesOneCollectionOfRequestsThatWait) {
    m_outbox->setConnected(true);
    begin();
    m_worker->collect(false);
    m_worker->collect(true);
    m_worker->collect(false);
    std::atomic<int> collections{0};
    collectWith([&](bool, SectionsHandle&) {
        ++collections;
        return true;
    });
    EXPECT_EQ(json::parse(next().payload)["full"], true);
    m_worker->collect(false);
    EXPECT_EQ(json::parse(next().payload)["full"], false);
    EXPECT_EQ(collections, 2);
}

TEST_F(ACallbackThread, SendsNoPropertiesThatTheModuleDidNotGive) {
    m_outbox->setConnected(true);
    begin();
    std::atomic<int> calls{0};
    collectWith([&](bool, SectionsHandle& properties) {
        if (++calls == 2) {
            properties.insert(L"General", L"huge", std::wstring(kMaxPropertyBytes, L'x'));
        }
        return calls > 1;
    });
    for (int i = 1; i <= 3; ++i) {
        m_worker->collect(true);
        ASSERT_TRUE(eventually([&] { return calls >= i; }));
    }
    EXPECT_EQ(json::parse(next().payload)["sections"], json::object()); // the third one's
    EXPECT_FALSE(m_outbox->take());
}

TEST_F(ACallbackThread, LetsTheOldestPolicyGoWhenTooManyWait) {
    m_outbox->setConnected(true);
    begin();
    const int last = static_cast<int>(kMaxWaitingPolicies) + 5;
    for (int version = 1; version <= last; ++version) {
        m_worker->policyArrived(policy(version));
    }
    enforceWith([](const std::wstring&, const SectionsHandle&) { return true; });
    EXPECT_EQ(json::parse(next().payload)["version"], 6);
    json result;
    do {
        result = json::parse(next().payload);
    } while (result["version"] != last && !::testing::Test::HasFailure());
    EXPECT_EQ(result["enforced"], true);
}

TEST_F(ACallbackThread, ReportsAPolicyThatWasTooLargeToKeep) {
    begin();
    m_worker->policyTooLarge("hash", 99'999'999);
    const Publication result = next();
    EXPECT_EQ(result.topic, "orvanta/v1/s/m/policy/result");
    EXPECT_EQ(json::parse(result.payload)["sha256"], "hash");
    EXPECT_EQ(json::parse(result.payload)["refused"], "the document: is larger than 16777216 bytes, with 99999999");
}

TEST_F(ACallbackThread, RefusesServicesAndForgetsPoliciesAfterItsEnd) {
    begin();
    m_worker->end();
    std::unique_ptr<IAgentPolicyEnforcement> service =
        std::make_unique<Enforcement>([](const std::wstring&, const SectionsHandle&) { return true; });
    EXPECT_FALSE(m_worker->take(service));
    EXPECT_NE(service, nullptr);
    m_worker->policyArrived(policy(1));
    m_worker->collect(true);
    m_worker->end(); // once more does nothing
    EXPECT_FALSE(m_outbox->take());
}

TEST_F(ACallbackThread, KnowsItself) {
    m_outbox->setConnected(true);
    begin();
    std::promise<bool> inside;
    enforceWith([&](const std::wstring&, const SectionsHandle&) {
        inside.set_value(AgentWorker::isWorker());
        return true;
    });
    m_worker->policyArrived(policy(1));
    EXPECT_TRUE(testing_support::await(inside.get_future(), "the enforcement"));
    EXPECT_FALSE(AgentWorker::isWorker());
}

} // namespace
