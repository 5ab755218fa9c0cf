// The settings as everybody reads them: daemon, keeper, hvbd and bus are real, and are killed. The settings file is in
// write-ahead mode and its owner's alone.
#include "AccessFixture.h"
#include "base/Database.h"
#include "base/SettingsHandover.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/Preferences.h"
#include "tests/support/ServedSettings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <thread>

namespace testing_support {
namespace {

using namespace Sentrel;
using namespace std::chrono_literals;
using settings::SettingsSnapshot;
using settings::SnapshotState;
namespace fs = std::filesystem;

Urls urlList(const std::string& host, int count) {
    Urls urls;
    for (int number = 0; number < count; ++number) {
        urls.emplace_back("http://" + host + std::to_string(number) + ".example/path", 1);
    }
    return urls;
}

class ASettingsKeeper : public ::testing::Test {
protected:
    void SetUp() override {
        machine.initSettings();
        machine.startHub();
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
        machine.startKeeper();
        client.emplace(socketPath);
        awaitSettings(socketPath);
    }

    int set(const STPreferences& preferences) { return client->code(ST_SET_PREFS_INDIVIDUAL, payloadOf(preferences)); }
    void setUrls(const std::string& host, int count) { ASSERT_EQ(set(withUrls(urlList(host, count))), ST_ERROR_NONE); }
    SettingsSnapshot fresh() const { return servedSettings(socketPath, true).snapshot; }
    /// The name of the error that a fresh reading meets; empty when it meets none.
    std::string freshError() const {
        try {
            servedSettings(socketPath, true);
        } catch (const HVB::bus::CallError& error) {
            return error.name();
        }
        return "";
    }
    void awaitFresh() {
        awaitUntil("a fresh reading", [this] { return freshError().empty(); });
    }
    void expectServes(const std::string& host, std::size_t count) const {
        const SettingsSnapshot snapshot = fresh();
        ASSERT_EQ(snapshot.allowBlock.size(), count);
        EXPECT_EQ(snapshot.allowBlock.front().name, "http://" + host + "0.example/path");
        EXPECT_EQ(snapshot.state, SnapshotState::Whole);
    }

