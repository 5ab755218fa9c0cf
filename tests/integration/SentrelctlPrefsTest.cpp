// sentrelctl and the preferences. All of it is real: the program, the bus with the shipped policy, hvbd, sentreld and
// the settings file, which the sqlite3 program looks into.
#include "tests/integration/PreferenceClientFixture.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>

namespace testing_support {
namespace {

constexpr const char* kFirstValues = "protection         on\n"
                                     "safe-search        off\n"
                                     "red-sites          block\n"
                                     "yellow-sites       warn\n"
                                     "unrated-sites      allow\n"
                                     "unverified-sites   allow\n"
                                     "category-blocking  on\n"
                                     "allow-over-block   off\n"
                                     "list               0 entries: 0 allow, 0 block\n"
                                     "categories         0 categories\n";

// Scalars.

TEST_F(APreferenceClient, ShowsEveryPreferenceInWords) {
    EXPECT_EQ(does({"prefs", "show"}), kFirstValues);
}

TEST_F(APreferenceClient, ShowsEveryPreferenceInJson) {
    EXPECT_EQ(does({"prefs", "show", "--json=short"}),
              R"({"protection":true,"safe_search":false,"red_sites":"block","yellow_sites":"warn",)"
              R"("unrated_sites":"allow","unverified_sites":"allow","category_blocking":true,)"
              R"("allow_over_block":false,"list":[],"categories":[]})"
              "\n");
}

TEST_F(APreferenceClient, SetsEachPreferenceAndShowsWhatIsInForce) {
    const std::vector<std::array<std::string, 3>> all{
        {"protection", "off", "hex(value)='00000000' and name like 'Enabled%'"},
        {"safe-search", "on", "hex(value)='01000000' and name like 'SSOn%'"},
        {"red-sites", "warn", "hex(value)='02000000' and name like 'RedSiteAction%'"},
        {"yellow-sites", "block", "hex(value)='03000000' and name like 'YellowSiteAction%'"},
        {"unrated-sites", "warn", "hex(value)='02000000' and name like 'UnverifiedSiteAction%'"},
        {"unverified-sites", "block", "hex(value)='03000000' and name like 'GenPolicyUnverifiedAction%'"},
        {"category-blocking", "off", "hex(value)='00000000' and name like 'CAT_Enabled%'"},
    };
    std::string shown;
    for (const auto& [name, value, row] : all) {
        std::string line = name;
        line.append(19 - name.size(), ' ').append(value).append("\n");
        EXPECT_EQ(does({"prefs", "set", name, value}), line);
        EXPECT_EQ(m_machine.sql("select count(*) from vxsetting where " + row), "1\n") << row;
        shown += line;
    }
    EXPECT_TRUE(does({"prefs", "show"}).starts_with(shown));
}

TEST_F(APreferenceClient, AnswersASetInJson) {
    EXPECT_EQ(does({"prefs", "set", "yellow-sites", "3", "--json=short"}), "{\"yellow_sites\":\"block\"}\n");
    EXPECT_EQ(does({"--json=short", "prefs", "set", "protection", "no"}), "{\"protection\":false}\n");
}

TEST_F(APreferenceClient, ResetsAndShowsWhatIsInForce) {
    does({"prefs", "set", "red-sites", "allow"});
    does({"prefs", "set", "protection", "off"});
    does({"prefs", "set", "unverified-sites", "block"});
    does({"list", "block", "http://a.example/"});
    does({"categories", "set", "Gambling"});
    EXPECT_EQ(does({"prefs", "reset"}), "protection         on\n"
                                        "safe-search        off\n"
                                        "red-sites          block\n"
                                        "yellow-sites       warn\n"
                                        "unrated-sites      allow\n"
                                        "unverified-sites   block\n"
                                        "category-blocking  off\n"
                                        "allow-over-block   off\n"
                                        "list               0 entries: 0 allow, 0 block\n"
                                        "categories         1 category\n");
}

TEST_F(APreferenceClient, ResetsOnATerminalOnlyWhenThatIsMeant) {
    if (!hasTerminals()) {
        GTEST_SKIP() << "this machine has no pseudo-terminals";
    }
    does({"prefs", "set", "red-sites", "allow"});
    const CtlResult refused = shell(m_machine.root(), "script -qec '\"$CTL\" prefs reset' /dev/null");
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.out, "sentrelctl: nothing was reset: it gives eight preferences their first values and empties "
                           "the allow/block list. Say that it is meant with --yes.\r\n");
    EXPECT_NE(does({"prefs", "show"}).find("red-sites          allow"), std::string::npos);
    EXPECT_EQ(shell(m_machine.root(), "script -qec '\"$CTL\" prefs reset --yes' /dev/null").code, 0);
    EXPECT_NE(does({"prefs", "show"}).find("red-sites          block"), std::string::npos);
}

// What can go wrong on the way.

TEST_F(AClientAlone, SaysThatTheDaemonIsNotRunning) {
    m_machine.startHub();
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"prefs", "show"},
                                               {"prefs", "set", "protection", "on"},
                                               {"prefs", "reset"},
                                               {"list", "show"},
                                               {"watch"}}) {
        const CtlResult result = use(arguments);
        EXPECT_EQ(result.code, 8) << arguments.front() << result.err;
        EXPECT_NE(result.err.find("com.orvanta.hvb1.Module7"), std::string::npos) << result.err;
    }
}

