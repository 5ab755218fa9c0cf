// sentrelctl and what is stored: that a change is in the settings file, or that it is not. All of it is real: the
// program, the bus with the shipped policy, hvbd, the settings keeper, sentreld and the file, which other programs lock
// and break.
#include "tests/integration/PreferenceClientFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sys/stat.h>

namespace testing_support {
namespace {

TEST_F(APreferenceClient, ShowsEverySettingWithWhatIsInForceAndWhatIsStored) {
    does({"prefs", "set", "red-sites", "warn"});
    does({"list", "block", "http://a.example/"});
    m_machine.sql("insert into vxsetting values (cast(x'47656E506F6C696379426C6F636B5068697368696E67416374696F6E00' as "
                  "text), x'00000000'); insert into privateIPRange values ('10.0.0.0-10.0.0.9')");
    EXPECT_EQ(does({"prefs", "show", "--all"}),
              "                          in force                          stored\n"
              "protection                on                                not set\n"
              "safe-search               off                               not set\n"
              "red-sites                 warn                              warn\n"
              "yellow-sites              warn                              not set\n"
              "unrated-sites             allow                             not set\n"
              "unverified-sites          allow                             not set\n"
              "category-blocking         on                                not set\n"
              "allow-over-block          off                               not set\n"
              "block-phishing            not told                          off\n"
              "block-unreachable         not told                          not set\n"
              "block-uncategorised       not told                          not set\n"
              "log-green-sites           not told                          not set\n"
              "log-allowed-sites         not told                          not set\n"
              "list                      1 entry: 0 allow, 1 block         1 entry: 0 allow, 1 block\n"
              "categories                0                                 0\n"
              "private-ranges            not told                          1\n");
    const auto json = nlohmann::json::parse(does({"prefs", "show", "--all", "--json=short"}));
    EXPECT_EQ(json["red_sites"].dump(), R"({"in_force":"warn","stored":"warn"})");
    EXPECT_EQ(json["protection"].dump(), R"({"in_force":true,"stored":null})");
    EXPECT_EQ(json["block_phishing"].dump(), R"({"in_force":null,"stored":false})");
    EXPECT_EQ(json["private_ranges"].dump(), R"({"in_force":null,"stored":["10.0.0.0-10.0.0.9"]})");
    EXPECT_EQ(json["list"]["stored"], json["list"]["in_force"]);
}

TEST_F(APreferenceClient, GetsOneValue) {
    EXPECT_EQ(does({"prefs", "get", "yellow-sites"}), "warn\n");
    EXPECT_EQ(does({"prefs", "get", "protection", "--json=short"}), "{\"protection\":true}\n");
    EXPECT_EQ(does({"prefs", "get", "block-phishing"}), "on\n") << "its first value";
    EXPECT_EQ(does({"prefs", "get", "log-green-sites", "--json=short"}), "{\"log_green_sites\":false}\n");
    const CtlResult result = use({"prefs", "get", "phishing"});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.err.find("'phishing': not a preference: it is one of protection, "), std::string::npos)
        << result.err;
}

/// A daemon that cannot write the file while another program does.
class AFileThatTakesNothing : public APreferenceClient {
protected:
    void SetUp() override {
        const std::string fifo = m_machine.root().file("release");
        ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
        m_holder.emplace("sqlite3", ChildOptions{.arguments = {m_machine.settingsFile(), "BEGIN IMMEDIATE",
                                                               ".shell echo held; cat " + fifo},
                                                 .environment = {},
                                                 .outputFile = m_machine.root().file("holder.out"),
                                                 .uid = {},
                                                 .gid = {}});
        ASSERT_TRUE(eventually([&] { return m_holder->output() == "held\n"; })) << m_holder->output();
    }

