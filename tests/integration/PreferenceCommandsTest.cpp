// The five preference commands of a real daemon on a real bus, asked as a user interface asks them and as bytes, and
// what they leave in the settings file, seen from outside with the sqlite3 program.
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/Preferences.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <thread>

namespace testing_support {
namespace {

using namespace Sentrel;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// What the members of a snapshot say, without those of the lists.
std::string scalarsOf(const STPreferences& preferences) {
    std::ostringstream text;
    text << "enable " << preferences.m_bEnable << " safe " << preferences.m_bSafeSearch << " red "
         << preferences.m_redSiteAction << " yellow " << preferences.m_yellowSiteAction << " unrated "
         << preferences.m_unratedSiteAction << " unverified " << preferences.m_unverifiedAction << " categories "
         << preferences.m_bCategoryBlocking << " allow-over-block " << preferences.m_bAllowOverBlock << " type "
         << preferences.m_prefType << " individual " << preferences.m_bIndividual << " unused "
         << preferences.m_bUnused;
    return text.str();
}

constexpr const char* kFreshScalars = "enable 1 safe 0 red 3 yellow 2 unrated 1 unverified 1 categories 1 "
                                      "allow-over-block 0 type 10 individual 0 unused 0";

/// A snapshot in which every scalar differs from its first value.
STPreferences allDifferent() {
    STPreferences preferences;
    preferences.m_bEnable = false;
    preferences.m_bSafeSearch = true;
    preferences.m_redSiteAction = 1;
    preferences.m_yellowSiteAction = 3;
    preferences.m_unratedSiteAction = 2;
    preferences.m_bCategoryBlocking = false;
    preferences.m_unverifiedAction = 3;
    return preferences;
}
constexpr const char* kDifferentScalars = "enable 0 safe 1 red 1 yellow 3 unrated 2 unverified 3 categories 0 "
                                          "allow-over-block 0 type 10 individual 0 unused 0";

constexpr ReceivedEvent kDashboard{EVT_DASHBOARD_STATUS_CHANGE, false};
constexpr ReceivedEvent kPreferences{EVT_PREFERENCES_CHANGE, false};

class APreferenceStore : public ::testing::Test {
protected:
    void SetUp() override {
        machine.initSettings();
        start();
    }

    void start() { ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output(); }
    void restart() {
        ASSERT_EQ(machine.stopDaemon(), 0) << machine.daemon().output();
        start();
    }
    /// Ends the daemon, with all that it still had to send, and gives every event that it sent.
    std::vector<ReceivedEvent> eventsToTheEnd() {
        EXPECT_EQ(machine.stopDaemon(), 0) << machine.daemon().output();
        return client.eventsUntilNow();
    }
    /// The value of a setting in hexadecimal; the name's terminator is part of the key.
    std::string stored(const std::string& name) {
        std::string value = machine.sql("select hex(value) from vxsetting where hex(name) = hex('" + name + "')||'00'");
        return value.substr(0, value.find('\n'));
    }
    std::string allRows() {
        return machine.sql("select hex(name), hex(value) from vxsetting order by 1;"
                           "select name, hex(value) from catblockinginfo order by 1;"
                           "select name, value from allowblocksettings order by 1;"
                           "select range from privateIPRange order by 1");
    }

