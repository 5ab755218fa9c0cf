// About box, dashboard, debug logging and the hub's events, over a real bus with a real hvbd: what a client is
// answered, what lies on disk afterwards, and what other users may do.
#include "hub/Payloads.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/integration/AccessFixture.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"
#include "tests/support/Preferences.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace testing_support {
namespace {

using namespace Sentrel;
using testing::EndsWith;
using testing::HasSubstr;
namespace fs = std::filesystem;

class AModule : public ::testing::Test {
protected:
    void SetUp() override {
        machine.initSettings();
        machine.setTraceLevels(5);
        machine.startHub();
        ASSERT_TRUE(eventually([this] { return machine.hubAnswers(); }));
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
        client.emplace(machine.bus().socketPath());
    }
    void TearDown() override { EXPECT_TRUE(machine.daemon().isRunning()) << machine.daemon().output(); }

    /// The value in the reply to a command.
    template <class Value>
    Value ask(int id) {
        const WireClient::Answer answer = client->command(id);
        EXPECT_EQ(answer.error, "");
        EXPECT_TRUE(answer.succeeded && answer.valid && answer.hasPayload);
        return valueIn<Value>(answer.payload);
    }
    DashBoardDispalyContents dashboard() {
        return ask<DashBoardData>(CMD_DASH_BOARD_REQUEST).m_statusItems[L"ST_DASHBOARD_STATUS_KEY"];
    }
    bool debugIsOn() { return ask<bool>(CMD_GET_DEBUG_LOGGING_STATUS); }
    void setDebug(bool status) {
        const WireClient::Answer answer = client->command(CMD_SET_DEBUG_LOGGING_STATUS, payloadOf(status));
        EXPECT_EQ(answer.error, "");
        EXPECT_TRUE(answer.succeeded && answer.valid && !answer.hasPayload);
    }

    /// How many of the debug logging workers have begun or ended.
    long workers(const std::string& what) {
        const auto lines = machine.traceLines();
        return std::count_if(lines.begin(), lines.end(), [&what](const std::string& line) {
            return line.find("updateHVConfigAndReloadHVB " + what + " with thread id ") != std::string::npos;
        });
    }
    bool workersEnded(long count) {
        return eventually([&] { return workers("exiting") >= count; });
    }
    /// What the log level in the configuration file is, for a program that is not ours.
    std::string levelOnDisk() {
        ChildOptions options;
        options.arguments = {"--xpath", "string(/HVConfiguration/LogLevel)", machine.configurationFile()};
        options.outputFile = machine.root().file("xmllint." + std::to_string(++xmllints));
        ChildProcess xmllint("xmllint", options);
        EXPECT_EQ(xmllint.waitUntil(patience()), 0) << xmllint.output();
        std::string text = xmllint.output();
        text.erase(text.find_last_not_of('\n') + 1);
        return text;
    }

    Machine machine;
    std::optional<WireClient> client;
    int xmllints = 0;
};

TEST_F(AModule, ShowsItsVersionsInTheAboutBox) {
    const auto about = ask<AboutBoxData>(CMD_ABOUT_BOX_REQUEST);
    EXPECT_EQ(about.m_moduleId, 7);
    EXPECT_EQ(about.m_versionItems, (std::map<std::wstring, std::wstring>{{L"Sentrel_Version", L"0.1.0 (1)"}}));
}

TEST_F(AModule, RefusesTheAboutBoxAtOnceWhenItsConfigurationIsGone) {
    fs::remove(machine.configurationFile());
    EXPECT_NE(client->command(CMD_ABOUT_BOX_REQUEST).error, "");
    machine.installConfiguration();
    EXPECT_EQ(client->command(CMD_ABOUT_BOX_REQUEST).error, "");
}

TEST_F(AModule, ShowsItsSwitchOnTheDashboard) {
    EXPECT_EQ(dashboard().m_displayText, L"ENABLED_STRING");
    EXPECT_EQ(dashboard().m_status, DASHBOARD_LOCAL_ENABLED);
    ASSERT_EQ(client->code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withSwitch(ST_ENABLE, false))), ST_ERROR_NONE);
    EXPECT_EQ(dashboard().m_displayText, L"DISABLED_STRING");
    EXPECT_EQ(dashboard().m_status, DASHBOARD_LOCAL_DISABLED);
}

