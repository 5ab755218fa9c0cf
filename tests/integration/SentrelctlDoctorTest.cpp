// What sentrelctl doctor says of a whole installation, to root and to another user.
#include "tests/integration/DoctorFixture.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <unistd.h>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

TEST_F(ARunningInstallation, IsFoundHealthyInATable) {
    const CtlResult result = ask({});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    std::string text = std::regex_replace(result.out, std::regex("host-name .*\n( +->.*\n)?"), "");
    text = std::regex_replace(text, std::regex("the process \\d+\n"), "the process <pid>\n");
    text = std::regex_replace(text, std::regex("[0-9.]+ MiB for"), "<free> for");
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
        "disk-space             ok       free: <free> for the settings file, <free> for the log store, <free> for the "
        "spool; 8.0 MiB is the least\n"
        "settings-file          ok       /Users/Shared/.orvanta/product.db is root's, mode 0640\n"
        "settings-tables        ok       /Users/Shared/.orvanta/product.db has all 4 tables\n"
        "settings-content       ok       /Users/Shared/.orvanta/product.db is whole\n"
        "settings-values        ok       every setting is one that the daemon reads\n"
        "hub-socket             ok       the bus answers at /usr/local/Orvanta/hvb/var/hvbdsocket64\n"
        "bus-policy             ok       the bus refuses an ordinary user what it should\n"
        "hvbd                   ok       hvbd answers as com.orvanta.hvb1.Hub\n"
        "log-store              ok       /usr/local/Orvanta/hvb/var/hvblog.db is root's, mode 0640\n"
        "log-content            ok       /usr/local/Orvanta/hvb/var/hvblog.db is whole\n"
        "request-store          ok       there is no /usr/local/Orvanta/hvb/var/requests.db: nobody has asked for "
        "access\n"
        "rating-lists           ok       no rating list was imported: only the settings' own lists decide\n"
        "sentreld               ok       sentreld answers as com.orvanta.hvb1.Module7\n"
        "broker                 ok       the machine is not managed, and needs none\n"
        "event-socket           ok       sentreld listens at /Users/Shared/.orvanta/STIPC\n"
        "pid-file               ok       sentreld is the process <pid>\n"
        "one-daemon             ok       the PID file, the event socket, the hub's name Module7 are those of the "
        "process <pid>\n"
        "private-windows        ok       no browser has the extension for all users\n"
        "29 checks: "))
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
    expectUnseen("health", "cannot be seen as this user: hvbd tells it to root and the administrators", kNobody);
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

TEST_F(AnInstallation, NamesTheStepsThatBringItUpWhenItIsDown) {
    m_machine.bus().kill9();
    const CtlResult result = ask({});
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(std::regex_match(result.err, std::regex("sentrelctl: something is wrong with this installation: \\d of "
                                                        "29 checks failed\\. Mend the first of them, then ask again: "
                                                        "others may come from it\\.\n")))
        << result.err;
    for (const char* row :
         {"\nhub-socket             FAILED   nobody listens at /usr/local/Orvanta/hvb/var/hvbdsocket64\n"
          "                                -> Start the hub's bus: dbus-daemon --nofork "
          "--config-file=/usr/local/Orvanta/hvb/config/hub-bus.conf\n"
          "                                (bus-absent)\n",
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

TEST_F(AnInstallation, NamesAllThatIsMissingWhenItIsEmpty) {
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

} // namespace
} // namespace testing_support