    Machine machine;
    PreferenceClient client{machine.bus().socketPath()};
};

TEST_F(APreferenceStore, AnswersTheDefaultsFromEmptyTables) {
    const STPreferences all = client.getAll();
    EXPECT_EQ(scalarsOf(all), kFreshScalars);
    EXPECT_THAT(all.m_allowBlockDetails, IsEmpty());
    EXPECT_THAT(all.m_categoryBlockDetails, IsEmpty());
    EXPECT_EQ(allRows(), "") << "looking writes nothing";
}

TEST_F(APreferenceStore, AnswersTheDefaultsWithoutAFile) {
    std::filesystem::remove(machine.settingsFile());
    EXPECT_EQ(scalarsOf(client.getAll()), kFreshScalars);
    EXPECT_TRUE(machine.daemon().isRunning());
}

TEST_F(APreferenceStore, StoresAWholeSnapshotUnderTheKeysWithTheirTerminatorAsFourByteNumbers) {
    EXPECT_EQ(client.setAll(allDifferent()), ST_ERROR_NONE);
    EXPECT_EQ(scalarsOf(client.getAll()), kDifferentScalars);
    // Names: CAT_Enabled, Enabled, GenPolicyUnverifiedAction, RedSiteAction, SSOn, UnverifiedSiteAction,
    // YellowSiteAction.
    EXPECT_EQ(allRows(), "4341545F456E61626C656400|00000000\n"
                         "456E61626C656400|00000000\n"
                         "47656E506F6C696379556E7665726966696564416374696F6E00|03000000\n"
                         "52656453697465416374696F6E00|01000000\n"
                         "53534F6E00|01000000\n"
                         "556E766572696669656453697465416374696F6E00|02000000\n"
                         "59656C6C6F7753697465416374696F6E00|03000000\n");
}

TEST_F(APreferenceStore, ChangesNoListAndNoPrecedenceByAWholeSnapshot) {
    client.setOne(withUrls({{"kept.example", 1}}));
    client.setOne(withCategories({{"Kept", 1}}));
    STPreferences preferences;
    preferences.setAllowBlockDetails({{"other.example", 0}});
    preferences.m_categoryBlockDetails = {{"Other", 1}};
    preferences.m_bAllowOverBlock = true;
    EXPECT_EQ(client.setAll(preferences), ST_ERROR_NONE);
    const STPreferences all = client.getAll();
    EXPECT_FALSE(all.m_bAllowOverBlock);
    EXPECT_EQ(urlsOf(all), (Urls{{"kept.example", 1}}));
    EXPECT_EQ(all.m_categoryBlockDetails, (CategoryBlockDetails{{"Kept", 1}}));
    EXPECT_EQ(stored("ALLOW_OVER_Block"), "");
}

TEST_F(APreferenceStore, AppliesTheDefaultsOfASnapshotThatIsNotThere) {
    client.setAll(allDifferent());
    EXPECT_EQ(client.sendEmpty(ST_SET_PREFS), ST_ERROR_NONE);
    EXPECT_EQ(scalarsOf(client.getAll()), "enable 1 safe 0 red 3 yellow 2 unrated 1 unverified 1 categories 0 "
                                          "allow-over-block 0 type 10 individual 0 unused 0");
    EXPECT_EQ(stored("Enabled"), "01000000");
    EXPECT_EQ(stored("RedSiteAction"), "03000000");
    EXPECT_EQ(stored("CAT_Enabled"), "00000000");
}

TEST_F(APreferenceStore, StoresEachSwitchByItself) {
    struct Case {
        STPrefType type;
        const char* name;
        bool value;
        const char* hex;
        const char* answered;
    };
    for (const Case& one : {Case{ST_ENABLE, "Enabled", false, "00000000", "enable 0 safe 0"},
                            Case{ST_SAFE_SEARCH, "SSOn", true, "01000000", "enable 1 safe 1"},
                            Case{ST_CATEGORY_BLOCKING, "CAT_Enabled", false, "00000000", "enable 1 safe 0"}}) {
        EXPECT_EQ(client.setOne(withSwitch(one.type, one.value)), ST_ERROR_NONE) << one.name;
        EXPECT_EQ(stored(one.name), one.hex) << one.name;
        const STPreferences answer = client.getOne(one.type);
        EXPECT_EQ(answer.m_prefType, one.type);
        EXPECT_TRUE(answer.m_bIndividual);
        EXPECT_THAT(scalarsOf(answer), HasSubstr(one.answered)) << "the others keep their defaults";
    }
    EXPECT_EQ(machine.sql("select count(*) from vxsetting"), "3\n");
    EXPECT_EQ(scalarsOf(client.getAll()), "enable 0 safe 1 red 3 yellow 2 unrated 1 unverified 1 categories 0 "
                                          "allow-over-block 0 type 10 individual 0 unused 0");
}

TEST_F(APreferenceStore, StoresEachActionByItselfWhateverItsNumber) {
    struct Case {
        STPrefType type;
        const char* name;
        int value;
        const char* hex;
        const char* answered;
    };
    for (const Case& one :
         {Case{ST_RED_SITE_ACTION, "RedSiteAction", 2, "02000000", "red 2 yellow 2 unrated 1 unverified 1"},
          Case{ST_YELLOW_SITE_ACTION, "YellowSiteAction", -1, "FFFFFFFF", "red 3 yellow -1 unrated 1 unverified 1"},
          Case{ST_UNRATED_SITE_ACTION, "UnverifiedSiteAction", 0, "00000000", "red 3 yellow 2 unrated 0 unverified 1"},
          Case{ST_UNVERIFIED_ACTION, "GenPolicyUnverifiedAction", 0x01020304, "04030201",
               "red 3 yellow 2 unrated 1 unverified 16909060"}}) {
        EXPECT_EQ(client.setOne(withAction(one.type, one.value)), ST_ERROR_NONE) << one.name;
        EXPECT_EQ(stored(one.name), one.hex) << one.name;
        EXPECT_THAT(scalarsOf(client.getOne(one.type)), HasSubstr(one.answered));
    }
    EXPECT_EQ(machine.sql("select count(*) from vxsetting"), "4\n");
}

TEST_F(APreferenceStore, LeavesTheOtherMembersOfASingleOneAtTheirDefaults) {
    client.setAll(allDifferent());
    EXPECT_EQ(scalarsOf(client.getOne(ST_ENABLE)), "enable 0 safe 0 red 3 yellow 2 unrated 1 unverified 1 "
                                                   "categories 0 allow-over-block 0 type 0 individual 1 unused 0");
}

TEST_F(APreferenceStore, ReplacesTheUrlListAndGivesTheBlockedOnesFirst) {
    EXPECT_THAT(client.getOne(ST_ALLOW_BLOCK_LIST).m_allowBlockDetails, IsEmpty());
    EXPECT_EQ(client.setOne(withUrls({{"z.example", 0}, {"m.example", 1}, {"a.example", 0}})), ST_ERROR_NONE);
    EXPECT_EQ(machine.sql("select name, value, typeof(value), length(name) from allowblocksettings order by rowid"),
              "z.example|0|integer|9\nm.example|1|integer|9\na.example|0|integer|9\n");
    const STPreferences answer = client.getOne(ST_ALLOW_BLOCK_LIST);
    EXPECT_EQ(answer.m_prefType, ST_ALLOW_BLOCK_LIST);
    EXPECT_TRUE(answer.m_bIndividual);
    EXPECT_THAT(urlsOf(answer), testing::SizeIs(3));
    EXPECT_EQ(urlsOf(answer).front(), Urls::value_type("m.example", 1));
    EXPECT_EQ(client.setOne(withUrls({{"new.example", 7}})), ST_ERROR_NONE);
    EXPECT_EQ(machine.sql("select name, value from allowblocksettings"), "new.example|7\n");
    EXPECT_EQ(client.setOne(withUrls({})), ST_ERROR_NONE);
    EXPECT_EQ(machine.sql("select count(*) from allowblocksettings"), "0\n");
    EXPECT_THAT(client.getAll().m_allowBlockDetails, IsEmpty());
}

TEST_F(APreferenceStore, ReplacesTheCategoryListWithoutThoseThatAreAllowed) {
    EXPECT_EQ(client.setOne(withCategories({{"Games", 3}, {"News", 0}, {" Spaced ", 1}})), ST_ERROR_NONE);
    EXPECT_EQ(machine.sql("select name, hex(value), typeof(value) from catblockinginfo order by name"),
              " Spaced |01000000|blob\nGames|03000000|blob\n");
    EXPECT_EQ(client.getOne(ST_CATEGORY_BLOCK_LIST).m_categoryBlockDetails,
              (CategoryBlockDetails{{" Spaced ", 1}, {"Games", 1}}));
    EXPECT_EQ(client.setOne(withCategories({})), ST_ERROR_NONE);
    EXPECT_EQ(machine.sql("select count(*) from catblockinginfo"), "0\n");
}

TEST_F(APreferenceStore, DropsACategoryListWhileCategoryBlockingIsOff) {
    client.setOne(withCategories({{"Kept", 1}}));
    client.setOne(withSwitch(ST_CATEGORY_BLOCKING, false));
    EXPECT_EQ(client.setOne(withCategories({{"Dropped", 1}})), ST_ERROR_NONE);
    EXPECT_EQ(machine.sql("select name from catblockinginfo"), "Kept\n");
    EXPECT_EQ(client.getOne(ST_CATEGORY_BLOCK_LIST).m_categoryBlockDetails, (CategoryBlockDetails{{"Kept", 1}}));
}

TEST_F(APreferenceStore, KeepsEveryByteOfANameOnItsWay) {
    std::string name;
    for (int byte = 1; byte <= 255; ++byte) {
        name += static_cast<char>(byte);
    }
    EXPECT_EQ(client.setOne(withUrls({{name, 1}})), ST_ERROR_NONE);
    EXPECT_EQ(client.setOne(withCategories({{name, 1}})), ST_ERROR_NONE);
    const STPreferences all = client.getAll();
    EXPECT_EQ(urlsOf(all), (Urls{{name, 1}}));
    EXPECT_EQ(all.m_categoryBlockDetails, (CategoryBlockDetails{{name, 1}}));
    restart();
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{name, 1}}));
}

