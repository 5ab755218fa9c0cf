// What sentrelctl doctor finds in the directories and the settings file.
#include "tests/integration/DoctorFixture.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

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
                 "Run 'sentrelctl settings init', and look whether the preferences are still yours");
    setMode(path, 0644);
    expectWarning(
        "settings-file", "every user can read " + path + ", and whoever reads it can hold up changes: it has mode 0644",
        "Run 'sentrelctl settings init', unless this site has other readers: docs/security.md says what they cost");
    setMode(path, 0600);
    EXPECT_EQ(finding("settings-file").result, "ok");
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

TEST_F(AnInstallation, FailsWithASettingsFileThatHasABrokenPage) {
    const std::string path = std::string(kShared) + "/product.db";
    m_machine.sql("with recursive n(i) as (select 1 union all select i+1 from n where i<300) insert into "
                  "allowblocksettings select printf('http://host%03d.example/a/path/that/takes/room', i), 1 from n;"
                  "pragma wal_checkpoint(truncate)");
    std::string content = readFile(at(path));
    const std::size_t middle = content.size() / 2 / 4096 * 4096;
    write(path, content.replace(middle, 2048, std::string(2048, '\xa5')));
    EXPECT_EQ(finding("settings-tables").result, "ok");
    const Finding found = finding("settings-content");
    EXPECT_EQ(found.result, "failed");
    EXPECT_TRUE(found.what.starts_with(path + " is damaged: ")) << found.what;
    EXPECT_EQ(found.advice, "'sentrelctl settings init --repair' shows what can be saved, and what it would do");
}

TEST_F(AnInstallation, DoesNotOpenASettingsFileWhereOthersCanPlantAJournal) {
    setMode(kShared, 0777);
    expectUnseen("settings-tables", "not opened while others can write into its directory");
}

} // namespace
} // namespace testing_support
