// A day of one machine on real parts: bus, hvbd, sentreld, sentrelctl, an MQTT broker, files, signals, kill -9. Behind
// each step every line that the daemon has traced is accounted for; at the end of each chapter the settings file is
// what it must be, row by row, and wherever it is looked at, the hub's store, record by record. The trace lines and the
// records stand in tests/data/machine-day, the rest in the chapters.
#include "tests/integration/MachineDay.h"
#include "events/ReportRecords.h"
#include "events/VXHVBLogWrapper.h"
#include "tests/integration/HvbdFixture.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/WholePolicy.h"

#include <csignal>
#include <filesystem>
#include <numeric>

namespace testing_support {
namespace {

using namespace Sentrel;
using nlohmann::json;

json policy(int version, bool isOn, const std::string& blockedSite) {
    return wholePolicy(version, "day", isOn, blockedSite);
}

/// What a policy's list leaves behind of itself: together with the bytes of its text it sums up to zero, in eight bits.
int checksumOf(const std::string& text) {
    constexpr int bits = 256;
    const int sum = std::accumulate(text.begin(), text.end(), 0);
    return (bits - sum % bits) % bits;
}

constexpr const char* kWhatTheProxyIs = "host               proxy.example\n"
                                        "port               3128\n"
                                        "type               0\n"
                                        "authentication     on\n"
                                        "user               anna\n"
                                        "password           set\n";

class AMachinesDay : public MachineDay {
public:
    void starts() {
        listen();
        machine.startHub();
        machine.startKeeper();
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
        step("starts");
        const auto about = answerOf<AboutBoxData>(CMD_ABOUT_BOX_REQUEST);
        EXPECT_EQ(about.m_moduleId, 7);
        EXPECT_EQ(about.m_versionItems, (std::map<std::wstring, std::wstring>{{L"Sentrel_Version", L"0.1.0 (1)"}}));
        step("shows its versions");
        expectDashboard(DASHBOARD_LOCAL_ENABLED, "is enabled by itself");
        EXPECT_FALSE(answerOf<bool>(CMD_GET_DEBUG_LOGGING_STATUS));
        step("does not log for debugging");
        logAtTwoLevels("in the morning");
        expectSystemLog({"30 module 7 (Sentrel): information in the morning"});
        expectStore(0);
        expectEvents({});
    }

    void browses() {
        browse("http://bad.example/malware", 60, 3);
        browse("http://maybe.example/", 40, 2); // a warning that nobody answered is not reported
        browse("http://maybe.example/", 40, 2, 1);
        browse("http://good.example/index.html", 5, 1);
        expectStore(3);
        // The other two kinds of record, by the daemon's own code for them: nothing in it writes any by itself.
        DetailReportData detail;
        detail.m_name = L"Detail";
        detail.attributes[L"Key"] = L"value";
        ReportData report;
        report.m_reportName = L"Report";
        VXHVBLogWrapper::sendRecentEvents(detail);
        VXHVBLogWrapper::sendHistoryEvents(report, detail);
        expectStore(5);
    }

    void changesItsPreferences() {
        setOne(withSwitch(ST_SAFE_SEARCH, true), "switches safe search on");
        setOne(withAction(ST_RED_SITE_ACTION, 2), "warns of red sites");
        setOne(withUrls({{"local.example", 1}, {"fine.example", 0}}), "lists two sites");
        setOne(withCategories({{"gb", 1}}), "blocks a category");
        mustHold("SSOn", 1);
        mustHold("RedSiteAction", 2);
        mustHoldSites({{"local.example", 1}, {"fine.example", 0}});
        mustHoldCategories({"gb"});
        expectSettings();
        setOne(withSwitch(ST_ENABLE, false), "switches protection off");
        expectDashboard(DASHBOARD_LOCAL_DISABLED, "is disabled by itself");
        mustHold("Enabled", 0);
        expectSettings();
        setOne(withSwitch(ST_ENABLE, true), "switches protection on");
        mustHold("Enabled", 1);
        expectEvents({1003, 1003, 1003, 1003, 1002, 1002});
    }

    void becomesManaged() {
        enrol();
        machine.daemon().kill(SIGUSR2);
        expectState("online");
        expectProperties(true, true);
        step("is enrolled");
        expectDashboard(DASHBOARD_MANAGED_ENABLED, "is managed and enabled");
        push(policy(1, true, "bad.example"), true, "takes its first policy");
        mustHold("GenPolicyBlockPhishingAction", 0);
        mustHold("PrivateIPRangeChecksum", checksumOf(" 10.0.0.0/8"));
        mustHold("UNCAT_Block", 0);
        mustHold("CategoryBlockListChecksum", checksumOf("111alga"));
        mustHold("YellowSiteAction", 3);
        mustHold("ALLOW_OVER_Block", 1);
        mustHold("AllowBlockListChecksum", checksumOf(" bad.exampleok.example10"));
        mustHoldSites({{"bad.example", 1}, {"ok.example", 0}});
        mustHoldCategories({"al", "ga"});
        mustHoldRange("10.0.0.0/8");
        expectEvents({1003, 1003, 1003});
    }