TEST_F(APreferenceStore, SendsUrlsInBase64AndStoresThemPlain) {
    WireClient wire(machine.bus().socketPath());
    EXPECT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls({{"a", 1}, {"bb", 1}, {"ccc", 1}}))),
              ST_ERROR_NONE);
    EXPECT_EQ(machine.sql("select name from allowblocksettings order by name"), "a\nbb\nccc\n");
    for (const STPreferences& answer :
         {wire.snapshot(ST_GET_PREFS), wire.snapshot(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(7))}) {
        const Urls onTheWire(answer.m_allowBlockDetails.begin(), answer.m_allowBlockDetails.end());
        EXPECT_THAT(onTheWire, testing::UnorderedElementsAre(std::pair<std::string, int>("YQ==", 1),
                                                             std::pair<std::string, int>("YmI=", 1),
                                                             std::pair<std::string, int>("Y2Nj", 1)));
    }
}

TEST_F(APreferenceStore, ResetsEightPreferencesAndNothingElse) {
    client.setOne(withCategories({{"Kept", 1}}));
    client.setOne(withUrls({{"gone.example", 1}}));
    client.setAll(allDifferent());
    machine.sql("insert into privateIPRange values('10.0.0.0/8');"
                "insert or replace into vxsetting values(cast('ALLOW_OVER_Block' || char(0) as text), x'01000000')");
    restart();
    EXPECT_TRUE(client.getAll().m_bAllowOverBlock);
    EXPECT_EQ(client.reset(), ST_ERROR_NONE);
    const STPreferences all = client.getAll();
    EXPECT_EQ(scalarsOf(all), "enable 1 safe 0 red 3 yellow 2 unrated 1 unverified 3 categories 0 "
                              "allow-over-block 0 type 10 individual 0 unused 0");
    EXPECT_THAT(all.m_allowBlockDetails, IsEmpty());
    EXPECT_EQ(all.m_categoryBlockDetails, (CategoryBlockDetails{{"Kept", 1}}));
    EXPECT_EQ(stored("ALLOW_OVER_Block"), "00000000");
    EXPECT_EQ(stored("GenPolicyUnverifiedAction"), "03000000");
    EXPECT_EQ(machine.sql("select count(*) from allowblocksettings; select name from catblockinginfo;"
                          "select range from privateIPRange"),
              "0\nKept\n10.0.0.0/8\n");
}