TEST_F(AClientAlone, SaysThatThereIsNoHub) {
    m_machine.bus().kill9();
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"prefs", "show"}, {"list", "allow", "a"}, {"categories", "add", "a"}, {"watch"}}) {
        const CtlResult result = use(arguments);
        EXPECT_EQ(result.code, 8) << result.err;
        EXPECT_TRUE(result.err.ends_with(". Start the hub (its dbus-daemon and hvbd), then try again.\n"))
            << result.err;
    }
}

TEST_F(APreferenceClient, GivesUpOnADaemonThatHangs) {
    m_machine.daemon().hold();
    const CtlResult read = use({"prefs", "show", "--timeout", "1"});
    EXPECT_EQ(read.code, 3) << read.err;
    EXPECT_TRUE(read.err.ends_with("Try again, or give it longer with --timeout.\n")) << read.err;
    const CtlResult written = use({"prefs", "set", "protection", "off", "--timeout", "0.2"});
    EXPECT_EQ(written.code, 3);
    EXPECT_TRUE(
        written.err.ends_with("The daemon may still do it: look with 'sentrelctl prefs show', or give it longer "
                              "with --timeout.\n"))
        << written.err;
    m_machine.daemon().kill(SIGCONT);
}

TEST_F(APreferenceClient, GivesUpOnAHubThatHangs) {
    m_machine.bus().stop();
    EXPECT_EQ(use({"prefs", "show", "--timeout", "1"}).code, 3);
    m_machine.bus().cont();
}

TEST_F(APreferenceClient, HasTheUrlsOfTheListOfferedToRemove) {
    does({"list", "block", "http://b.example/x", "http://b.example/y", "other.example", "http://c.example/?a&b=$(x)"});
    const auto offered = [this](const std::string& words, const std::string& line) {
        return offeredInBash(m_machine.root(), words, "sentrelctl " + line);
    };
    EXPECT_EQ(offered("list remove o", "list remove o"), "other.example ");
    EXPECT_EQ(offered("list remove ''", "list remove "),
              "http://b.example/x http://b.example/y http://c.example/\\?a\\&b=\\$\\(x\\) other.example ");
    EXPECT_EQ(offered("list remove http : //b", "list remove http://b"), "//b.example/x //b.example/y ")
        << "bash parts words at a colon";
    EXPECT_EQ(offered("list remove http : //c", "list remove http://c"), "//c.example/\\?a\\&b=\\$\\(x\\) ")
        << "a shell that takes it runs nothing";
    EXPECT_EQ(offered("list remove x", "list remove x"), " ");
    EXPECT_EQ(offered("list remove --a", "list remove --a"), "--all ");
}

