// The completion for bash, in a real bash.
#include "tests/integration/SentrelctlRun.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace testing_support {
namespace {

/// A shell that knows the completion.
class ACompletion : public testing::Test {
protected:
    std::string offered(const std::string& words) { return offeredInBash(m_root, words); }

    PrivateRoot m_root;
};

TEST_F(ACompletion, OffersTheVerbs) {
    EXPECT_EQ(
        offered("''"),
        "--color --help --json --version about agent categories check debug decrypt doctor encrypt event help hub "
        "list log policy prefs properties proxy ratings requests settings state status watch ");
    EXPECT_EQ(offered("help ''"),
              "about agent categories check debug decrypt doctor encrypt event help hub list log policy "
              "prefs properties proxy ratings requests settings state status watch ");
    EXPECT_EQ(offered("help prefs ''"), "--help get reset set show ");
    EXPECT_EQ(offered("prefs ''"), "--help get reset set show ");
    EXPECT_EQ(offered("list ''"), "--help allow block export import remove show ");
    EXPECT_EQ(offered("categories ''"), "--help add remove set show ");
    EXPECT_EQ(offered("settings ''"), "--help init ");
    EXPECT_EQ(offered("policy ''"), "--help check push results ");
    EXPECT_EQ(offered("properties ''"), "--help show ");
    EXPECT_EQ(offered("agent ''"), "--help keygen network ");
    EXPECT_EQ(offered("ratings ''"), "--help import list remove show update ");
    EXPECT_EQ(offered("ratings import a b --format ''"), "adblock domains hosts rpz ");
    EXPECT_EQ(offered("ratings list --"), "--color --help --json ");
    EXPECT_EQ(offered("requests ''"), "--help ask deny grant grants list revoke show ");
    EXPECT_EQ(offered("requests grant 5 --"), "--color --for --help --host --json --page --timeout ");
    EXPECT_EQ(offered("requests grant 5 --for ''"), "1d 1h 1w 30min ");
    EXPECT_EQ(offered("debug ''"), "--help off on show ");
    EXPECT_EQ(offered("proxy ''"), "--help set show ");
}

TEST_F(ACompletion, OffersPreferencesAndTheirValues) {
    EXPECT_EQ(offered("prefs set re"), "red-sites ");
    EXPECT_EQ(offered("prefs set ''"), "category-blocking protection red-sites safe-search unrated-sites "
                                       "unverified-sites yellow-sites ");
    EXPECT_EQ(offered("prefs set protection ''"), "off on ");
    EXPECT_EQ(offered("prefs set red-sites ''"), "allow block warn ");
    EXPECT_EQ(offered("prefs set --json red-sites w"), "warn ");
    EXPECT_EQ(offered("prefs set --timeout 3 red-sites w"), "warn ");
    EXPECT_EQ(offered("prefs set red-sites warn --t"), "--timeout ");
}

TEST_F(ACompletion, OffersFilesToImportAndExport) {
    const std::string prefix = m_root.file("a-list");
    shell(m_root, "touch '" + prefix + ".txt'");
    EXPECT_EQ(offered("list import " + prefix), prefix + ".txt ");
    EXPECT_EQ(offered("list export " + prefix), prefix + ".txt ");
    EXPECT_EQ(offered("list import --re"), "--replace ");
    EXPECT_EQ(offered("event send --raw " + prefix), prefix + ".txt ");
    EXPECT_EQ(offered("policy check " + prefix), prefix + ".txt ");
    EXPECT_EQ(offered("policy push --sign " + prefix), prefix + ".txt ");
    EXPECT_EQ(offered("state --credentials " + prefix), prefix + ".txt ");
    EXPECT_EQ(offered("encrypt --key " + prefix), prefix + ".txt ");
    EXPECT_EQ(offered("proxy set host --password-file " + prefix), prefix + ".txt ");
}

/// A directory that others can write into may have files with names made for this.
TEST_F(ACompletion, QuotesTheNamesOfFiles) {
    const std::string made = m_root.file("made");
    const std::string name = m_root.file("a-list $(touch made);touch made");
    shell(m_root, "touch '" + name + "'");
    const std::string keys = "cd '" + m_root.path().string() +
                             "'; source '" SENTREL_SOURCE_DIR "/packaging/sentrelctl.bash-completion'; "
                             "sentrelctl() { printf \"<%s>\" \"$@\"; }\nsentrelctl list import ./a-\t\nexit\n";
    std::ofstream(m_root.file("keys")) << keys;
    const std::string shown =
        shell(m_root, "script -qec 'bash --norc --noprofile -i' /dev/null < '" + m_root.file("keys") + "'").out;
    EXPECT_NE(shown.find("<list><import><./a-list $(touch made);touch made>"), std::string::npos) << shown;
    EXPECT_FALSE(std::filesystem::exists(made));
}

/// "list remove --all" would remove more than an entry of that name.
TEST_F(ACompletion, OffersNoEntryThatWouldBeAnOption) {
    const std::string program = m_root.file("program");
    std::ofstream(program) << "#!/bin/sh\nprintf 'allow --all\\nallow -x\\nallow a-b.example\\n'\n";
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    EXPECT_EQ(shell(m_root, "source '" SENTREL_SOURCE_DIR "/packaging/sentrelctl.bash-completion'; COMP_WORDS=('" +
                                program + "' list remove ''); COMP_CWORD=3; _sentrelctl; echo \"${COMPREPLY[@]}\"")
                  .out,
              "a-b.example\n");
}

TEST_F(ACompletion, OffersTheOptionsOfAVerb) {
    EXPECT_EQ(offered("watch --"), "--color --help --json --timeout ");
    EXPECT_EQ(offered("prefs reset --y"), "--yes ");
    EXPECT_EQ(offered("list remove --a"), "--all ");
    EXPECT_EQ(offered("categories set --n"), "--none ");
    EXPECT_EQ(offered("log --json = p"), "pretty ");
    EXPECT_EQ(offered("log --u"), "--until --url --user ");
    EXPECT_EQ(offered("log --since y"), "yesterday ");
    EXPECT_EQ(offered("policy push p.json --g"), "--group ");
    EXPECT_EQ(offered("state --m"), "--machine ");
    EXPECT_EQ(offered("proxy set host --a"), "--as-is --auth ");
    EXPECT_EQ(offered("debug on --t"), "--timeout ");
    EXPECT_EQ(offered("doctor --"), "--color --help --json --probe --timeout ");
    EXPECT_EQ(offered("proxy show --"), "--color --help --json ");
    EXPECT_EQ(offered("check https://site.example/ --"),
              "--category --color --from --help --json --phishing --rating --timeout --unreachable ");
}

} // namespace
} // namespace testing_support
