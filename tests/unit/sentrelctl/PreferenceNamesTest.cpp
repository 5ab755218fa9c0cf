// Names and values as people type and read them.
#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Nearest.h"

#include <functional>
#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

std::string refusalOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), ExitCode::BadUsage);
        return failure.line();
    }
    return "nothing was refused";
}

const Preference& named(std::string_view name) {
    for (const Preference& preference : allPreferences()) {
        if (preference.name == name) {
            return preference;
        }
    }
    throw std::runtime_error("no such preference");
}

TEST(APreferenceName, StandsForTheTypeThatTheDaemonKnows) {
    EXPECT_EQ(settablePreference("protection").type, ST_ENABLE);
    EXPECT_EQ(settablePreference("safe-search").type, ST_SAFE_SEARCH);
    EXPECT_EQ(settablePreference("red-sites").type, ST_RED_SITE_ACTION);
    EXPECT_EQ(settablePreference("yellow-sites").type, ST_YELLOW_SITE_ACTION);
    EXPECT_EQ(settablePreference("unrated-sites").type, ST_UNRATED_SITE_ACTION);
    EXPECT_EQ(settablePreference("unverified-sites").type, ST_UNVERIFIED_ACTION);
    EXPECT_EQ(settablePreference("category-blocking").type, ST_CATEGORY_BLOCKING);
}

TEST(APreferenceName, IsRefusedWithTheNamesThatThereAreAndTheNearestOfThem) {
    EXPECT_EQ(refusalOf([] { settablePreference("red-site"); }),
              "sentrelctl: bad usage: 'red-site': not a preference: it is one of protection, safe-search, red-sites, "
              "yellow-sites, unrated-sites, unverified-sites, category-blocking. Perhaps 'red-sites' is meant.");
    EXPECT_TRUE(refusalOf([] { settablePreference("nonsense"); }).ends_with(". See 'sentrelctl prefs set --help'."));
}

TEST(APreferenceName, IsRefusedWhenOnlyThePolicySetsIt) {
    EXPECT_EQ(refusalOf([] { settablePreference("allow-over-block"); }),
              "sentrelctl: cannot be set: allow-over-block: only the management policy sets it. "
              "'sentrelctl prefs show' tells its value.");
}

TEST(AnUnknownWord, IsTakenForTheOneThatItBeginsOrMisspells) {
    const std::vector<std::string_view> words{"on", "off", "protection"};
    EXPECT_EQ(nearest("of", words), "off");
    EXPECT_EQ(nearest("onn", words), "on");
    EXPECT_EQ(nearest("protecton", words), "protection");
    EXPECT_EQ(nearest("prot", words), "protection");
    EXPECT_EQ(nearest("x", words), std::nullopt);
    EXPECT_EQ(nearest("", words), std::nullopt);
    EXPECT_EQ(nearest("something else", words), std::nullopt);
    EXPECT_EQ(nearest(std::string(1000000, 'o'), words), std::nullopt);
}

TEST(ASwitch, TakesEveryPairOfWordsAndIsShownAsOnOrOff) {
    const Preference& preference = named("safe-search");
    for (const auto& [word, isOn] : std::vector<std::pair<std::string, bool>>{{"on", true},
                                                                              {"true", true},
                                                                              {"yes", true},
                                                                              {"1", true},
                                                                              {"off", false},
                                                                              {"false", false},
                                                                              {"no", false},
                                                                              {"0", false}}) {
        STPreferences values;
        values.m_bSafeSearch = !isOn;
        setValue(values, preference, word);
        EXPECT_EQ(values.m_bSafeSearch, isOn) << word;
        EXPECT_EQ(valueText(values, preference), isOn ? "on" : "off");
        EXPECT_EQ(valueJson(values, preference), Json(isOn));
    }
}

TEST(ASwitch, TakesNoOtherWord) {
    STPreferences values;
    EXPECT_EQ(refusalOf([&] { setValue(values, named("protection"), "block"); }),
              "sentrelctl: bad usage: 'block': not a value of protection: it is one of on, off. "
              "See 'sentrelctl prefs set --help'.");
    for (const char* word : {"", "ON", "2", "on "}) {
        EXPECT_NE(refusalOf([&] { setValue(values, named("protection"), word); }), "nothing was refused") << word;
    }
}

TEST(AnAction, TakesItsWordOrItsNumberAndIsShownAsItsWord) {
    const Preference& preference = named("unverified-sites");
    const std::vector<std::string> words{"allow", "warn", "block"};
    for (std::int32_t code = 1; code <= 3; ++code) {
        const std::string& word = words[static_cast<std::size_t>(code) - 1];
        for (const std::string& text : {word, std::to_string(code)}) {
            STPreferences values;
            setValue(values, preference, text);
            EXPECT_EQ(values.m_unverifiedAction, code) << text;
            EXPECT_EQ(valueText(values, preference), word);
            EXPECT_EQ(valueJson(values, preference), Json(word));
        }
    }
}

TEST(AnAction, TakesNoOtherWord) {
    STPreferences values;
    EXPECT_EQ(refusalOf([&] { setValue(values, named("red-sites"), "bloc"); }),
              "sentrelctl: bad usage: 'bloc': not a value of red-sites: it is one of allow, warn, block. "
              "Perhaps 'block' is meant.");
    for (const char* word : {"0", "4", "on", ""}) {
        EXPECT_NE(refusalOf([&] { setValue(values, named("red-sites"), word); }), "nothing was refused") << word;
    }
}

TEST(AnAction, IsShownAsItsNumberWhenItHasNoWord) {
    STPreferences values;
    values.m_redSiteAction = -7;
    EXPECT_EQ(valueText(values, named("red-sites")), "-7");
    EXPECT_EQ(valueJson(values, named("red-sites")), Json("-7"));
}

TEST(ARefusal, SaysTheErrorByNameAndNumberAndWhatToDo) {
    EXPECT_EQ(errorName(180000), "ST_ERROR_NONE (180000)");
    EXPECT_EQ(errorName(42), "42");
    const std::string database = refusal(180003, "what").line();
    EXPECT_TRUE(database.starts_with("sentrelctl: what: the daemon cannot write the settings file: "
                                     "ST_ERROR_DATABASE (180003). Make its tables with 'sentrelctl settings init'"))
        << database;
    EXPECT_NE(refusal(180001, "what").line().find("ST_ERROR_GENERIC (180001). The daemon's trace log "),
              std::string::npos);
    EXPECT_NE(refusal(180004, "what").line().find("ST_ERROR_INVALID_PREFERENCE (180004). The daemon does not know"),
              std::string::npos);
    EXPECT_NE(refusal(180006, "what").line().find("ST_ERROR_PREFERENCES_EXCEPTION (180006). The daemon's trace log "),
              std::string::npos);
    EXPECT_EQ(refusal(180003, "what").code(), ExitCode::Failed);
}

} // namespace
} // namespace Sentrel::ctl
