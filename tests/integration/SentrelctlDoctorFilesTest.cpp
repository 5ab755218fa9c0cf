// What sentrelctl doctor finds in the directories, in the settings file and on the disk.
//
// Each test breaks one thing and asks. What must stay so: a disk is a file system in memory that this process alone
// sees, and a file that was made immutable is made mutable again before anything is expected, or the root could not be
// removed. Some of it only root can break; elsewhere the test skips itself and says so.
#include "tests/integration/DoctorFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/OwnDisk.h"

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

/// The bus as one user and hvbd as another, who share a directory by a group of their own.
class ASharedHubDirectory : public AnInstallation {
protected:
    static constexpr gid_t kGroupOfNobodyElse = 54'321;

    void SetUp() override {
        if (!canActAsOthers()) {
            GTEST_SKIP() << "only root can give files away";
        }
        PrivateRoot::giveTo(at(kHubVar), kNobody, kGroupOfNobodyElse); // the bus is nobody's here, hvbd is root's
        setMode(kHubVar, 0775);
    }
};

TEST_F(ASharedHubDirectory, IsFineWhenItsGroupHasTheTwoAlone) {
    m_machine.startHub();
    EXPECT_EQ(finding("hub-directory"), (Finding{"ok", std::string(kHubVar) + " is nobody's, mode 0775", ""}));
    EXPECT_EQ(finding("log-store").result, "ok") << "it is hvbd's, as it must be";
}

TEST_F(ASharedHubDirectory, IsFineWhenItIsHvbdsAndTheBusWritesIntoItByItsGroup) {
    PrivateRoot::giveTo(at(kHubVar), 0, kGroupOfNobodyElse);
    expectFailed("hub-directory", std::string("others than its owner can write into ") + kHubVar + ": it has mode 0775",
                 std::string("chmod go-w ") + kHubVar + ", and look whether what is in it is yours");
    giveToNobody(std::string(kHubVar) + "/hvbdsocket64"); // as that of a bus that runs as nobody
    EXPECT_EQ(finding("hub-directory"), (Finding{"ok", std::string(kHubVar) + " is root's, mode 0775", ""}));
}

TEST_F(ASharedHubDirectory, FailsWhenItsGroupHasSomebodyElse) {
    constexpr gid_t games = 60; // of Debian's own users, one has it
    PrivateRoot::giveTo(at(kHubVar), kNobody, games);
    const Finding found = finding("hub-directory");
    EXPECT_EQ(found.id, "directory-open");
    EXPECT_EQ(found.what, std::string("others than the users of the bus and of hvbd can write into ") + kHubVar +
                              ": its group has games");
    EXPECT_EQ(found.advice, "Give it a group that has nobody and root alone");
}

TEST_F(ASharedHubDirectory, FailsWhenEverybodyCanWriteIntoIt) {
    setMode(kHubVar, 0777);
    EXPECT_EQ(finding("hub-directory").what,
              std::string("others than its owner can write into ") + kHubVar + ": it has mode 0777");
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
    const std::string makeOne = "Move it away, with what begins with its name; then make one with 'sentrelctl settings "
                                "init', and restart sentreld";
    expectFailed("settings-tables", path + " is no settings file: it is no database", makeOne, "settings-foreign");
    expectUnseen("settings-content", "it has none of the tables: 'settings-tables' tells what to do");
}

TEST_F(AnInstallation, AdvisesSettingsInitForAnEmptySettingsFileAndForAForeignOne) {
    const std::string path = std::string(kShared) + "/product.db";
    const auto replaceBy = [&](const std::string& statement) {
        for (const char* ending : {"", "-wal", "-shm"}) {
            fs::remove(at(path + ending));
        }
        write(path, "");
        setMode(path, 0640);
        if (!statement.empty()) {
            m_machine.sql(statement);
        }
    };
    replaceBy("");
    expectFailed("settings-tables", path + " lacks vxsetting, catblockinginfo, allowblocksettings, privateIPRange",
                 "Make them with 'sentrelctl settings init'", "settings-tables-missing");
    EXPECT_EQ(finding("settings-content").result, "unseen") << "nothing is whole in an empty file";
    for (const char* statement : {"create table notes(line text)", "create table vxsetting(key, data)"}) {
        replaceBy(statement);
        const Finding foreign = finding("settings-tables");
        EXPECT_EQ(foreign.id, "settings-foreign") << statement;
        EXPECT_TRUE(foreign.advice.starts_with("Move it away, with what begins with its name; then make one with "
                                               "'sentrelctl settings init'"))
            << foreign.advice;
    }
}

/// A single setting's row, its key with the terminator.
std::string row(const std::string& key, const std::string& value) {
    return "insert or replace into vxsetting values(cast('" + key + "' || char(0) as text), " + value + ")";
}

TEST_F(AnInstallation, FailsWithASettingThatHasTheWrongSize) {
    const std::string path = std::string(kShared) + "/product.db";
    m_machine.sql(row("Enabled", "x'00'"));
    const Finding found = finding("settings-values");
    EXPECT_EQ(found.what, path + ": Enabled has a size of 1 and not of 4 bytes");
    EXPECT_EQ(found.id, "settings-value");
    m_machine.sql(row("Enabled", "'off!'"));
    EXPECT_EQ(finding("settings-values").what, path + ": Enabled is of the type text and no blob");
    m_machine.sql(row("Enabled", "x'01000000'"));
    EXPECT_EQ(finding("settings-values").result, "ok");
}