TEST_F(APreferenceStore, KeepsWhatItAnsweredAcrossARestartAndAcrossACrash) {
    client.setOne(withUrls({{"allow.example", 0}, {"block.example", 1}}));
    client.setOne(withCategories({{"Games", 2}}));
    client.setAll(allDifferent());
    const auto expectAll = [this] {
        const STPreferences all = client.getAll();
        EXPECT_EQ(scalarsOf(all), kDifferentScalars);
        EXPECT_EQ(urlsOf(all), (Urls{{"block.example", 1}, {"allow.example", 0}}));
        EXPECT_EQ(all.m_categoryBlockDetails, (CategoryBlockDetails{{"Games", 1}}));
    };
    restart();
    expectAll();
    machine.kill9Daemon();
    start();
    expectAll();
    EXPECT_EQ(client.setOne(withAction(ST_RED_SITE_ACTION, 77)), ST_ERROR_NONE);
    machine.kill9Daemon();
    start();
    EXPECT_EQ(client.getAll().m_redSiteAction, 77);
}

TEST_F(APreferenceStore, SortsTheUrlListByTheStoredPrecedenceAtStart) {
    client.setOne(withUrls({{"block.example", 1}, {"allow.example", 0}}));
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{"block.example", 1}, {"allow.example", 0}}));
    machine.sql("insert into vxsetting values(cast('ALLOW_OVER_Block' || char(0) as text), x'01000000')");
    restart();
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{"allow.example", 0}, {"block.example", 1}}));
}

TEST_F(APreferenceStore, TakesAKeyWithoutItsTerminatorForAnother) {
    machine.sql("insert into vxsetting values('Enabled', x'00000000')");
    restart();
    EXPECT_TRUE(client.getAll().m_bEnable);
    client.setOne(withSwitch(ST_ENABLE, false));
    EXPECT_EQ(machine.sql("select count(*) from vxsetting"), "2\n");
}

TEST_F(APreferenceStore, LeavesTheFileUntouchedWhenAValueIsTheCurrentOne) {
    std::filesystem::remove(machine.settingsFile());
    EXPECT_EQ(client.setOne(withSwitch(ST_ENABLE, true)), ST_ERROR_NONE);
    client.getAll(); // loads from the file that is not there, which makes an empty one
    std::filesystem::remove(machine.settingsFile());
    for (const STPrefType type : {ST_RED_SITE_ACTION, ST_YELLOW_SITE_ACTION, ST_UNRATED_SITE_ACTION}) {
        EXPECT_EQ(client.setOne(individual(type)), ST_ERROR_NONE);
    }
    EXPECT_EQ(client.setOne(withSwitch(ST_ENABLE, true)), ST_ERROR_NONE);
    EXPECT_EQ(client.setOne(withSwitch(ST_SAFE_SEARCH, false)), ST_ERROR_NONE);
    EXPECT_EQ(client.setOne(withSwitch(ST_CATEGORY_BLOCKING, true)), ST_ERROR_NONE);
    EXPECT_EQ(client.setOne(withAction(ST_UNVERIFIED_ACTION, 1)), ST_ERROR_NONE);
    EXPECT_FALSE(std::filesystem::exists(machine.settingsFile()));
}