TEST_F(APreferenceClient, HasTheBlockedCategoriesOfferedToRemove) {
    does({"categories", "set", "Gambling", "Social Networking", "Social Life"});
    const auto offered = [this](const std::string& words) { return offeredInBash(m_machine.root(), words); };
    EXPECT_EQ(offered("categories remove ''"), "Gambling Social\\ Life Social\\ Networking ");
    EXPECT_EQ(offered("categories remove 'Social\\ N'"), "Social\\ Networking ");
    m_machine.stopDaemon();
    EXPECT_EQ(offered("categories remove ''"), " ") << "nobody knows";
}

TEST_F(APreferenceClient, LetsEverybodyReadAndAdministratorsWrite) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    EXPECT_EQ(use({"prefs", "show"}, "", kNobody).out, kFirstValues);
    EXPECT_EQ(use({"list", "show"}, "", kNobody).code, 0);
    EXPECT_EQ(use({"categories", "show"}, "", kNobody).code, 0);
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"prefs", "set", "protection", "off"},
                                               {"prefs", "reset"},
                                               {"list", "allow", "a"},
                                               {"list", "import", "-"},
                                               {"categories", "set", "a"}}) {
        const CtlResult result = use(arguments, "a\n", kNobody);
        EXPECT_EQ(result.code, 4) << result.err;
        EXPECT_NE(result.err.find(": only root and members of the group sentrel-admin may. The hub says: "),
                  std::string::npos)
            << result.err;
    }
    EXPECT_EQ(does({"prefs", "show"}), kFirstValues);
}

TEST_F(APreferenceClient, SaysThatTheDaemonCannotReadItsConfiguration) {
    m_machine.stopDaemon();
    std::filesystem::remove(m_machine.configurationFile());
    m_machine.launchDaemon();
    const std::string problem = m_machine.configurationFile() + ": No such file or directory";
    ASSERT_TRUE(eventually([&] { return use({"hub", "ping"}).code == 1; }));
    EXPECT_EQ(use({"hub", "ping"}).err, "sentrelctl: not everybody can work: sentreld: it cannot use " + problem +
                                            ". Mend that file, then try again.\n");
    expectFailure(use({"prefs", "show"}), 1,
                  "cannot read the preferences: the daemon: Reading log level information from HVConfig.xml failed; "
                  "hvbd finds that the daemon cannot use " +
                      problem + ". Mend that file, then try again");
    if (canActAsOthers()) {
        expectFailure(
            use({"prefs", "show"}, "", kNobody), 1,
            "cannot read the preferences: the daemon: Reading log level information from HVConfig.xml failed. "
            "See that the daemon's user can read " +
                m_machine.configurationFile() + ", then try again");
        EXPECT_EQ(use({"hub", "ping"}, "", kNobody).code, 0) << "hvbd does not tell an ordinary user";
    }
    m_machine.installConfiguration();
    EXPECT_EQ(does({"prefs", "show"}), kFirstValues) << "it is looked for anew each time";
}

TEST_F(AClientAlone, SaysThatTheTablesAreMissingAndHowToMakeThem) {
    m_machine.startHub();
    m_machine.startKeeper();
    ASSERT_TRUE(m_machine.startDaemon());
    EXPECT_EQ(does({"prefs", "show"}), kFirstValues);
    expectFailure(
        use({"prefs", "set", "protection", "off"}), 1,
        "cannot change the preferences: the daemon cannot write the settings file: ST_ERROR_DATABASE (180003). "
        "Make its tables with 'sentrelctl settings init', or let the daemon's user write " +
            m_machine.settingsFile());
    expectFailure(use({"list", "block", "http://a.example/"}), 1,
                  "the list was not stored whole: 1 of 1 entries are missing: the first is http://a.example/. Run "
                  "'sentrelctl settings init'; if no table is missing, the file may be locked or the disk full");
    expectFailure(use({"categories", "add", "Gambling"}), 1,
                  "the categories were not stored as asked for: 1 were sent, 0 are in force. Run "
                  "'sentrelctl settings init'; if no table is missing, the file may be locked or the disk full");
    does({"settings", "init"});
    EXPECT_EQ(does({"prefs", "set", "protection", "off"}), "protection         off\n") << "the same daemon goes on";
    does({"list", "block", "http://a.example/"});
    does({"categories", "add", "Gambling"});
}

// The list.

