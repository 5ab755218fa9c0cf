// What becomes of the settings file when others read and lock it, when it or its directory goes, when it is something
// else, when its disk is full or read-only, and when the daemon dies in the middle: daemon, files, locks, mounts and
// kills are real, and the other programs are the sqlite3 program.
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"
#include "tests/support/OwnDisk.h"
#include "tests/support/Preferences.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

namespace testing_support {
namespace {

using namespace Sentrel;
using testing::IsEmpty;
namespace fs = std::filesystem;

class ASettingsFile : public ::testing::Test {
protected:
    void SetUp() override {
        machine.initSettings();
        start();
        client.emplace(machine.bus().socketPath());
    }
    void TearDown() override {
        if (client) {
            EXPECT_TRUE(machine.daemon().isRunning()) << machine.daemon().output();
        }
        if (disk.isMounted()) {
            client.reset();
            machine.kill9Daemon();
            disk.unmount();
        }
    }

    void start() { ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output(); }
    void restart() {
        ASSERT_EQ(machine.stopDaemon(), 0) << machine.daemon().output();
        start();
    }

    int set(const STPreferences& preferences) { return client->code(ST_SET_PREFS_INDIVIDUAL, payloadOf(preferences)); }
    STPreferences getAll() { return client->snapshot(ST_GET_PREFS); }
    Urls storedUrls() {
        std::istringstream lines(machine.sql("select value, name from allowblocksettings order by value desc"));
        Urls urls;
        std::string line;
        while (std::getline(lines, line)) {
            urls.emplace_back(line.substr(line.find('|') + 1), std::stoi(line));
        }
        return urls;
    }
    std::string storedEnabled() {
        return machine.sql("select hex(value) from vxsetting where hex(name) = hex('Enabled') || '00'");
    }

    /// The switch and the list can be changed, and the file shows it.
    void expectUsable() {
        const bool enable = !getAll().m_bEnable;
        EXPECT_EQ(set(withSwitch(ST_ENABLE, enable)), ST_ERROR_NONE);
        EXPECT_EQ(getAll().m_bEnable, enable);
        EXPECT_EQ(storedEnabled(), enable ? "01000000\n" : "00000000\n");
        EXPECT_EQ(set(withUrls({{"usable.example", 1}})), ST_ERROR_NONE);
        EXPECT_EQ(urlsOf(getAll()), (Urls{{"usable.example", 1}}));
        EXPECT_EQ(storedUrls(), (Urls{{"usable.example", 1}}));
        EXPECT_EQ(machine.sql("pragma integrity_check"), "ok\n");
    }

    /// What a file without its tables gives: nothing is stored, and only the site actions do not say so.
    void expectNothingIsStored() {
        EXPECT_EQ(set(withSwitch(ST_ENABLE, false)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withSwitch(ST_CATEGORY_BLOCKING, false)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withAction(ST_UNVERIFIED_ACTION, 2)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withSwitch(ST_SAFE_SEARCH, true)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withAction(ST_RED_SITE_ACTION, 1)), ST_ERROR_NONE);
        EXPECT_EQ(set(withUrls({{"lost.example", 1}})), ST_ERROR_NONE);
        EXPECT_EQ(set(withCategories({{"Lost", 1}})), ST_ERROR_NONE);
        const STPreferences all = getAll();
        EXPECT_TRUE(all.m_bEnable && all.m_bCategoryBlocking && !all.m_bSafeSearch);
        EXPECT_EQ(all.m_unverifiedAction, 1);
        EXPECT_EQ(all.m_redSiteAction, 1) << "memory has it until the next start";
        EXPECT_THAT(all.m_allowBlockDetails, IsEmpty());
        EXPECT_THAT(all.m_categoryBlockDetails, IsEmpty());
    }

    /// What a file that cannot even be opened gives.
    void expectEverythingIsRefused() {
        STPreferences different;
        different.m_bEnable = false;
        EXPECT_EQ(set(withSwitch(ST_ENABLE, false)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withAction(ST_RED_SITE_ACTION, 1)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withUrls({{"lost.example", 1}})), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withCategories({{"Lost", 1}})), ST_ERROR_DATABASE);
        EXPECT_EQ(client->code(ST_SET_PREFS, payloadOf(different)), ST_ERROR_DATABASE);
        const STPreferences all = getAll();
        EXPECT_TRUE(all.m_bEnable);
        EXPECT_EQ(all.m_redSiteAction, 3);
        EXPECT_THAT(all.m_allowBlockDetails, IsEmpty());
    }

