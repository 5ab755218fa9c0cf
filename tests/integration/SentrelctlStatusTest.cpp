// sentrelctl status, about and debug. Real: the program, the bus with the shipped policy, hvbd, sentreld and the hub's
// configuration file. Where an answer is needed that a healthy daemon does not give, the test stands in for sentreld.
#include "hub/Payloads.h"
#include "tests/integration/AnsweringModule.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <sys/stat.h>
#include <utility>

namespace testing_support {
namespace {

constexpr const char* kNoListsRow =
    "ratings            none: only your own lists and categories act; 'sentrelctl ratings import' brings a list in\n";

/// A machine on which nothing runs but the bus, and a client of it.
class AClientOfAMachine : public testing::Test {
protected:
    CtlResult use(const std::vector<std::string>& arguments, std::optional<uid_t> uid = {}) {
        return ctl(m_machine.root(), arguments, "", uid);
    }

    /// Uses it for something that works. @return its output.
    std::string does(const std::vector<std::string>& arguments, std::optional<uid_t> uid = {}) {
        const CtlResult result = use(arguments, uid);
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return result.out;
    }

    Machine m_machine;
};

/// The same with hvbd and sentreld.
class AClientOfADaemon : public AClientOfAMachine {
protected:
    AClientOfADaemon() {
        m_machine.initSettings();
        m_machine.startHub();
        m_machine.startKeeper();
        EXPECT_TRUE(m_machine.startDaemon());
    }

    /// The status without the health, which hvbd finds out when it comes to that, and what else has tests of its own.
    std::string statusWithoutHealth() {
        return std::regex_replace(does({"status"}), std::regex("(ratings|health|reports) .*\n"), "");
    }

    std::string configuration() { return readFile(m_machine.configurationFile()); }
};

// Status.

TEST_F(AClientOfADaemon, TellsTheStatusOfAMachineWithoutARatingListAndHowToGetOne) {
    EXPECT_NE(does({"status"}).find(kNoListsRow), std::string::npos);
    const CtlResult imported =
        ctl(m_machine.root(), {"ratings", "import", "bad", "-", "--format", "domains", "--rating", "60"},
            "one.example\ntwo.example\n");
    EXPECT_EQ(imported.code, 0) << imported.err;
    EXPECT_NE(does({"status"}).find("ratings            1 list with 2 hosts\n"), std::string::npos);
}

TEST_F(AClientOfADaemon, TellsTheStatusOfAnUnmanagedMachine) {
    EXPECT_EQ(statusWithoutHealth(), "status             enabled\n"
                                     "managed            no\n"
                                     "protection         on\n"
                                     "reason             the preference says on\n");
    does({"prefs", "set", "protection", "off"});
    EXPECT_EQ(statusWithoutHealth(), "status             disabled\n"
                                     "managed            no\n"
                                     "protection         off\n"
                                     "reason             the preference says off\n");
}

TEST_F(AClientOfADaemon, TellsTheStatusInJson) {
    const nlohmann::ordered_json status = nlohmann::ordered_json::parse(does({"status", "--json=short"}));
    const std::string text = status.dump();
    EXPECT_TRUE(text.starts_with(R"({"status":"enabled","code":0,"token":"ENABLED_STRING","managed":false,)"
                                 R"("protection":true,"reason":"the preference says on",)"
                                 R"("rating_lists":0,"rated_hosts":0,"ratings_error":null,"health":)"))
        << text;
}

TEST_F(AClientOfADaemon, TellsTheStatusToEveryUserButNotTheHealthToAnOrdinaryOne) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    EXPECT_EQ(does({"status"}, kNobody),
              "status             enabled\n"
              "managed            no\n"
              "protection         on\n"
              "reason             the preference says on\n" +
                  std::string(kNoListsRow) +
                  "health             unknown: hvbd tells it to root and the administrators\n"
                  "reports            unknown: root and the daemon's user may see them\n");
}

TEST(AnAdministrator, IsToldTheHealthAndCannotTryWhatAnOrdinaryUserMayNot) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    Machine machine("games", "nogroup"); // the client's only group is the administrators'
    machine.initSettings();
    machine.startHub({"--health-interval", "1"});
    ASSERT_TRUE(machine.startDaemon());
    EXPECT_TRUE(eventually([&] {
        const std::string status = ctl(machine.root(), {"status"}, "", kNobody).out;
        return status.find("\nhealth             well since ") != std::string::npos;
    })) << ctl(machine.root(), {"status"}, "", kNobody).out;
    const std::string found = ctl(machine.root(), {"doctor"}, "", kNobody).out;
    EXPECT_NE(found.find("\nhealth                 ok       hvbd finds sentreld well since "), std::string::npos)
        << found;
    EXPECT_NE(found.find("\nbus-policy             unseen   this user has rights of its own on the bus: "),
              std::string::npos)
        << found;
}

