// A machine that is managed, on real parts: the daemon with its hub, an MQTT broker, the settings file, kill -9.
#include "base/Database.h"
#include "platform/hvbagent/SecretBox.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"
#include "tests/support/MqttBroker.h"
#include "tests/support/MqttObserver.h"
#include "tests/support/PolicyAnswers.h"
#include "tests/support/Preferences.h"
#include "tests/support/WholePolicy.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace testing_support {
namespace {

using json = nlohmann::json;

constexpr const char* kTopic = "orvanta/v1/here/m1/";

json policy(int version, const std::string& site) {
    return wholePolicy(version, "test", false, site);
}

class AManagedMachine : public testing::Test {
protected:
    AManagedMachine() {
        machine.initSettings();
        enrol();
    }

    void enrol() {
        const json configuration = {{"broker", {{"host", "127.0.0.1"}, {"port", broker.port()}}},
                                    {"site", "here"},
                                    {"machine", "m1"},
                                    {"groups", {"desks"}}};
        std::ofstream(machine.root().hubConfigDirectory() + "/agent.json") << configuration.dump();
    }
    void start() {
        machine.startHub();
        ASSERT_TRUE(machine.startDaemon());
    }

    /// The next document on a topic of this machine.
    json next(MqttObserver& from, const std::string& topic) {
        const auto message = from.next(kTopic + topic);
        return message ? json::parse(message->payload) : json();
    }
    /// Publishes a policy for this machine. @return what the machine says of it then
    json push(const json& document) {
        observer.publish(std::string(kTopic) + "policy", document.dump());
        return answerOn(observer, std::string(kTopic) + "policy/result", document.dump());
    }
    std::vector<std::string> blocked() {
        std::vector<std::string> sites;
        for (const auto& [url, action] : urlsOf(PreferenceClient(machine.bus().socketPath()).getAll())) {
            if (action != 0) {
                sites.push_back(url);
            }
        }
        return sites;
    }

    Machine machine;
    MqttBroker broker{machine.root()};
    MqttObserver observer{broker.port()};
};

TEST_F(AManagedMachine, TellsHowManyRowsOfAPolicyAreNotStored) {
    start();
    EXPECT_TRUE(push(policy(1, "bad.example"))["rows_missing"].is_null()) << "there is no keeper who could tell";
    machine.startKeeper();
    EXPECT_EQ(push(policy(2, "worse.example"))["rows_missing"], 0);
    // Rows that the file does not take, and nobody is told.
    machine.sql("create trigger t before insert on allowblocksettings begin select raise(ignore); end");
    const json result = push(policy(3, "worst.example"));
    EXPECT_EQ(result["enforced"], true);
    EXPECT_EQ(result["rows_missing"], 2) << "both sites of the policy";
}

TEST_F(AManagedMachine, LoadsTheMqttAndTlsLibrariesOnlyWhenItIsEnrolled) {
    const auto has = [this](const char* library) {
        return readFile("/proc/" + std::to_string(machine.daemon().pid()) + "/maps").find(library) != std::string::npos;
    };
    std::filesystem::remove(machine.root().hubConfigDirectory() + "/agent.json");
    start();
    for (const char* library : {"/libmosquitto.", "/libssl.", "/libcrypto.", "/libboost_regex.", "/libicui18n."}) {
        EXPECT_FALSE(has(library)) << library;
    }
    enrol();
    machine.daemon().kill(SIGUSR2);
    ASSERT_EQ(next(observer, "state")["state"], "online");
    EXPECT_TRUE(has("/libmosquitto."));
}

/// A client replaces the list at the same time. Readers cannot hold a write up any more; who writes can.
TEST_F(AManagedMachine, TellsHowManyRowsOfAPolicyAnotherWriterKeptOut) {
    start();
    machine.startKeeper();
    ASSERT_EQ(push(policy(1, "bad.example"))["rows_missing"], 0);
    const std::vector<std::string> before = blocked();
    const Sentrel::DatabasePtr writer = Sentrel::openDatabase(machine.settingsFile());
    Sentrel::execute(*writer, "BEGIN IMMEDIATE");
    observer.publish(std::string(kTopic) + "policy", policy(2, "worse.example").dump());
    WireClient client(machine.bus().socketPath());
    EXPECT_EQ(client.code(Sentrel::ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls({{"http://client.example/", 1}}))),
              Sentrel::ST_ERROR_NONE);
    const json result = answerOn(observer, std::string(kTopic) + "policy/result", policy(2, "worse.example").dump());
    Sentrel::execute(*writer, "ROLLBACK");
    EXPECT_EQ(result["rows_missing"], 1) << "the one site that was not there before";
    EXPECT_EQ(blocked(), before) << "what is in force is what is stored";
    EXPECT_EQ(machine.sql("select count(*) from allowblocksettings where name like '%client%'"), "0\n");
}

