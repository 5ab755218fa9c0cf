// sentrelctl proxy. All of it is real: the program, the bus with the shipped policy, sentreld, the settings file.
#include "platform/hvbagent/SecretBox.h"
#include "tests/integration/ClientAlone.h"
#include "tests/support/AsUser.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace testing_support {
namespace {

/// A machine without hub and daemon, but with tables in its settings file.
class AProxyFile : public AClientAlone {
protected:
    AProxyFile() { m_machine.initSettings(); }

    std::string stored(const std::string& key) {
        return m_machine.sql("select value from vxsetting where name like '" + key + "%'");
    }

    void enrol() { std::ofstream(m_machine.root().hubConfigDirectory() + "/agent.json") << "{}"; }

    std::string m_key = m_machine.root().hubConfigDirectory() + "/agent.key";
};

/// The same with a daemon that stores what the hub tells.
class AProxyClient : public AProxyFile {
protected:
    AProxyClient() { EXPECT_TRUE(m_machine.startDaemon()); }
};

constexpr const char* kNoProxy = "host               none\n"
                                 "port               none\n"
                                 "type               none\n"
                                 "authentication     none\n"
                                 "user               none\n"
                                 "password           not set\n";

TEST_F(AProxyFile, IsShownWithoutHubAndDaemonToItsOwner) {
    m_machine.bus().kill9();
    EXPECT_EQ(does({"proxy", "show"}), kNoProxy);
}

TEST_F(AProxyClient, StoresAProxyWithoutAUser) {
    EXPECT_EQ(does({"proxy", "set", "proxy.example", "--port", "3128"}), "host               proxy.example\n"
                                                                         "port               3128\n"
                                                                         "type               0\n"
                                                                         "authentication     off\n"
                                                                         "user               none\n"
                                                                         "password           not set\n");
    EXPECT_EQ(stored("RPXProxyHost"), "proxy.example\n");
    EXPECT_EQ(stored("EnableHttpAuth").size(), 1U) << "the last field is stored too";
    EXPECT_EQ(does({"proxy", "show", "--json=short"}),
              R"({"host":"proxy.example","port":3128,"type":0,"authentication":false,"user":null,)"
              R"("password_set":false})"
              "\n");
}

/// A proxy client on a machine that is enrolled and has its key.
class AManagedProxyClient : public AProxyClient {
protected:
    AManagedProxyClient() {
        enrol();
        does({"agent", "keygen"});
    }

    std::string storedPassword() {
        std::string text = stored("HttpAuthPass");
        text.pop_back(); // the newline is sqlite3's
        return HVBEnterprise::agent::decrypted(HVBEnterprise::agent::SecretKey::load(m_key), text);
    }
};

TEST_F(AManagedProxyClient, StoresAPasswordEncrypted) {
    const std::string shown = "host               proxy.example\n"
                              "port               80\n"
                              "type               2\n"
                              "authentication     on\n"
                              "user               anna\n"
                              "password           set\n";
    EXPECT_EQ(does({"proxy", "set", "proxy.example", "--type", "2", "--user", "anna", "--auth", "--password-file", "-"},
                   "open sesame\n"),
              shown);
    EXPECT_EQ(stored("HttpAuthPass").find("sesame"), std::string::npos);
    EXPECT_EQ(storedPassword(), "open sesame");
    EXPECT_EQ(does({"proxy", "show"}), shown);
}

TEST_F(AManagedProxyClient, ReadsTheKeyOfTheDaemonsUserAsRoot) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can give files away";
    }
    PrivateRoot::giveTo(m_key, kNobody, kNogroup);
    does({"proxy", "set", "proxy.example", "--user", "anna"}, "open sesame");
    PrivateRoot::giveTo(m_key, 0, 0);
    EXPECT_EQ(storedPassword(), "open sesame");
}

TEST_F(AManagedProxyClient, RefusesAPasswordThatIsTooLongOnceItIsEncrypted) {
    expectFailure(use({"proxy", "set", "proxy.example", "--user", "anna"}, std::string(720, 'x')), 2,
                  "bad usage: password: encrypted it is longer than the browser components can take. Nothing was sent");
}

TEST_F(AProxyClient, StoresAPasswordFromAFileAsItIsWhenThatIsMeant) {
    const std::string file = m_machine.root().file("secret.txt");
    std::ofstream(file) << "open sesame\n";
    const std::string out =
        does({"proxy", "set", "proxy.example", "--user", "anna", "--password-file", file, "--as-is", "--json=short"});
    EXPECT_EQ(out, R"({"host":"proxy.example","port":80,"type":0,"authentication":false,"user":"anna",)"
                   R"("password_set":true})"
                   "\n");
    EXPECT_EQ(stored("HttpAuthPass"), "open sesame\n");
}

TEST_F(AProxyClient, AsksForThePasswordOnATerminalWithoutShowingIt) {
    if (!hasTerminals()) {
        GTEST_SKIP() << "this machine has no pseudo-terminals";
    }
    // What is typed before the prompt is dropped.
    const CtlResult result =
        shell(m_machine.root(), "cd '" + m_machine.root().path().string() +
                                    "' && mkfifo keys && { script -qec '\"$CTL\" proxy set proxy.example --user anna "
                                    "--as-is --json=short' /dev/null <keys >screen & } && exec 3>keys && "
                                    "until grep -qs shown screen; do :; done && printf 'open sesame\\n' >&3 && "
                                    "wait $!; code=$?; cat screen; exit $code");
    EXPECT_EQ(result.code, 0) << result.out;
    EXPECT_NE(result.out.find("Password of the proxy (it is not shown): \r\n{\"host\":\"proxy.example\","),
              std::string::npos)
        << result.out;
    EXPECT_EQ(result.out.find("sesame"), std::string::npos) << result.out;
    EXPECT_EQ(stored("HttpAuthPass"), "open sesame\n");
}