TEST_F(AModule, SwitchesDebugLoggingInTheFileAndInTheHubAndTellsTheOthers) {
    PreferenceClient other(machine.bus().socketPath());
    other.listen();
    EXPECT_FALSE(debugIsOn());
    const std::string before = readFile(machine.configurationFile());
    setDebug(true);
    EXPECT_EQ(other.waitForEvents(1), (std::vector<ReceivedEvent>{{EVT_PREFERENCES_CHANGE, false}}));
    EXPECT_TRUE(debugIsOn());
    ASSERT_TRUE(workersEnded(1));
    EXPECT_EQ(machine.traced("STPreferenceController::updateHVConfigAndReloadHVB - CMD_RELOAD_HVB Successful"), 1U);
    std::string expected = before;
    expected.replace(expected.find("information"), std::string("information").size(), "debug");
    EXPECT_EQ(readFile(machine.configurationFile()), expected) << "nothing else changes";
    EXPECT_EQ(machine.sql("select hex(value) from vxsetting where hex(name) = hex('Enabled_Debug_Log') || '00'"),
              "01000000\n");
    setDebug(false);
    ASSERT_TRUE(workersEnded(2));
    EXPECT_EQ(readFile(machine.configurationFile()), before);
    EXPECT_FALSE(debugIsOn());
    EXPECT_EQ(other.eventsUntilNow().size(), 2U);
}

TEST_F(AModule, KeepsDebugLoggingAcrossARestart) {
    setDebug(true);
    ASSERT_TRUE(workersEnded(1));
    EXPECT_EQ(machine.stopDaemon(), 0);
    ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    EXPECT_TRUE(debugIsOn());
    setDebug(false);
    ASSERT_TRUE(workersEnded(2));
    EXPECT_EQ(machine.stopDaemon(), 0);
    ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    EXPECT_FALSE(debugIsOn());
}

TEST_F(AModule, DoesNotTouchTheFileForTheCurrentStatus) {
    const auto before = fs::last_write_time(machine.configurationFile());
    setDebug(false);
    EXPECT_EQ(client->command(CMD_SET_DEBUG_LOGGING_STATUS).error, "") << "a set without a payload asks for off";
    EXPECT_EQ(workers("entered"), 0);
    EXPECT_EQ(fs::last_write_time(machine.configurationFile()), before);
}

TEST_F(AModule, TellsTheSenderAtOnceThatASetCouldNotBeRead) {
    const std::wstring header = payloadOf(true).substr(0, payloadOf(true).rfind(L' '));
    EXPECT_EQ(client->command(CMD_SET_DEBUG_LOGGING_STATUS, header + L" x").error, HVB::bus::kErrorNoReply);
    EXPECT_EQ(client->command(CMD_SET_DEBUG_LOGGING_STATUS, L"noise").error, HVB::bus::kErrorNoReply);
    EXPECT_FALSE(debugIsOn());
}

TEST_F(AModule, AnswersWhatReadsNoPayloadWhateverOneItGets) {
    for (const int id : {CMD_DASH_BOARD_REQUEST, CMD_ABOUT_BOX_REQUEST, CMD_GET_DEBUG_LOGGING_STATUS}) {
        EXPECT_EQ(client->command(id, L"noise").error, "") << id;
        EXPECT_EQ(client->command(id, L"noise").payload, client->command(id).payload) << id;
    }
}

TEST_F(AModule, SwitchesDebugLoggingAlsoWhileNoHubCanReload) {
    EXPECT_EQ(machine.hub().terminate(), 0);
    setDebug(true);
    ASSERT_TRUE(workersEnded(1));
    EXPECT_TRUE(debugIsOn());
    EXPECT_EQ(levelOnDisk(), "debug");
    EXPECT_EQ(machine.traced("STPreferenceController::updateHVConfigAndReloadHVB - Caught unknown exception"), 1U);
    setDebug(false);
    ASSERT_TRUE(workersEnded(2));
    EXPECT_FALSE(debugIsOn());
}

