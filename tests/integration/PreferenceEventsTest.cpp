// Which events tell of which change of the preferences.
#include "tests/integration/PreferenceStoreFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace testing_support {
namespace {

using namespace Sentrel;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(APreferenceStore, PublishesEachKindOfChangeWithItsOwnEvents) {
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

TEST_F(APreferenceStore, PublishesNothingForTheUnverifiedActionAndTheCategorySwitch) {
    client.listen();
    EXPECT_EQ(client.setOne(withAction(ST_UNVERIFIED_ACTION, 2)), ST_ERROR_NONE);
    EXPECT_EQ(client.setOne(withSwitch(ST_CATEGORY_BLOCKING, false)), ST_ERROR_NONE);
    client.getAll();
    client.getOne(ST_ENABLE);
    EXPECT_THAT(eventsToTheEnd(), IsEmpty());
}

TEST_F(APreferenceStore, PublishesAWholeChangeEvenWhenItFailed) {
    client.getAll();
    std::filesystem::remove(machine.settingsFile());
    client.listen();
    EXPECT_EQ(client.setAll(allDifferent()), ST_ERROR_DATABASE);
    EXPECT_THAT(client.waitForEvents(2), ElementsAre(kPreferences, kDashboard));
    EXPECT_EQ(client.setOne(withSwitch(ST_ENABLE, false)), ST_ERROR_DATABASE);
    EXPECT_THAT(eventsToTheEnd(), ElementsAre(kPreferences, kDashboard)) << "but not of a single one";
}

} // namespace
} // namespace testing_support
