// What sentrelctl doctor finds in the configuration: of the bus, of the module, of the trace, of the management agent.
#include "tests/integration/DoctorFixture.h"
#include "tests/support/ConfigurationFiles.h"
#include "tests/support/Files.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/stat.h>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

TEST_F(AnInstallation, FailsWithoutTheBusConfiguration) {
    const std::string path = std::string(kConfig) + "/hub-bus.conf";
    fs::remove(at(path));
    expectFailed("bus-configuration", "there is no " + path,
                 "Make it with 'hvbd --print-bus-config', see 'hvbd --help'");
}

TEST_F(AnInstallation, IsLookedAtInThePackagesPlaceWhenItHasOne) {
    const std::string made = std::string(kConfig) + "/hub-bus.conf";
    const std::string packaged = "/etc/sentrel/hub-bus.conf";
    fs::create_directories(at("/etc/sentrel"));
    fs::copy_file(at(made), at(packaged));
    fs::remove(at(made));
    EXPECT_EQ(finding("bus-configuration").result, "ok");
    setMode(packaged, 0666);
    expectFailed("bus-configuration", "others than its owner can write " + packaged + ": it has mode 0666",
                 "chmod go-w " + packaged + ", and make it anew with 'hvbd --print-bus-config'");
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
        std::string text = readFile(m_machine.configurationFile());
        ASSERT_NE(text.find(part), std::string::npos);
        write(m_path, text.replace(text.find(part), part.size(), by));
    }

    std::string m_path = std::string(kConfig) + "/Sentrel/HVConfig.xml";
    std::string m_advice = "Mend it: an example, HVConfig.example.xml, comes with the package";
};

TEST_F(AModuleConfiguration, FailsWhenItIsMissingAndWarnsWhenItIsALink) {
    fs::rename(at(m_path), at(m_path + ".away"));
    expectFailed("module-configuration", "there is no " + m_path,
                 "Put one there: an example, HVConfig.example.xml, comes with the package");
    fs::create_symlink(at(m_path + ".away"), at(m_path));
    expectWarning("module-configuration",
                  m_path + " is a symbolic link, which the daemon does not replace: debug logging cannot be switched",
                  m_advice);
    fs::remove(at(m_path + ".away"));
    expectFailed("module-configuration", "the daemon cannot use " + m_path + ": No such file or directory", m_advice);
}

TEST_F(AModuleConfiguration, FailsWhenItIsNotWellFormed) {
    replace("</HVConfiguration>", "");
    const Finding found = finding("module-configuration");
    EXPECT_EQ(found.result, "failed");
    EXPECT_NE(found.what.find(m_path), std::string::npos) << found.what;
    EXPECT_EQ(found.advice, m_advice);
}

TEST_F(AModuleConfiguration, IsAWarningWithALevelThatIsNone) {
    replace("information", "loud");
    expectWarning("module-configuration",
                  m_path + " has the LogLevel \"loud\", which is none: the daemon takes it for debug logging off, hvbd "
                           "for information",
                  m_advice);
}

TEST_F(AModuleConfiguration, FailsWithASwitchThatIsNone) {
    replace("true", "perhaps");
    expectFailed("module-configuration",
                 "the daemon cannot use " + m_path +
                     ": /HVConfiguration/SyslogEnable: \"perhaps\" is neither true nor false, line 3",
                 m_advice);
}

/// The daemon, hvbd and the doctor, each by its own way, at each file of the table. The daemon is started anew for
/// each, since it reads the file when it is first asked for something.
TEST_F(AModuleConfiguration, ComesToTheSameForTheDaemonForHvbdAndForTheDoctor) {
    m_machine.startHub({"--health-interval", "3600"});
    for (const ConfigurationFile& file : configurationFiles()) {
        lay(file, m_machine.configurationFile());
        ASSERT_TRUE(m_machine.startDaemon()) << file.name;
        const CtlResult shown = ctl(m_machine.root(), {"debug", "show"});
        EXPECT_EQ(shown.code == 0, file.isUsable) << file.name << ": " << shown.err;
        if (file.isUsable) {
            EXPECT_EQ(shown.out.find(" on\n") != std::string::npos, file.isDebugging) << file.name << shown.out;
        } else {
            EXPECT_NE(
                shown.err.find("HVConfig.xml: " + std::string(file.reason) + ". Mend that file, then try again.\n"),
                std::string::npos)
                << file.name << ": " << shown.err;
        }
        const CtlResult ping = ctl(m_machine.root(), {"hub", "ping", "--json=short"});
        EXPECT_EQ(ping.code, file.isUsable ? 0 : 1) << file.name << ping.err;
        const nlohmann::json daemon = nlohmann::json::parse(ping.out).back();
        EXPECT_EQ(daemon.at("problem").is_null() ? "" : daemon.at("problem"), file.reason) << file.name;
        std::map<std::string, Finding> all = findings();
        const Finding& found = all["module-configuration"];
        EXPECT_EQ(found.result != "failed", file.isUsable) << file.name << ": " << found.what;
        if (file.kind != ConfigurationFile::Kind::Missing) { // of which it says so in its own words
            EXPECT_TRUE(found.what.ends_with(file.reason)) << file.name << ": " << found.what;
        }
        EXPECT_EQ(all["health"].result == "failed", !file.isUsable) << file.name;
        m_machine.stopDaemon();
    }
}

TEST_F(AModuleConfiguration, FailsWhenTheDaemonsUserCannotReadIt) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can give files away";
    }
    setMode(m_path, 0640);
    EXPECT_EQ(finding("module-configuration").result, "ok");
    giveToNobody(kShared);
    expectFailed("module-configuration", "the daemon's user nobody cannot read " + m_path + ": it is root's, mode 0640",
                 "chown nobody " + m_path);
    giveToNobody(m_path);
    EXPECT_EQ(finding("module-configuration").result, "ok");
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

TEST_F(AnEnrolment, IsShownWithItsMachineSiteAndBroker) {
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

} // namespace
} // namespace testing_support
