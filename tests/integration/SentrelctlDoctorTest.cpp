// sentrelctl doctor. All of it is real: the program, the files, the bus with the shipped policy, hvbd and sentreld.
// Each test breaks one thing of a machine.
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

constexpr const char* kShared = "/Users/Shared/.orvanta";
constexpr const char* kVar = "/usr/local/Orvanta/Sentrel/var";
constexpr const char* kHubVar = "/usr/local/Orvanta/hvb/var";
constexpr const char* kConfig = "/usr/local/Orvanta/hvb/config";

/// A machine on which nothing runs but the bus, and somebody who asks what is wrong with it.
class AnInstallation : public testing::Test {
protected:
    AnInstallation() { m_machine.initSettings(); }

    /// What the doctor says of one thing, the root's name left out.
    struct Finding {
        std::string result;
        std::string what;
        std::string advice;
        bool operator==(const Finding&) const = default;
        friend void PrintTo(const Finding& finding, std::ostream* out) {
            *out << finding.result << ": " << finding.what << " -> " << finding.advice;
        }
    };

    std::string withoutRoot(std::string text) {
        const std::string root = m_machine.root().path().string();
        for (std::size_t at = 0; (at = text.find(root, at)) != std::string::npos;) {
            text.erase(at, root.size());
        }
        return text;
    }