TEST_F(APreferenceStore, AnswersATypeThatIsNoneAsFailedWithoutAPayload) {
    for (const int type : {9, 10, -1, 2'000'000'000}) {
        HVB::CommandData command(ST_GET_PREFS_INDIVIDUAL, HVB::MODULE_SENTREL, true);
        command.writePayload(type);
        HVB::CommandResult result;
        client.send(command, result);
        EXPECT_FALSE(result.m_bSucceeded) << type;
        EXPECT_TRUE(result.m_bValid) << type;
        EXPECT_EQ(result.m_pInArchive, nullptr) << type;
    }
    const WireClient::Answer answer = WireClient(machine.bus().socketPath()).command(ST_GET_PREFS_INDIVIDUAL);
    EXPECT_EQ(answer.error, "") << "a request without a type gets the same reply";
    EXPECT_FALSE(answer.succeeded);
    EXPECT_TRUE(answer.valid);
    EXPECT_FALSE(answer.hasPayload);
}

TEST_F(APreferenceStore, RefusesASingleOneThatNamesNoPreferenceAndTellsNobody) {
    client.listen();
    for (const int type : {9, 10, -1}) {
        EXPECT_EQ(client.setOne(individual(static_cast<STPrefType>(type))), ST_ERROR_INVALID_PREFERENCE) << type;
    }
    STPreferences unmarked = withSwitch(ST_CATEGORY_BLOCKING, false);
    unmarked.m_bIndividual = false;
    EXPECT_EQ(client.setOne(unmarked), ST_ERROR_INVALID_PREFERENCE);
    EXPECT_EQ(client.sendEmpty(ST_SET_PREFS_INDIVIDUAL), ST_ERROR_INVALID_PREFERENCE);
    EXPECT_EQ(allRows(), "");
    EXPECT_EQ(scalarsOf(client.getAll()), kFreshScalars);
    EXPECT_THAT(eventsToTheEnd(), IsEmpty());
}

TEST_F(APreferenceStore, RefusesAUrlThatIsNoBase64AndKeepsTheList) {
    client.listen();
    client.setOne(withUrls({{"kept.example", 1}}));
    STPreferences bad = withUrls({{"first.example", 1}});
    bad.m_allowBlockDetails.emplace("!", 1);
    EXPECT_EQ(client.setOne(bad), ST_ERROR_GENERIC);
    bad = individual(ST_ALLOW_BLOCK_LIST);
    bad.m_allowBlockDetails.emplace("\xff\xff", 1);
    EXPECT_EQ(client.setOne(bad), ST_ERROR_GENERIC);
    EXPECT_EQ(machine.sql("select name, value from allowblocksettings"), "kept.example|1\n");
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{"kept.example", 1}}));
    EXPECT_THAT(client.waitForEvents(1), ElementsAre(kPreferences)) << "of the list that was set";
    EXPECT_THAT(eventsToTheEnd(), ElementsAre(kPreferences)) << "and of nothing else";
}

TEST_F(APreferenceStore, RefusesACommandThatItDoesNotKnowAtOnce) {
    WireClient wire(machine.bus().socketPath());
    for (const int id : {100005, 1005, 1020, 0, 99999}) {
        EXPECT_EQ(wire.command(id).error, HVB::bus::kErrorUnknownCommand) << id;
    }
    EXPECT_EQ(scalarsOf(client.getAll()), kFreshScalars);
}

TEST_F(APreferenceStore, TellsOfEachKindOfChangeWithItsOwnEventsInTheirOrder) {
    client.listen();
    std::vector<ReceivedEvent> expected;
    const auto expectMore = [&](const std::string& change, const std::vector<ReceivedEvent>& events) {
        expected.insert(expected.end(), events.begin(), events.end());
        EXPECT_EQ(client.waitForEvents(expected.size()), expected) << change;
    };
    client.setOne(withSwitch(ST_ENABLE, false));
    expectMore("enable", {kDashboard});
    client.setOne(withSwitch(ST_SAFE_SEARCH, true));
    expectMore("safe search", {kPreferences});
    client.setOne(withAction(ST_RED_SITE_ACTION, 1));
    expectMore("red", {kPreferences});
    client.setOne(withAction(ST_YELLOW_SITE_ACTION, 1));
    expectMore("yellow", {kPreferences});
    client.setOne(withAction(ST_UNRATED_SITE_ACTION, 2));
    expectMore("unrated", {kPreferences});
    client.setOne(withUrls({{"a.example", 1}}));
    expectMore("urls", {kPreferences});
    client.setOne(withCategories({{"Games", 1}}));
    expectMore("categories", {kPreferences});
    client.setAll(allDifferent());
    expectMore("all", {kPreferences, kDashboard});
    client.reset();
    expectMore("reset", {kPreferences, kDashboard});
    client.setOne(withSwitch(ST_ENABLE, true));
    expectMore("the same value again", {kDashboard});
    EXPECT_EQ(eventsToTheEnd(), expected);
}

