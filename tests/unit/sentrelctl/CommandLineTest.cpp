// The whole command line in this process, as far as no other process is needed: help, version and bad usage.
#include "apps/sentrelctl/Session.h"
#include "base/FileReading.h"
#include "tests/support/AsUser.h"
#include "tests/support/PrivateRoot.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Sentrel::ctl {
namespace {

/// Everything that a descriptor has taken.
class Captured {
public:
    Captured() : m_fd(::memfd_create("captured", MFD_CLOEXEC)), m_output(m_fd) {}
    ~Captured() { ::close(m_fd); }
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;

    Output& output() { return m_output; }

    std::string text() const {
        ::lseek(m_fd, 0, SEEK_SET);
        return readUpTo(m_fd, SIZE_MAX, "captured");
    }

private:
    int m_fd;
    Output m_output;
};

/// The command line, used by somebody who gets it wrong or asks for help.
class ACommandLine : public testing::Test {
protected:
    int use(const std::vector<std::string>& arguments) { return run(arguments, m_out.output(), m_err.output(), -1); }

    /// What is said on standard output.
    static std::string said(const std::vector<std::string>& arguments) {
        Captured out;
        Captured err;
        EXPECT_EQ(run(arguments, out.output(), err.output(), -1), 0) << err.text();
        return out.text();
    }

    void expectRefused(const std::vector<std::string>& arguments, const std::string& error) {
        Captured out;
        Captured err;
        EXPECT_EQ(run(arguments, out.output(), err.output(), -1), 2) << error;
        EXPECT_EQ(out.text(), "") << error;
        EXPECT_EQ(err.text(), error + "\n");
    }