/// What can be wrong with the configuration file when debug logging is to be switched on.
struct Damage {
    const char* name;
    void (*make)(const std::string& file);
    const char* line; ///< of the trace
};

const Damage kDamages[] = {
    {"Missing", [](const std::string& file) { fs::remove(file); }, "Caught unknown exception"},
    {"Malformed", [](const std::string& file) { std::ofstream(file) << "<HVConfiguration>"; },
     "Caught unknown exception"},
    {"Empty", [](const std::string& file) { std::ofstream(file).close(); }, "Caught unknown exception"},
    {"ADirectory",
     [](const std::string& file) {
         fs::remove(file);
         fs::create_directory(file);
     },
     "Caught unknown exception"},
    {"WithoutItsElement", [](const std::string& file) { std::ofstream(file) << "<HVConfiguration/>"; },
     "Caught unknown exception"},
    {"AFifo",
     [](const std::string& file) {
         fs::remove(file);
         ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
     },
     "Caught unknown exception"},
    {"ALink",
     [](const std::string& file) {
         fs::rename(file, file + ".real");
         fs::create_symlink(file + ".real", file);
     },
     "unable to save HVConfig.xml"},
};

class AModuleWithADamagedConfiguration : public AModule, public ::testing::WithParamInterface<Damage> {};

INSTANTIATE_TEST_SUITE_P(Each, AModuleWithADamagedConfiguration, ::testing::ValuesIn(kDamages),
                         [](const auto& damage) { return std::string(damage.param.name); });

TEST_P(AModuleWithADamagedConfiguration, SwitchesOnceTheFileIsMended) {
    EXPECT_FALSE(debugIsOn()) << "the preferences are loaded while the file is whole";
    GetParam().make(machine.configurationFile());
    setDebug(true);
    ASSERT_TRUE(workersEnded(1));
    EXPECT_FALSE(debugIsOn());
    const auto lines = machine.traceLines();
    EXPECT_THAT(lines, testing::Contains(EndsWith(GetParam().line)));
    EXPECT_EQ(machine.traced("STPreferenceController::updateHVConfigAndReloadHVB Sending reload command to HVB"), 0U);
    fs::remove_all(machine.configurationFile());
    machine.installConfiguration();
    setDebug(true);
    ASSERT_TRUE(workersEnded(2));
    EXPECT_TRUE(debugIsOn());
    EXPECT_EQ(levelOnDisk(), "debug");
}

TEST_F(AModule, LeavesAWholeConfigurationWhenItIsKilled) {
    for (int round = 0; round < 20; ++round) {
        setDebug(round % 2 == 0);
        machine.kill9Daemon();
        EXPECT_THAT(levelOnDisk(), testing::AnyOf("debug", "information"));
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
        EXPECT_EQ(debugIsOn(), levelOnDisk() == "debug");
    }
}

TEST_F(AModule, EndsCleanlyInTheMiddleOfChanges) {
    for (int round = 0; round < 20; ++round) {
        setDebug(!debugIsOn());
        EXPECT_EQ(machine.stopDaemon(), 0) << machine.daemon().output();
        EXPECT_THAT(levelOnDisk(), testing::AnyOf("debug", "information"));
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    }
}

TEST_F(AModule, DropsChangesThatMeetAnotherOneAndHoldsNothingBack) {
    const std::string tasks = "/proc/" + std::to_string(machine.daemon().pid()) + "/task";
    const auto threads = [&tasks] { return countEntries(tasks); };
    const auto before = threads();
    for (int round = 0; round < 300; ++round) {
        setDebug(round % 2 == 0);
    }
    const long begun = workers("entered");
    EXPECT_GT(begun, 0);
    ASSERT_TRUE(workersEnded(begun));
    constexpr std::size_t startedLate = 4; // of the daemon's own threads, which need not all be there yet when it is up
    EXPECT_TRUE(eventually([&] { return threads() <= before + startedLate; }));
    EXPECT_EQ(debugIsOn(), levelOnDisk() == "debug");
}