TEST_F(AClientOfADaemon, TellsTheStatusWithoutHvbd) {
    m_machine.hub().terminate();
    EXPECT_TRUE(does({"status"}).find("\nhealth             unknown: hvbd is not running\n") != std::string::npos);
}

TEST_F(AClientOfADaemon, TellsHowManyReportsWaitForTheHub) {
    EXPECT_TRUE(does({"status"}).ends_with("\nreports            0 waiting for the hub, 0 refused\n"));
    m_machine.hub().terminate();
    m_machine.deliver(sampleEvent());
    m_machine.deliver(sampleEvent());
    EXPECT_TRUE(does({"status"}).ends_with("\nreports            2 waiting for the hub, 0 refused\n"));
    EXPECT_EQ(nlohmann::json::parse(does({"status", "--json=short"})).at("reports_waiting"), 2);
    m_machine.startHub();
    EXPECT_TRUE(eventually([&] {
        return nlohmann::json::parse(does({"status", "--json=short"})).at("reports_waiting") == 0;
    }));
}

TEST_F(AClientOfAMachine, TellsTheHealthThatHvbdFound) {
    m_machine.initSettings();
    m_machine.startHub({"--health-interval", "1"});
    ASSERT_TRUE(m_machine.startDaemon());
    const std::regex well("health             well since \\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ\n");
    EXPECT_TRUE(eventually([&] { return std::regex_search(does({"status"}), well); })) << does({"status"});
    const nlohmann::json status = nlohmann::json::parse(does({"status", "--json=short"}));
    EXPECT_EQ(status.at("health"), "well");
    EXPECT_TRUE(status.at("health_since").is_string());
    EXPECT_TRUE(status.at("health_error").is_null());
}

TEST_F(AClientOfAMachine, SaysThatTheDaemonIsNotRunning) {
    m_machine.startHub();
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"status"}, {"about"}, {"debug", "on"}, {"debug", "show"}, {"proxy", "set", "proxy.example"}}) {
        const CtlResult result = use(arguments);
        EXPECT_EQ(result.code, 8) << arguments.front() << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find("com.orvanta.hvb1.Module7"), std::string::npos) << result.err;
    }
}

TEST_F(AClientOfAMachine, SaysThatThereIsNoHub) {
    m_machine.bus().kill9();
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"status"}, {"about"}, {"debug", "off"}, {"debug", "show"}, {"proxy", "set", "proxy.example"}}) {
        const CtlResult result = use(arguments);
        EXPECT_EQ(result.code, 8) << result.err;
        EXPECT_TRUE(result.err.ends_with(". Start the hub (its dbus-daemon and hvbd), then try again.\n"))
            << result.err;
    }
}

// About.

TEST_F(AClientOfADaemon, TellsTheVersions) {
    EXPECT_EQ(does({"about"}), "version            0.1.0 (1)\n"
                               "service-pack       none\n"
                               "hotfixes           none\n");
    EXPECT_EQ(does({"about", "--json=short"}),
              R"json({"module":7,"version":"0.1.0 (1)","service_pack":null,"hotfixes":null})json"
              "\n");
    std::ofstream(m_machine.configurationFile())
        << "<HVConfiguration><SyslogEnable>true</SyslogEnable><LogLevel>information</LogLevel>"
           "<HVVersion>1.2</HVVersion><BuildNumber>456</BuildNumber><PatchVersion>3</PatchVersion>"
           "<ServicePack>SP2</ServicePack><Hotfixes>HF7</Hotfixes></HVConfiguration>";
    EXPECT_EQ(does({"about"}), "version            1.2 3 (456)\n"
                               "service-pack       SP2\n"
                               "hotfixes           HF7\n");
}

TEST_F(AClientOfADaemon, SaysWhatToDoWhenTheVersionsCannotBeRead) {
    std::filesystem::remove(m_machine.configurationFile());
    const CtlResult result = use({"about"});
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(result.err.starts_with("sentrelctl: cannot read the versions: the daemon: ")) << result.err;
    EXPECT_TRUE(result.err.ends_with("; hvbd finds that the daemon cannot use " + m_machine.configurationFile() +
                                     ": No such file or directory. Mend that file, then try again.\n"))
        << result.err;
    m_machine.hub().terminate();
    EXPECT_TRUE(use({"about"}).err.ends_with(". See that the daemon's user can read " + m_machine.configurationFile() +
                                             ", then try again.\n"))
        << "without hvbd";
}

