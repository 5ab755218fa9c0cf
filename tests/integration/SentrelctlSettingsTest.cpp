// sentrelctl settings init, on files in every state. Real: the program, the files, a second uid, the sqlite3 program
// that makes and reads them. Nothing else runs.
#include "base/SettingsHandover.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace testing_support {
namespace {

// The two words in capitals are what the library makes of any create statement.
constexpr const char* kSchema =
    "CREATE TABLE vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name))\n"
    "CREATE TABLE catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name))\n"
    "CREATE TABLE allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name))\n"
    "CREATE TABLE privateIPRange(range text NOT NULL, PRIMARY KEY(range))\n";

/// A machine without a settings file, as it is after installation.
class ASettingsFile : public testing::Test {
protected:
    std::string directory() const { return m_root.sharedDirectory(); }
    std::string path() const { return directory() + "/product.db"; }

    CtlResult init(std::optional<uid_t> uid = {}) { return ctl(m_root, {"settings", "init"}, "", uid); }

    /// Runs the sqlite3 program on the file. @return its output.
    std::string sql(const std::string& statement) {
        const CtlResult result = shell(m_root, "sqlite3 -bail '" + path() + "' \"" + statement + "\" 2>&1");
        EXPECT_EQ(result.code, 0) << result.out;
        return result.out;
    }

    std::string schema() { return sql("select sql from sqlite_master where type='table' order by rowid"); }

    mode_t mode() {
        struct stat status {};
        EXPECT_EQ(::stat(path().c_str(), &status), 0);
        return status.st_mode & 07777U;
    }

    void put(const std::string& content) { std::ofstream(path(), std::ios::binary) << content; }

    /// Expects that it is refused with this, and that the file stays as it is.
    void expectRefused(const std::string& where, const std::string& why, int code = 1) {
        const std::string before = readFile(path());
        const CtlResult result = init();
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.out, "");
        const std::string begin = "sentrelctl: cannot set up the settings file: " + where + ": " + why + ". ";
        EXPECT_TRUE(result.err.starts_with(begin)) << result.err;
        EXPECT_GT(result.err.size(), begin.size() + 10) << "there is a next step";
        EXPECT_EQ(readFile(path()), before);
    }

    PrivateRoot m_root;
};

TEST_F(ASettingsFile, IsMadeWithItsFourTables) {
    const CtlResult result = init();
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, path() + " is ready; made vxsetting, catblockinginfo, allowblocksettings, privateIPRange.\n");
    EXPECT_EQ(schema(), kSchema);
    EXPECT_EQ(mode(), 0640U) << "to read the file is to lock it";
    EXPECT_EQ(sql("pragma journal_mode"), "wal\n");
}

TEST_F(ASettingsFile, IsMadeReadableForAllWhenASiteSaysSo) {
    const CtlResult result = ctl(m_root, {"settings", "init", "--readable-by-all"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, path() + " is ready; made vxsetting, catblockinginfo, allowblocksettings, privateIPRange.\n");
    EXPECT_EQ(mode(), 0644U);
    EXPECT_EQ(sql("pragma journal_mode"), "delete\n");
}

TEST_F(ASettingsFile, OfAnEarlierVersionBecomesTheDaemonsAlone) {
    ASSERT_EQ(ctl(m_root, {"settings", "init", "--readable-by-all"}).code, 0);
    sql("insert into vxsetting values ('x', x'01')");
    const CtlResult result = init();
    EXPECT_EQ(result.out, path() + " is ready; its mode is 0640 now; it has a write-ahead log now.\n") << result.err;
    EXPECT_EQ(mode(), 0640U);
    EXPECT_EQ(sql("pragma journal_mode; select count(*) from vxsetting"), "wal\n1\n");
}

TEST_F(ASettingsFile, BecomesReadableForAllWithoutItsWriteAheadLog) {
    init();
    sql("insert into vxsetting values ('x', x'01')");
    const CtlResult result = ctl(m_root, {"settings", "init", "--readable-by-all", "--json=short"});
    EXPECT_EQ(result.out, R"({"file":")" + path() +
                              R"(","created":[],"present":["vxsetting","catblockinginfo","allowblocksettings",)"
                              R"("privateIPRange"],"changes":["its mode is 0644 now",)"
                              R"("it has a rollback journal now"],"mode":"0644","journal":"delete"})"
                              "\n");
    EXPECT_EQ(mode(), 0644U);
    EXPECT_FALSE(std::filesystem::exists(path() + "-wal"));
    EXPECT_EQ(sql("pragma journal_mode; select count(*) from vxsetting"), "delete\n1\n");
}