TEST_F(AManagedMachine, EnforcesStoresAndReportsAPolicy) {
    start();
    PreferenceClient client(machine.bus().socketPath());
    client.listen();
    ASSERT_EQ(next(observer, "state")["state"], "online");
    const json result = push(policy(1, "bad.example"));
    EXPECT_EQ(result["enforced"], true) << result;
    EXPECT_EQ(result["version"], 1);
    // The enable state, the categories, the ratings, the list: each tells the hub once.
    EXPECT_EQ(client.waitForEvents(4),
              (std::vector<ReceivedEvent>{{1002, false}, {1003, false}, {1003, false}, {1003, false}}));
    const Sentrel::STPreferences preferences = client.getAll();
    EXPECT_FALSE(preferences.m_bEnable);
    EXPECT_EQ(preferences.m_yellowSiteAction, 3);
    EXPECT_EQ(preferences.m_redSiteAction, 2);
    EXPECT_EQ(preferences.m_unratedSiteAction, 1);
    EXPECT_TRUE(preferences.m_bAllowOverBlock);
    EXPECT_EQ(urlsOf(preferences), (Urls{{"ok.example", 0}, {"bad.example", 1}}));
    EXPECT_EQ(preferences.m_categoryBlockDetails, (Sentrel::CategoryBlockDetails{{"al", 1}, {"ga", 1}}));
    EXPECT_EQ(machine.sql("select range from privateIPRange"), "10.0.0.0/8\n");
    EXPECT_EQ(machine.sql("select count(*) from vxsetting where hex(name) = hex('AllowBlockListChecksum') || '00'"),
              "1\n");
}

TEST_F(AManagedMachine, TellsItsPropertiesOnConnectAfterAPolicyAndWhenItIsAsked) {
    start();
    json properties = next(observer, "properties");
    EXPECT_EQ(properties["sections"]["Options"]["bSTEnabled"], "1");
    EXPECT_EQ(properties["sections"]["CustomProps"]["bComplianceStatus"], "1");
    EXPECT_EQ(properties["sections"]["General"]["szInstallDir"], "/usr/local/Orvanta/Sentrel");
    observer.publish(std::string(kTopic) + "policy", policy(1, "bad.example").dump());
    properties = next(observer, "properties");
    EXPECT_EQ(properties["sections"]["Options"]["bSTEnabled"], "0");
    EXPECT_EQ(properties["sections"]["CustomProps"]["bComplianceStatus"], "1");
    observer.publish(std::string(kTopic) + "collect", R"({"full": false})", false);
    properties = next(observer, "properties");
    EXPECT_EQ(properties["full"], false);
    EXPECT_EQ(properties["sections"].size(), 1u);
}

TEST_F(AManagedMachine, TakesThePolicyOfItsGroup) {
    start();
    ASSERT_EQ(next(observer, "state")["state"], "online");
    json document = policy(3, "bad.example");
    document["audience"] = {{"site", "here"}, {"group", "desks"}};
    observer.publish("orvanta/v1/here/group/desks/policy", document.dump());
    EXPECT_EQ(answerOn(observer, std::string(kTopic) + "policy/result", document.dump())["enforced"], true);
    EXPECT_EQ(blocked(), std::vector<std::string>{"bad.example"});
}

TEST_F(AManagedMachine, ReportsAPolicyThatLacksAPass) {
    start();
    json incomplete = policy(1, "bad.example");
    incomplete["features"]["KPF_BlockAndAllowList"]["BlockAndAllowList"].erase("uiSiteCount");
    EXPECT_EQ(push(incomplete)["enforced"], false);
    const Sentrel::STPreferences preferences = PreferenceClient(machine.bus().socketPath()).getAll();
    EXPECT_FALSE(preferences.m_bEnable);
    EXPECT_TRUE(preferences.m_allowBlockDetails.empty());
}

TEST_F(AManagedMachine, EnforcesItsStoredPolicyAtAStartWithoutTheBroker) {
    start();
    ASSERT_EQ(push(policy(1, "bad.example"))["enforced"], true);
    broker.kill9();
    machine.kill9Daemon();
    std::filesystem::remove(machine.settingsFile());
    machine.initSettings();
    ASSERT_TRUE(machine.startDaemon());
    EXPECT_TRUE(eventually([&] { return blocked() == std::vector<std::string>{"bad.example"}; }));
}

TEST_F(AManagedMachine, WorksOnWhileTheBrokerIsAway) {
    start();
    ASSERT_EQ(push(policy(1, "bad.example"))["enforced"], true);
    broker.kill9();
    PreferenceClient client(machine.bus().socketPath());
    EXPECT_EQ(client.setOne(withUrls({{"local.example", 1}})), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{"local.example", 1}}));
    broker.restart();
    MqttObserver later(broker.port());
    later.publish(std::string(kTopic) + "policy", policy(2, "worse.example").dump());
    EXPECT_TRUE(eventually([&] { return urlsOf(client.getAll()) == (Urls{{"ok.example", 0}, {"worse.example", 1}}); }));
}