    CtlResult ask(const std::vector<std::string>& arguments, std::optional<uid_t> uid = {}) {
        std::vector<std::string> all{"doctor", "--timeout", "1"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        CtlResult result = ctl(m_machine.root(), all, "", uid);
        result.out = withoutRoot(result.out);
        return result;
    }

    /// Asks, and looks whether the exit code is what the findings ask for.
    Finding finding(const std::string& check, std::optional<uid_t> uid = {}) {
        const CtlResult result = ask({"--json=short"}, uid);
        const nlohmann::json answer = nlohmann::json::parse(result.out);
        EXPECT_EQ(result.code, answer.at("ok").get<bool>() ? 0 : 1) << result.err;
        Finding found;
        bool anyFailed = false;
        for (const nlohmann::json& each : answer.at("checks")) {
            anyFailed = anyFailed || each.at("result") == "failed";
            if (each.at("check") == check) {
                found = {each.at("result"), each.at("what"), each.at("advice").is_null() ? "" : each.at("advice")};
            }
        }
        EXPECT_EQ(answer.at("ok").get<bool>(), !anyFailed);
        return found;
    }

    void expectFailed(const std::string& check, const std::string& what, const std::string& advice) {
        EXPECT_EQ(finding(check), (Finding{"failed", what, advice})) << check;
    }
    void expectWarning(const std::string& check, const std::string& what, const std::string& advice) {
        EXPECT_EQ(finding(check), (Finding{"warning", what, advice})) << check;
    }
    void expectUnseen(const std::string& check, const std::string& what, std::optional<uid_t> uid = {}) {
        EXPECT_EQ(finding(check, uid), (Finding{"unseen", what, ""})) << check;
    }

    std::string at(const std::string& fixedPath) { return m_machine.root().under(fixedPath); }
    void setMode(const std::string& fixedPath, mode_t mode) {
        ASSERT_EQ(::chmod(at(fixedPath).c_str(), mode), 0) << fixedPath;
    }
    void write(const std::string& fixedPath, const std::string& content) {
        fs::remove(at(fixedPath));
        std::ofstream(at(fixedPath)) << content;
    }
    void giveToNobody(const std::string& fixedPath) { PrivateRoot::giveTo(at(fixedPath), kNobody, kNogroup); }

    Machine m_machine;
};

/// The same with hvbd and sentreld.
class ARunningInstallation : public AnInstallation {
protected:
    ARunningInstallation() {
        m_machine.startHub();
        EXPECT_TRUE(m_machine.startDaemon());
    }
};

TEST_F(ARunningInstallation, IsFoundHealthyInATable) {
    const CtlResult result = ask({});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    std::string text = std::regex_replace(result.out, std::regex("host-name .*\n( +->.*\n)?"), "");
    text = std::regex_replace(text, std::regex("the process \\d+\n"), "the process <pid>\n");
    text = std::regex_replace(text, std::regex("health .*\n"), "");
    const std::string user = ::geteuid() == 0 ? "root" : "";
    if (user.empty()) {
        GTEST_SKIP() << "the names in the table are those of root";
    }
    EXPECT_TRUE(text.starts_with(
        "shared-directory       ok       /Users/Shared/.orvanta is root's, mode 0755\n"
        "var-directory          ok       /usr/local/Orvanta/Sentrel/var is root's, mode 0755\n"
        "hub-directory          ok       /usr/local/Orvanta/hvb/var is root's, mode 0755\n"
        "config-directory       ok       /usr/local/Orvanta/hvb/config/Sentrel is root's, mode 0755\n"
        "bus-configuration      ok       /usr/local/Orvanta/hvb/config/hub-bus.conf: sentreld runs as 0, hvbd as 0, "
        "administrators are root alone\n"
        "module-configuration   ok       /usr/local/Orvanta/hvb/config/Sentrel/HVConfig.xml is complete\n"
        "debug-switch           ok       the daemon's user root can replace files in "
        "/usr/local/Orvanta/hvb/config/Sentrel\n"
        "trace-levels           ok       there is no /usr/local/Orvanta/Sentrel/var/traceValues.xml: nothing is "
        "traced\n"
        "management-agent       ok       there is no /usr/local/Orvanta/hvb/config/agent.json: the machine is not "
        "managed\n"
        "settings-file          ok       /Users/Shared/.orvanta/product.db is root's, mode 0644\n"
        "settings-tables        ok       /Users/Shared/.orvanta/product.db has all 4 tables\n"
        "hub-socket             ok       the bus answers at /usr/local/Orvanta/hvb/var/hvbdsocket64\n"
        "bus-policy             ok       the bus refuses an ordinary user what it should\n"
        "hvbd                   ok       hvbd answers as com.orvanta.hvb1.Hub\n"
        "log-store              ok       /usr/local/Orvanta/hvb/var/hvblog.db is root's, mode 0640\n"
        "sentreld               ok       sentreld answers as com.orvanta.hvb1.Module7\n"
        "event-socket           ok       sentreld listens at /Users/Shared/.orvanta/STIPC\n"
        "pid-file               ok       sentreld is the process <pid>\n"
        "20 checks: "))
        << text;
}

TEST_F(ARunningInstallation, IsFoundHealthyByAnotherUserAsFarAsThatOneSees) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    const CtlResult result = ask({}, kNobody);
    EXPECT_EQ(result.code, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("\nbus-policy             ok       the bus refuses an ordinary user what it should\n"),
              std::string::npos)
        << result.out;
    expectUnseen("health", "cannot be seen as this user: hvbd tells it to root alone", kNobody);
}

TEST_F(AnInstallation, HidesWhatAnotherUserMayNotSee) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    setMode(std::string(kVar), 0700);
    write(std::string(kConfig) + "/agent.json", "{}");
    setMode(std::string(kConfig) + "/agent.json", 0600);
    setMode(std::string(kConfig) + "/Sentrel/HVConfig.xml", 0600);
    expectUnseen("pid-file", std::string(kVar) + "/.STPid cannot be seen as this user: Permission denied", kNobody);
    expectUnseen("management-agent", std::string(kConfig) + "/agent.json cannot be read as this user", kNobody);
    expectUnseen("module-configuration", std::string(kConfig) + "/Sentrel/HVConfig.xml cannot be read as this user",
                 kNobody);
    setMode(std::string(kShared), 0711);
    setMode(std::string(kShared) + "/product.db", 0600);
    expectUnseen("settings-tables", std::string(kShared) + "/product.db cannot be read as this user", kNobody);
}