TEST_F(APreferenceClient, EntersChangesAndRemovesUrls) {
    EXPECT_EQ(does({"list", "block", "http://b.example/", "http://c.example/"}),
              "block  http://b.example/\nblock  http://c.example/\nThe list has 2 entries: 0 allow, 2 block.\n");
    EXPECT_EQ(does({"list", "allow", "http://a.example/", "http://c.example/"}),
              "allow  http://a.example/\nallow  http://c.example/\nThe list has 3 entries: 2 allow, 1 block.\n");
    EXPECT_EQ(does({"list", "show"}), "block  http://b.example/\nallow  http://c.example/\nallow  http://a.example/\n");
    EXPECT_EQ(m_machine.sql("select name,value from allowblocksettings order by name"),
              "http://a.example/|0\nhttp://b.example/|1\nhttp://c.example/|0\n");
    EXPECT_EQ(does({"list", "remove", "http://b.example/"}), "The list has 2 entries: 2 allow, 0 block.\n");
    EXPECT_EQ(does({"list", "remove", "--all"}), "The list has 0 entries: 0 allow, 0 block.\n");
    EXPECT_EQ(does({"list", "show"}), "");
}

TEST_F(APreferenceClient, AnswersForTheListInJson) {
    EXPECT_EQ(
        does({"list", "block", "http://a.example/", "--json=short"}),
        R"({"entries":1,"allow":0,"block":1,"changed":[{"url":"http://a.example/","action":"block","code":1}],"ended_grants":[]})"
        "\n");
    EXPECT_EQ(does({"list", "show", "--json=short"}), R"([{"url":"http://a.example/","action":"block","code":1}])"
                                                      "\n");
    EXPECT_EQ(does({"list", "import", "--allow", "--json=short", "-"}, "b\n"),
              R"({"entries":2,"allow":1,"block":1,"imported":{"entries":1,"allow":1,"block":0},"ended_grants":[]})"
              "\n");
}

TEST_F(APreferenceClient, RemovesNothingWhenOneUrlIsNotInTheList) {
    does({"list", "block", "a"});
    expectFailure(use({"list", "remove", "a", "b"}), 1,
                  "nothing was removed: b: it is not in the list. 'sentrelctl list show' tells what is");
    EXPECT_EQ(does({"list", "show"}), "block  a\n");
}

TEST_F(APreferenceClient, KeepsEntriesThatItCouldNotHaveMade) {
    startAgainWith("insert into allowblocksettings values (cast(x'ff20' as text), -5), ('b' || char(27), 7)");
    does({"list", "allow", "http://a.example/"});
    EXPECT_EQ(m_machine.sql("select hex(name),value from allowblocksettings order by name"),
              "621B|7\n687474703A2F2F612E6578616D706C652F|0\nFF20|-5\n");
    EXPECT_EQ(does({"list", "show"}), "block  b\\x1b\nallow  http://a.example/\nblock  \\xff \n");
    const CtlResult exported = use({"list", "export"});
    EXPECT_EQ(exported.code, 1);
    EXPECT_EQ(exported.out, "allow http://a.example/\n");
    EXPECT_EQ(exported.err,
              "sentrelctl: not everything was exported: 2 of 3 entries fit into no line. 'sentrelctl list "
              "show' tells which.\n");
}

TEST_F(APreferenceClient, ImportsAFileBesidesWhatIsThere) {
    does({"list", "allow", "http://kept.example/"});
    const std::string file = fileOf("# from the office\r\nhttp://a.example/\r\n\n  allow http://b.example/  \n");
    EXPECT_EQ(does({"list", "import", file}),
              "Imported 2 entries: 1 allow, 1 block. The list has 3 entries: 2 allow, 1 "
              "block.\n");
    EXPECT_EQ(does({"list", "show"}),
              "block  http://a.example/\nallow  http://kept.example/\nallow  http://b.example/\n");
    does({"list", "import", "--allow", "--replace", "-"}, "http://c.example/");
    EXPECT_EQ(does({"list", "show"}), "allow  http://c.example/\n");
}