TEST_F(APreferenceStore, TellsNobodyOfTheActionForUnverifiedSitesNorOfTheCategorySwitch) {
    client.listen();
    EXPECT_EQ(client.setOne(withAction(ST_UNVERIFIED_ACTION, 2)), ST_ERROR_NONE);
    EXPECT_EQ(client.setOne(withSwitch(ST_CATEGORY_BLOCKING, false)), ST_ERROR_NONE);
    client.getAll();
    client.getOne(ST_ENABLE);
    EXPECT_THAT(eventsToTheEnd(), IsEmpty());
}

TEST_F(APreferenceStore, TellsOfAWholeChangeAlsoWhenItFailed) {
    client.getAll();
    std::filesystem::remove(machine.settingsFile());
    client.listen();
    EXPECT_EQ(client.setAll(allDifferent()), ST_ERROR_DATABASE);
    EXPECT_THAT(client.waitForEvents(2), ElementsAre(kPreferences, kDashboard));
    EXPECT_EQ(client.setOne(withSwitch(ST_ENABLE, false)), ST_ERROR_DATABASE);
    EXPECT_THAT(eventsToTheEnd(), ElementsAre(kPreferences, kDashboard)) << "but not of a single one";
}

/// Payloads that lie. Each is an archive of a snapshot, cut or bent at one place.
struct Lie {
    const char* name;
    std::wstring payload;
    bool beginsLikeAnArchive;
};

std::wstring archiveHead() {
    const std::wstring number = payloadOf(5);
    return number.substr(0, number.size() - 1); // without the digit
}

std::wstring noise(std::size_t bytes) {
    std::wstring text(bytes / sizeof(wchar_t), L'\0');
    std::uint32_t state = 20261121; // a fixed seed: a failure can be run again
    for (wchar_t& character : text) {
        state = state * 1664525U + 1013904223U;
        character = static_cast<wchar_t>(state);
    }
    return text;
}

std::vector<Lie> lies() {
    const std::wstring whole = payloadOf([] {
        STPreferences preferences = allDifferent();
        preferences.m_bIndividual = true;
        preferences.m_prefType = ST_CATEGORY_BLOCK_LIST;
        preferences.m_categoryBlockDetails = {{"Games", 1}};
        return preferences;
    }());
    const std::wstring scalars = archiveHead() + L"0 0 0 1 1 3 2 8 1 0 0 0 3";
    const std::wstring huge = L" 1152921504606846976 ";
    return {
        {"a category list of 2^60 entries", scalars + L" 0 0" + huge + L"0 0 0 5 Games 1", true},
        {"a URL list of 2^60 entries", scalars + L" 0 0 0 0 0 0" + huge + L"0 0 0 4 YQ== 1", true},
        {"a name of two thousand million characters", scalars + L" 0 0 1 0 0 0 2000000000 Games 1", true},
        {"a name of 2^64 - 1 characters", scalars + L" 0 0 1 0 0 0 18446744073709551615 Games 1", true},
        {"a snapshot cut in the middle", whole.substr(0, whole.size() / 2), true},
        {"a snapshot without its end", whole.substr(0, whole.size() - 8), true},
        {"the head of an archive alone", archiveHead(), true},
        {"a word where a number belongs", archiveHead() + L"0 0 0 1 red 3 2 8 1 0 0 0 3", true},
        {"a snapshot of the future", archiveHead() + L"0 7 0 1 1 3 2 8 1 0 0 0 3 0 0 0 0 0 0 0 0", true},
        {"noise behind the head", archiveHead() + noise(std::size_t{1} << 20U), true},
        {"the head of something else", L"22 serialization::archivX 18 0 0", false},
        {"an archive of the library's future", L"22 serialization::archive 9999 0 0", false},
        {"no text", L"", false},
        {"noise", noise(std::size_t{1} << 20U), false},
    };
}

/// Without its readers' limits the daemon would take some thousand MiB here.
constexpr long kMostKilobytesForLies = 128L * 1024;

class ALyingClient : public APreferenceStore {
protected:
    void SetUp() override {
        APreferenceStore::SetUp();
        client.listen();
        client.setOne(withUrls({{"kept.example", 1}}));
        client.setOne(withCategories({{"Kept", 1}}));
        before = allRows();
        peakBefore = machine.daemonPeakKilobytes();
        ASSERT_THAT(client.waitForEvents(2), ElementsAre(kPreferences, kPreferences)) << "of the two lists";
    }

    void expectNothingChanged(const char* name) {
        const STPreferences all = client.getAll();
        EXPECT_EQ(scalarsOf(all), kFreshScalars) << name;
        EXPECT_EQ(urlsOf(all), (Urls{{"kept.example", 1}})) << name;
        EXPECT_EQ(all.m_categoryBlockDetails, (CategoryBlockDetails{{"Kept", 1}})) << name;
        EXPECT_EQ(allRows(), before) << name;
    }

