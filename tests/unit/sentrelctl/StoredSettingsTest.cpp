// What the settings file lacks of a change, and what of a damaged one the hub knows.
#include "apps/sentrelctl/preferences/StoredSettings.h"

#include "apps/sentrelctl/preferences/SettingsRepair.h"
#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "tests/support/TemporaryDirectory.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

settings::SettingsSnapshot fileWith(bool isChanging) {
    settings::SettingsSnapshot file;
    file.state = settings::SnapshotState::Whole;
    file.isChanging = isChanging;
    file.allowBlock = {{"b.example", 1}, {"a.example", 0}};
    file.categories = {{"Gambling", 1}};
    file.numbers = {{"RedSiteAction", 2}};
    return file;
}

TEST(AShortfall, IsEmptyWhenTheFileHasAllOfAListInAnyOrder) {
    EXPECT_EQ(shortfallOfList({{"a.example", 0}, {"b.example", 1}})(fileWith(false)), "");
    EXPECT_EQ(shortfallOfCategories({{"Gambling", 1}})(fileWith(false)), "");
}

TEST(AShortfall, NamesWhatTheFileLacks) {
    EXPECT_EQ(shortfallOfList({{"a.example", 1}, {"b.example", 1}})(fileWith(false)),
              "1 of 2 are missing, the first is a.example");
    EXPECT_EQ(shortfallOfList({})(fileWith(false)), "it has 2 in place of 0");
    EXPECT_EQ(shortfallOfCategories({{"Gambling", 1}, {"Music", 1}})(fileWith(false)),
              "1 of 2 are missing, the first is Music");
}

TEST(AShortfall, OfAListIsNotKnownWhileAListIsChanging) {
    EXPECT_EQ(shortfallOfList({})(fileWith(true)), std::nullopt);
    EXPECT_EQ(shortfallOfCategories({{"Music", 1}})(fileWith(true)), std::nullopt);
    EXPECT_EQ(shortfallOfCategories({{"Gambling", 1}})(fileWith(true)), "") << "it was stored before the change";
}

TEST(AShortfall, OfASingleValueDoesNotWaitForAList) {
    STPreferences wanted;
    wanted.m_redSiteAction = 1;
    EXPECT_EQ(shortfallOf(settablePreference("red-sites"), wanted)(fileWith(true)), "the settings file has warn");
    wanted.m_yellowSiteAction = 2;
    EXPECT_EQ(shortfallOf(settablePreference("yellow-sites"), wanted)(fileWith(true)), "")
        << "a first value without a row";
}

TEST(ASettingWhoseRowIsNoNumber, IsShownAsThatAndNotAsOneThatIsNotSet) {
    settings::SettingsSnapshot file = fileWith(false);
    file.unreadable = {"Enabled"};
    const std::string text = settingsText({}, file, Palette{});
    EXPECT_NE(text.find(fmt::format("{:<25} {:<33} no number\n", "protection", "on")), std::string::npos) << text;
    EXPECT_NE(text.find(fmt::format("{:<25} {:<33} not set\n", "safe-search", "off")), std::string::npos) << text;
    const std::string json = jsonText(settingsJson({}, file), JsonMode::Short);
    EXPECT_NE(json.find(R"("protection":{"in_force":true,"stored":null,"error":"no number"})"), std::string::npos)
        << json;
    EXPECT_NE(json.find(R"("safe_search":{"in_force":false,"stored":null})"), std::string::npos) << json;
    EXPECT_EQ(shortfallOf(settablePreference("protection"), STPreferences())(file),
              "the row in the settings file is no number");
}

TEST(ARepair, AddsWhatTheHubKnowsToBrokenTablesAlone) {
    const testing_support::TemporaryDirectory directory;
    setUpSettingsFile(directory.file("product.db"), SettingsReaders::DaemonAlone);
    std::vector<SavedTable> tables = saveSettings(directory.file("product.db"));
    ASSERT_EQ(tables.size(), 4U);
    addKnownSettings(tables, fileWith(false));
    for (const SavedTable& table : tables) {
        EXPECT_TRUE(table.isSound) << table.name;
        EXPECT_EQ(table.added, 0U) << table.name << ": somebody took them out";
    }
    tables[2].isSound = false;
    addKnownSettings(tables, fileWith(false));
    EXPECT_EQ(tables[1].added, 0U);
    EXPECT_EQ(tables[2].added, 2U);
}

} // namespace
} // namespace Sentrel::ctl