// The hub's events.

TEST_F(AModule, FollowsTheDebugLoggingThatTheHubPublishes) {
    client->emit(EVT_DEBUG_LOG_CHANGE, payloadOf(std::map<int, bool>{{3, false}, {7, true}, {9, false}}));
    ASSERT_TRUE(workersEnded(1));
    EXPECT_TRUE(debugIsOn());
    EXPECT_EQ(machine.traced("Iterating HV ID 9"), 0U);
    client->emit(EVT_DEBUG_LOG_CHANGE, payloadOf(std::map<int, bool>{{7, true}}));
    client->emit(EVT_DEBUG_LOG_CHANGE, payloadOf(std::map<int, bool>{{7, false}}));
    ASSERT_TRUE(workersEnded(2));
    EXPECT_FALSE(debugIsOn());
    EXPECT_EQ(workers("entered"), 2);
}

std::vector<proxySettings> twoProxies() {
    std::vector<proxySettings> proxies(2);
    proxies[0].host = "first.example";
    proxies[1].host = "proxy.example";
    for (proxySettings& proxy : proxies) {
        proxy.uname = "someone";
        proxy.pass = "s3cret";
        proxy.port = 3128;
        proxy.type = 2;
        proxy.httpAuth = 1;
    }
    return proxies;
}

TEST_F(AModule, StoresTheLastOfTheProxiesThatTheHubPublishes) {
    client->emit(EVT_PROXY_SETTINGS_CHANGE, payloadOf(twoProxies()));
    ASSERT_TRUE(eventually([this] {
        return machine.traced("STPreferenceController::setRpxProxySettings - Successfully updated httpAuthEnable in "
                              "DB") == 2;
    }));
    EXPECT_EQ(machine.sql("select cast(value as text) from vxsetting where hex(name) in (hex('RPXProxyHost') || '00', "
                          "hex('HttpAuthUname') || '00', hex('HttpAuthPass') || '00') order by rowid"),
              "proxy.example\nsomeone\ns3cret\n");
    EXPECT_EQ(machine.sql("select count(*) from vxsetting"), "6\n");
    client->emit(EVT_PROXY_SETTINGS_CHANGE, payloadOf(std::vector<proxySettings>{twoProxies()[1]}));
    ASSERT_TRUE(eventually([this] {
        return machine.traced("STPreferenceController::setRpxProxySettings - duplicate proxy settings") == 1;
    }));
}