    Machine machine;
    const std::string socketPath = machine.bus().socketPath();
    std::optional<WireClient> client;
};

TEST_F(ASettingsKeeper, ShowsEachSetToWhoAsksForFreshSettings) {
    for (int i = 0; i < 20; ++i) {
        const bool enable = i % 2 != 0;
        ASSERT_EQ(set(withSwitch(ST_ENABLE, enable)), ST_ERROR_NONE);
        EXPECT_EQ(fresh().numbers.at("Enabled"), enable ? 1 : 0) << i;
    }
}

TEST_F(ASettingsKeeper, ShowsAChangeThatNoEventTellsOf) {
    ASSERT_EQ(set(withAction(ST_UNVERIFIED_ACTION, 3)), ST_ERROR_NONE);
    EXPECT_EQ(fresh().numbers.at("GenPolicyUnverifiedAction"), 3);
    ASSERT_EQ(set(withAction(ST_UNVERIFIED_ACTION, 2)), ST_ERROR_NONE);
    EXPECT_TRUE(eventually([this] {
        return servedSettings(socketPath).snapshot.numbers.at("GenPolicyUnverifiedAction") == 2;
    })) << "without a fresh reading, too";
}

TEST_F(ASettingsKeeper, ShowsAListToWhoAsksForFreshSettings) {
    setUrls("one", 300);
    expectServes("one", 300);
    setUrls("two", 3000);
    expectServes("two", 3000); // beyond what a message holds
    ASSERT_EQ(set(withCategories({{"Games", 1}, {"Caf\xC3\xA9", 4}})), ST_ERROR_NONE);
    EXPECT_EQ(fresh().categories.size(), 2U);
}

TEST_F(ASettingsKeeper, ServesAListThatIsReplacedAsItLastWas) {
    constexpr int rows = 1000;
    setUrls("one", rows);
    expectServes("one", rows);
    std::atomic<bool> isDone{false};
    std::future<void> changes = std::async(std::launch::async, [&] {
        WireClient other(socketPath);
        for (int i = 0; i < 4; ++i) {
            const std::wstring list = payloadOf(withUrls(urlList(i % 2 == 0 ? "two" : "one", rows)));
            static_cast<void>(other.code(ST_SET_PREFS_INDIVIDUAL, list));
        }
        isDone = true;
    });
    // Another client's events come in the midst of the list.
    int readings = 0;
    for (int i = 0; !isDone; ++i) {
        if (i % 20 == 0) {
            ASSERT_EQ(set(withSwitch(ST_SAFE_SEARCH, i % 40 == 0)), ST_ERROR_NONE);
        }
        const SettingsSnapshot served = servedSettings(socketPath, i % 100 == 0).snapshot;
        ASSERT_EQ(served.allowBlock.size(), static_cast<std::size_t>(rows));
        const std::string host = served.allowBlock.front().name.substr(0, 10);
        for (const settings::ListEntry& entry : served.allowBlock) {
            ASSERT_EQ(entry.name.substr(0, 10), host) << "a mixture";
        }
        ASSERT_EQ(served.state, SnapshotState::Whole);
        ++readings;
    }
    await(changes, "the lists");
    EXPECT_GT(readings, 20);
    expectServes("one", rows);
}

TEST_F(ASettingsKeeper, TellsHowFarAListIsUntilWhoReplacesItLeaves) {
    setUrls("one", 3);
    expectServes("one", 3);
    const auto note = [](sd_bus& bus, const char* list, std::uint64_t rows) {
        const auto request = HVB::bus::newCall(bus, HVB::bus::kKeeperName, HVB::bus::kKeeperPath,
                                               HVB::bus::kKeeperInterface, HVB::bus::kNoteReplacementMember);
        HVB::bus::check(sd_bus_message_append(request.get(), "st", list, rows), "append");
        static_cast<void>(HVB::bus::call(bus, *request, patience()));
    };
    HVB::bus::BusPtr noter = HVB::bus::openBus(socketPath, patience());
    EXPECT_THROW(note(*noter, "others", 1), HVB::bus::CallError);
    note(*noter, "allow_block", 1000);
    const auto isTold = [this](bool told) {
        return eventually([&] { return servedSettings(socketPath).snapshot.replacement.has_value() == told; });
    };
    // A row of a list that nobody tells the end of.
    ASSERT_EQ(machine.sql("insert into allowblocksettings values ('http://two.example/', 1)"), "");
    ASSERT_TRUE(isTold(true));
    EXPECT_EQ(servedSettings(socketPath).snapshot.replacement, (settings::Replacement{"allow_block", 1000, 4}));
    noter.reset();
    EXPECT_TRUE(isTold(false));
    EXPECT_EQ(servedSettings(socketPath).snapshot.allowBlock.size(), 3U) << "the change has not rested yet";
}

/// Readers cannot hold a write up any more. A program that writes to the file can, for as long as it holds the lock.
TEST_F(ASettingsKeeper, ServesWhatIsInForceAlsoAfterAnotherWriterHeldUpTwoListsThatWereSetAtOnce) {
    const auto categories = [](const std::string& name) {
        return CategoryBlockDetails{{name + "1", 1}, {name + "2", 1}, {name + "3", 1}};
    };
    ASSERT_EQ(set(withCategories(categories("old"))), ST_ERROR_NONE);
    ASSERT_EQ(fresh().categories.size(), 3U);
    const DatabasePtr writer = openDatabase(machine.settingsFile());
    execute(*writer, "BEGIN IMMEDIATE");
    const auto lockedUntil = std::chrono::steady_clock::now() + 2s;
    const auto replace = [&](const std::string& name) {
        return std::async(std::launch::async, [this, list = categories(name)] {
            WireClient other(socketPath);
            return other.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withCategories(list)));
        });
    };
    std::future<int> first = replace("a");
    std::future<int> second = replace("b");
    static_cast<void>(first.wait_until(lockedUntil));
    static_cast<void>(second.wait_until(lockedUntil));
    execute(*writer, "ROLLBACK");
    EXPECT_EQ(await(first, "the first reply"), ST_ERROR_NONE);
    EXPECT_EQ(await(second, "the second reply"), ST_ERROR_NONE);
    std::vector<std::string> inForce;
    for (const auto& [name, action] : client->snapshot(ST_GET_PREFS).m_categoryBlockDetails) {
        inForce.push_back(name);
    }
    const SettingsSnapshot stored = fresh();
    std::vector<std::string> inFile;
    for (const settings::ListEntry& entry : stored.categories) {
        inFile.push_back(entry.name);
    }
    std::sort(inFile.begin(), inFile.end());
    EXPECT_EQ(inFile, inForce) << "what is in force is what is stored";
    EXPECT_FALSE(stored.isChanging);
    EXPECT_FALSE(inFile.empty());
    EXPECT_EQ(machine.sql("select count(*) from catblockinginfo"), std::to_string(inFile.size()) + "\n");
}