    void isTamperedWith() {
        setOne(withSwitch(ST_ENABLE, false), "its user switches protection off");
        mustHold("Enabled", 0);
        expectSettings();
        expectDashboard(DASHBOARD_MANAGED_AT_RISK, "is at risk");
        EXPECT_EQ(status()["status"], "at risk");
        step("shows that it is at risk");
        observer->publish("orvanta/v1/here/m1/collect", R"({"full": true})", false);
        expectProperties(false, false);
        step("tells its server");
        push(policy(2, false, "bad.example"), false, "is to be off");
        expectDashboard(DASHBOARD_MANAGED_DISABLED, "is managed and disabled");
        push(policy(3, true, "bad.example"), true, "is to be on");
        mustHold("Enabled", 1);
        expectDashboard(DASHBOARD_MANAGED_ENABLED, "is enabled again");
        expectEvents({1002, 1003, 1003, 1002, 1003, 1003});
    }

    void losesItsServer() {
        broker->kill9();
        observer.reset();
        step("loses its server");
        expectDashboard(DASHBOARD_MANAGED_ENABLED, "is managed without its server");
        setOne(withUrls({{"new.example", 1}}), "lists a site without its server");
        mustHoldSites({{"new.example", 1}});
        expectSettings();
        browse("http://bad.example/offline", 60, 3);
        expectStore(6);
        broker->restart();
        observer.emplace(broker->port());
        expectState("online");
        expectProperties(true, true);
        step("finds its server again");
        push(policy(4, true, "worse.example"), true, "takes a policy that was waiting");
        mustHold("AllowBlockListChecksum", checksumOf(" worse.exampleok.example10"));
        mustHoldSites({{"worse.example", 1}, {"ok.example", 0}});
        expectEvents({1003, 1003, 1003});
    }

    void logsForDebugging() {
        m_quietConfiguration = readFile(machine.configurationFile());
        setDebug(true, "logs for debugging");
        EXPECT_TRUE(answerOf<bool>(CMD_GET_DEBUG_LOGGING_STATUS));
        step("says that it logs for debugging");
        std::string loud = m_quietConfiguration;
        loud.replace(loud.find("information"), std::string("information").size(), "debug");
        EXPECT_EQ(readFile(machine.configurationFile()), loud);
        mustHold("Enabled_Debug_Log", 1);
        logAtTwoLevels("at noon");
        expectSystemLog({"30 configuration of module 7 read again: syslog on, level debug",
                         "31 module 7 (Sentrel): debug at noon", "30 module 7 (Sentrel): information at noon"});
        expectEvents({1003});
    }

    void getsAProxy() {
        const CtlResult set = ctl(machine.root(),
                                  {"proxy", "set", "proxy.example", "--port", "3128", "--user", "anna", "--auth",
                                   "--as-is", "--password-file", "-"},
                                  "s3cret\n");
        EXPECT_EQ(set.code, 0) << set.err;
        EXPECT_EQ(set.out, kWhatTheProxyIs);
        step("stores a proxy");
        mustHold("RPXProxyHost", "proxy.example");
        mustHold("HttpAuthUname", "anna");
        mustHold("HttpAuthPass", "s3cret");
        mustHold("RPXProxyPort", 3128);
        mustHold("RPXProxyType", 0);
        mustHold("EnableHttpAuth", 1);
        expectEvents({});
    }

    void reloadsItsPlugins() {
        broker->stop(); // a server that answers late: what comes from the saved policy can be told from what comes from
                        // it
        machine.daemon().kill(SIGUSR2);
        step("reloads its plug-ins while its server is silent");
        broker->cont();
        comesBack();
        step("is back at its server");
        expectEvents({1003, 1003});
    }

    void restartsItsHub() {
        machine.hub().kill(SIGKILL);
        ASSERT_EQ(machine.hub().waitUntil(patience()), -SIGKILL);
        expectDashboard(DASHBOARD_MANAGED_ENABLED, "is asked while its hub is away");
        browse("http://bad.example/away", 60, 3); // kept until the hub is back
        machine.startHub();
        ASSERT_TRUE(eventually([this] { return machine.stored().size() == 7; }));
        expectStore(7);
        browse("http://bad.example/kept", 60, 3);
        expectStore(8);
        logAtTwoLevels("after the hub's restart");
        expectSystemLog({"31 module 7 (Sentrel): debug after the hub's restart",
                         "30 module 7 (Sentrel): information after the hub's restart"});
        ASSERT_TRUE(eventually([this] { return HubClient(machine.root().hubSocket()).healthOf(7) == "well"; }));
        step("is checked by its hub");
        const json shown = status();
        EXPECT_EQ(shown["status"], "enabled");
        EXPECT_EQ(shown["managed"], true);
        EXPECT_EQ(shown["health"], "well");
        step("shows that it is well");
        expectEvents({});
    }

