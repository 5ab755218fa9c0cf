// When the lists are whole. Real: SQLite, the file, the locks. The time is the test's.
#include "apps/settings-keeper/SettingsWatch.h"
#include "apps/settings-keeper/KeeperLimits.h"

#include "KeptFileFixture.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <gmock/gmock.h>

#include <array>
#include <fcntl.h>
#include <future>
#include <sys/stat.h>

namespace {

using namespace Sentrel;
using namespace Sentrel::keeper;
using namespace std::chrono_literals;
using settings::SettingsSnapshot;
using settings::SnapshotState;
using ::testing::HasSubstr;
using testing_support::ASettingsFile;

/// A watch that has settled on a file with two URLs.
class ASettingsWatch : public ASettingsFile {
protected:
    void SetUp() override {
        setNumber("Enabled", 1);
        addUrl("http://a.example/");
        addUrl("http://b.example/");
        open();
        ASSERT_TRUE(m_watch.isSettled());
    }

    /// The two looks that a file takes that was just opened.
    void open() {
        m_watch.look(m_now);
        pass(kBetweenLooks);
    }
    void pass(std::chrono::milliseconds time) {
        m_now += time;
        m_watch.look(m_now);
    }
    const SettingsSnapshot& served() const { return *m_watch.snapshot(); }
    std::size_t urls() const { return served().allowBlock.size(); }
    void replaceFile() {
        m_writer.reset();
        std::filesystem::rename(m_path, m_path + ".old");
        make();
    }