TEST_F(AModule, LivesOnAfterEventsThatCannotBeReadOrCarryNothing) {
    for (const int id : {EVT_DEBUG_LOG_CHANGE, EVT_PROXY_SETTINGS_CHANGE}) {
        client->emit(id);
        client->emit(id, L"noise");
        client->emit(id, payloadOf(1) + L" 4294967295 0 0");
        client->emit(id, payloadOf(std::wstring(60'000, L'x')));
    }
    client->emit(EVT_DEBUG_LOG_CHANGE, payloadOf(std::map<int, bool>{{7, true}}));
    ASSERT_TRUE(workersEnded(1));
    EXPECT_TRUE(debugIsOn());
    EXPECT_EQ(machine.sql("select count(*) from vxsetting"), "1\n");
}

// Other users.

class TheAccessToAModule : public AccessFixture {
protected:
    void SetUp() override {
        AccessFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        machine->setTraceLevels(5);
        machine->startHub();
        ASSERT_TRUE(machine->startDaemon()) << machine->daemon().output();
    }

    /// @return nothing, as work for another user needs a text.
    std::string emit(int id, const std::wstring& payload) {
        WireClient(machine->bus().socketPath()).emit(id, payload);
        return "";
    }
};

TEST_F(TheAccessToAModule, LetsAnyUserSeeItsScreensAndItsDebugLogging) {
    for (const int id : {CMD_DASH_BOARD_REQUEST, CMD_ABOUT_BOX_REQUEST, CMD_GET_DEBUG_LOGGING_STATUS}) {
        EXPECT_EQ(asNobody([&] { return errorOf(id); }), "") << id;
    }
}

TEST_F(TheAccessToAModule, LetsNobodyButAdministratorsSwitchItsDebugLogging) {
    EXPECT_EQ(asNobody([&] { return errorOf(CMD_SET_DEBUG_LOGGING_STATUS, payloadOf(true)); }),
              SD_BUS_ERROR_ACCESS_DENIED);
    EXPECT_EQ(machine->traced("VXCommandImpl::handleCommand - Recieved CMD_SET_DEBUG_LOGGING_STATUS command"), 0U);
    EXPECT_EQ(asAdministrator([&] { return errorOf(CMD_SET_DEBUG_LOGGING_STATUS, payloadOf(true)); }), "");
    ASSERT_TRUE(eventually([this] {
        return machine->traced("STPreferenceController::updateHVConfigAndReloadHVB - CMD_RELOAD_HVB Successful") == 1;
    })) << "the daemon's own user may write the file and ask for the reload";
}

TEST_F(TheAccessToAModule, LetsNoOtherUserPublishAnEvent) {
    const std::wstring debug = payloadOf(std::map<int, bool>{{7, true}});
    const std::wstring proxies = payloadOf(twoProxies());
    for (const auto& [id, payload] : {std::pair{EVT_DEBUG_LOG_CHANGE, debug}, {EVT_PROXY_SETTINGS_CHANGE, proxies}}) {
        asNobody([&, id = id, &payload = payload] { return emit(id, payload); });
        asAdministrator([&, id = id, &payload = payload] { return emit(id, payload); });
    }
    // Root's comes last and arrives, so that those before it have had their time.
    emit(EVT_PROXY_SETTINGS_CHANGE, payloadOf(std::vector<proxySettings>{}));
    ASSERT_TRUE(eventually([this] {
        return machine->traced("VXController::handleProxySettingsEventData entered - Event Notification Handler") > 0;
    }));
    EXPECT_EQ(machine->traced("VXController::handleProxySettingsEventData entered - Event Notification Handler"), 1U);
    EXPECT_EQ(machine->traced("VXController::handleDebugLogEventData entered - Event Notification Handler"), 0U);
    EXPECT_EQ(machine->sql("select count(*) from vxsetting"), "0\n");
}

TEST_F(TheAccessToAModule, KeepsTheModeAndTheOwnerOfTheConfigurationFile) {
    struct stat before {};
    ASSERT_EQ(::stat(machine->configurationFile().c_str(), &before), 0);
    EXPECT_EQ(errorOf(CMD_SET_DEBUG_LOGGING_STATUS, payloadOf(true)), "");
    ASSERT_TRUE(eventually([this] {
        return machine->traced("STPreferenceController::updateHVConfigAndReloadHVB HVConfig.xml updated "
                               "successully.") == 1;
    }));
    struct stat after {};
    ASSERT_EQ(::stat(machine->configurationFile().c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(TheAccessToAModule, StaysAsItIsWhenTheConfigurationMayNotBeWritten) {
    const std::string directory = fs::path(machine->configurationFile()).parent_path();
    PrivateRoot::giveTo(directory, 0, 0);
    const std::string before = readFile(machine->configurationFile());
    EXPECT_EQ(errorOf(CMD_SET_DEBUG_LOGGING_STATUS, payloadOf(true)), "");
    ASSERT_TRUE(eventually([this] {
        return machine->traced("STPreferenceController::updateHVConfigAndReloadHVB unable to save HVConfig.xml") == 1;
    }));
    EXPECT_EQ(readFile(machine->configurationFile()), before);
    EXPECT_FALSE(valueIn<bool>(WireClient(machine->bus().socketPath()).command(CMD_GET_DEBUG_LOGGING_STATUS).payload));
}

} // namespace
} // namespace testing_support