TEST_F(ASettingsKeeper, MarksAListAsShortWhenTheDaemonDiedInItsMidst) {
    constexpr int rows = 3000;
    setUrls("one", rows);
    expectServes("one", rows);
    std::thread change([this] {
        try {
            WireClient(socketPath).command(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls(urlList("two", rows))));
        } catch (const HVB::HVBException&) {
            // The daemon is killed meanwhile.
        }
    });
    const auto storedRows = [this] { return std::stoi(machine.sql("select count(*) from allowblocksettings")); };
    const bool isInItsMidst = eventually([&] { return storedRows() < rows - 100; });
    machine.kill9Daemon();
    change.join();
    ASSERT_TRUE(isInItsMidst);
    const auto left = static_cast<std::size_t>(storedRows());
    ASSERT_LT(left, static_cast<std::size_t>(rows));
    const SettingsSnapshot served = fresh();
    EXPECT_EQ(served.state, SnapshotState::Short);
    EXPECT_EQ(served.allowBlock.size(), left);
    ASSERT_TRUE(machine.startDaemon());
    EXPECT_EQ(fresh().state, SnapshotState::Short);
    setUrls("two", rows);
    expectServes("two", rows);
}

TEST_F(ASettingsKeeper, MayBeKilledAndComeBackBetweenSets) {
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(set(withAction(ST_RED_SITE_ACTION, 10 + i)), ST_ERROR_NONE);
        machine.kill9Keeper();
        ASSERT_EQ(set(withAction(ST_YELLOW_SITE_ACTION, 20 + i)), ST_ERROR_NONE);
        EXPECT_EQ(freshError(), HVB::bus::kErrorKeeper);
        EXPECT_NO_THROW(servedSettings(socketPath)) << "what was read last";
        machine.startKeeper();
        ASSERT_EQ(set(withAction(ST_UNRATED_SITE_ACTION, 30 + i)), ST_ERROR_NONE);
        const SettingsSnapshot served = fresh();
        EXPECT_EQ(served.numbers.at("RedSiteAction"), 10 + i);
        EXPECT_EQ(served.numbers.at("YellowSiteAction"), 20 + i);
        EXPECT_EQ(served.numbers.at("UnverifiedSiteAction"), 30 + i);
    }
}

TEST_F(ASettingsKeeper, GivesARestartedHubTheSettingsAgain) {
    ASSERT_EQ(set(withAction(ST_RED_SITE_ACTION, 17)), ST_ERROR_NONE);
    const std::uint64_t before = servedSettings(socketPath, true).generation;
    machine.hub().kill(SIGKILL);
    ASSERT_TRUE(machine.hub().waitUntil(patience()));
    machine.startHub();
    const ServedSettings served = awaitSettings(socketPath);
    EXPECT_EQ(served.snapshot.numbers.at("RedSiteAction"), 17);
    EXPECT_NE(served.generation, before);
}

TEST_F(ASettingsKeeper, ComesBackAfterTheBus) {
    machine.bus().kill9();
    machine.bus().restart();
    awaitSettings(socketPath);
    awaitFresh();
    client.emplace(socketPath);
    awaitUntil("the daemon", [this] {
        return client->command(ST_SET_PREFS_INDIVIDUAL, payloadOf(withSwitch(ST_ENABLE, false))).error.empty();
    });
    EXPECT_EQ(fresh().numbers.at("Enabled"), 0);
}

TEST_F(ASettingsKeeper, StartsWithoutABusAndWithoutAFile) {
    machine.kill9Keeper();
    machine.bus().kill9();
    ASSERT_EQ(machine.keeper().isRunning(), false);
    for (const char* end : {"", "-wal", "-shm"}) {
        fs::remove(machine.settingsFile() + end);
    }
    machine.launchKeeper();
    machine.bus().restart();
    const auto isServed = [this](SnapshotState state) {
        return eventually([&] { return awaitSettings(socketPath).snapshot.state == state; });
    };
    EXPECT_TRUE(isServed(SnapshotState::None));
    machine.initSettings();
    EXPECT_TRUE(isServed(SnapshotState::Whole));
}

TEST_F(ASettingsKeeper, FollowsAFileThatWasReplaced) {
    ASSERT_EQ(set(withAction(ST_RED_SITE_ACTION, 17)), ST_ERROR_NONE);
    EXPECT_EQ(fresh().numbers.at("RedSiteAction"), 17);
    fs::create_directory(machine.root().file("away"));
    for (const char* end : {"", "-wal", "-shm"}) {
        fs::rename(machine.settingsFile() + end, machine.root().file("away") + "/product.db" + end);
    }
    machine.initSettings();
    EXPECT_TRUE(eventually([this] {
        const SettingsSnapshot served = servedSettings(socketPath).snapshot;
        return served.state == SnapshotState::Whole && served.numbers.empty();
    }));
    ASSERT_EQ(set(withAction(ST_RED_SITE_ACTION, 18)), ST_ERROR_NONE);
    EXPECT_EQ(fresh().numbers.at("RedSiteAction"), 18);
}