TEST_F(AnInstallation, ThatIsDownFailsWithTheStepsThatBringItUp) {
    m_machine.bus().kill9();
    const CtlResult result = ask({});
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(std::regex_match(result.err, std::regex("sentrelctl: something is wrong with this installation: \\d of "
                                                        "20 checks failed\\. Mend the first of them, then ask again: "
                                                        "others may come from it\\.\n")))
        << result.err;
    for (const char* row :
         {"\nhub-socket             FAILED   nobody listens at /usr/local/Orvanta/hvb/var/hvbdsocket64\n"
          "                                -> Start the hub's bus: dbus-daemon --nofork "
          "--config-file=/usr/local/Orvanta/hvb/config/hub-bus.conf\n",
          "\nbus-policy             unseen   the bus cannot be reached\n",
          "\nhvbd                   unseen   the bus cannot be reached\n",
          "\nsentreld               unseen   the bus cannot be reached\n",
          "\nevent-socket           FAILED   there is no /Users/Shared/.orvanta/STIPC\n"
          "                                -> Start sentreld, which makes it\n",
          "\npid-file               FAILED   there is no /usr/local/Orvanta/Sentrel/var/.STPid: sentreld does not run\n"
          "                                -> Start sentreld\n"}) {
        EXPECT_NE(result.out.find(row), std::string::npos) << row << "is not in\n" << result.out;
    }
}

TEST_F(AnInstallation, WithNothingInItIsToldOfAllThatIsMissing) {
    m_machine.bus().kill9();
    fs::remove_all(at("/usr"));
    fs::remove_all(at("/Users"));
    expectFailed("shared-directory", std::string("there is no ") + kShared,
                 std::string("Make it for the user whose it is to be: install -d -m 0755 -o USER ") + kShared);
    expectFailed("config-directory", std::string("there is no ") + kConfig + "/Sentrel",
                 std::string("Make it for the user whose it is to be: install -d -m 0755 -o USER ") + kConfig +
                     "/Sentrel");
    expectUnseen("debug-switch", "the directories of the configuration and of the daemon are not both there");
    expectUnseen("settings-tables", "there is no settings file");
}

// Directories.

TEST_F(AnInstallation, FailsWithADirectoryThatOthersCanWriteInto) {
    for (const auto& [check, path] :
         std::vector<std::pair<std::string, std::string>>{{"shared-directory", kShared},
                                                          {"var-directory", kVar},
                                                          {"hub-directory", kHubVar},
                                                          {"config-directory", std::string(kConfig) + "/Sentrel"}}) {
        setMode(path, 0777);
        expectFailed(check, "others than its owner can write into " + path + ": it has mode 0777",
                     "chmod go-w " + path + ", and look whether what is in it is yours");
        setMode(path, 0755);
        EXPECT_EQ(finding(check).result, "ok");
    }
}

TEST_F(AnInstallation, FailsWithADirectoryThatOthersCannotReach) {
    setMode(kHubVar, 0750);
    expectFailed("hub-directory", std::string("other users cannot reach what is in ") + kHubVar + ": it has mode 0750",
                 std::string("chmod a+rx ") + kHubVar);
}

TEST_F(AnInstallation, FailsWithAFileInTheDirectorysPlace) {
    fs::remove_all(at(kVar));
    write(kVar, "");
    expectFailed("var-directory", std::string(kVar) + " is no directory",
                 "Move away what is there, and make the directory with mode 0755");
}

TEST_F(AnInstallation, FailsWithDirectoriesOfTwoUsers) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can give files away";
    }
    giveToNobody(kVar);
    expectFailed("var-directory",
                 std::string(kVar) + " is nobody's and " + kShared + " is root's: both must be the daemon's",
                 "Give both to the user whom sentreld runs as, with chown");
}

// Configuration.

TEST_F(AnInstallation, FailsWithoutTheBusConfiguration) {
    const std::string path = std::string(kConfig) + "/hub-bus.conf";
    fs::remove(at(path));
    expectFailed("bus-configuration", "there is no " + path,
                 "Make it with 'hvbd --print-bus-config', see 'hvbd --help'");
}

TEST_F(AnInstallation, FailsWithABusConfigurationThatOthersCanWrite) {
    const std::string path = std::string(kConfig) + "/hub-bus.conf";
    setMode(path, 0664);
    expectFailed("bus-configuration", "others than its owner can write " + path + ": it has mode 0664",
                 "chmod go-w " + path + ", and make it anew with 'hvbd --print-bus-config'");
}

