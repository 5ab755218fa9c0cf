// What the five preference commands answer and what they store.
#include "tests/integration/PreferenceStoreFixture.h"
#include "tests/support/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace testing_support {
namespace {

using namespace Sentrel;
using testing::HasSubstr;
using testing::IsEmpty;

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

TEST_F(APreferenceStore, StoresAWholeSnapshotAsFourByteNumbers) {
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

TEST_F(APreferenceStore, LeavesTheOtherMembersOfASingleSnapshotAtTheirDefaults) {
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

TEST_F(APreferenceStore, TakesTheUrlListOfAProgramThatTracksItsClasses) {
    WireClient wire(machine.bus().socketPath());
    EXPECT_EQ(
        wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls({{"b.example", 0}, {"a.example", 1}, {"b.example", 7}}))),
        ST_ERROR_NONE);
    const std::string plain = machine.sql("select name, value from allowblocksettings");
    EXPECT_NE(plain, "");
    for (const char* folder : {"debian-13", "debian-13-tracked"}) {
        client.setOne(withUrls({}));
        const std::string text =
            readFile(std::string(SENTREL_SOURCE_DIR "/tests/data/archives/") + folder + "/preferences");
        EXPECT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, std::wstring(text.begin(), text.end())), ST_ERROR_NONE);
        EXPECT_EQ(machine.sql("select name, value from allowblocksettings"), plain) << folder;
    }
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

} // namespace
} // namespace testing_support