    void TearDown() override {
        EXPECT_LT(machine.daemonPeakKilobytes() - peakBefore, kMostKilobytesForLies);
        EXPECT_THAT(eventsToTheEnd(), ElementsAre(kPreferences, kPreferences))
            << "of what did not happen nobody is told";
    }

    std::string before;
    long peakBefore = 0;
    WireClient wire{machine.bus().socketPath()};
};

TEST_F(ALyingClient, IsRefusedAWholeSnapshotBeforeAnySetterRuns) {
    for (const Lie& lie : lies()) {
        EXPECT_EQ(wire.command(ST_SET_PREFS, lie.payload).error, HVB::bus::kErrorFailed) << lie.name;
        expectNothingChanged(lie.name);
    }
}

TEST_F(ALyingClient, IsAnsweredTheGenericErrorOfASingleSnapshot) {
    for (const Lie& lie : lies()) {
        const WireClient::Answer answer = wire.command(ST_SET_PREFS_INDIVIDUAL, lie.payload);
        if (lie.beginsLikeAnArchive) {
            ASSERT_EQ(answer.error, "") << lie.name;
            EXPECT_TRUE(answer.succeeded && answer.valid && answer.hasPayload) << lie.name;
            EXPECT_EQ(valueOf<int>(answer.payload), ST_ERROR_GENERIC) << lie.name;
        } else {
            EXPECT_EQ(answer.error, HVB::bus::kErrorFailed) << lie.name << ": there is nothing to hand to the daemon";
        }
        expectNothingChanged(lie.name);
    }
}

TEST_F(ALyingClient, IsRefusedATypeThatIsNoNumber) {
    const std::wstring noNumber = noise(std::size_t{1} << 20U);
    for (const std::wstring& payload :
         {archiveHead(), archiveHead() + L"x", archiveHead() + L"99999999999", archiveHead() + noNumber, noNumber,
          std::wstring(L"22 serialization::archivX 18 0"), std::wstring()}) {
        EXPECT_EQ(wire.command(ST_GET_PREFS_INDIVIDUAL, payload).error, HVB::bus::kErrorFailed);
        expectNothingChanged("get");
    }
}

TEST_F(ALyingClient, IsToldSoWhenAMessageIsNoCommand) {
    const HVB::bus::MessagePtr request =
        HVB::bus::newCall(wire.bus(), HVB::bus::moduleName(7), HVB::bus::modulePath(7), HVB::bus::kModuleInterface,
                          HVB::bus::commandMember(ST_SET_PREFS));
    HVB::bus::check(sd_bus_message_append(request.get(), "s", "all of them"), "append");
    try {
        HVB::bus::call(wire.bus(), *request, patience());
        ADD_FAILURE() << "a string was taken for a command";
    } catch (const HVB::bus::CallError& error) {
        EXPECT_EQ(error.name(), HVB::bus::kErrorBadMessage);
    }
    expectNothingChanged("string");
}

class ADaemonWithoutTheHubsConfiguration : public APreferenceStore {
protected:
    void expectFailureThenRecovery() {
        WireClient wire(machine.bus().socketPath());
        const std::string before = allRows();
        EXPECT_EQ(wire.command(ST_GET_PREFS).error, HVB::bus::kErrorFailed);
        EXPECT_EQ(wire.code(ST_RESET_PREFS), ST_ERROR_GENERIC);
        EXPECT_EQ(wire.code(ST_SET_PREFS, payloadOf(allDifferent())), ST_ERROR_GENERIC);
        EXPECT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withSwitch(ST_ENABLE, false))), ST_ERROR_GENERIC);
        EXPECT_EQ(wire.command(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(ST_ENABLE)).error, HVB::bus::kErrorFailed);
        EXPECT_EQ(allRows(), before);
        ASSERT_TRUE(machine.daemon().isRunning()) << machine.daemon().output();
        const pid_t pid = machine.daemon().pid();
        machine.installConfiguration();
        EXPECT_EQ(scalarsOf(client.getAll()), kFreshScalars);
        EXPECT_EQ(client.setOne(withSwitch(ST_ENABLE, false)), ST_ERROR_NONE);
        EXPECT_EQ(stored("Enabled"), "00000000");
        EXPECT_EQ(machine.daemon().pid(), pid);
    }
};

TEST_F(ADaemonWithoutTheHubsConfiguration, FailsEachCommandAtOnceAndServesWhenTheFileIsThere) {
    std::filesystem::remove(machine.configurationFile());
    expectFailureThenRecovery();
}

TEST_F(ADaemonWithoutTheHubsConfiguration, FailsEachCommandAtOnceAndServesWhenTheFileIsWellFormedAgain) {
    std::ofstream(machine.configurationFile()) << "<HVConfiguration><SyslogEnable>true</SyslogEnable>";
    expectFailureThenRecovery();
}

TEST_F(ADaemonWithoutTheHubsConfiguration, FailsEachCommandAtOnceAndServesWhenTheElementIsThere) {
    std::ofstream(machine.configurationFile()) << "<HVConfiguration><LogLevel>debug</LogLevel></HVConfiguration>";
    expectFailureThenRecovery();
}