TEST_F(ASettingsFile, HasSideFilesThatAreTheDaemonsAloneToo) {
    init();
    // A program that holds the file keeps its side files there.
    const std::string sides = path() + "-wal " + path() + "-shm";
    const CtlResult result = shell(m_root, "sqlite3 -bail '" + path() +
                                               "' \"insert into vxsetting values ('x', x'01')\" '.shell chmod 0644 " +
                                               sides + "; $CTL settings init; stat -c %a " + sides + "'");
    EXPECT_EQ(result.out, path() + " is ready; its mode is 0640 now.\n640\n640\n");
}

TEST_F(ASettingsFile, KeepsItsFormWhenAnotherProgramIsInTheMiddleOfATransaction) {
    ASSERT_EQ(ctl(m_root, {"settings", "init", "--readable-by-all"}).code, 0);
    const CtlResult result =
        shell(m_root, "sqlite3 -bail '" + path() +
                          "' 'begin; select count(*) from vxsetting' '.shell $CTL settings init' 2>&1");
    EXPECT_NE(result.out.find(path() + ": another process holds it. Try again when the other one is done."),
              std::string::npos)
        << result.out;
    EXPECT_EQ(sql("pragma journal_mode"), "delete\n");
    EXPECT_EQ(mode(), 0640U) << "so that nobody new comes";
}

TEST_F(ASettingsFile, IsLeftAloneTheSecondTime) {
    init();
    sql("insert into vxsetting values ('x', x'01')");
    const std::string before = readFile(path());
    const CtlResult result = init();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, path() + " is ready; nothing was missing.\n");
    EXPECT_EQ(readFile(path()), before);
}

TEST_F(ASettingsFile, TellsInJsonWhatWasMade) {
    sql("create table allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name))");
    const CtlResult result = ctl(m_root, {"settings", "init", "--json=short"});
    EXPECT_EQ(result.out, R"({"file":")" + path() +
                              R"(","created":["vxsetting","catblockinginfo","privateIPRange"],)"
                              R"("present":["allowblocksettings"],"changes":["its mode is 0640 now",)"
                              R"("it has a write-ahead log now"],"mode":"0640","journal":"wal"})"
                              "\n");
}

TEST_F(ASettingsFile, KeepsTheRowsOfTheTablesThatItHas) {
    sql("create table privateIPRange(range text NOT NULL, PRIMARY KEY(range));"
        "insert into privateIPRange values ('10.0.0.0-10.255.255.255')");
    EXPECT_EQ(init().code, 0);
    EXPECT_EQ(sql("select * from privateIPRange"), "10.0.0.0-10.255.255.255\n");
    EXPECT_EQ(sql("select count(*) from sqlite_master where type='table'"), "4\n");
}

TEST_F(ASettingsFile, IsMadeFromAnEmptyFile) {
    put("");
    EXPECT_EQ(init().code, 0);
    EXPECT_EQ(schema(), kSchema);
}

TEST_F(ASettingsFile, IsRefusedWhenItIsNoDatabase) {
    put("some text");
    expectRefused(path(), "it is no database");
    put(std::string(4096, 'x'));
    expectRefused(path(), "it is no database");
}

TEST_F(ASettingsFile, IsRefusedWhenItIsDamaged) {
    init();
    std::string content = readFile(path());
    content.replace(100, 200, std::string(200, '\xff'));
    put(content);
    expectRefused(path(), "it is damaged");
}

TEST_F(ASettingsFile, IsRefusedWhenAnotherProgramMadeIt) {
    sql("create table other(x)");
    expectRefused(path(), "it was made by another program, or by a later version of this one");
}

TEST_F(ASettingsFile, IsRefusedWhenALaterVersionMadeIt) {
    sql("pragma user_version=2; create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name))");
    expectRefused(path(), "it was made by another program, or by a later version of this one");
}

TEST_F(ASettingsFile, IsRefusedBeforeAnyTableIsMadeWhenOneHasOtherColumns) {
    sql("create table privateIPRange(first, last)");
    expectRefused(path(), "its table privateIPRange has other columns");
}

