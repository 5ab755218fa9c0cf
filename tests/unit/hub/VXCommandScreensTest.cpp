// The about box and the dashboard. Real: the configuration file, the agent's wrapper and the process's controller. Not
// real: the preferences, the hub and the agent's library, which record and are scripted.
#include "daemon/VXControllerDaemon.h"
#include "hub/Exceptions.h"
#include "hub/Payloads.h"
#include "managed/VXHVBAgentWrapper.h"
#include "platform/hvbutils/XmlFile.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/hub/CommandHandlerFixture.h"
#include "tests/unit/managed/AgentDouble.h"

#include <gmock/gmock.h>

#include <clocale>
#include <filesystem>
#include <stdexcept>
#include <utility>

using namespace testing_support;

namespace {

// The about box.

class AnAboutBox : public ACommandHandler {
protected:
    using Elements = std::vector<std::pair<std::string, std::string>>;
    using Items = std::map<std::wstring, std::wstring>;

    AnAboutBox() {
        std::setlocale(LC_CTYPE, "C.UTF-8"); // as the program does
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    }

    void configure(const Elements& elements) const {
        std::string text = "<HVConfiguration>";
        for (const auto& [name, value] : elements) {
            text.append("<").append(name).append(">").append(value).append("</").append(name).append(">");
        }
        writeFile(file, text + "</HVConfiguration>");
    }

    /// The texts that the about box shows.
    Items shown() {
        EXPECT_TRUE(deliver(1004));
        EXPECT_TRUE(reply().succeeded);
        EXPECT_TRUE(reply().valid);
        const auto about = reply().payload<AboutBoxData>();
        EXPECT_EQ(about.m_moduleId, 7);
        return about.m_versionItems;
    }
    Items shown(const Elements& elements) {
        configure(elements);
        return shown();
    }