/// Runs each of @p clients on a thread of its own, with a connection of its own, and waits for all of them.
void atOnce(const std::string& socketPath, const std::vector<std::function<void(WireClient&)>>& clients) {
    std::vector<std::thread> threads;
    std::atomic<std::size_t> ready{0};
    for (const auto& run : clients) {
        threads.emplace_back([&] {
            try {
                WireClient wire(socketPath);
                ++ready;
                eventually([&] { return ready == clients.size(); });
                run(wire);
            } catch (const HVB::HVBException& exception) {
                ADD_FAILURE() << exception.message();
            } catch (const std::exception& exception) {
                ADD_FAILURE() << exception.what();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(APreferenceStore, GivesEachOfEightClientsAtOnceItsOwnReplies) {
    constexpr int writes = 100;
    constexpr int reads = 500;
    std::atomic<int> replies{0};
    std::vector<std::function<void(WireClient&)>> clients;
    // What only one client writes, it must read back. These three are kept in memory also when the file is busy.
    for (const STPrefType type : {ST_RED_SITE_ACTION, ST_YELLOW_SITE_ACTION, ST_UNRATED_SITE_ACTION}) {
        clients.emplace_back([&replies, type](WireClient& wire) {
            for (int value = 1000 * type; value < 1000 * type + writes; ++value) {
                ASSERT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withAction(type, value))), ST_ERROR_NONE);
                const STPreferences answer = wire.snapshot(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(type));
                ASSERT_EQ(answer.m_prefType, type);
                ASSERT_EQ(std::max({answer.m_redSiteAction, answer.m_yellowSiteAction, answer.m_unratedSiteAction}),
                          value);
                replies += 2;
            }
        });
    }
    for (const STPrefType type : {ST_ENABLE, ST_SAFE_SEARCH, ST_UNVERIFIED_ACTION, ST_ALLOW_BLOCK_LIST}) {
        clients.emplace_back([&replies, type](WireClient& wire) {
            for (int read = 0; read < reads; ++read) {
                ASSERT_EQ(wire.snapshot(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(type)).m_prefType, type);
                ++replies;
            }
        });
    }
    clients.emplace_back([&replies](WireClient& wire) {
        for (int read = 0; read < reads; ++read) {
            ASSERT_EQ(wire.snapshot(ST_GET_PREFS).m_prefType, ST_ALL_PREFERENCES);
            ++replies;
        }
    });
    atOnce(machine.bus().socketPath(), clients);
    EXPECT_EQ(replies, 3 * 2 * writes + 5 * reads);
}

TEST_F(APreferenceStore, LivesThroughReplacementsOfTheListsByManyClientsAtOnce) {
    constexpr int replacements = 5;
    constexpr int rows = 8;
    std::vector<std::function<void(WireClient&)>> clients;
    for (int writer = 0; writer < 4; ++writer) {
        clients.emplace_back([writer](WireClient& wire) {
            for (int replacement = 0; replacement < replacements; ++replacement) {
                Urls urls;
                CategoryBlockDetails categories;
                for (int row = 0; row < rows; ++row) {
                    urls.emplace_back("u" + std::to_string(writer) + "." + std::to_string(row), writer);
                    categories["c" + std::to_string(writer) + "." + std::to_string(row)] = 1;
                }
                ASSERT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls(urls))), ST_ERROR_NONE);
                ASSERT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withCategories(categories))), ST_ERROR_NONE);
            }
        });
    }
    for (int reader = 0; reader < 4; ++reader) {
        clients.emplace_back([](WireClient& wire) {
            for (int read = 0; read < 100; ++read) {
                for (const auto& [url, value] : urlsOf(wire.snapshot(ST_GET_PREFS))) {
                    ASSERT_EQ(url.substr(0, 3), "u" + std::to_string(value) + ".") << "a row of two clients";
                }
            }
        });
    }
    atOnce(machine.bus().socketPath(), clients);
    EXPECT_TRUE(machine.daemon().isRunning()) << machine.daemon().output();
    EXPECT_EQ(machine.sql("pragma integrity_check"), "ok\n");
    EXPECT_EQ(machine.sql("select count(*) from allowblocksettings where substr(name, 2, 1) <> cast(value as text)"),
              "0\n");
    std::string inMemory;
    for (const auto& [url, value] : urlsOf(client.getAll())) {
        inMemory += url + "|" + std::to_string(value) + "\n";
    }
    EXPECT_FALSE(inMemory.empty());
    EXPECT_EQ(machine.sql("select name, value from allowblocksettings order by value desc"), inMemory)
        << "memory is what the file holds";
    client.setOne(withUrls({{"last.example", 1}}));
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{"last.example", 1}}));
}

} // namespace
} // namespace testing_support