TEST_F(ASettingsFile, IsRefusedWhenItIsALinkOrNoFile) {
    const std::string target = m_root.file("target");
    std::filesystem::create_symlink(target, path());
    expectRefused(path(), "it is a symbolic link");
    EXPECT_FALSE(std::filesystem::exists(target));
    std::filesystem::remove(path());
    const auto expectNoFile = [this] {
        const CtlResult result = init();
        EXPECT_EQ(result.code, 1);
        EXPECT_NE(result.err.find(": it is not a regular file. "), std::string::npos) << result.err;
    };
    std::filesystem::create_directory(path());
    expectNoFile();
    std::filesystem::remove(path());
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    expectNoFile();
}

TEST_F(ASettingsFile, IsRefusedWhenAnotherProcessHoldsIt) {
    sql("create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name))");
    const int fd = ::open(path().c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {}; // what the library itself locks while it writes
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x40000000;
    lock.l_len = 512;
    ASSERT_EQ(::fcntl(fd, F_SETLK, &lock), 0);
    const CtlResult result = init();
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find(": another process holds it. Try again when the other one is done."), std::string::npos)
        << result.err;
    ::close(fd);
    EXPECT_EQ(sql("select count(*) from sqlite_master where type='table'"), "1\n");
    EXPECT_EQ(init().code, 0);
}

TEST_F(ASettingsFile, NeedsItsDirectory) {
    std::filesystem::remove(directory());
    expectRefused(directory(), "there is no such directory");
    EXPECT_FALSE(std::filesystem::exists(directory()));
    std::filesystem::create_directory_symlink(m_root.varDirectory(), directory());
    expectRefused(directory(), "it is not a directory");
    EXPECT_FALSE(std::filesystem::exists(m_root.varDirectory() + "/product.db"));
}

TEST_F(ASettingsFile, IsConvertedOnlyWhenItsKeeperLetsGo) {
    ASSERT_EQ(ctl(m_root, {"settings", "init", "--readable-by-all"}).code, 0);
    Sentrel::SettingsHold keeper(path());
    ASSERT_TRUE(keeper.take());
    CtlRun run(m_root, {"settings", "init"});
    ASSERT_TRUE(eventually([&] { return keeper.isAskedFor(); }));
    keeper.letGo();
    EXPECT_EQ(run.finish().code, 0) << run.err();
    ASSERT_TRUE(keeper.take());
    const CtlResult result = ctl(m_root, {"settings", "init", "--readable-by-all"});
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find("the settings keeper does not let go of " + path()), std::string::npos) << result.err;
    EXPECT_EQ(sql("pragma journal_mode"), "wal\n");
}

/// A file with three hundred entries, a page of which is overwritten.
class ADamagedSettingsFile : public ASettingsFile {
protected:
    void SetUp() override {
        init();
        sql("with recursive n(i) as (select 1 union all select i+1 from n where i<300) insert into allowblocksettings "
            "select printf('http://host%03d.example/a/path/that/takes/room', i), i%2 from n;"
            "insert into vxsetting values (cast(x'456E61626C656400' as text), x'00000000');"
            "insert into privateIPRange values ('10.0.0.0-10.0.0.9')");
        m_whole = sql("select * from allowblocksettings order by name");
    }

    /// Overwrites half a page of the entries.
    void damage() {
        std::string content = readFile(path());
        const std::size_t entry = content.find("http://host150");
        ASSERT_NE(entry, std::string::npos);
        constexpr std::size_t page = 4096;
        content.replace(entry / page * page, page / 2, std::string(page / 2, '\xa5'));
        put(content);
    }

    CtlResult repair(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"settings", "init", "--repair"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return ctl(m_root, arguments);
    }

    std::string m_whole;
};

TEST_F(ADamagedSettingsFile, IsNotRepairedWhileItIsWhole) {
    const std::string before = readFile(path());
    EXPECT_EQ(repair({"--yes"}).out, path() + " is whole; there is nothing to repair.\n");
    EXPECT_EQ(readFile(path()), before);
}