TEST_F(APreferenceClient, ImportsNothingFromAFileWithABadLine) {
    const std::string file = fileOf("good\na b\n\x01\nbetter\n");
    expectFailure(use({"list", "import", file}), 1,
                  file + ": line 2: it has white space in it.\nsentrelctl: " + file +
                      ": line 3: it has a control character in it.\nsentrelctl: nothing was imported: " + file +
                      ": 2 lines are no URL. Mend the file, or leave them out with --skip-bad");
    EXPECT_EQ(does({"list", "show"}), "");
    const CtlResult skipping = use({"list", "import", "--skip-bad", file});
    EXPECT_EQ(skipping.code, 0);
    EXPECT_EQ(skipping.out, "Imported 2 entries: 0 allow, 2 block. The list has 2 entries: 0 allow, 2 block.\n");
    EXPECT_NE(skipping.err.find("line 2: it has white space in it.\n"), std::string::npos);
}

TEST_F(APreferenceClient, ImportsNothingFromNothing) {
    does({"list", "block", "a"});
    expectFailure(use({"list", "import", "--replace", "-"}, "# nothing\n"), 1,
                  "nothing was imported: standard input: there is no URL in it. 'sentrelctl list remove --all' empties "
                  "the list");
    const std::string missing = m_machine.root().file("missing");
    expectFailure(use({"list", "import", missing}), 1, "cannot read: " + missing + ": No such file or directory");
    EXPECT_EQ(does({"list", "show"}), "block  a\n");
}

TEST_F(APreferenceClient, ImportsWhatItExported) {
    does({"list", "block", "http://b.example/", "allow", "#odd"});
    does({"list", "allow", "http://caf\xC3\xA9.example/"});
    const std::string shown = does({"list", "show"});
    const std::string file = m_machine.root().file("saved.txt");
    EXPECT_EQ(does({"list", "export", file}), "Exported 4 entries: 1 allow, 3 block to " + file + ".\n");
    EXPECT_EQ(readFile(file), does({"list", "export"}));
    does({"list", "remove", "--all"});
    does({"list", "import", file});
    EXPECT_EQ(does({"list", "show"}), shown);
    EXPECT_EQ(shell(m_machine.root(), "set -o pipefail; \"$CTL\" list export | \"$CTL\" list import --replace -").code,
              0);
    EXPECT_EQ(does({"list", "show"}), shown);
}

TEST_F(APreferenceClient, ImportsALongList) {
    std::string lines;
    for (int i = 0; i < 300; ++i) {
        lines += "http://site-" + std::to_string(i) + ".example/\n";
    }
    EXPECT_EQ(does({"list", "import", "-"}, lines),
              "Imported 300 entries: 0 allow, 300 block. The list has 300 entries: 0 allow, 300 block.\n");
    EXPECT_EQ(m_machine.sql("select count(*) from allowblocksettings"), "300\n");
}

TEST_F(APreferenceClient, RefusesAListThatIsTooLongBeforeItIsSent) {
    does({"list", "block", "a"});
    std::string lines;
    for (int i = 0; i < 100'000; ++i) {
        lines += std::to_string(i) + "\n";
    }
    const CtlResult result = use({"list", "import", "-"}, lines);
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err,
              "sentrelctl: cannot change the preferences: the list is too long: 100001 entries, at most 100000. "
              "Nothing was sent; shorten the list.\n");
    EXPECT_EQ(does({"list", "show"}), "block  a\n");
}

TEST_F(APreferenceClient, ShowsAListThatNoMessageHolds) {
    m_machine.sql("with recursive n(i) as (select 0 union all select i+1 from n where i < 19999) insert into "
                  "allowblocksettings select 'http://host' || i || '.example/a/path', 1 from n");
    static_cast<void>(m_machine.stopDaemon());
    ASSERT_TRUE(m_machine.startDaemon());
    const std::string shown = does({"list", "show", "--timeout", "60"});
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 20'000);
    EXPECT_NE(does({"prefs", "show", "--timeout", "60"}).find("20000 entries: 0 allow, 20000 block"),
              std::string::npos);
}