    /// Has another program run this and keep the file open, with what it holds of it, until letGo().
    void haveHeld(const std::string& statement) {
        fifo = machine.root().file("release");
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        // The sqlite3 program keeps its connection until somebody opens the pipe for writing and closes it.
        const std::string wait = ".shell echo held; cat " + fifo;
        holder.emplace("sqlite3", ChildOptions{.arguments = {machine.settingsFile(), ".output /dev/null", statement,
                                                             ".output", wait},
                                               .environment = {},
                                               .outputFile = machine.root().file("holder.out"),
                                               .uid = {},
                                               .gid = {}});
        ASSERT_TRUE(eventually([&] { return holder->output() == "held\n"; })) << holder->output();
    }
    void letGo() {
        ASSERT_GE(close(open(fifo.c_str(), O_WRONLY | O_CLOEXEC)), 0);
        ASSERT_EQ(holder->waitUntil(patience()), 0);
        fs::remove(fifo);
    }
    /// The form of a file that everybody may read.
    void useRollbackJournal() { ASSERT_EQ(machine.sql("pragma journal_mode=delete"), "delete\n"); }

    Machine machine;
    std::optional<WireClient> client;
    OwnDisk disk; ///< of the file's directory, where a test gives it one
    std::string fifo;
    std::optional<ChildProcess> holder;
};

TEST_F(ASettingsFile, IsNeverSeenBrokenByAnotherProgramWhileListsAreReplaced) {
    constexpr int replacements = 40;
    constexpr int rows = 20;
    std::atomic<bool> done{false};
    std::atomic<int> looks{0};
    std::thread reader([&] {
        while (!done) {
            const SqliteRun run = machine.trySql("pragma integrity_check; select count(*), sum(value) from "
                                                 "allowblocksettings where name like 'u%.example'");
            EXPECT_THAT(run.output, testing::AnyOf(testing::StartsWith("ok\n"), testing::HasSubstr("is locked")));
            looks += run.status == 0 ? 1 : 0;
        }
    });
    Urls urls;
    for (int replacement = 0; replacement < replacements || looks < 3; ++replacement) {
        urls.clear();
        for (int row = 0; row < rows; ++row) {
            urls.emplace_back("u" + std::to_string(replacement) + "-" + std::to_string(row) + ".example", 1);
        }
        EXPECT_EQ(set(withUrls(urls)), ST_ERROR_NONE);
    }
    done = true;
    reader.join();
    EXPECT_THAT(urlsOf(getAll()), testing::UnorderedElementsAreArray(urls));
    EXPECT_THAT(storedUrls(), testing::UnorderedElementsAreArray(urls));
}

class ALockedSettingsFile : public ASettingsFile {};

// Nobody else reads or writes while a program has the file in this way, whatever its journal.
constexpr const char* kForItselfAlone = "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE";

TEST_F(ALockedSettingsFile, GivesADatabaseErrorButForTheSiteActions) {
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    ASSERT_EQ(set(withSwitch(ST_ENABLE, true)), ST_ERROR_NONE);
    haveHeld(kForItselfAlone);
    expectNothingIsStored();
    letGo();
    EXPECT_EQ(storedUrls(), (Urls{{"stored.example", 1}})) << "what was stored stays";
    EXPECT_EQ(machine.sql("select count(*) from vxsetting"), "0\n");
    restart();
    EXPECT_EQ(getAll().m_redSiteAction, 3) << "file and memory are one again";
    EXPECT_EQ(urlsOf(getAll()), (Urls{{"stored.example", 1}}));
    expectUsable();
}

TEST_F(ALockedSettingsFile, GivesTheDefaultsWhenItIsLockedWhileItIsLoaded) {
    ASSERT_EQ(set(withSwitch(ST_ENABLE, false)), ST_ERROR_NONE);
    restart();
    haveHeld(kForItselfAlone);
    EXPECT_TRUE(getAll().m_bEnable);
    letGo();
    EXPECT_EQ(storedEnabled(), "00000000\n");
    expectUsable();
}

TEST_F(ALockedSettingsFile, HidesThatAWriteIsRefusedAtItsLastStep) {
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    // A writer that is not yet writing: the statements can be prepared, but no other write can be made.
    haveHeld("BEGIN IMMEDIATE");
    EXPECT_EQ(set(withSwitch(ST_ENABLE, false)), ST_ERROR_NONE);
    EXPECT_FALSE(getAll().m_bEnable);
    EXPECT_EQ(set(withUrls({{"lost.example", 1}})), ST_ERROR_NONE);
    EXPECT_EQ(urlsOf(getAll()), (Urls{{"stored.example", 1}})) << "memory shows what the file holds";
    letGo();
    EXPECT_EQ(storedEnabled(), "");
    EXPECT_EQ(storedUrls(), (Urls{{"stored.example", 1}}));
    expectUsable();
}

TEST_F(ALockedSettingsFile, IsReadBesideAProgramThatWrites) {
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    ASSERT_EQ(set(withSwitch(ST_ENABLE, false)), ST_ERROR_NONE);
    haveHeld("BEGIN EXCLUSIVE; DELETE FROM allowblocksettings");
    restart();
    EXPECT_FALSE(getAll().m_bEnable);
    EXPECT_EQ(urlsOf(getAll()), (Urls{{"stored.example", 1}})) << "as it was before that program began";
    letGo();
    expectUsable();
}

TEST_F(ALockedSettingsFile, IsWrittenBesideAProgramThatReads) {
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    haveHeld("BEGIN; SELECT * FROM allowblocksettings");
    EXPECT_EQ(set(withUrls({{"stored.example", 1}, {"added.example", 1}})), ST_ERROR_NONE);
    EXPECT_THAT(storedUrls(),
                testing::UnorderedElementsAre(testing::Pair("stored.example", 1), testing::Pair("added.example", 1)));
    EXPECT_THAT(urlsOf(getAll()), testing::UnorderedElementsAreArray(storedUrls()));
    letGo();
    expectUsable();
}

TEST_F(ASettingsFile, StoresNothingUntilItHasItsTables) {
    fs::remove(machine.settingsFile());
    expectNothingIsStored();
    EXPECT_TRUE(fs::exists(machine.settingsFile())) << "SQLite has made an empty one";
    EXPECT_EQ(machine.sql("select count(*) from sqlite_master"), "0\n");
    machine.initSettings();
    expectUsable();
}

TEST_F(ASettingsFile, MayVanishAndComeBackWhileTheDaemonRuns) {
    expectUsable();
    const STPreferences before = getAll();
    fs::remove(machine.settingsFile());
    EXPECT_EQ(set(withSwitch(ST_ENABLE, !before.m_bEnable)), ST_ERROR_DATABASE);
    EXPECT_EQ(getAll().m_bEnable, before.m_bEnable) << "memory keeps what it had";
    EXPECT_EQ(urlsOf(getAll()), urlsOf(before));
    machine.initSettings();
    expectUsable();
}

TEST_F(ASettingsFile, GetsItsDirectoryMadeAgainOneLevelDeep) {
    fs::remove_all(machine.root().sharedDirectory());
    expectNothingIsStored();
    EXPECT_TRUE(fs::is_directory(machine.root().sharedDirectory()));
    machine.initSettings();
    expectUsable();
}

TEST_F(ASettingsFile, RefusesEverythingWhileTwoLevelsAreMissing) {
    const fs::path parent = fs::path(machine.root().sharedDirectory()).parent_path();
    fs::remove_all(parent);
    expectEverythingIsRefused();
    EXPECT_FALSE(fs::exists(parent));
    fs::create_directories(machine.root().sharedDirectory());
    machine.initSettings();
    expectUsable();
}

TEST_F(ASettingsFile, RefusesEverythingWhileADirectoryIsInItsPlace) {
    fs::remove(machine.settingsFile());
    fs::create_directory(machine.settingsFile());
    expectEverythingIsRefused();
    EXPECT_TRUE(fs::is_empty(machine.settingsFile()));
    fs::remove(machine.settingsFile());
    machine.initSettings();
    expectUsable();
}

TEST_F(ASettingsFile, IsLeftAsItIsWhenItIsNoDatabase) {
    std::string noise(10'000, '\0');
    std::mt19937 random(20261121); // a fixed seed: a failure can be run again
    for (char& byte : noise) {
        byte = static_cast<char>(random());
    }
    std::ofstream(machine.settingsFile(), std::ios::binary) << noise;
    expectNothingIsStored();
    EXPECT_EQ(readFile(machine.settingsFile()), noise);
    fs::rename(machine.settingsFile(), machine.settingsFile() + ".aside");
    machine.initSettings();
    expectUsable();
}

TEST_F(ASettingsFile, IsReadAsFarAsItsTablesGo) {
    struct Case {
        const char* missing;
        bool scalars;
        bool urls;
        bool categories;
    };
    for (const Case& one : {Case{"vxsetting", false, true, true}, Case{"catblockinginfo", true, true, false},
                            Case{"allowblocksettings", true, false, true}, Case{"privateIPRange", true, true, true}}) {
        SCOPED_TRACE(one.missing);
        fs::remove(machine.settingsFile());
        machine.initSettings();
        machine.sql("insert into vxsetting values(cast('Enabled' || char(0) as text), x'00000000');"
                    "insert into allowblocksettings values('a.example', 1);"
                    "insert into catblockinginfo values('Games', x'01000000');"
                    "drop table " +
                    std::string(one.missing));
        restart();
        const STPreferences all = getAll();
        EXPECT_EQ(all.m_bEnable, !one.scalars);
        EXPECT_EQ(urlsOf(all), one.urls ? (Urls{{"a.example", 1}}) : Urls());
        EXPECT_EQ(all.m_categoryBlockDetails,
                  one.categories ? CategoryBlockDetails({{"Games", 1}}) : CategoryBlockDetails());
        EXPECT_EQ(set(withSwitch(ST_SAFE_SEARCH, true)), ST_ERROR_DATABASE) << "one table missing: nothing is written";
        EXPECT_FALSE(getAll().m_bSafeSearch);
        EXPECT_TRUE(machine.daemon().isRunning());
    }
    machine.initSettings();
    expectUsable();
}

TEST_F(ASettingsFile, LoadsValuesOfAnotherSizeAsTheirDefaults) {
    machine.sql("insert into vxsetting values(cast('RedSiteAction' || char(0) as text), x'0102030405');"
                "insert into vxsetting values(cast('Enabled' || char(0) as text), zeroblob(1000000));"
                "insert into vxsetting values(cast('SSOn' || char(0) as text), 'yes, please')");
    restart();
    const STPreferences all = getAll();
    EXPECT_EQ(all.m_redSiteAction, 3);
    EXPECT_TRUE(all.m_bEnable);
    EXPECT_FALSE(all.m_bSafeSearch);
    expectUsable();
}

class ASettingsFileOnItsOwnDisk : public ASettingsFile {
protected:
    void SetUp() override {
        const std::string trouble = disk.mount(machine.root().sharedDirectory(), "size=256k,mode=755");
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble << "; disks that are full or read-only were not tested";
        }
        ASettingsFile::SetUp();
    }

    void remount(unsigned long flags, const char* size = "size=256k") {
        ASSERT_EQ(mount(nullptr, machine.root().sharedDirectory().c_str(), nullptr, MS_REMOUNT | flags, size), 0)
            << std::strerror(errno);
    }

    /// What is refused at its last step is not seen, and the lists are read back as they were.
    void expectWritesAreHidden() {
        EXPECT_EQ(set(withSwitch(ST_ENABLE, false)), ST_ERROR_NONE);
        EXPECT_EQ(set(withUrls({{"lost.example", 1}})), ST_ERROR_NONE);
        EXPECT_EQ(set(withCategories({{"Lost", 1}})), ST_ERROR_NONE);
        EXPECT_FALSE(getAll().m_bEnable) << "memory has it until the next start";
        EXPECT_EQ(urlsOf(getAll()), (Urls{{"stored.example", 1}}));
        EXPECT_THAT(getAll().m_categoryBlockDetails, IsEmpty());
    }

    /// The side files of a write-ahead log cannot be made: the file can neither be read nor written.
    void expectTheFileIsOutOfReach() {
        EXPECT_EQ(set(withSwitch(ST_ENABLE, false)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withAction(ST_UNVERIFIED_ACTION, 2)), ST_ERROR_DATABASE);
        EXPECT_EQ(set(withAction(ST_RED_SITE_ACTION, 1)), ST_ERROR_NONE);
        EXPECT_TRUE(getAll().m_bEnable);
        EXPECT_EQ(urlsOf(getAll()), (Urls{{"stored.example", 1}})) << "memory serves what it loaded";
    }

    /// Nothing of what was set meanwhile is in the file.
    void expectOnlyWhatWasStored() {
        EXPECT_EQ(storedUrls(), (Urls{{"stored.example", 1}}));
        EXPECT_EQ(storedEnabled(), "");
        EXPECT_EQ(machine.sql("pragma integrity_check"), "ok\n");
    }
};

TEST_F(ASettingsFileOnItsOwnDisk, StaysAsItIsWhileTheDiskIsReadOnly) {
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    remount(MS_RDONLY);
    expectTheFileIsOutOfReach();
    remount(0);
    expectOnlyWhatWasStored();
    expectUsable();
}

TEST_F(ASettingsFileOnItsOwnDisk, StaysAsItIsWhileTheDiskIsFull) {
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    disk.fill();
    expectTheFileIsOutOfReach();
    restart();
    EXPECT_THAT(urlsOf(getAll()), IsEmpty()) << "the first values, until a start that can read it";
    disk.free();
    restart();
    EXPECT_EQ(urlsOf(getAll()), (Urls{{"stored.example", 1}}));
    expectOnlyWhatWasStored();
    expectUsable();
}

TEST_F(ASettingsFileOnItsOwnDisk, IsReadWhileTheDiskIsFullWhenAnotherKeepsItOpen) {
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    haveHeld("SELECT count(*) FROM vxsetting");
    disk.fill();
    restart();
    expectWritesAreHidden();
    expectOnlyWhatWasStored();
    disk.free();
    letGo();
    expectUsable();
}

TEST_F(ASettingsFileOnItsOwnDisk, WithARollbackJournalIsReadWhileTheDiskIsReadOnly) {
    ASSERT_NO_FATAL_FAILURE(useRollbackJournal());
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    remount(MS_RDONLY);
    expectWritesAreHidden();
    remount(0);
    expectOnlyWhatWasStored();
    expectUsable();
}

TEST_F(ASettingsFileOnItsOwnDisk, WithARollbackJournalKeepsWholeRowsWhenItFillsUp) {
    ASSERT_NO_FATAL_FAILURE(useRollbackJournal());
    ASSERT_EQ(set(withUrls({{"stored.example", 1}})), ST_ERROR_NONE);
    disk.fill();
    Urls urls;
    for (int row = 0; row < 200; ++row) {
        urls.emplace_back(std::string(500, 'u') + std::to_string(row), 1);
    }
    EXPECT_EQ(set(withUrls(urls)), ST_ERROR_NONE);
    EXPECT_TRUE(urlsOf(getAll()) == storedUrls()) << "memory shows what the file holds";
    for (const auto& url : storedUrls()) {
        EXPECT_TRUE(url.first == "stored.example" || std::count(urls.begin(), urls.end(), url) == 1) << url.first;
    }
    EXPECT_EQ(machine.sql("pragma integrity_check"), "ok\n");
    disk.free();
    restart();
    EXPECT_TRUE(urlsOf(getAll()) == storedUrls());
    expectUsable();
}

TEST_F(ASettingsFileOnItsOwnDisk, KeepsTheRowsThatFitAndIsUsableWhenItGrows) {
    Urls urls;
    for (int row = 0; row < 600; ++row) {
        urls.emplace_back(std::string(500, 'u') + std::to_string(row), row % 2);
    }
    EXPECT_EQ(set(withUrls(urls)), ST_ERROR_NONE);
    const Urls kept = storedUrls();
    EXPECT_GT(kept.size(), 10U);
    EXPECT_LT(kept.size(), urls.size());
    EXPECT_TRUE(urlsOf(getAll()) == kept) << "memory shows what the file holds";
    for (const auto& url : kept) {
        EXPECT_EQ(std::count(urls.begin(), urls.end(), url), 1) << url.first;
    }
    EXPECT_EQ(machine.sql("pragma integrity_check"), "ok\n");
    remount(0, "size=4m");
    expectUsable();
}

/// The rows of one replacement; a name tells its row and the number of its replacement.
constexpr int kRowsOfAReplacement = 20;

std::string urlName(int replacement, int row) {
    return std::to_string(replacement) + "." + std::to_string(row) + ".example";
}
int urlValue(int replacement, int row) {
    return 1 + (replacement + row) % 7;
}

Urls replacementNumber(int number) {
    Urls urls;
    for (int row = 0; row < kRowsOfAReplacement; ++row) {
        urls.emplace_back(urlName(number, row), urlValue(number, row));
    }
    return urls;
}

/// Sends replacements without pause until the daemon is gone.
/// Threads: run by the test's thread. Owner: the test.
class Replacing {
public:
    Replacing(const std::string& socketPath, int first) : m_answered(first - 1) {
        m_thread = std::thread([this, socketPath] {
            WireClient client(socketPath);
            for (int number = m_answered + 1;; ++number) {
                const auto answer =
                    client.command(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls(replacementNumber(number))));
                if (!answer.error.empty()) {
                    return; // the daemon is gone
                }
                m_answered = number;
            }
        });
    }
    ~Replacing() { join(); }
    Replacing(const Replacing&) = delete;
    Replacing& operator=(const Replacing&) = delete;