TEST_F(AnInstallation, WarnsOfABusConfigurationThatWasChanged) {
    const std::string path = std::string(kConfig) + "/hub-bus.conf";
    std::ofstream(at(path), std::ios::app) << "<!-- by hand -->\n";
    expectWarning("bus-configuration", path + " is not as this version's hvbd makes it",
                  "Make it with 'hvbd --print-bus-config' for these users and this group, and restart the bus and all "
                  "on it");
}

/// The configuration of the module, which each test spoils.
class AModuleConfiguration : public AnInstallation {
protected:
    void replace(const std::string& part, const std::string& by) {
        std::string text = contentOf(m_machine.configurationFile());
        ASSERT_NE(text.find(part), std::string::npos);
        write(m_path, text.replace(text.find(part), part.size(), by));
    }

    std::string m_path = std::string(kConfig) + "/Sentrel/HVConfig.xml";
    std::string m_advice = "Mend it: an example, HVConfig.example.xml, comes with the package";
};

TEST_F(AModuleConfiguration, FailsWhenItIsMissingOrALink) {
    fs::rename(at(m_path), at(m_path + ".away"));
    expectFailed("module-configuration", "there is no " + m_path,
                 "Put one there: an example, HVConfig.example.xml, comes with the package");
    fs::create_symlink(at(m_path + ".away"), at(m_path));
    expectFailed("module-configuration", m_path + " is a symbolic link, which hvbd does not follow",
                 "Put the file itself there");
}

TEST_F(AModuleConfiguration, FailsWhenItIsNotWellFormed) {
    replace("</HVConfiguration>", "");
    const Finding found = finding("module-configuration");
    EXPECT_EQ(found.result, "failed");
    EXPECT_NE(found.what.find(m_path), std::string::npos) << found.what;
    EXPECT_EQ(found.advice, m_advice);
}

TEST_F(AModuleConfiguration, FailsWithALevelThatIsNone) {
    replace("information", "loud");
    expectFailed("module-configuration",
                 m_path +
                     ": LogLevel is \"loud\" and none of error, warning, information, debug, verbose, audit, alert",
                 m_advice);
}

TEST_F(AModuleConfiguration, FailsWithASwitchThatIsNone) {
    replace("true", "perhaps");
    const Finding found = finding("module-configuration");
    EXPECT_EQ(found.result, "failed");
    EXPECT_NE(found.what.find("SyslogEnable"), std::string::npos) << found.what;
}

TEST_F(AModuleConfiguration, IsAWarningWithoutAVersion) {
    replace("<Hotfixes> </Hotfixes>", "");
    expectWarning("module-configuration", m_path + " has no Hotfixes: 'sentrelctl about' tells less", m_advice);
}

TEST_F(AnInstallation, WarnsWhenTheDaemonCannotSwitchDebugLogging) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can give files away";
    }
    giveToNobody(kShared);
    expectWarning("debug-switch",
                  std::string("the daemon's user nobody cannot replace files in ") + kConfig +
                      "/Sentrel: debug logging cannot be switched",
                  std::string("chown nobody ") + kConfig +
                      "/Sentrel, if debug logging is to be switched on this machine");
    giveToNobody(std::string(kConfig) + "/Sentrel");
    EXPECT_EQ(finding("debug-switch").result, "ok");
}

TEST_F(AnInstallation, JudgesTheTraceLevels) {
    const std::string path = std::string(kVar) + "/traceValues.xml";
    m_machine.setTraceLevels(2);
    EXPECT_EQ(finding("trace-levels"), (Finding{"ok", path + " is complete", ""}));
    m_machine.setTraceLevels(3);
    expectWarning("trace-levels",
                  "with configFlow at 3 and above the proxy's password goes to the trace log as it is stored",
                  "Lower it in " + path + " when nobody needs it, and restart the daemon");
    write(path, "<TraceValues><ipcFlow>6</ipcFlow></TraceValues>");
    const Finding levels = finding("trace-levels");
    EXPECT_EQ(levels.result, "warning");
    EXPECT_TRUE(levels.what.starts_with(path + " has no level from 0 to 5 for stDaemonFlow, ")) << levels.what;
    EXPECT_TRUE(levels.what.ends_with(", ipcFlow")) << levels.what;
    write(path, "<TraceValues>");
    const Finding malformed = finding("trace-levels");
    EXPECT_EQ(malformed.result, "failed");
    EXPECT_EQ(malformed.advice, "Mend it, or remove it, which ends tracing");
}