    std::optional<ChildProcess> m_holder;
};

TEST_F(AFileThatTakesNothing, IsToldOfAfterEveryChangeThatIsInForceAlone) {
    const std::string advice =
        ". 'sentrelctl doctor' looks at the settings file; then make the change again, which needs "
        "another value in between.\n";
    for (const auto& [name, value, first] :
         std::vector<std::array<std::string, 3>>{{"protection", "off", "on"}, {"red-sites", "allow", "block"}}) {
        const CtlResult result = use({"prefs", "set", name, value});
        EXPECT_EQ(result.code, 1) << name;
        EXPECT_NE(result.out.find(value + "\n"), std::string::npos) << "what is in force: " << result.out;
        EXPECT_EQ(result.err, "sentrelctl: in force until the next start, not stored: " + name +
                                  ": the settings file has " + first + advice);
    }
}

TEST_F(APreferenceClient, DoesNotTakeAnothersChangeForOneThatIsNotStored) {
    m_machine.keeper().hold();
    CtlRun waits(m_machine.root(), {"list", "block", "http://a.example/"}); // until the keeper goes on
    EXPECT_TRUE(eventually([&] { return does({"list", "show"}) == "block  http://a.example/\n"; }));
    const CtlResult second = use({"prefs", "reset", "--timeout", "1"});
    m_machine.keeper().kill(SIGCONT);
    const CtlResult first = waits.finish();
    EXPECT_EQ(second.code, 0) << second.err;
    EXPECT_EQ(first.code, 1);
    EXPECT_EQ(first.err, "sentrelctl: not what was asked for: the list: it is in force no more. Somebody else may have "
                         "changed it at the same time; try again.\n");
}

TEST_F(APreferenceClient, RepairsTheFileWithTheHubsLastWholeSettings) {
    std::string lines;
    for (int i = 100; i < 400; ++i) {
        lines += "http://host" + std::to_string(i) + ".example/a/path/that/takes/room\n";
    }
    does({"list", "import", fileOf(lines)});
    does({"prefs", "set", "red-sites", "warn"});
    m_machine.stopDaemon();
    m_machine.kill9Keeper();
    m_machine.sql("pragma wal_checkpoint(truncate)");
    std::string content = readFile(m_machine.settingsFile());
    const std::size_t page = content.find("http://host250") / 4096 * 4096;
    std::ofstream(m_machine.settingsFile(), std::ios::binary) << content.replace(page, 2048, std::string(2048, '\xa5'));
    const CtlResult shown = use({"settings", "init", "--repair"});
    EXPECT_NE(shown.out.find(" rows more of the hub's last settings\n"), std::string::npos) << shown.out << shown.err;
    does({"settings", "init", "--repair", "--yes"});
    m_machine.startKeeper();
    EXPECT_TRUE(m_machine.startDaemon());
    const std::string exported = does({"list", "export"});
    EXPECT_EQ(std::count(exported.begin(), exported.end(), '\n'), 300);
    EXPECT_EQ(does({"prefs", "get", "red-sites"}), "warn\n");
}

TEST_F(APreferenceClient, SaysWhenNobodyCanTellWhatIsStored) {
    m_machine.kill9Keeper();
    const CtlResult result = use({"prefs", "set", "red-sites", "warn"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "red-sites          warn\n");
    EXPECT_TRUE(result.err.starts_with("sentrelctl: whether it is stored cannot be seen: the settings keeper is not "))
        << result.err;
}

TEST_F(APreferenceClient, SaysWhenTheFileCannotBeReadAndNotThatNothingIsStored) {
    m_machine.sql("pragma wal_checkpoint(truncate)");
    std::ofstream(m_machine.settingsFile(), std::ios::binary) << std::string(20'000, 'x');
    const CtlResult result = use({"prefs", "set", "red-sites", "warn"});
    EXPECT_EQ(result.code, 0) << result.out;
    EXPECT_TRUE(result.err.starts_with("sentrelctl: whether it is stored cannot be seen: ")) << result.err;
    EXPECT_NE(result.err.find("is not a database"), std::string::npos) << result.err;
}

} // namespace
} // namespace testing_support