    int answered() const { return m_answered; }
    /// Waits for the end. @return the last replacement that was answered.
    int join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
        return m_answered;
    }

private:
    std::atomic<int> m_answered;
    std::thread m_thread;
};

class ASettingsFileOfADyingDaemon : public ASettingsFile {
protected:
    void SetUp() override {
        // In memory, where that can be had, since syncing to a disk is most of the time: a process that is killed takes
        // nothing along that it has written, on either.
        static_cast<void>(disk.mount(machine.root().sharedDirectory(), "size=16m,mode=755"));
        ASettingsFile::SetUp();
    }

    /// Ends the daemon after this many answers, at an instant that has nothing to do with its steps.
    void killDuring(const Replacing& replacing, int answers) {
        const int last = replacing.answered() + answers;
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(eventually([&] { return replacing.answered() >= last; }));
        const auto now = std::chrono::steady_clock::now();
        const auto ofOne = std::chrono::duration_cast<std::chrono::microseconds>(now - begin).count() / answers;
        std::uniform_int_distribution<std::int64_t> anInstant(0, 2 * ofOne);
        const auto instant = now + std::chrono::microseconds(anInstant(random));
        std::this_thread::sleep_until(instant);
        machine.kill9Daemon();
    }

    /// The file holds the last answered replacement whole, or the first rows of the next one.
    void expectWholeRows(int answered) {
        ASSERT_EQ(machine.sql("pragma integrity_check"), "ok\n");
        const Urls stored = storedUrls();
        const std::string nextPrefix = std::to_string(answered + 1) + ".";
        const bool nextHasBegun = stored.empty() || stored.front().first.starts_with(nextPrefix);
        Urls expected = replacementNumber(nextHasBegun ? answered + 1 : answered);
        if (nextHasBegun) {
            ASSERT_LE(stored.size(), expected.size());
            expected.resize(stored.size());
        }
        EXPECT_THAT(stored, testing::UnorderedElementsAreArray(expected)) << "after replacement " << answered;
    }

    std::mt19937 random{20261121}; // a fixed seed; the instants still differ from run to run
};

TEST_F(ASettingsFileOfADyingDaemon, HoldsWholeRowsAndEveryAnsweredList) {
    constexpr int replacements = 500;
    constexpr int answersOfARound = 16;
    int answered = 0;
    while (answered < replacements) {
        Replacing replacing(machine.bus().socketPath(), answered + 1);
        killDuring(replacing, answersOfARound);
        answered = replacing.join();
        ASSERT_NO_FATAL_FAILURE(expectWholeRows(answered));
        start();
        client.emplace(machine.bus().socketPath());
        EXPECT_EQ(urlsOf(getAll()), storedUrls()) << "the next start serves what the file holds";
    }
    expectUsable();
}

} // namespace
} // namespace testing_support