// The management agent.

/// A machine that is enrolled, with all that belongs to that.
class AnEnrolment : public AnInstallation {
protected:
    AnEnrolment() {
        enrol(R"({"broker": {"host": "broker.example", "port": 1883, "credentials": ")" + at(m_credentials) +
              R"("}, "site": "demo", "machine": "desk-1"})");
        write(m_credentials, R"({"user": "desk-1", "password": "secret"})");
        ::chmod(at(m_credentials).c_str(), 0600);
    }

    void enrol(const std::string& text) {
        write(m_path, text);
        ::chmod(at(m_path).c_str(), 0644);
    }

    std::string m_path = std::string(kConfig) + "/agent.json";
    std::string m_credentials = std::string(kConfig) + "/credentials.json";
};

TEST_F(AnEnrolment, IsTold) {
    EXPECT_EQ(finding("management-agent"), (Finding{"ok", "enrolled as desk-1 of demo at broker.example:1883", ""}));
}

TEST_F(AnEnrolment, FailsWhenItIsWrong) {
    constexpr const char* advice =
        "Mend the enrolment, or remove it, which leaves the machine unmanaged; then restart the daemon";
    enrol(R"({"broker": {"host": "broker.example", "port": 0}, "site": "demo"})");
    expectFailed("management-agent", m_path + ": /broker/port: is not an integer from 1 to 65535", advice);
    enrol("{");
    EXPECT_EQ(finding("management-agent").advice, advice);
    setMode(m_path, 0666);
    expectFailed("management-agent", "others than its owner can write " + m_path + ": it has mode 0666",
                 "chmod go-w " + m_path + ", and look whether it is still what you wrote");
}

TEST_F(AnEnrolment, FailsWithASecretThatIsNotTheDaemonsAlone) {
    setMode(m_credentials, 0640);
    expectFailed("management-agent", "others than its owner may use " + m_credentials + ": it has mode 0640",
                 "It must be the daemon's user's with mode 0600: " + m_credentials);
    fs::remove(at(m_credentials));
    EXPECT_EQ(finding("management-agent").what, "there is no " + m_credentials);
}

TEST_F(AnEnrolment, FailsWithAKeyOfAnotherUser) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can give files away";
    }
    const std::string key = std::string(kConfig) + "/agent.key";
    write(key, "");
    setMode(key, 0600);
    EXPECT_EQ(finding("management-agent").result, "ok");
    giveToNobody(key);
    EXPECT_EQ(finding("management-agent").what, key + " is nobody's and not the daemon's");
}

// The settings file.

TEST_F(AnInstallation, FailsWithoutTheSettingsFile) {
    const std::string path = std::string(kShared) + "/product.db";
    fs::rename(at(path), at(path + ".away"));
    expectFailed("settings-file", "there is no " + path, "Make it with 'sentrelctl settings init'");
    EXPECT_FALSE(fs::exists(at(path))) << "looking makes nothing";
    fs::create_symlink(at(path + ".away"), at(path));
    expectFailed("settings-file", path + " is no regular file",
                 "Find out who put it there, remove it, and run 'sentrelctl settings init'");
}

TEST_F(AnInstallation, JudgesTheModeOfTheSettingsFile) {
    const std::string path = std::string(kShared) + "/product.db";
    setMode(path, 0666);
    expectFailed("settings-file", "others than its owner can write " + path + ": it has mode 0666",
                 "chmod 0644 " + path);
    setMode(path, 0600);
    expectWarning("settings-file", "the browser components of other users cannot read " + path + ": it has mode 0600",
                  "chmod 0644 " + path);
}