    DaemonRoot root;
    std::string file = root.path() + "/usr/local/Orvanta/hvb/config/Sentrel/HVConfig.xml";
};

const std::vector<std::pair<std::string, std::string>> kWhole{
    {"BuildNumber", "456"}, {"HVVersion", "1.2"}, {"PatchVersion", "3"}, {"ServicePack", "SP1"}, {"Hotfixes", "HF9"}};

std::vector<std::pair<std::string, std::string>> wholeBut(const std::string& name, const std::string& value) {
    auto elements = kWhole;
    for (auto& element : elements) {
        if (element.first == name) {
            element.second = value;
        }
    }
    return elements;
}

std::vector<std::pair<std::string, std::string>> wholeWithout(const std::string& name) {
    auto elements = kWhole;
    std::erase_if(elements, [&name](const auto& element) { return element.first == name; });
    return elements;
}

TEST_F(AnAboutBox, IsAnsweredWhateverItsRequestCarries) {
    configure({{"HVVersion", "1.2"}, {"BuildNumber", "456"}, {"PatchVersion", "3"}});
    EXPECT_TRUE(deliverText(1004, L"noise"));
    EXPECT_EQ(reply().payload<AboutBoxData>().m_versionItems[L"Sentrel_Version"], L"1.2 3 (456)");
}

TEST_F(AnAboutBox, ShowsVersionPatchAndBuildServicePackAndHotfixes) {
    EXPECT_EQ(shown(kWhole),
              (Items{{L"Sentrel_Version", L"1.2 3 (456)"}, {L"Sentrel_SPVersion", L"SP1"}, {L"Sentrel_HF", L"HF9"}}));
}

TEST_F(AnAboutBox, ShowsVersionAndBuildAloneWithAnEmptyPatch) {
    EXPECT_EQ(shown(wholeBut("PatchVersion", ""))[L"Sentrel_Version"], L"1.2 (456)");
}

TEST_F(AnAboutBox, ShowsAPatchOfOneBlankAsItIs) {
    EXPECT_EQ(shown(wholeBut("PatchVersion", " "))[L"Sentrel_Version"], L"1.2   (456)");
}

TEST_F(AnAboutBox, LeavesOutAServicePackAndHotfixesOfASingleBlank) {
    auto elements = wholeBut("ServicePack", " ");
    elements.back().second = " ";
    EXPECT_EQ(shown(elements), (Items{{L"Sentrel_Version", L"1.2 3 (456)"}}));
}

TEST_F(AnAboutBox, ShowsAServicePackAndHotfixesOfTwoBlanks) {
    auto elements = wholeBut("ServicePack", "  ");
    elements.back().second = "  ";
    EXPECT_EQ(shown(elements),
              (Items{{L"Sentrel_Version", L"1.2 3 (456)"}, {L"Sentrel_SPVersion", L"  "}, {L"Sentrel_HF", L"  "}}));
}

TEST_F(AnAboutBox, ShowsAnEmptyServicePackAndEmptyHotfixesAsEmptyTexts) {
    auto elements = wholeBut("ServicePack", "");
    elements.back().second = "";
    EXPECT_EQ(shown(elements),
              (Items{{L"Sentrel_Version", L"1.2 3 (456)"}, {L"Sentrel_SPVersion", L""}, {L"Sentrel_HF", L""}}));
}

TEST_F(AnAboutBox, ShowsEmptyParenthesesWhenTheFirstVersionKeyCannotBeRead) {
    EXPECT_EQ(shown(wholeWithout("BuildNumber")),
              (Items{{L"Sentrel_Version", L" ()"}, {L"Sentrel_SPVersion", L"SP1"}, {L"Sentrel_HF", L"HF9"}}));
}

TEST_F(AnAboutBox, ShowsWhatItReadBeforeAVersionKeyThatCannotBeRead) {
    EXPECT_EQ(shown(wholeWithout("HVVersion"))[L"Sentrel_Version"], L" (456)");
    hub.forget();
    EXPECT_EQ(shown(wholeWithout("PatchVersion"))[L"Sentrel_Version"], L"1.2 (456)");
}

TEST_F(AnAboutBox, ShowsNothingButTheVersionOfAFileWithoutElements) {
    EXPECT_EQ(shown({}), (Items{{L"Sentrel_Version", L" ()"}}));
}

TEST_F(AnAboutBox, ShowsTextsThatAreNotAscii) {
    EXPECT_EQ(shown(wholeBut("ServicePack", "Größe 2"))[L"Sentrel_SPVersion"], L"Größe 2");
}

TEST_F(AnAboutBox, CutsEachTextThatDoesNotFitItsHundredCharacters) {
    for (const std::size_t length : {99U, 100U, 101U, 5000U}) {
        hub.forget();
        Items items = shown({{"BuildNumber", "456"},
                             {"HVVersion", std::string(length, 'v')},
                             {"PatchVersion", ""},
                             {"ServicePack", std::string(length, 's')},
                             {"Hotfixes", std::string(length, 'h')}});
        EXPECT_EQ(items[L"Sentrel_Version"], std::wstring(99, L'v')) << length;
        EXPECT_EQ(items[L"Sentrel_SPVersion"], std::wstring(99, L's')) << length;
        EXPECT_EQ(items[L"Sentrel_HF"], std::wstring(99, L'h')) << length;
    }
}

TEST_F(AnAboutBox, ShowsAVersionThatJustFitsWhole) {
    EXPECT_EQ(shown({{"BuildNumber", "456"}, {"HVVersion", std::string(93, 'v')}, {"PatchVersion", ""}}),
              (Items{{L"Sentrel_Version", std::wstring(93, L'v') + L" (456)"}}));
    hub.forget();
    EXPECT_EQ(shown({{"BuildNumber", "456"}, {"HVVersion", std::string(94, 'v')}, {"PatchVersion", ""}}),
              (Items{{L"Sentrel_Version", std::wstring(94, L'v') + L" (456"}}));
}

TEST_F(AnAboutBox, LetsTheExceptionOutWhenTheFileCannotBeOpened) {
    EXPECT_THROW(deliver(1004), LibXmlError);
    writeFile(file, "<HVConfiguration>");
    EXPECT_THROW(deliver(1004), LibXmlError);
    EXPECT_TRUE(hub.replies.empty());
}

TEST_F(AnAboutBox, IsAnsweredWithTheWholeHeaderOfItsCommand) {
    shown(kWhole);
    EXPECT_EQ(reply().header.m_commandId, 1004);
    EXPECT_EQ(reply().header.m_token, 0x123456789abcdef0U);
    EXPECT_EQ(reply().header.m_sourceId, 4);
    EXPECT_EQ(reply().header.m_sequence, 99);
}

TEST_F(AnAboutBox, IsTraced) {
    configure(kWhole);
    EXPECT_EQ(leveled([this] { deliver(1004); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 1004",
                     "1 VXCommandImpl::handleCommand - Recieved CMD_ABOUT_BOX_REQUEST command",
                     "2 VXCommandImpl::handleAboutBox- Entered",
                     "3 VXCommandImpl::handleAboutBox - Sent response through HVBCommBroker"}));
}

TEST_F(AnAboutBox, TracesEachKeyThatCannotBeRead) {
    configure({});
    EXPECT_EQ(leveled([this] { deliver(1004); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 1004",
                     "1 VXCommandImpl::handleCommand - Recieved CMD_ABOUT_BOX_REQUEST command",
                     "2 VXCommandImpl::handleAboutBox- Entered",
                     "2 VXCommandImpl::handleAboutBox - Recieve xml exception while version",
                     "2 VXCommandImpl::handleAboutBox - Recieve xml exception while SP version",
                     "2 CommandImpl::handleAboutBox - Recieve xml exception while HF version",
                     "3 VXCommandImpl::handleAboutBox - Sent response through HVBCommBroker"}));
}

// The dashboard.

class ADashboard : public ACommandHandler {
protected:
    ADashboard() { Sentrel::VXController::getInstance(); }
    ~ADashboard() override {
        Sentrel::VXHVBAgentWrapper::releaseInstance();
        Sentrel::VXController::getInstance()->setAgentWrapper(nullptr);
    }