    Captured m_out;
    Captured m_err;
};

TEST_F(ACommandLine, TellsItsVersion) {
    EXPECT_EQ(use({"--version"}), 0);
    EXPECT_EQ(m_out.text().substr(0, 11), "sentrelctl ");
    EXPECT_EQ(m_err.text(), "");
    EXPECT_EQ(said({"-V"}), m_out.text());
}

TEST_F(ACommandLine, HasHelpAsAVerbToo) {
    const std::string whole = said({"--help"});
    EXPECT_NE(whole.find("\n  help  "), std::string::npos) << whole;
    EXPECT_EQ(said({"help"}), whole);
    EXPECT_EQ(said({"help", "log"}), said({"log", "--help"}));
    EXPECT_EQ(said({"help", "prefs", "set"}), said({"prefs", "set", "--help"}));
    EXPECT_EQ(said({"help", "prefs"}), said({"prefs", "--help"}));
    EXPECT_NE(said({"help", "prefs"}), whole);
}

TEST_F(ACommandLine, HasNoHelpForAVerbThatThereIsNot) {
    const std::string error =
        "sentrelctl: bad usage: 'lgo' was not expected. Perhaps 'log' is meant; see 'sentrelctl --help'.";
    expectRefused({"help", "lgo"}, error);
    expectRefused({"lgo", "--help"}, error);
}

TEST_F(ACommandLine, SaysWhatAMistypedVerbOrOptionMayHaveBeenMeantFor) {
    expectRefused({"dcotor"}, "sentrelctl: bad usage: 'dcotor' was not expected. Perhaps 'doctor' is meant; see "
                              "'sentrelctl --help'.");
    expectRefused({"prefs", "shwo"}, "sentrelctl: bad usage: 'shwo' was not expected. Perhaps 'show' is meant; see "
                                     "'sentrelctl prefs --help'.");
    expectRefused({"log", "--limt=5"}, "sentrelctl: bad usage: '--limt=5' was not expected. Perhaps '--limit' is "
                                       "meant; see 'sentrelctl log --help'.");
    expectRefused({"status", "--jsno"}, "sentrelctl: bad usage: '--jsno' was not expected. Perhaps '--json' is meant; "
                                        "see 'sentrelctl status --help'.");
    expectRefused({"event", std::string(1000, 'x')}, "sentrelctl: bad usage: '" + std::string(61, 'x') +
                                                         "\xE2\x80\xA6' was not expected. See 'sentrelctl event "
                                                         "--help'.");
}

TEST_F(ACommandLine, TakesTheModeOfJsonAsAWordOfItsOwn) {
    const std::vector<std::string> mistyped{"prefs", "set", "red-sites", "x"};
    const auto refused = [&](std::vector<std::string> options, bool isInFront) {
        options.insert(isInFront ? options.end() : options.begin(), mistyped.begin(), mistyped.end());
        Captured out;
        Captured err;
        EXPECT_EQ(run(options, out.output(), err.output(), -1), 2);
        return err.text();
    };
    const std::string error = refused({}, true);
    for (const char* mode : {"short", "pretty", "off"}) {
        EXPECT_EQ(refused({"--json", mode}, true), error) << mode;
    }
    EXPECT_EQ(refused({"--json", "short"}, false), error);
    EXPECT_NE(refused({"--json", "off"}, false), error) << "behind a verb it is an argument: debug --json off";
    EXPECT_NE(refused({"--json", "xml"}, true), error);
    EXPECT_NE(refused({"--", "--json", "short"}, false), error);
}

TEST_F(ACommandLine, ShowsHelpWithAnExampleForEveryVerb) {
    const std::vector<std::vector<std::string>> verbs{{},
                                                      {"event", "send"},
                                                      {"decrypt"},
                                                      {"log"},
                                                      {"hub", "ping"},
                                                      {"prefs", "show"},
                                                      {"prefs", "set"},
                                                      {"prefs", "reset"},
                                                      {"list", "show"},
                                                      {"list", "allow"},
                                                      {"list", "block"},
                                                      {"list", "remove"},
                                                      {"list", "import"},
                                                      {"list", "export"},
                                                      {"categories", "show"},
                                                      {"categories", "set"},
                                                      {"categories", "add"},
                                                      {"categories", "remove"},
                                                      {"watch"},
                                                      {"settings", "init"},
                                                      {"status"},
                                                      {"about"},
                                                      {"doctor"},
                                                      {"debug", "on"},
                                                      {"debug", "off"},
                                                      {"debug", "show"},
                                                      {"proxy", "set"},
                                                      {"proxy", "show"}};
    for (std::vector<std::string> verb : verbs) {
        verb.emplace_back("--help");
        Captured out;
        Captured err;
        EXPECT_EQ(run(verb, out.output(), err.output(), -1), 0) << verb.front();
        EXPECT_NE(out.text().find("\nExample:\n  sentrelctl "), std::string::npos) << out.text();
        EXPECT_EQ(err.text(), "");
    }
}

TEST_F(ACommandLine, WarnsInTheHelpThatArgumentsCanBeSeen) {
    use({"decrypt", "--help"});
    EXPECT_NE(m_out.text().find("can be seen by every user of this machine"), std::string::npos) << m_out.text();
}

TEST_F(ACommandLine, RefusesToDoNothing) {
    expectRefused({}, "sentrelctl: bad usage: A subcommand is required. See 'sentrelctl --help'.");
    expectRefused({"event"}, "sentrelctl: bad usage: A subcommand is required. See 'sentrelctl event --help'.");
}

TEST_F(ACommandLine, RefusesWhatItDoesNotKnow) {
    expectRefused({"bogus"}, "sentrelctl: bad usage: 'bogus' was not expected. See 'sentrelctl --help'.");
    expectRefused({"\x1b[2J"}, "sentrelctl: bad usage: '\\x1b[2J' was not expected. See 'sentrelctl --help'.");
    expectRefused({"log", "--bogus"},
                  "sentrelctl: bad usage: '--bogus' was not expected. See 'sentrelctl log --help'.");
    expectRefused({"hub", "ping", "x"},
                  "sentrelctl: bad usage: 'x' was not expected. See 'sentrelctl hub ping --help'.");
}

TEST_F(ACommandLine, RefusesValuesThatAreNone) {
    expectRefused({"--json=xml", "log"},
                  "sentrelctl: bad usage: --json: 'xml' is none of short, pretty, off. See 'sentrelctl log --help'.");
    expectRefused({"log", "--color", "blue"},
                  "sentrelctl: bad usage: --color: blue not in {auto,always,never}. See 'sentrelctl log --help'.");
    expectRefused({"log", "--limit", "-1"},
                  "sentrelctl: bad usage: Could not convert: --limit = -1. See 'sentrelctl log --help'.");
    expectRefused({"log", "--timeout", "0"},
                  "sentrelctl: bad usage: --timeout: Value 0 not in range 0.010000 to 3600.000000. "
                  "See 'sentrelctl log --help'.");
    expectRefused({"event", "send", "--rating", "2147483648"},
                  "sentrelctl: bad usage: Could not convert: --rating = 2147483648. "
                  "See 'sentrelctl event send --help'.");
    expectRefused({"event", "send", "--repeat", "0"},
                  "sentrelctl: bad usage: --repeat: Value 0 not in range 1 to 1000000. "
                  "See 'sentrelctl event send --help'.");
}

TEST_F(ACommandLine, RefusesFiltersOfTheLogThatCannotBeMeant) {
    expectRefused({"log", "--since", "soon"},
                  "sentrelctl: bad usage: --since: 'soon' is no time. Give one as '2023-11-14 22:13', 22:13, today, "
                  "yesterday, or 30min, 2h, 3d for so long ago.");
    expectRefused({"log", "--id", "5", "--url", "x"},
                  "sentrelctl: bad usage: --url excludes --id. See 'sentrelctl log --help'.");
    expectRefused({"log", "--follow", "--until", "now"},
                  "sentrelctl: bad usage: --follow goes on for ever, and --until and --id end. Leave out one of them.");
    expectRefused({"log", "--table", "--json"},
                  "sentrelctl: bad usage: a table is no JSON. Leave out --table or --json.");
}

TEST_F(ACommandLine, RefusesAnActionThatIsNone) {
    expectRefused({"event", "send", "--action", "deny"},
                  "sentrelctl: bad usage: --action: 'deny' is no action. Use allow, warn, block or a number.");
}

TEST_F(ACommandLine, RefusesATextLongerThanItsFieldBeforeItConnects) {
    expectRefused({"event", "send", "--event-id", std::string(16, 'x')},
                  "sentrelctl: bad usage: --event-id: the text has 16 bytes, the field takes 15. "
                  "Shorten it, or send the bytes with --raw.");
}

TEST_F(ACommandLine, RefusesRawBytesTogetherWithAnyField) {
    for (const char* field :
         {"--event-id", "--url", "--browser", "--rating", "--action", "--in-list", "--list-blocks",
          "--blocked-in-category", "--category", "--phishing", "--reputation-reachable", "--count", "--user-action"}) {
        Captured out;
        Captured err;
        EXPECT_EQ(run({"event", "send", "--raw", "/dev/null", field, "1"}, out.output(), err.output(), -1), 2) << field;
        EXPECT_EQ(err.text(), std::string("sentrelctl: bad usage: ") + field +
                                  " excludes --raw. See 'sentrelctl event send --help'.\n");
    }
}

TEST_F(ACommandLine, RefusesAnEncryptedTextThatIsTooLong) {
    expectRefused({"decrypt", std::string(1016, 'x')},
                  "sentrelctl: bad usage: encrypted text: it has 1016 bytes, the daemon takes 1015. "
                  "Give the text as it was stored.");
}

TEST_F(ACommandLine, RefusesAPreferenceOrAValueThatIsNone) {
    expectRefused({"prefs", "set", "protektion", "on"},
                  "sentrelctl: bad usage: 'protektion': not a preference: it is one of protection, safe-search, "
                  "red-sites, yellow-sites, unrated-sites, unverified-sites, category-blocking. "
                  "Perhaps 'protection' is meant.");
    expectRefused({"prefs", "set", "red-sites", "on"},
                  "sentrelctl: bad usage: 'on': not a value of red-sites: it is one of allow, warn, block. "
                  "See 'sentrelctl prefs set --help'.");
    expectRefused({"prefs", "set", "red-sites"},
                  "sentrelctl: bad usage: value is required. See 'sentrelctl prefs set --help'.");
}

TEST_F(ACommandLine, RefusesToGuessWhatIsToBeRemoved) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"list", "remove"}, {"list", "remove", "--all", "a"}}) {
        expectRefused(arguments, "sentrelctl: bad usage: name the URLs to remove, or --all alone. "
                                 "See 'sentrelctl list remove --help'.");
    }
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"categories", "set"}, {"categories", "set", "--none", "a"}}) {
        expectRefused(arguments, "sentrelctl: bad usage: name the categories to block, or --none alone. "
                                 "See 'sentrelctl categories set --help'.");
    }
}