TEST_F(AProxyClient, SendsNoPasswordInClearUnlessThatIsMeant) {
    expectFailure(use({"proxy", "set", "proxy.example", "--user", "anna"}, "secret"), 1,
                  "cannot set the proxy: the password would be encrypted: this machine is not managed, so nobody could "
                  "decrypt it. Store it as it is with --as-is; the hub then shows it to nobody");
    enrol();
    expectFailure(use({"proxy", "set", "proxy.example", "--user", "anna"}, "secret"), 1,
                  "cannot set the proxy: the password cannot be encrypted: " + m_key +
                      ": cannot be opened: No such file or directory. Make the machine's key with 'sentrelctl agent "
                      "keygen', or store the password as it is with --as-is; the hub then shows it to nobody");
    EXPECT_EQ(does({"proxy", "show"}), kNoProxy);
}

TEST_F(AProxyClient, StoresTheSameProxyAgain) {
    const std::vector<std::string> arguments{"proxy", "set", "proxy.example"};
    const std::string first = does(arguments);
    EXPECT_EQ(does(arguments), first);
}

TEST_F(AProxyClient, IsRefusedByTheBusWithoutTheRight) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    expectFailure(use({"proxy", "set", "proxy.example"}, "", kNobody), 4,
                  "cannot set the proxy: the hub takes that event from root and its services alone. Run it as root");
    EXPECT_EQ(does({"proxy", "show"}), kNoProxy);
}

TEST_F(AProxyClient, ShowsWhatTheHubServesToWhomTheFileIsClosed) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    m_machine.startHub();
    EXPECT_EQ(use({"proxy", "show"}, "", kNobody).code, 1) << "there is no keeper";
    m_machine.startKeeper();
    const CtlResult none = use({"proxy", "show"}, "", kNobody);
    EXPECT_EQ(none.out, kNoProxy) << none.err;
    const CtlResult set = use({"proxy", "set", "proxy.example", "--user", "anna", "--as-is"}, "open sesame");
    EXPECT_EQ(set.code, 0) << set.err;
    const CtlResult shown = use({"proxy", "show"}, "", kNobody);
    EXPECT_EQ(shown.out, set.out) << shown.err;
}

TEST_F(AProxyClient, SaysWhenTheDaemonCouldNotStoreIt) {
    m_machine.sql("drop table vxsetting; create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name), "
                  "CHECK (name not like 'RPXProxyPort%'))");
    const CtlResult result = use({"proxy", "set", "proxy.example", "--port", "3128", "--timeout", "1"});
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(result.out.starts_with("host               proxy.example\n"
                                       "port               none\n"))
        << result.out;
    EXPECT_EQ(result.err, "sentrelctl: the proxy was not stored whole: " + m_machine.settingsFile() +
                              ": it does not hold what was sent after 1 seconds. Let the daemon's user write it; "
                              "'sentrelctl doctor' looks at it. Start the daemon again before you send the same once "
                              "more, which it would pass over.\n");
}

TEST_F(AProxyClient, SaysWhenItCannotSeeWhetherItIsStored) {
    std::filesystem::remove(m_machine.settingsFile());
    std::filesystem::create_directory(m_machine.settingsFile());
    expectFailure(use({"proxy", "set", "proxy.example"}), 1,
                  "the proxy was sent; whether it is stored cannot be seen: " + m_machine.settingsFile() +
                      ": it is not a regular file. Find out who put it there, and remove it");
}

TEST_F(AProxyClient, RefusesWhatCannotBeStored) {
    const auto refuse = [this](const std::vector<std::string>& options, const std::string& input,
                               const std::string& error) {
        std::vector<std::string> arguments{"proxy", "set"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        expectFailure(use(arguments, input), 2, "bad usage: " + error);
    };
    refuse({""}, "", "host: it has 0 bytes; 1 to 253 are taken. Nothing was sent");
    refuse({"0"}, "", "host: '0' stands for none in the settings file. Nothing was sent");
    refuse({"a b"}, "", "host: it has a blank in it. Nothing was sent");
    refuse({"a", "--user", "0", "--as-is"}, "x", "--user: '0' stands for none in the settings file. Nothing was sent");
    refuse({"a", "--user", "u", "--as-is"}, "", "password: it has 0 bytes; 1 to 1024 are taken. Nothing was sent");
    refuse({"a", "--user", "u", "--as-is"}, "a\tb", "password: it has a control character in it. Nothing was sent");
    refuse({"a", "--auth"}, "", "--auth, --password-file and --as-is need a --user. See 'sentrelctl proxy set --help'");
    refuse({"a", "--port", "0"}, "", "--port: Value 0 not in range 1 to 65535. See 'sentrelctl proxy set --help'");
    EXPECT_EQ(does({"proxy", "show"}), kNoProxy);
}

TEST_F(AProxyFile, IsReportedWhenItIsMissing) {
    std::filesystem::remove(m_machine.settingsFile());
    expectFailure(use({"proxy", "show"}), 1,
                  "cannot read the proxy settings: " + m_machine.settingsFile() +
                      ": there is no such file. Make it with 'sentrelctl settings init'");
}

} // namespace
} // namespace testing_support
