// The callback thread without a connection: what it calls when, and what it puts in the outbox. Real are the thread,
// the outbox and the store; the services are doubles that see the order.
#include "platform/hvbagent/AgentWorker.h"
#include "hub/Exceptions.h"
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
            PolicyInForce({m_root.varDirectory() + "/policy.json", m_root.varDirectory() + "/policy-record.json"},
                          {.site = "s", .machine = "m", .groups = {}, .keys = {}, .requiresAudience = false}),
            m_outbox, std::make_shared<AgentLog>(nullptr));
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

    void arrived(int version) { m_worker->policyArrived({}, policy(version)); }

    /// The next statement in the outbox in which a policy has been enforced; waits for it.
    json nextEnforced() {
        json statement;
        do {
            const Publication publication = next();
            if (publication.topic.empty()) {
                return {};
            }
            statement = json::parse(publication.payload);
        } while (!statement.contains("in_force") || statement["in_force"].is_null() ||
                 statement["in_force"]["enforced"].is_null());
        return statement["in_force"];
    }

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

TEST_F(ACallbackThread, EnforcesTheSavedPolicyThenTheNewestThatCameThenCollects) {
    PolicyStore(m_root.varDirectory() + "/policy.json").save(policy(5));
    m_outbox->setConnected(true);
    begin();
    std::vector<std::string> order; // unguarded on purpose: the thread sanitizer would see two at a time
    m_worker->collect(false);
    arrived(6);
    arrived(7);
    enforceWith([&](const std::wstring& id, const SectionsHandle&) {
        order.emplace_back(id == L"ID" ? "policy" : "policy of another");
        return true;
    });
    EXPECT_EQ(nextEnforced()["version"], 5);
    EXPECT_EQ(nextEnforced()["version"], 7);
    collectWith([&](bool full, SectionsHandle&) {
        order.emplace_back(full ? "full" : "general");
        return true;
    });
    const Publication properties = next();
    EXPECT_EQ(properties.topic, "orvanta/v1/s/m/properties");
    EXPECT_EQ(json::parse(properties.payload)["full"], true); // the policies asked for everything
    m_worker->end();
    EXPECT_EQ(order, (std::vector<std::string>{"policy", "policy", "full"}));
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

TEST_F(ACallbackThread, HoldsItsChoiceUntilWhatTheBrokerRetainsIsThere) {
    m_outbox->setConnected(true);
    begin();
    std::vector<int> enforced;
    enforceWith([&](const std::wstring&, const SectionsHandle&) {
        enforced.push_back(1);
        return true;
    });
    m_worker->connected();
    for (int version = 1; version <= 40; ++version) {
        arrived(version);
    }
    m_worker->policiesAreThere();
    EXPECT_EQ(nextEnforced()["version"], 40);
    m_worker->end();
    EXPECT_EQ(enforced.size(), 1U);
}

TEST_F(ACallbackThread, ChoosesAfterAWhileWhenNobodySaysThatAllIsThere) {
    m_outbox->setConnected(true);
    begin();
    enforceWith([](const std::wstring&, const SectionsHandle&) { return true; });
    m_worker->connected();
    arrived(1);
    EXPECT_EQ(nextEnforced()["version"], 1);
}

TEST_F(ACallbackThread, TriesAnEnforcementAgainThatThrew) {
    m_outbox->setConnected(true);
    begin();
    std::atomic<int> calls{0};
    enforceWith([&](const std::wstring&, const SectionsHandle&) -> bool {
        if (++calls == 1) {
            throw HVB::HVBException(-1, "the hub is gone");
        }
        return true;
    });
    arrived(1);
    json statement;
    ASSERT_TRUE(eventually([&] {
        const auto publication = m_outbox->take();
        statement = publication ? json::parse(publication->payload) : json();
        return statement.contains("failed") && !statement["failed"].is_null();
    }));
    EXPECT_EQ(statement["failed"]["why"], "the hub is gone");
    EXPECT_EQ(statement["in_force"]["enforced"], false);
    EXPECT_EQ(nextEnforced()["enforced"], true);
    EXPECT_EQ(calls, 2);
}

TEST_F(ACallbackThread, BreaksAnEnforcementOffAtItsNextLookUp) {
    PolicyStore(m_root.varDirectory() + "/policy.json").save(policy(5));
    begin();
    std::promise<void> inside;
    std::atomic<bool> wentOn{false};
    enforceWith([&](const std::wstring&, const SectionsHandle& document) {
        std::wstring value;
        inside.set_value();
        (void)eventually([&] { return document.getPropValue(L"no such section", L"key", value); });
        wentOn = true;
        return true;
    });
    testing_support::await(inside.get_future(), "the enforcement");
    m_worker->end();
    EXPECT_FALSE(wentOn);
    const json inForce = json::parse(next().payload)["in_force"];
    EXPECT_EQ(inForce["version"], 5);
    EXPECT_TRUE(inForce["enforced"].is_null()) << "the next start enforces it";
}

TEST_F(ACallbackThread, StatesAPolicyThatWasTooLargeToKeep) {
    begin();
    enforceWith([](const std::wstring&, const SectionsHandle&) { return true; });
    m_worker->policyArrived({}, OversizedPolicy{"hash", 99'999'999});
    json refused;
    ASSERT_TRUE(eventually([&] {
        const auto publication = m_outbox->take();
        refused = publication ? json::parse(publication->payload)["refused"] : json();
        return !refused.is_null();
    }));
    EXPECT_EQ(refused["sha256"], "hash");
    EXPECT_EQ(refused["why"], "the document: is larger than 16777216 bytes, with 99999999");
}

TEST_F(ACallbackThread, RefusesServicesAndForgetsPoliciesAfterItsEnd) {
    begin();
    m_worker->end();
    std::unique_ptr<IAgentPolicyEnforcement> service =
        std::make_unique<Enforcement>([](const std::wstring&, const SectionsHandle&) { return true; });
    EXPECT_FALSE(m_worker->take(service));
    EXPECT_NE(service, nullptr);
    arrived(1);
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
    arrived(1);
    EXPECT_TRUE(testing_support::await(inside.get_future(), "the enforcement"));
    EXPECT_FALSE(AgentWorker::isWorker());
}

} // namespace