TEST_F(AManagedMachine, OutlivesReloadsOfItsPluginsWhilePoliciesAreEnforced) {
    constexpr int reloads = 40;
    start();
    ASSERT_EQ(next(observer, "state")["state"], "online");
    for (int reload = 1; reload <= reloads; ++reload) {
        observer.publish(std::string(kTopic) + "policy", policy(reload, "site" + std::to_string(reload)).dump());
        machine.daemon().kill(SIGUSR2);
    }
    EXPECT_TRUE(eventually([&] { return blocked() == std::vector<std::string>{"site" + std::to_string(reloads)}; }));
    EXPECT_EQ(machine.stopDaemon(), 0);
}

TEST_F(AManagedMachine, CannotTellWhetherAPolicyIsWholeWhileTheHubIsAwayAndTellsWhenItIsBack) {
    start();
    machine.startKeeper();
    ASSERT_EQ(next(observer, "state")["state"], "online");
    machine.hub().kill(SIGKILL);
    machine.hub().terminate();
    json answer = push(policy(1, "bad.example"));
    EXPECT_EQ(answer["enforced"], true) << answer;
    EXPECT_TRUE(answer["whole"].is_null()) << answer;
    machine.startHub();
    while (answer.is_object() && answer["whole"].is_null()) { // until none comes any more
        answer = answerOn(observer, std::string(kTopic) + "policy/result", policy(1, "bad.example").dump());
    }
    EXPECT_EQ(answer["whole"], true) << answer;
}

/// A long list is on its way into the file when the daemon is to end.
TEST_F(AManagedMachine, EndsInTheMiddleOfAPolicyAndEnforcesItAtTheNextStart) {
    constexpr int sites = 3000;
    start();
    machine.startKeeper();
    ASSERT_EQ(next(observer, "state")["state"], "online");
    json document = policy(1, "site0.example");
    json& list = document["features"]["KPF_BlockAndAllowList"]["BlockAndAllowList"];
    list["uiSiteCount"] = sites;
    for (int i = 0; i < sites; ++i) {
        list["szSite" + std::to_string(i)] = "site" + std::to_string(i) + ".example";
        list["Action" + std::to_string(i)] = 1;
    }
    observer.publish(std::string(kTopic) + "policy", document.dump());
    ASSERT_TRUE(eventually([&] { return machine.sql("select count(*) from allowblocksettings") != "0\n"; }));
    EXPECT_EQ(machine.stopDaemon(), 0);
    ASSERT_TRUE(machine.startDaemon());
    EXPECT_TRUE(eventually([&] { return blocked().size() == std::size_t{sites}; }));
}

TEST_F(AManagedMachine, StopsWhileTheBrokerIsAway) {
    start();
    ASSERT_EQ(next(observer, "state")["state"], "online");
    broker.kill9();
    EXPECT_EQ(machine.stopDaemon(), 0);
}

TEST_F(AManagedMachine, GivesABrowserComponentTheClearTextOfAPassword) {
    using HVBEnterprise::agent::SecretKey;
    const SecretKey key = SecretKey::generate();
    key.save(machine.root().hubConfigDirectory() + "/agent.key");
    start();
    const auto clearTextOf = [&](const std::string& text) {
        EventClient client(machine.eventSocket());
        client.send("Decrypt " + text);
        const std::string answer = client.readAll();
        EXPECT_EQ(answer.size(), 1024u);
        return answer.substr(0, answer.find('\0'));
    };
    const std::string text = HVBEnterprise::agent::encrypted(key, "p\xC3\xA4ss word");
    EXPECT_EQ(clearTextOf(text), "p\xC3\xA4ss word");
    EXPECT_EQ(clearTextOf(text.substr(0, text.size() - 4)), "");
    EXPECT_EQ(clearTextOf(HVBEnterprise::agent::encrypted(SecretKey::generate(), "other")), "");
    EXPECT_EQ(clearTextOf("no such text"), "");
}

TEST_F(AManagedMachine, OpensAStoredSecretForAnyLocalUserWhoAsks) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root, to act as a second user";
    }
    using HVBEnterprise::agent::SecretKey;
    const SecretKey key = SecretKey::generate();
    key.save(machine.root().hubConfigDirectory() + "/agent.key");
    start();
    const std::string answer = asNobody([&] {
        EventClient client(machine.eventSocket());
        client.send("Decrypt " + HVBEnterprise::agent::encrypted(key, "open sesame"));
        return client.readAll();
    });
    EXPECT_EQ(answer.substr(0, answer.find('\0')), "open sesame");
}

TEST_F(AManagedMachine, RunsUnmanagedWithAConfigurationThatCannotBeUsed) {
    std::ofstream(machine.root().hubConfigDirectory() + "/agent.json") << "{\"broker\": 5";
    start();
    EXPECT_TRUE(PreferenceClient(machine.bus().socketPath()).getAll().m_bEnable);
}

} // namespace
} // namespace testing_support