    /// An agent that gives this answer to the question for the managed status.
    void enrol(const std::wstring& answer) {
        agent.answer = answer;
        Sentrel::VXHVBAgentWrapper::getInstance(); // makes itself known to the controller
    }
    static void receivePolicy(bool enabled) {
        Sentrel::VXHVBAgentWrapper::getInstance()->setPolicyReceived();
        Sentrel::VXController::getInstance()->setPolicyEnabled(enabled);
    }
    /// How often the agent was asked for the managed status.
    long refreshes() {
        const auto calls = agent.calls();
        return std::count(calls.begin(), calls.end(), "getAgentInformation 0");
    }

    void expectShown(int status, const std::wstring& token) {
        EXPECT_TRUE(deliver(1003));
        EXPECT_TRUE(reply().succeeded);
        EXPECT_TRUE(reply().valid);
        const auto board = reply().payload<DashBoardData>();
        EXPECT_EQ(board.m_moduleId, 7);
        ASSERT_EQ(board.m_statusItems.size(), 1U);
        const auto& [key, line] = *board.m_statusItems.begin();
        EXPECT_EQ(key, L"ST_DASHBOARD_STATUS_KEY");
        EXPECT_EQ(line.m_displayText, token);
        EXPECT_EQ(static_cast<int>(line.m_status), status);
    }
    void expectTraced(const std::string& setting) {
        EXPECT_EQ(
            leveled([this] { deliver(1003); }),
            (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 1003",
                   "1 VXCommandImpl::handleCommand - Recieved CMD_DASH_BOARD_REQUEST command",
                   "2 VXCommandImpl::handleDashBoard- Entered", "2 CommandImpl::handleDashBoard- setting " + setting,
                   "3 VXCommandImpl::handleDashBoard - Sent response through HVBCommBroker"}));
    }

    AgentDouble& agent = AgentDouble::instance();
};

TEST_F(ADashboard, ShowsALocalMachineByItsPreferenceAndAsksNoAgent) {
    store.values.m_bEnable = true;
    expectShown(0, L"ENABLED_STRING");
    expectTraced("LOCAL-ENABLED");
    hub.forget();
    store.values.m_bEnable = false;
    expectShown(2, L"DISABLED_STRING");
    expectTraced("LOCAL-DISABLED");
    EXPECT_TRUE(agent.calls().empty());
}