TEST_F(AnInstallation, FailsWithASettingsFileOfAnotherUser) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can give files away";
    }
    const std::string path = std::string(kShared) + "/product.db";
    giveToNobody(path);
    expectFailed("settings-file", path + " is nobody's and not the daemon's", "chown root " + path);
}

TEST_F(AnInstallation, FailsWithoutATableOrWithAFileThatIsNone) {
    const std::string path = std::string(kShared) + "/product.db";
    m_machine.sql("drop table catblockinginfo; drop table privateIPRange");
    expectFailed("settings-tables", path + " lacks catblockinginfo, privateIPRange",
                 "Make them with 'sentrelctl settings init'");
    write(path, std::string(200, 'x'));
    expectFailed("settings-tables", "it is no database", "Nothing was changed; move the file away if it is not needed");
}

TEST_F(AnInstallation, DoesNotOpenASettingsFileWhereOthersCanPlantAJournal) {
    setMode(kShared, 0777);
    expectUnseen("settings-tables", "not opened while others can write into its directory");
}

// The bus.

TEST_F(AnInstallation, FailsWithoutTheHubsSocket) {
    const std::string path = std::string(kHubVar) + "/hvbdsocket64";
    m_machine.bus().kill9();
    fs::remove(at(path));
    const std::string start =
        std::string("Start the hub's bus: dbus-daemon --nofork --config-file=") + kConfig + "/hub-bus.conf";
    expectFailed("hub-socket", "there is no " + path, start);
    write(path, "");
    expectFailed("hub-socket", path + " is no socket", "Find out who put it there, remove it, and start the hub's bus");
}

TEST_F(AnInstallation, FailsWithABusThatDoesNotAnswer) {
    m_machine.bus().stop();
    expectFailed("hub-socket", std::string("the bus does not answer at ") + kHubVar + "/hvbdsocket64",
                 "Look at its dbus-daemon, and restart it");
    m_machine.bus().cont();
}

/// A bus whose configuration somebody has changed.
class AChangedBus : public AnInstallation {
protected:
    void letEverybody(const std::string& what) {
        const std::string path = std::string(kConfig) + "/hub-bus.conf";
        std::string text = contentOf(at(path));
        text.insert(text.find("</policy>"), "<allow " + what + "/>");
        write(path, text);
        m_machine.bus().kill9();
        m_machine.bus().restart();
    }

    std::string m_advice = "Another configuration is in force: make it with 'hvbd --print-bus-config', and restart the "
                           "bus and all on it";
};

TEST_F(AChangedBus, FailsWhenItLetsAnOrdinaryUserAsk) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as an ordinary user";
    }
    m_machine.startHub();
    EXPECT_EQ(finding("bus-policy").result, "ok");
    letEverybody("send_destination=\"com.orvanta.hvb1.Hub\"");
    m_machine.startHub();
    expectFailed("bus-policy", "the bus lets an ordinary user ask what only root may", m_advice);
}

TEST_F(AChangedBus, FailsWhenItLetsAnOrdinaryUserSendEvents) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as an ordinary user";
    }
    EXPECT_EQ(finding("bus-policy").result, "ok");
    letEverybody("send_type=\"signal\"");
    expectFailed("bus-policy", "the bus lets an ordinary user send events", m_advice);
}

// The processes.

TEST_F(ARunningInstallation, FailsWhenAProcessIsNotRunning) {
    m_machine.stopDaemon();
    expectFailed("sentreld", "sentreld is not on the bus", "Start sentreld; its messages are in the system log");
    m_machine.hub().terminate();
    expectFailed("hvbd", "hvbd is not on the bus", "Start hvbd; its messages are in the system log");
}

TEST_F(ARunningInstallation, FailsWhenAProcessHangs) {
    m_machine.daemon().hold();
    const Finding hung = finding("sentreld");
    EXPECT_EQ(hung.result, "failed");
    EXPECT_TRUE(hung.what.starts_with("sentreld does not answer: ")) << hung.what;
    EXPECT_EQ(hung.advice, "Restart sentreld");
    m_machine.daemon().kill(SIGCONT);
}