TEST_F(AnInstallation, FailsWithASettingOutOfItsRange) {
    const std::string path = std::string(kShared) + "/product.db";
    m_machine.sql(row("RedSiteAction", "x'07000000'") + ";" + row("SSOn", "x'02000000'") + ";" +
                  row("RPXProxyPort", "x'00000100'") + ";" + row("CAT_Enabled", "x'ffffffff'"));
    const Finding found = finding("settings-values");
    EXPECT_EQ(found.what, path + ": RedSiteAction is 7 and not from 1 to 3; SSOn is 2 and not from 0 to 1; "
                                 "RPXProxyPort is 65536 and not from 0 to 65535; and 1 more");
    EXPECT_EQ(found.id, "settings-value");
}

TEST_F(AnInstallation, FailsWithAListWhoseRowsHoldNoNumber) {
    m_machine.sql("insert into catblockinginfo values('ga', 1), ('al', x'01000000');"
                  "insert into allowblocksettings values('a.example', 'block'), ('b.example', 4294967296), ('c', 1)");
    EXPECT_EQ(finding("settings-values").what,
              std::string(kShared) + "/product.db: 1 row of catblockinginfo has no number of four bytes; 2 rows of "
                                     "allowblocksettings have no number of 32 bits");
}

TEST_F(AnInstallation, WarnsOfASettingThatNothingReads) {
    m_machine.sql("insert into vxsetting values('Enabled', x'00000000')");
    const Finding found = finding("settings-values");
    EXPECT_EQ(found.result, "warning");
    EXPECT_EQ(found.what, std::string(kShared) + "/product.db has rows that nothing reads: Enabled");
    EXPECT_EQ(found.id, "settings-key");
}

/// Marks a file as the system does for nobody to change it. @return whether this file system has such a mark.
bool markImmutable(const std::string& path, bool isOn) {
    return ChildProcess(
               "chattr",
               {.arguments = {isOn ? "+i" : "-i", path}, .environment = {}, .outputFile = "", .uid = {}, .gid = {}})
               .waitUntil(patience()) == 0;
}

TEST_F(AnInstallation, FailsWithAnImmutableSettingsFile) {
    const std::string path = std::string(kShared) + "/product.db";
    if (!markImmutable(at(path), true)) {
        GTEST_SKIP() << "no file can be made immutable here";
    }
    const Finding found = finding("settings-file");
    EXPECT_TRUE(markImmutable(at(path), false));
    EXPECT_EQ(found, (Finding{"failed", path + " is immutable: no change can be stored",
                              "chattr -i -a " + path + ", and ask who set that", "settings-immutable"}));
    EXPECT_EQ(finding("settings-file").result, "ok");
}

// The disk.

TEST_F(AnInstallation, FailsWithAFullDiskAndWarnsOfANearlyFullOne) {
    OwnDisk disk;
    if (const std::string why = disk.mount(at(kShared), "size=40m,mode=0755"); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const Finding low = finding("disk-space");
    EXPECT_EQ(low.id, "disk-low");
    EXPECT_EQ(low.what, std::string("the disk of the settings file is nearly full: 40.0 MiB are free, and 64.0 MiB "
                                    "should be: ") +
                            kShared + "/product.db");
    disk.fill();
    expectFailed("disk-space",
                 std::string("the disk of the settings file is full: 0.0 MiB are free, and 8.0 MiB is the least: ") +
                     kShared + "/product.db",
                 "Make room on that file system; 'df' and 'du -x' tell what takes it", "disk-full");
}

TEST_F(AnInstallation, FailsWithADiskOnWhichTheSpoolDoesNotFit) {
    OwnDisk disk;
    if (const std::string why = disk.mount(at(kVar), "size=15m,mode=0755"); !why.empty()) {
        GTEST_SKIP() << why;
    }
    expectFailed("disk-space",
                 std::string("the disk of the spool is full: 15.0 MiB are free, and 16.0 MiB is the least: ") + kVar +
                     "/reports.spool",
                 "Make room on that file system; 'df' and 'du -x' tell what takes it", "disk-full");
}

TEST_F(AnInstallation, FailsWithADiskThatHasRoomForNoMoreFiles) {
    OwnDisk disk;
    if (const std::string why = disk.mount(at(kHubVar), "size=100m,nr_inodes=8,mode=0755"); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const Finding found = finding("disk-space");
    EXPECT_EQ(found.id, "disk-full");
    EXPECT_TRUE(found.what.starts_with("the disk of the log store has room for ")) << found.what;
}

TEST_F(AnInstallation, FailsWithADiskThatCanOnlyBeRead) {
    OwnDisk disk;
    if (const std::string why = disk.mount(at(kHubVar), "size=100m,mode=0755"); !why.empty()) {
        GTEST_SKIP() << why;
    }
    ASSERT_EQ(::mount("none", at(kHubVar).c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(finding("disk-space").id, "disk-read-only");
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