// Debug logging.

TEST_F(AClientOfADaemon, SwitchesDebugLoggingAndSaysWhatIsInForce) {
    EXPECT_EQ(does({"debug", "show"}), "debug-logging      off\n");
    EXPECT_EQ(does({"debug", "on"}), "debug-logging      on\n");
    EXPECT_NE(configuration().find("<LogLevel>debug</LogLevel>"), std::string::npos) << configuration();
    EXPECT_EQ(does({"debug", "show", "--json=short"}), "{\"debug_logging\":true}\n");
    EXPECT_EQ(does({"debug", "on"}), "debug-logging      on\n") << "it is on already";
    EXPECT_EQ(does({"debug", "off", "--json=short"}), "{\"debug_logging\":false}\n");
    EXPECT_NE(configuration().find("<LogLevel>information</LogLevel>"), std::string::npos) << configuration();
}

TEST_F(AClientOfADaemon, SwitchesDebugLoggingForAdministratorsAlone) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    EXPECT_EQ(does({"debug", "show"}, kNobody), "debug-logging      off\n");
    const CtlResult refused = use({"debug", "on"}, kNobody);
    EXPECT_EQ(refused.code, 4);
    EXPECT_TRUE(refused.err.starts_with("sentrelctl: cannot switch the debug logging: only root and members of the "
                                        "group sentrel-admin may. The hub says: "))
        << refused.err;
    EXPECT_EQ(does({"debug", "show"}), "debug-logging      off\n");
}

TEST_F(AClientOfADaemon, SaysWhatToLookAtWhenTheDaemonCannotReadItsConfiguration) {
    std::filesystem::remove(m_machine.configurationFile());
    const CtlResult result = use({"debug", "on"}); // the first that asks for a preference, which reads the file
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "sentrelctl: cannot switch the debug logging: the daemon: the module did not answer; hvbd finds "
              "that the daemon cannot use " +
                  m_machine.configurationFile() + ": No such file or directory. Mend that file, then try again.\n");
}

TEST_F(AClientOfADaemon, SaysWhatToLookAtWhenDebugLoggingDoesNotChange) {
    does({"debug", "show"});
    std::filesystem::remove(m_machine.configurationFile());
    std::filesystem::create_directory(m_machine.configurationFile());
    const CtlResult result = use({"debug", "on", "--timeout", "1"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "debug-logging      off\n");
    EXPECT_EQ(result.err, "sentrelctl: not what was asked for: debug-logging: it is still off after 1 seconds. See "
                          "that the daemon's user can write " +
                              m_machine.configurationFile() +
                              " and its directory, and that no other change was under way; 'sentrelctl doctor' looks "
                              "at the file.\n");
}

TEST_F(AClientOfADaemon, GivesUpOnADaemonThatHangs) {
    m_machine.daemon().hold();
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"status", "--timeout", "1"}, {"about", "--timeout", "1"}, {"debug", "show", "--timeout", "1"}}) {
        const CtlResult result = use(arguments);
        EXPECT_EQ(result.code, 3) << result.err;
        EXPECT_TRUE(result.err.ends_with("Try again, or give it longer with --timeout.\n")) << result.err;
    }
    const CtlResult result = use({"debug", "on", "--timeout", "1"});
    EXPECT_EQ(result.code, 3);
    EXPECT_TRUE(result.err.ends_with("The daemon may still do it: look with 'sentrelctl debug show'.\n")) << result.err;
    m_machine.daemon().kill(SIGCONT);
}

// Answers that a healthy daemon does not give.

void answerWithStatus(int status, HVB::CommandResult& result) {
    DashBoardData data;
    data.m_statusItems[L"ST_DASHBOARD_STATUS_KEY"].m_status = static_cast<DashBoardStatus>(status);
    result.writePayload(data);
}