    SettingsWatch m_watch{m_path};
    SettingsWatch::Time m_now = std::chrono::steady_clock::now();
};

TEST_F(ASettingsWatch, SaysWhatThePolicyRulesAndTellsOfItsChanges) {
    const std::string enrolment = m_path + ".agent";
    const std::string policy = m_path + ".policy";
    SettingsWatch watch(m_path, PolicyWatch(enrolment, policy));
    watch.look(m_now);
    watch.look(m_now + kBetweenLooks);
    ASSERT_TRUE(watch.snapshot());
    ASSERT_TRUE(watch.snapshot()->policy);
    EXPECT_FALSE(watch.snapshot()->policy->isManaged);
    const std::uint64_t revision = watch.revision();
    testing_support::writeFile(enrolment, "{}");
    watch.look(m_now + 2 * kBetweenLooks);
    EXPECT_GT(watch.revision(), revision);
    EXPECT_TRUE(watch.snapshot()->policy->isManaged);
    setNumber("Enabled", 0);
    watch.look(m_now + 3 * kBetweenLooks);
    watch.look(m_now + 3 * kBetweenLooks + kQuiet);
    EXPECT_TRUE(watch.snapshot()->policy->isManaged) << "it stays when the settings change";
}

TEST_F(ASettingsWatch, ServesNothingBeforeItHasSeenTheFileRest) {
    SettingsWatch watch(m_path);
    watch.look(m_now);
    EXPECT_FALSE(watch.snapshot());
    addUrl("http://c.example/");
    watch.look(m_now + 500ms);
    EXPECT_FALSE(watch.snapshot()) << "it has just changed";
    watch.look(m_now + 1000ms);
    ASSERT_TRUE(watch.snapshot());
    EXPECT_EQ(watch.snapshot()->allowBlock.size(), 3U);
    EXPECT_EQ(watch.snapshot()->state, SnapshotState::Whole);
}

TEST_F(ASettingsWatch, ServesASingleValueAtOnce) {
    setNumber("Enabled", 0);
    m_watch.look(m_now);
    EXPECT_EQ(served().numbers.at("Enabled"), 0);
    EXPECT_FALSE(m_watch.isSettled()) << "it may have been a list's first step";
    EXPECT_TRUE(m_watch.compare(m_now));
}

TEST_F(ASettingsWatch, ServesAListAsItWasUntilTheDaemonTells) {
    dropUrls();
    addUrl("http://c.example/");
    pass(kBetweenLooks);
    EXPECT_EQ(urls(), 2U);
    addUrl("http://d.example/");
    addUrl("http://e.example/");
    m_watch.daemonTold(m_now);
    EXPECT_EQ(urls(), 2U);
    EXPECT_EQ(m_watch.untilNextLook(), kQuietAfterEvent);
    pass(kQuietAfterEvent);
    EXPECT_EQ(urls(), 3U);
    EXPECT_EQ(served().state, SnapshotState::Whole);
    EXPECT_EQ(m_watch.untilNextLook(), kBetweenLooks);
}

TEST_F(ASettingsWatch, TakesAnEventInTheMidstOfAListForAnotherClients) {
    dropUrls();
    m_watch.daemonTold(m_now);
    addUrl("http://c.example/");
    pass(kQuietAfterEvent);
    EXPECT_EQ(urls(), 2U);
    pass(kQuietAfterEvent);
    EXPECT_EQ(urls(), 2U) << "the event was of an earlier change";
    pass(kQuiet);
    EXPECT_EQ(urls(), 1U);
}

TEST_F(ASettingsWatch, ServesAListThatNobodyTellsOfWhenTheFileHasRested) {
    run("insert into privateIPRange values ('10.0.0.0-10.0.0.9')");
    m_watch.look(m_now);
    pass(kQuiet - 1ms);
    EXPECT_TRUE(served().privateRanges.empty());
    pass(1ms);
    EXPECT_EQ(served().privateRanges.size(), 1U);
}

TEST_F(ASettingsWatch, SaysThatAListIsChanging) {
    dropUrls();
    m_watch.look(m_now);
    EXPECT_FALSE(served().isChanging);
    const std::uint64_t before = m_watch.revision();
    pass(kChangeToTell);
    EXPECT_TRUE(served().isChanging);
    EXPECT_EQ(urls(), 2U);
    EXPECT_GT(m_watch.revision(), before);
    addUrl("http://c.example/");
    m_watch.daemonTold(m_now);
    pass(kQuietAfterEvent);
    EXPECT_FALSE(served().isChanging);
    EXPECT_EQ(urls(), 1U);
}

TEST_F(ASettingsWatch, TellsHowFarAListIsThatSomebodyReplaces) {
    m_watch.note(settings::Replacement{"allow_block", 3, 0}, m_now);
    EXPECT_FALSE(served().replacement) << "nothing has changed yet";
    dropUrls();
    addUrl("http://c.example/");
    pass(kBetweenLooks);
    EXPECT_EQ(served().replacement, (settings::Replacement{"allow_block", 3, 1}));
    addUrl("http://d.example/");
    const std::uint64_t before = m_watch.revision();
    pass(kBetweenLooks);
    EXPECT_EQ(served().replacement, (settings::Replacement{"allow_block", 3, 2}));
    EXPECT_GT(m_watch.revision(), before);
    addUrl("http://e.example/");
    m_watch.daemonTold(m_now);
    pass(kQuietAfterEvent);
    EXPECT_EQ(served().replacement, std::nullopt);
    EXPECT_EQ(urls(), 3U);
}

/// Each telling is a text of all lists, to the hub and to everybody who follows.
TEST_F(ASettingsWatch, TellsTheMoreSeldomHowFarAListIsTheLongerTheListsAre) {
    constexpr int categories = 30'000;
    run("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(categories) +
        ") INSERT INTO catblockinginfo SELECT 'category ' || i, x'01000000' FROM n");
    m_watch.daemonTold(m_now);
    pass(kQuietAfterEvent);
    ASSERT_EQ(served().categories.size(), static_cast<std::size_t>(categories));
    constexpr int looks = 20;
    m_watch.note(settings::Replacement{"allow_block", 100, 0}, m_now);
    const std::uint64_t before = m_watch.revision();
    for (int look = 0; look < looks; ++look) {
        addUrl("http://" + std::to_string(look) + ".example/");
        pass(kBetweenLooks);
    }
    const std::uint64_t tellings = m_watch.revision() - before;
    EXPECT_GE(tellings, 3U);
    EXPECT_LE(tellings,
              looks * std::chrono::duration<double>(kBetweenLooks).count() * kProgressEntries / categories + 2);
    m_watch.daemonTold(m_now);
    pass(kQuietAfterEvent);
    EXPECT_EQ(served().replacement, std::nullopt) << "the end is told at once";
}

TEST_F(ASettingsWatch, ForgetsANoteThatIsTakenBack) {
    m_watch.note(settings::Replacement{"allow_block", 3, 0}, m_now);
    dropUrls();
    pass(kBetweenLooks);
    EXPECT_TRUE(served().replacement);
    m_watch.note(std::nullopt, m_now);
    EXPECT_FALSE(served().replacement);
}

TEST_F(ASettingsWatch, DoesNotTakeASingleValueForAListThatChanges) {
    setNumber("CAT_Enabled", 1);
    m_watch.look(m_now);
    pass(kChangeToTell);
    EXPECT_FALSE(served().isChanging);
    EXPECT_TRUE(m_watch.isSettled());
}

TEST_F(ASettingsWatch, MarksAListAsShortWhenTheDaemonGoesInItsMidst) {
    dropUrls();
    addUrl("http://c.example/");
    m_watch.daemonChanged(m_now);
    EXPECT_EQ(served().state, SnapshotState::Short);
    EXPECT_THAT(served().reason, HasSubstr("the daemon ended"));
    EXPECT_EQ(urls(), 1U) << "the file counts";
    setNumber("Enabled", 0);
    m_watch.daemonTold(m_now);
    pass(kQuietAfterEvent);
    EXPECT_EQ(served().state, SnapshotState::Short) << "no list has changed since";
    addUrl("http://d.example/");
    m_watch.daemonTold(m_now);
    pass(kQuietAfterEvent);
    EXPECT_EQ(served().state, SnapshotState::Whole);
    EXPECT_EQ(served().reason, "");
}

TEST_F(ASettingsWatch, IsWholeWhenTheDaemonGoesWithoutAChange) {
    m_watch.daemonChanged(m_now);
    EXPECT_EQ(served().state, SnapshotState::Whole);
    setNumber("Enabled", 0);
    m_watch.daemonChanged(m_now);
    EXPECT_EQ(served().state, SnapshotState::Whole);
}

TEST_F(ASettingsWatch, HasNoNewsWhenNothingChanged) {
    m_watch.checkWhenDue(m_now);
    const std::uint64_t before = m_watch.revision();
    for (int i = 0; i < 20; ++i) {
        pass(kBetweenLooks);
        m_watch.daemonTold(m_now);
    }
    setNumber("Enabled", 1); // the value that it has
    pass(kBetweenLooks);
    pass(kQuiet);
    EXPECT_EQ(m_watch.revision(), before);
}

TEST_F(ASettingsWatch, FollowsAFileThatWasReplaced) {
    replaceFile();
    addUrl("http://new.example/");
    open();
    EXPECT_EQ(urls(), 1U);
    EXPECT_EQ(served().allowBlock.front().name, "http://new.example/");
    EXPECT_TRUE(served().numbers.empty());
}

TEST_F(ASettingsWatch, SaysThatThereIsNoFileAndFindsItAgain) {
    std::filesystem::rename(m_path, m_path + ".old");
    pass(kBetweenLooks);
    EXPECT_EQ(served().state, SnapshotState::None);
    EXPECT_EQ(served().reason, "there is no " + m_path + ": make it with 'sentrelctl settings init'");
    EXPECT_TRUE(served().numbers.empty());
    EXPECT_TRUE(m_watch.isSettled());
    std::filesystem::rename(m_path + ".old", m_path);
    open();
    EXPECT_EQ(served().state, SnapshotState::Whole);
    EXPECT_EQ(urls(), 2U);
}

TEST_F(ASettingsWatch, SaysThatAFileCannotBeReadOnceItFailedTwice) {
    ASSERT_TRUE(emptyWriteAheadLog(*m_writer)); // else the log has all pages of a database
    m_writer.reset();
    std::filesystem::rename(m_path, m_path + ".old");
    std::ofstream(m_path) << std::string(5000, 'x');
    m_watch.look(m_now);
    EXPECT_EQ(served().state, SnapshotState::Whole);
    EXPECT_FALSE(m_watch.isSettled());
    pass(kBetweenLooks);
    EXPECT_EQ(served().state, SnapshotState::None);
    EXPECT_THAT(served().reason, HasSubstr("file is not a database"));
}

/// As a copy that keeps the times puts one back.
TEST_F(ASettingsWatch, ReadsAtOnceAFileThatWasMendedWithItsSizeAndTimeOfBefore) {
    ASSERT_TRUE(emptyWriteAheadLog(*m_writer));
    m_writer.reset();
    const std::string sound = testing_support::readFile(m_path);
    const auto write = [this](const std::string& content) {
        std::fstream(m_path, std::ios::binary | std::ios::in | std::ios::out) << content;
        const std::array<timespec, 2> times{timespec{1'000'000'000, 0}, timespec{1'000'000'000, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, m_path.c_str(), times.data(), 0), 0);
    };
    std::filesystem::rename(m_path, m_path + ".old");
    std::filesystem::copy_file(m_path + ".old", m_path);
    write(std::string(sound.size(), 'x'));
    m_watch.look(m_now);
    pass(kBetweenLooks);
    ASSERT_EQ(served().state, SnapshotState::None);
    write(sound);
    pass(kBetweenLooks);
    pass(kQuietAfterOpening);
    EXPECT_EQ(served().state, SnapshotState::Whole) << served().reason;
    EXPECT_LT(kBetweenLooks + kQuietAfterOpening, kTroublePause);
}

TEST_F(ASettingsWatch, ServesWhatItHasWhileAnotherProcessHoldsTheFile) {
    run("PRAGMA locking_mode=exclusive");
    replaceFile();
    run("PRAGMA journal_mode=delete; begin exclusive");
    m_watch.look(m_now);
    EXPECT_EQ(urls(), 2U);
    EXPECT_THAT(m_watch.trouble(), HasSubstr("another process holds"));
    EXPECT_FALSE(m_watch.isSettled());
    run("commit");
    open();
    EXPECT_EQ(m_watch.trouble(), "");
    EXPECT_EQ(urls(), 0U);
}

TEST_F(ASettingsWatch, LetsGoWhileSomebodyConvertsTheFile) {
    std::promise<void> enough;
    std::future<std::string> converts = std::async(std::launch::async, [&]() -> std::string {
        const SettingsHandover handover(m_path, testing_support::kPatience);
        try {
            execute(*m_writer, "PRAGMA journal_mode=delete");
        } catch (const DatabaseError& error) {
            return error.what();
        }
        testing_support::await(enough.get_future(), "the end of the conversion");
        return "converted";
    });
    ASSERT_TRUE(testing_support::eventually([this] {
        m_watch.look(m_now);
        return !m_watch.isHeld();
    }));
    EXPECT_THAT(m_watch.trouble(), HasSubstr("is being converted or repaired"));
    EXPECT_EQ(urls(), 2U) << "what it read last";
    enough.set_value();
    EXPECT_EQ(testing_support::await(converts, "the conversion"), "converted");
    addUrl("http://c.example/");
    open();
    EXPECT_TRUE(m_watch.isHeld());
    EXPECT_EQ(urls(), 3U);
}

TEST_F(ASettingsWatch, ChecksTheFileAtFirstAndThenEachHour) {
    m_watch.checkWhenDue(m_now);
    ASSERT_TRUE(served().check);
    EXPECT_EQ(served().check->trouble, "");
    const std::uint64_t first = m_watch.revision();
    m_watch.checkWhenDue(m_now + kBetweenChecks - 1ms);
    EXPECT_EQ(m_watch.revision(), first);
    m_watch.checkWhenDue(m_now + kBetweenChecks);
    EXPECT_GT(m_watch.revision(), first);
}

} // namespace