TEST_F(ADashboard, IsAnsweredWithTheWholeHeaderOfItsCommand) {
    EXPECT_TRUE(deliver(1003));
    EXPECT_EQ(reply().header.m_commandId, 1003);
    EXPECT_EQ(reply().header.m_token, 0x123456789abcdef0U);
    EXPECT_EQ(reply().header.m_sourceId, 4);
    EXPECT_EQ(reply().header.m_sequence, 99);
}

TEST_F(ADashboard, ShowsAMachineThatIsNotManagedByItsPreference) {
    enrol(L"0");
    store.values.m_bEnable = true;
    expectShown(0, L"ENABLED_STRING");
    hub.forget();
    store.values.m_bEnable = false;
    expectShown(2, L"DISABLED_STRING");
}

TEST_F(ADashboard, AsksTheAgentAnewForEachRequest) {
    enrol(L"1");
    const long before = refreshes();
    expectShown(3, L"ENABLED_STRING");
    EXPECT_EQ(refreshes(), before + 1);
    hub.forget();
    agent.answer = L"0";
    expectShown(0, L"ENABLED_STRING");
    EXPECT_EQ(refreshes(), before + 2);
}

TEST_F(ADashboard, ShowsAManagedMachineThatIsOnAsEnabled) {
    enrol(L"1");
    expectShown(3, L"ENABLED_STRING");
    expectTraced("MGS-ENABLED");
    hub.forget();
    receivePolicy(false);
    expectShown(3, L"ENABLED_STRING");
}

TEST_F(ADashboard, ShowsAManagedMachineThatIsOffWithoutAPolicyAsDisabled) {
    enrol(L"1");
    Sentrel::VXController::getInstance()->setPolicyEnabled(true); // by a policy that is no longer known
    store.values.m_bEnable = false;
    expectShown(4, L"DISABLED_STRING");
    expectTraced("MGS-DISABLED");
}

TEST_F(ADashboard, ShowsAManagedMachineThatIsOffByPolicyAsDisabled) {
    enrol(L"2");
    receivePolicy(false);
    store.values.m_bEnable = false;
    expectShown(4, L"DISABLED_STRING");
}

TEST_F(ADashboard, ShowsAManagedMachineThatIsOffAgainstThePolicyAsAtRisk) {
    enrol(L"1");
    receivePolicy(true);
    store.values.m_bEnable = false;
    expectShown(5, L"DISABLED_STRING");
    expectTraced("MGS-RISK");
}

/// The preference is read up to three times; it turns on before the reading of this number.
class APreferenceThatTurnsOn : public ADashboard {
protected:
    void turnOnBeforeReading(int number) {
        store.values.m_bEnable = false;
        store.before = [this, number](const std::string& operation) {
            readings += operation == "get" ? 1 : 0;
            store.values.m_bEnable = readings >= number;
        };
    }
    int readings = 0;
};

TEST_F(APreferenceThatTurnsOn, MeansAtRiskBetweenTheFirstAndTheSecondReading) {
    enrol(L"1");
    turnOnBeforeReading(2);
    expectShown(5, L"DISABLED_STRING");
    EXPECT_EQ(readings, 2);
}

TEST_F(APreferenceThatTurnsOn, MeansAtRiskBetweenTheSecondAndTheThirdReadingWithoutAPolicy) {
    enrol(L"1");
    turnOnBeforeReading(3);
    expectShown(5, L"DISABLED_STRING");
    EXPECT_EQ(readings, 3);
}

TEST_F(APreferenceThatTurnsOn, IsNotReadAThirdTimeWhenAPolicyTellsWhatItShouldBe) {
    enrol(L"1");
    receivePolicy(false);
    turnOnBeforeReading(3);
    expectShown(4, L"DISABLED_STRING");
    EXPECT_EQ(readings, 2);
}

TEST_F(ADashboard, LetsAnExceptionOfTheControllerOutAndSendsNothing) {
    store.before = [](const std::string&) { throw HVB::HVBException(3, "no configuration"); };
    EXPECT_THROW(deliver(1003), HVB::HVBException);
    EXPECT_TRUE(hub.replies.empty());
}

} // namespace