TEST_F(ADamagedSettingsFile, ShowsWhatCanBeSavedBeforeAnythingIsDone) {
    damage();
    const std::string before = readFile(path());
    const CtlResult result = repair();
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_TRUE(result.out.starts_with(path() + " is damaged: ")) << result.out;
    EXPECT_NE(result.out.find("\nvxsetting          1 row can be read\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(" can be read, a stretch of it cannot\nprivateIPRange     1 row can be read\n"),
              std::string::npos)
        << result.out;
    EXPECT_TRUE(
        result.out.ends_with("Nothing was changed: 'sentrelctl settings init --repair --yes' makes the file anew "
                             "of these, and sets the old one aside.\n"))
        << result.out;
    EXPECT_EQ(readFile(path()), before);
}

TEST_F(ADamagedSettingsFile, IsMadeAnewOfAllButItsBrokenPage) {
    damage();
    const std::string before = readFile(path());
    const CtlResult result = repair({"--yes", "--json=short"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(sql("pragma integrity_check; pragma journal_mode"), "ok\nwal\n");
    EXPECT_EQ(mode(), 0640U);
    EXPECT_EQ(sql("select hex(name), hex(value) from vxsetting; select * from privateIPRange"),
              "456E61626C656400|00000000\n10.0.0.0-10.0.0.9\n");
    const std::string kept = sql("select * from allowblocksettings order by name");
    const auto lines = std::count(kept.begin(), kept.end(), '\n');
    EXPECT_GT(lines, 200);
    EXPECT_LT(lines, 300);
    std::istringstream rows(kept);
    for (std::string row; std::getline(rows, row);) {
        EXPECT_NE(m_whole.find(row + '\n'), std::string::npos) << row;
    }
    const std::size_t aside = result.out.find(path() + ".broken-");
    ASSERT_NE(aside, std::string::npos) << result.out;
    EXPECT_EQ(readFile(result.out.substr(aside, result.out.find('"', aside) - aside)), before) << "it stays as it was";
}

TEST_F(ADamagedSettingsFile, IsMadeAnewForTheReadersThatASiteHas) {
    damage();
    const CtlResult result = repair({"--yes", "--readable-by-all"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(sql("pragma integrity_check; pragma journal_mode"), "ok\ndelete\n");
    EXPECT_EQ(mode(), 0644U);
}

TEST_F(ADamagedSettingsFile, ThatIsNoDatabaseAnyMoreIsMadeAnewWithoutRows) {
    put(std::string(8192, 'x'));
    EXPECT_EQ(repair({"--yes"}).code, 0);
    EXPECT_EQ(schema(), kSchema);
    EXPECT_EQ(sql("select count(*) from allowblocksettings"), "0\n");
}

/// The same where the test is root.
class ASettingsFileAndRoot : public ASettingsFile {
protected:
    void SetUp() override {
        if (!canActAsOthers()) {
            GTEST_SKIP() << "needs root to act as another user";
        }
    }
};

TEST_F(ASettingsFileAndRoot, BelongsToTheOwnerOfItsDirectory) {
    PrivateRoot::giveTo(directory(), kNobody, kNogroup);
    const CtlResult result = init();
    EXPECT_EQ(result.code, 0) << result.err;
    struct stat status {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kNobody);
    EXPECT_EQ(status.st_gid, kNogroup);
    EXPECT_EQ(asNobody([&] { return std::string(::access(path().c_str(), R_OK | W_OK) == 0 ? "can" : "cannot"); }),
              "can");
}

TEST_F(ASettingsFileAndRoot, IsNotReachedWithRootsRights) {
    sql("create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name))");
    ::chmod(path().c_str(), 0600);
    PrivateRoot::giveTo(directory(), kNobody, kNogroup);
    expectRefused(path(), "Permission denied", 4);
    std::filesystem::rename(path(), m_root.file("precious"));
    std::filesystem::create_symlink(m_root.file("precious"), path());
    expectRefused(path(), "it is a symbolic link");
}

TEST_F(ASettingsFileAndRoot, IsNotMadeByRootWhereOthersCanWrite) {
    ::chmod(directory().c_str(), 0777);
    expectRefused(directory(), "it is root's and others can write into it");
    EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(ASettingsFileAndRoot, IsNotMadeByAUserWithoutTheRight) {
    const CtlResult result = init(kNobody);
    EXPECT_EQ(result.code, 4);
    EXPECT_EQ(result.err, "sentrelctl: cannot set up the settings file: " + directory() +
                              ": Permission denied. Run it as root or as the directory's owner.\n");
    EXPECT_FALSE(std::filesystem::exists(path()));
}

} // namespace
} // namespace testing_support