    void restartsItsBus() {
        machine.bus().kill9();
        machine.bus().restart();
        ASSERT_TRUE(eventually([this] { return client().command(CMD_GET_DEBUG_LOGGING_STATUS).error.empty(); }));
        step("is on the bus again");
        ASSERT_TRUE(eventually([this] { return machine.hubAnswers(); }));
        listen();
        client().emit(EVT_DEBUG_LOG_CHANGE, payloadOf(std::map<int, bool>{{3, true}, {7, false}, {9, true}}));
        step("is told to log no more for debugging");
        EXPECT_EQ(readFile(machine.configurationFile()), m_quietConfiguration);
        mustHold("Enabled_Debug_Log", 0);
        logAtTwoLevels("in the afternoon");
        expectSystemLog({"30 configuration of module 7 read again: syslog on, level information",
                         "30 module 7 (Sentrel): information in the afternoon"});
        browse("http://bad.example/afternoon", 60, 3);
        expectStore(9);
        expectEvents({1003});
    }

    void crashesAndStartsAgain() {
        const std::string savedPolicy = machine.root().varDirectory() + "/policy.json";
        EXPECT_EQ(readFile(savedPolicy), policy(4, true, "worse.example").dump());
        machine.kill9Daemon();
        expectState("offline"); // its last will
        expectSettings();
        expectStore(9);
        broker->stop();
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
        step("starts again while its server is silent");
        expectDashboard(DASHBOARD_MANAGED_ENABLED, "is managed by its saved policy");
        broker->cont();
        comesBack();
        step("is at its server after the crash");
        expectEvents({1003, 1003});
    }

    void stops() {
        EXPECT_EQ(machine.stopDaemon(), 0);
        expectState("offline");
        step("stops");
        EXPECT_FALSE(std::filesystem::exists(machine.root().varDirectory() + "/.STPid"));
        expectEvents({});
    }

    void isLetGo() {
        std::filesystem::remove(machine.root().hubConfigDirectory() + "/agent.json");
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
        step("starts unmanaged");
        expectDashboard(DASHBOARD_LOCAL_ENABLED, "is enabled by itself at night");
        machine.daemon().kill(SIGHUP); // which ends tracing for good
        ASSERT_TRUE(eventually([this] { return !isTracing(); }));
        EXPECT_EQ(client().code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withSwitch(ST_SAFE_SEARCH, false))), ST_ERROR_NONE);
        mustHold("SSOn", 0);
        expectEvents({1003});
        EXPECT_EQ(machine.stopDaemon(), 0);
        EXPECT_EQ(machine.hub().terminate(), 0);
        step("has traced nothing since");
    }

private:
    /// What sentrelctl shows at a glance.
    json status() {
        const CtlResult shown = ctl(machine.root(), {"status", "--json=short"});
        EXPECT_EQ(shown.code, 0) << shown.err;
        return json::parse(shown.out, nullptr, false);
    }
    /// The server hears the old connection's end, then the new one, the result of the policy that it retains, and the
    /// properties.
    void comesBack() {
        json state = next("state");
        while (state["state"] == "offline") {
            state = next("state");
        }
        EXPECT_EQ(state["state"], "online");
        expectProperties(true, true); // of the saved policy
        expectProperties(true, true); // of the connection
        expectInForce();
    }

    std::string m_quietConfiguration;
};

TEST_F(AMachinesDay, LeavesBehindWhatItMust) {
    struct Chapter {
        const char* name;
        void (AMachinesDay::*happens)();
    };
    for (const auto& [name, happens] : {Chapter{"starts", &AMachinesDay::starts},
                                        {"browses", &AMachinesDay::browses},
                                        {"changes its preferences", &AMachinesDay::changesItsPreferences},
                                        {"becomes managed", &AMachinesDay::becomesManaged},
                                        {"is tampered with", &AMachinesDay::isTamperedWith},
                                        {"loses its server", &AMachinesDay::losesItsServer},
                                        {"logs for debugging", &AMachinesDay::logsForDebugging},
                                        {"gets a proxy", &AMachinesDay::getsAProxy},
                                        {"reloads its plug-ins", &AMachinesDay::reloadsItsPlugins},
                                        {"restarts its hub", &AMachinesDay::restartsItsHub},
                                        {"restarts its bus", &AMachinesDay::restartsItsBus},
                                        {"crashes and starts again", &AMachinesDay::crashesAndStartsAgain},
                                        {"stops", &AMachinesDay::stops},
                                        {"is let go", &AMachinesDay::isLetGo}}) {
        SCOPED_TRACE(name);
        (this->*happens)();
        endChapter(name);
        ASSERT_FALSE(HasFailure()) << "what comes behind a chapter that went wrong says nothing";
    }
    expectTheEndOfWhatWasTold();
    printSummary();
}

} // namespace
} // namespace testing_support