TEST_F(AnInstallation, TellsTheHealthThatHvbdFound) {
    ChildProcess hvbd(programUnderTest("HVBD_ROOTED"),
                      {.arguments = {"--health-interval", "1"},
                       .environment = {"SENTREL_INSTALL_ROOT=" + m_machine.root().path().string()},
                       .outputFile = m_machine.root().file("hvbd.out"),
                       .uid = {},
                       .gid = {}});
    ASSERT_TRUE(m_machine.startDaemon());
    ASSERT_TRUE(eventually([&] { return finding("health").what.starts_with("hvbd finds sentreld well since "); }));
    m_machine.kill9Daemon();
    ASSERT_TRUE(eventually([&] { return finding("health").result == "failed"; }));
    const Finding gone = finding("health");
    EXPECT_TRUE(gone.what.starts_with("hvbd found sentreld gone at ")) << gone.what;
    EXPECT_EQ(gone.advice, "Restart sentreld, unless it has just been started: hvbd checks every minute");
}

// What the processes leave behind.

TEST_F(ARunningInstallation, FailsWithALogStoreThatOthersCanRead) {
    const std::string path = std::string(kHubVar) + "/hvblog.db";
    setMode(path, 0644);
    expectFailed("log-store", "other users may use " + path + ", which holds what people browsed: it has mode 0644",
                 "chmod o= " + path + "*");
}

TEST_F(AnInstallation, SaysThatThereIsNoLogStoreYet) {
    expectUnseen("log-store", std::string("there is no ") + kHubVar + "/hvblog.db yet; hvbd makes it");
}

TEST_F(ARunningInstallation, FailsWithoutTheLogStore) {
    fs::remove(at(std::string(kHubVar) + "/hvblog.db"));
    expectFailed("log-store", std::string("there is no ") + kHubVar + "/hvblog.db, although hvbd runs",
                 "Let hvbd's user write into its directory, and restart hvbd");
}

TEST_F(ARunningInstallation, FailsWithAnEventSocketThatOthersCannotUse) {
    const std::string path = std::string(kShared) + "/STIPC";
    setMode(path, 0700);
    expectFailed("event-socket", "browsers of other users cannot report to " + path + ": it has mode 0700",
                 "chmod 0777 " + path + ", or restart sentreld");
}

TEST_F(ARunningInstallation, FailsAfterACrash) {
    const pid_t pid = m_machine.daemon().pid();
    m_machine.kill9Daemon();
    expectFailed("event-socket", std::string("nobody listens at ") + kShared + "/STIPC: Connection refused",
                 "Start sentreld");
    expectFailed("pid-file",
                 std::string(kVar) + "/.STPid names the process " + std::to_string(pid) +
                     ", which has ended without a clean stop",
                 "Start sentreld");
}

TEST_F(AnInstallation, FailsWithAFileInTheEventSocketsPlace) {
    write(std::string(kShared) + "/STIPC", "");
    expectFailed("event-socket", std::string(kShared) + "/STIPC is no socket",
                 "Find out who put it there, remove it, and start sentreld");
}

TEST_F(AnInstallation, FailsWithAPidFileOfSomethingElse) {
    const std::string path = std::string(kVar) + "/.STPid";
    write(path, "none");
    expectFailed("pid-file", path + " holds no process id", "Restart sentreld, which writes it");
    write(path, std::to_string(::getpid()));
    const Finding other = finding("pid-file");
    EXPECT_EQ(other.result, "failed");
    EXPECT_TRUE(other.what.ends_with(" and not sentreld")) << other.what;
}

TEST_F(ARunningInstallation, WarnsOfAPidFileThatIsGone) {
    fs::remove(at(std::string(kVar) + "/.STPid"));
    expectWarning("pid-file", std::string("there is no ") + kVar + "/.STPid, although sentreld runs",
                  "Restart sentreld, lest a second one is started beside it");
}

} // namespace
} // namespace testing_support