TEST_F(ASettingsKeeper, LetsGoOfTheFileWhileItIsConverted) {
    ASSERT_EQ(set(withAction(ST_RED_SITE_ACTION, 17)), ST_ERROR_NONE);
    awaitFresh();
    EXPECT_NE(machine.trySql("PRAGMA journal_mode=delete").output, "delete\n") << "the keeper has it open";
    {
        const SettingsHandover handover(machine.settingsFile(), kPatience);
        EXPECT_EQ(machine.sql("PRAGMA journal_mode=delete"), "delete\n");
        EXPECT_EQ(freshError(), HVB::bus::kErrorKeeper);
        EXPECT_EQ(machine.sql("PRAGMA journal_mode=wal"), "wal\n");
    }
    awaitFresh();
    EXPECT_EQ(fresh().numbers.at("RedSiteAction"), 17);
    EXPECT_NE(machine.trySql("PRAGMA journal_mode=delete").output, "delete\n") << "it has it open again";
}

TEST_F(ASettingsKeeper, KeepsTheWriteAheadLogBounded) {
    constexpr std::uintmax_t mostBytes = std::uintmax_t{8} << 20U;
    for (int i = 0; i < 4; ++i) {
        setUrls("list" + std::to_string(i) + "-", 1500);
        EXPECT_LT(fs::file_size(machine.settingsFile() + "-wal"), mostBytes) << i;
    }
    expectServes("list3-", 1500);
    EXPECT_GT(fs::file_size(machine.settingsFile() + "-wal"), 0U) << "nobody's close has emptied it";
}

TEST_F(ASettingsKeeper, ReadsAgainOnSighup) {
    const std::uint64_t before = servedSettings(socketPath).generation;
    machine.keeper().kill(SIGHUP);
    EXPECT_TRUE(eventually([&] { return servedSettings(socketPath).generation != before; }));
    EXPECT_TRUE(machine.keeper().isRunning());
}

TEST_F(ASettingsKeeper, TakesNoNoticeOfSigusr1AndSigusr2) {
    machine.keeper().kill(SIGUSR1);
    machine.keeper().kill(SIGUSR2);
    EXPECT_EQ(freshError(), "");
    EXPECT_TRUE(machine.keeper().isRunning());
}

TEST_F(ASettingsKeeper, EndsWhenItIsTold) {
    machine.keeper().kill(SIGTERM);
    EXPECT_EQ(machine.keeper().waitUntil(patience()), 0) << machine.keeper().output();
}

TEST_F(ASettingsKeeper, AnswersHelpAndVersionAndRefusesAnyOtherArgument) {
    const auto run = [this](const std::string& argument) {
        ChildProcess program(programUnderTest("SENTREL_SETTINGS_KEEPER_ROOTED"),
                             {.arguments = {argument},
                              .environment = {},
                              .outputFile = machine.root().file("help" + argument),
                              .uid = {},
                              .gid = {}});
        const std::optional<ExitStatus> status = program.waitUntil(patience());
        return std::pair(status, program.output());
    };
    EXPECT_EQ(run("--help").first, 0);
    EXPECT_THAT(run("--version").second, testing::StartsWith("sentrel-settings-keeper "));
    EXPECT_EQ(run("--other").first, 2);
}

class ASettingsKeeperOfItsOwnUser : public AccessFixture {};

TEST_F(ASettingsKeeperOfItsOwnUser, ServesTheSettingsToEveryUserWhoCannotReadTheFile) {
    machine->initSettings();
    machine->startHub();
    ASSERT_TRUE(machine->startDaemon());
    machine->startKeeper();
    const std::string socketPath = machine->bus().socketPath();
    awaitSettings(socketPath);
    WireClient root(socketPath);
    ASSERT_EQ(root.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withAction(ST_RED_SITE_ACTION, 17))), ST_ERROR_NONE);
    EXPECT_EQ(
        asNobody([&] { return std::to_string(servedSettings(socketPath, true).snapshot.numbers.at("RedSiteAction")); }),
        "17");
    EXPECT_EQ(asNobody([&] {
                  return ::access(machine->settingsFile().c_str(), R_OK) == 0 ? "can read it" : "cannot read it";
              }),
              "cannot read it");
}

} // namespace
} // namespace testing_support