TEST_F(APreferenceClient, ShowsOnATerminalThatALongImportGoesOn) {
    if (!hasTerminals()) {
        GTEST_SKIP() << "this machine has no pseudo-terminals";
    }
    const std::string file = fileOf("http://a.example/\n");
    m_machine.daemon().hold();
    const CtlResult result =
        shell(m_machine.root(), "script -qec '\"$CTL\" list import --replace --timeout 3 " + file + "' /dev/null");
    m_machine.daemon().kill(SIGCONT);
    EXPECT_EQ(result.code, 3);
    EXPECT_TRUE(result.out.starts_with("\rStoring 1 entry: 0 allow, 1 block … 1 s")) << result.out;
    EXPECT_NE(result.out.find("\r   "), std::string::npos) << "the line is taken away";
}

TEST_F(APreferenceClient, ShowsHowFarAListIsThatIsBeingReplaced) {
    std::string lines;
    for (int i = 0; i < 3'000; ++i) {
        lines += "http://host" + std::to_string(i) + ".example/\n";
    }
    CtlRun import(m_machine.root(), {"list", "import", "--replace", fileOf(lines)});
    const std::regex said("sentrelctl: the list is being replaced: [0-9]+ of 3000 entries are stored\\.\n");
    EXPECT_TRUE(eventually([&] { return std::regex_match(use({"list", "show"}).err, said); }));
    const CtlResult imported = import.finish();
    EXPECT_EQ(imported.code, 0) << imported.err;
    EXPECT_EQ(imported.out, "Imported 3000 entries: 0 allow, 3000 block. The list has 3000 entries: 0 allow, 3000 "
                            "block.\n");
    EXPECT_EQ(use({"list", "show"}).err, "");
}

// Categories.

TEST_F(APreferenceClient, SetsAddsAndRemovesCategories) {
    EXPECT_EQ(does({"categories", "set", "Gambling", "Social Networking"}), "Gambling\nSocial Networking\n");
    EXPECT_EQ(does({"categories", "add", "Caf\xC3\xA9"}), "Caf\xC3\xA9\nGambling\nSocial Networking\n");
    EXPECT_EQ(does({"categories", "remove", "Gambling"}), "Caf\xC3\xA9\nSocial Networking\n");
    EXPECT_EQ(does({"categories", "show", "--json=short"}), "[\"Caf\\u00e9\",\"Social Networking\"]\n");
    EXPECT_EQ(does({"categories", "set", "News"}), "News\n");
    EXPECT_EQ(m_machine.sql("select name,hex(value) from catblockinginfo"), "News|01000000\n");
    EXPECT_EQ(does({"categories", "set", "--none"}), "");
    EXPECT_EQ(m_machine.sql("select count(*) from catblockinginfo"), "0\n");
}

TEST_F(APreferenceClient, RemovesNoCategoryWhenOneIsNotBlocked) {
    does({"categories", "set", "Gambling"});
    expectFailure(use({"categories", "remove", "Gambling", "News"}), 1,
                  "nothing was removed: News: it is not in the list. 'sentrelctl categories show' tells what is");
    EXPECT_EQ(does({"categories", "show"}), "Gambling\n");
}

TEST_F(APreferenceClient, SaysThatCategoriesAreDroppedWhileCategoryBlockingIsOff) {
    does({"prefs", "set", "category-blocking", "off"});
    expectFailure(use({"categories", "set", "Gambling"}), 1,
                  "nothing was changed: the daemon drops a category list while category blocking is off. Switch it on "
                  "with 'sentrelctl prefs set category-blocking on', then try again");
    does({"prefs", "set", "category-blocking", "on"});
    EXPECT_EQ(does({"categories", "set", "Gambling"}), "Gambling\n");
}

// Watching.

/// A watch that has shown what there was to begin with.
class AWatch : public APreferenceClient {
protected:
    AWatch() : m_run(m_machine.root(), {"watch"}) {
        EXPECT_TRUE(eventually([&] { return withoutTimes(m_run.out()) == start(); })) << m_run.out() << m_run.err();
    }

    static std::string start() { return std::string("<time>  watching\n") + kFirstValues; }

    void expectShown(const std::string& text) {
        m_shown += text;
        EXPECT_TRUE(eventually([&] { return withoutTimes(m_run.out()) == start() + m_shown; })) << m_run.out();
    }