TEST_F(AModuleThatAnswers, HasEachStatusShownInWords) {
    const std::vector<std::pair<int, std::string>> words{
        {0, "enabled"}, {2, "disabled"}, {3, "enabled"}, {4, "disabled"}, {5, "at risk"}};
    for (const auto& [code, word] : words) {
        const Answer answer = [status = code](HVB::CommandResult& result) { answerWithStatus(status, result); };
        const CtlResult result = useWith(answer, {"status", "--json=short"});
        EXPECT_EQ(result.code, 0) << result.err;
        const nlohmann::json json = nlohmann::json::parse(result.out);
        EXPECT_EQ(json.at("status"), word);
        EXPECT_EQ(json.at("code"), code);
        EXPECT_EQ(json.at("managed"), code >= 3);
    }
    EXPECT_EQ(useWith([](HVB::CommandResult& result) { answerWithStatus(5, result); }, {"status"}).out,
              "status             at risk\n"
              "managed            yes\n"
              "protection         off\n"
              "reason             the policy says on, the preference says off\n" +
                  std::string(kNoListsRow) +
                  "health             unknown: hvbd is not running\n"
                  "reports            unknown: the daemon has made no spool yet\n");
}

TEST_F(AModuleThatAnswers, IsQuotedWhenItsAnswerCannotBeRead) {
    const Answer nothing = [](HVB::CommandResult& /*result*/) {};
    const Answer number = answerWith(7);
    const Answer noLine = [](HVB::CommandResult& result) { result.writePayload(DashBoardData()); };
    const auto expectError = [](const CtlResult& result, const std::string& error) {
        EXPECT_EQ(result.code, 1);
        EXPECT_TRUE(result.err.starts_with("sentrelctl: " + error)) << result.err;
        EXPECT_TRUE(result.err.ends_with(". Use a sentrelctl of the daemon's version.\n")) << result.err;
    };
    expectError(useWith(nothing, {"status"}),
                "cannot read the status: the daemon's answer cannot be read: it has no payload");
    expectError(useWith(noLine, {"status"}),
                "cannot read the status: the daemon's answer cannot be read: it has no status line");
    expectError(useWith(number, {"about"}), "cannot read the versions: the daemon's answer cannot be read: ");
    const Answer noArchive = [](HVB::CommandResult& result) {
        result.m_bHasPayload = true;
        result.m_pOutStream->str(L"noise");
    };
    expectError(useWith(noArchive, {"about"}),
                "cannot read the versions: the daemon's answer cannot be read: invalid signature");
    expectError(useWith(nothing, {"debug", "show"}),
                "cannot read the debug logging: the daemon's answer cannot be read: it has no payload");
}

TEST_F(AModuleThatAnswers, IsQuotedWhenItSaysThatTheCommandFailed) {
    for (bool HVB::CommandResult::*flag : {&HVB::CommandResult::m_bSucceeded, &HVB::CommandResult::m_bValid}) {
        const Answer failure = [flag](HVB::CommandResult& answer) {
            answerWithStatus(0, answer);
            answer.*flag = false;
        };
        const CtlResult result = useWith(failure, {"status"});
        EXPECT_EQ(result.code, 1);
        EXPECT_TRUE(result.err.starts_with("sentrelctl: cannot read the status: the daemon: it says that the command "
                                           "failed. "))
            << result.err;
    }
}

TEST_F(AModuleThatAnswers, IsAskedAgainAfterASwitchUntilItHasMadeIt) {
    std::atomic<bool> isOn = false;
    std::atomic<int> questions = 0;
    const Answer switchLate = [&](HVB::CommandResult& answer) {
        if (answer.m_commandData.m_commandId == Sentrel::CMD_GET_DEBUG_LOGGING_STATUS) {
            answer.writePayload(isOn.load());
            if (++questions == 1) { // the switch comes about behind the first look, and is signalled
                isOn = true;
                HVB::EventData event(Sentrel::EVT_PREFERENCES_CHANGE);
                answeringModule().broker().sendEventNotification(event);
            }
        }
    };
    const CtlResult result = useWith(switchLate, {"debug", "on"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "debug-logging      on\n");
    EXPECT_EQ(questions, 2);
}

TEST_F(AModuleThatAnswers, IsToldAgainWhenItDroppedASwitch) {
    std::atomic<int> switches = 0;
    const Answer dropFirstSwitch = [&](HVB::CommandResult& answer) {
        if (answer.m_commandData.m_commandId == Sentrel::CMD_GET_DEBUG_LOGGING_STATUS) {
            answer.writePayload(switches == 2);
        } else {
            ++switches;
        }
    };
    const CtlResult result = useWith(dropFirstSwitch, {"debug", "on"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "debug-logging      on\n");
    EXPECT_EQ(switches, 2);
}

} // namespace
} // namespace testing_support