TEST_F(ACommandLine, RefusesWhatCanBeNoUrlAndNoCategory) {
    expectRefused({"list", "block", "http://a/", "b c"},
                  "sentrelctl: not a URL: b c: it has white space in it. Nothing was changed.");
    expectRefused({"list", "allow", std::string(1024, 'x')},
                  "sentrelctl: not a URL: " + std::string(1023 - 3, 'x') +
                      "\xE2\x80\xA6: it has 1024 bytes, at most 1023. Nothing was changed.");
    expectRefused({"categories", "add", "\x1b"}, "sentrelctl: not the name of a category: \\x1b: it has a control "
                                                 "character in it. Nothing was changed.");
}

TEST_F(ACommandLine, TakesNoPasswordAsAnArgument) {
    use({"proxy", "set", "--help"});
    EXPECT_NE(m_out.text().find("--password-file FILE"), std::string::npos) << m_out.text();
    expectRefused({"proxy", "set", "a", "--user", "u", "--password", "secret"},
                  "sentrelctl: bad usage: '--password' was not expected. Perhaps '--password-file' is meant; see "
                  "'sentrelctl proxy set --help'.");
    expectRefused({"proxy", "set", "a", "secret"},
                  "sentrelctl: bad usage: 'secret' was not expected. See 'sentrelctl proxy set --help'.");
}