    CtlRun m_run;
    std::string m_shown;
};

TEST_F(AWatch, ShowsEachChangeUntilItIsStopped) {
    does({"prefs", "set", "red-sites", "warn"});
    expectShown("<time>  preferences changed (1003)\n  red-sites          block -> warn\n");
    does({"prefs", "set", "protection", "off"});
    expectShown("<time>  status changed (1002)\n  protection         on -> off\n");
    does({"list", "block", "http://a.example/"});
    expectShown("<time>  preferences changed (1003)\n  list\n    + block http://a.example/\n");
    does({"list", "allow", "http://a.example/"});
    expectShown("<time>  preferences changed (1003)\n  list\n    - block http://a.example/\n"
                "    + allow http://a.example/\n");
    does({"categories", "add", "Gambling"});
    expectShown("<time>  preferences changed (1003)\n  categories\n    + Gambling\n");
    m_run.process().kill(SIGINT);
    const CtlResult result = m_run.finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(AWatch, ShowsWithTheNextEventWhatChangedWithoutOne) {
    does({"prefs", "set", "unverified-sites", "block"});
    does({"prefs", "set", "safe-search", "on"});
    expectShown("<time>  preferences changed (1003)\n  safe-search        off -> on\n"
                "  unverified-sites   allow -> block\n");
}

TEST_F(AWatch, ShowsAnEventAfterWhichNothingIsNew) {
    does({"prefs", "set", "safe-search", "off"});
    expectShown("<time>  preferences changed (1003): nothing new\n");
}

TEST_F(AWatch, ShowsBothEventsOfAReset) {
    does({"prefs", "set", "red-sites", "warn"});
    expectShown("<time>  preferences changed (1003)\n  red-sites          block -> warn\n");
    does({"prefs", "reset"});
    expectShown("<time>  preferences changed (1003)\n  red-sites          warn -> block\n"
                "  category-blocking  on -> off\n<time>  status changed (1002): nothing new\n");
}

TEST_F(AWatch, EndsWhenTheDaemonGoes) {
    m_machine.stopDaemon();
    const CtlResult result = m_run.finish();
    EXPECT_EQ(result.code, 8);
    EXPECT_NE(result.err.find("sentreld has left the bus"), std::string::npos) << result.err;
}

TEST_F(AWatch, EndsWhenTheHubProcessGoes) {
    m_machine.hub().kill(SIGKILL);
    const CtlResult result = m_run.finish();
    EXPECT_EQ(result.code, 8);
    EXPECT_NE(result.err.find("hvbd has left the bus"), std::string::npos) << result.err;
}

TEST_F(AWatch, EndsWhenTheBusGoes) {
    m_machine.bus().kill9();
    EXPECT_EQ(m_run.finish().code, 8);
}

TEST_F(APreferenceClient, WatchesInJsonALineAnEvent) {
    CtlRun run(m_machine.root(), {"watch", "--json=short"});
    ASSERT_TRUE(eventually([&] { return run.out().ends_with("\n"); })) << run.err();
    does({"prefs", "set", "red-sites", "warn"});
    std::string shown;
    ASSERT_TRUE(eventually([&] { return std::ranges::count(shown = withoutTimes(run.out()), '\n') == 2; })) << shown;
    const std::string second = shown.substr(shown.find('\n') + 1);
    const nlohmann::json start = nlohmann::json::parse(shown.substr(0, shown.find('\n')));
    EXPECT_TRUE(start.at("event").is_null());
    EXPECT_EQ(start.at("preferences").at("red_sites"), "block");
    EXPECT_EQ(second, R"({"time":"<time>","event":1003,"changes":[{"name":"red_sites","before":"block",)"
                      R"("after":"warn"}]})"
                      "\n");
    run.process().kill(SIGTERM);
    EXPECT_EQ(run.finish().code, 0);
}

TEST_F(APreferenceClient, WatchesNoLongerThanSomebodyReads) {
    EXPECT_EQ(shell(m_machine.root(), "set -o pipefail; \"$CTL\" watch -j | head -c 20 >/dev/null").code, 0);
}

} // namespace
} // namespace testing_support