TEST_F(ACommandLine, SaysInTheHelpOfTheProxyForWhomItsPasswordIsOpened) {
    use({"proxy", "set", "--help"});
    EXPECT_NE(m_out.text().find("the daemon opens it for every local user who asks"), std::string::npos)
        << m_out.text();
}

TEST_F(ACommandLine, RefusesHalfAnOrderForTheProxyBeforeItConnects) {
    for (const char* option : {"--auth", "--as-is"}) {
        expectRefused({"proxy", "set", "a", option},
                      "sentrelctl: bad usage: --auth, --password-file and --as-is need a --user. See 'sentrelctl proxy "
                      "set --help'.");
    }
    expectRefused({"proxy", "set", "a", "--port", "65536"},
                  "sentrelctl: bad usage: --port: Value 65536 not in range 1 to 65535. See 'sentrelctl proxy set "
                  "--help'.");
    expectRefused({"debug"}, "sentrelctl: bad usage: A subcommand is required. See 'sentrelctl debug --help'.");
}

TEST_F(ACommandLine, RefusesToWriteLinesAsJson) {
    expectRefused({"list", "export", "--json"},
                  "sentrelctl: bad usage: an export to standard output is lines and no JSON. "
                  "'sentrelctl list show --json' gives the list as JSON.");
}

/// A file that root has for itself, met by another user.
class AFileOfRoot : public ACommandLine {
protected:
    void SetUp() override {
        if (!testing_support::canActAsOthers()) {
            GTEST_SKIP() << "needs root, to act as a second user";
        }
        std::ofstream(m_file) << "blocked.example\n";
        ASSERT_EQ(::chmod(m_file.c_str(), 0600), 0);
    }

    /// The exit code as nobody gets it, and what was said.
    static std::string usedByNobody(const std::vector<std::string>& arguments) {
        return testing_support::asNobody([&] {
            Captured out;
            Captured err;
            const int code = run(arguments, out.output(), err.output(), -1);
            return std::to_string(code) + " " + out.text() + err.text();
        });
    }

    testing_support::PrivateRoot m_root;
    const std::string m_file = m_root.file("root's");
};

TEST_F(AFileOfRoot, IsNoAccessToEveryVerbThatReadsIt) {
    const std::vector<std::vector<std::string>> uses{
        {"event", "send", "--raw", m_file}, {"list", "import", m_file}, {"policy", "check", m_file}};
    for (const std::vector<std::string>& arguments : uses) {
        EXPECT_EQ(usedByNobody(arguments), "4 sentrelctl: cannot read: " + m_file + ": Permission denied.\n")
            << arguments.front();
    }
}

TEST_F(AFileOfRoot, IsNoAccessAsAKeyToo) {
    const std::string said = usedByNobody({"policy", "check", "--public-key", m_file, "/dev/null"});
    EXPECT_TRUE(said.starts_with("4 sentrelctl: cannot read the public key: ")) << said;
}

TEST_F(ACommandLine, ReadsNoMoreThanItsLimitOfAnyInput) {
    const testing_support::PrivateRoot root;
    const std::string large = root.file("large");
    std::ofstream(large) << "x";
    constexpr off_t moreThanAnyLimit = off_t{65} << 20;
    ASSERT_EQ(::truncate(large.c_str(), moreThanAnyLimit), 0);
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"event", "send", "--raw", large}, {"list", "import", large}, {"policy", "check", large}}) {
        Captured out;
        Captured err;
        EXPECT_EQ(run(arguments, out.output(), err.output(), -1), 2) << arguments.front();
        EXPECT_TRUE(err.text().starts_with("sentrelctl: too much input: " + large + ": at most ")) << err.text();
    }
}

} // namespace
} // namespace Sentrel::ctl
