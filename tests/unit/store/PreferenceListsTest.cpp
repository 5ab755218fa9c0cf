// The three lists: what is stored, what is served afterwards, in which order, and what is said about it.
#include "store/PreferencesException.h"
#include "tests/support/Eventually.h"
#include "tests/unit/store/PreferenceFixture.h"
#include "tests/unit/store/ReadBackGate.h"

#include <atomic>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace testing_support {
namespace {

using Sentrel::AllowBlockDetails;
using Sentrel::CategoryBlockDetails;
using Sentrel::preferences;
using Sentrel::STPreferenceController;

using Urls = std::vector<std::pair<std::string, int>>;

Urls served() {
    AllowBlockDetails details;
    EXPECT_EQ(preferences().getAllowBlockDetails(details), Sentrel::ST_ERROR_NONE);
    return {details.begin(), details.end()};
}

CategoryBlockDetails servedCategories() {
    CategoryBlockDetails details;
    EXPECT_EQ(preferences().getCategoryBlockDetails(details), Sentrel::ST_ERROR_NONE);
    return details;
}

int setUrls(const Urls& urls) {
    AllowBlockDetails details;
    for (const auto& [url, action] : urls) {
        details.emplace(url, action);
    }
    return preferences().setAllowBlockDetails(details);
}

int setUrlsByPolicy(int precedence, std::vector<std::wstring> urls, std::vector<int> actions) {
    return preferences().setAllowBlockDetails(precedence, urls, actions);
}

int setCategories(CategoryBlockDetails categories) {
    return preferences().setCategoryBlockDetails(categories);
}

int setCategoriesByPolicy(int enabled, std::vector<std::wstring> names, std::wstring actions, int uncategorised = 0,
                          std::optional<int> count = {}) {
    std::vector<wchar_t> codes(actions.begin(), actions.end());
    return preferences().setCategoryBlockDetails(enabled, count.value_or(static_cast<int>(names.size())), codes, names,
                                                 uncategorised);
}

class APreferenceList : public PreferenceFixture {
protected:
    APreferenceList() { makeTables(); }

    std::string rows() const { return sql("select name, typeof(value), value from allowblocksettings"); }
    std::string categoryRows() const { return sql("select name, typeof(value), hex(value) from catblockinginfo"); }
    std::string ranges() const { return sql("select range from privateIPRange"); }

    /// Levelled lines of @p act on a controller over fresh tables.
    Lines linesOf(const std::function<void()>& act) const {
        return leveled(
            [this] {
                std::filesystem::remove(file());
                makeTables();
                preferences();
            },
            act);
    }
};

/// Runs @p later when @p earlier has read the rows of @p table back and has not taken them over yet.
void replaceBetween(const char* table, const std::function<void()>& earlier, const std::function<void()>& later) {
    preferences();
    ReadBackGate gate(table);
    std::thread first(earlier);
    EXPECT_TRUE(eventually([&gate] { return gate.holdsAReader(); }));
    std::atomic<bool> isDone{false};
    std::thread second([&] {
        later();
        isDone = true;
    });
    EXPECT_TRUE(eventually([&] { return gate.hasSeenAWaitForALock() || isDone; }));
    gate.letGo();
    first.join();
    second.join();
}

using ACategoryList = APreferenceList;
using AnAllowBlockList = APreferenceList;
using APrivateRangeList = APreferenceList;

// Categories.

TEST_F(ACategoryList, DropsACategoryWhoseActionDigitIsZeroOrNoDigit) {
    EXPECT_EQ(setCategoriesByPolicy(1, {L"Games", L"News", L"Ads", L"Shops"}, L"20x9"), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(categoryRows(), "Games|blob|02000000\nShops|blob|09000000");
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"Games", 1}, {"Shops", 1}}));
}

TEST_F(ACategoryList, DropsACategoryWithActionZeroFromAClientThatIsPrintedAllTheSame) {
    EXPECT_EQ(printed([] {
                  setCategories({{"Games", 0}, {"News", 3}, {"Caf\xc3\xa9", 1}});
              }),
              "Caf\xc3\xa9 Block\nGames Allow\nNews Block\n");
    EXPECT_EQ(categoryRows(), "Caf\xc3\xa9|blob|01000000\nNews|blob|03000000");
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"Caf\xc3\xa9", 1}, {"News", 1}}));
}

TEST_F(ACategoryList, StaysWithItsSwitchOfUncategorisedSitesWhenPolicyTurnsTheFeatureOff) {
    setCategoriesByPolicy(1, {L"Games"}, L"1", 1);
    EXPECT_EQ(stored("UNCAT_Block"), "blob 01000000");
    EXPECT_EQ(setCategoriesByPolicy(0, {L"News"}, L"1", 0), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(stored("CAT_Enabled"), "blob 00000000");
    EXPECT_FALSE(preferences().getEnableCategoryBlocking());
    EXPECT_EQ(stored("UNCAT_Block"), "blob 01000000");
    EXPECT_EQ(categoryRows(), "Games|blob|01000000");
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"Games", 1}}));
}

TEST_F(ACategoryList, WritesItsSwitchOnlyWhenItDiffersAndThenAsItCame) {
    setCategoriesByPolicy(1, {}, L"");
    EXPECT_EQ(stored("CAT_Enabled"), "") << "on by default";
    setCategoriesByPolicy(2, {}, L"");
    EXPECT_EQ(stored("CAT_Enabled"), "blob 02000000");
    EXPECT_TRUE(preferences().getEnableCategoryBlocking());
}

TEST_F(ACategoryList, IsEmptiedByPolicyWithACountOfZero) {
    setCategoriesByPolicy(1, {L"Games"}, L"1");
    EXPECT_EQ(setCategoriesByPolicy(1, {L"Games"}, L"1", 0, 0), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(categoryRows(), "");
    EXPECT_TRUE(servedCategories().empty());
}

TEST_F(ACategoryList, IsNotChangedByAClientWhileTheFeatureIsOff) {
    setCategoriesByPolicy(1, {L"Games"}, L"1");
    preferences().setEnableCategoryBlocking(false);
    EXPECT_EQ(printed([] { EXPECT_EQ(setCategories({{"News", 1}}), Sentrel::ST_ERROR_NONE); }), "");
    EXPECT_EQ(categoryRows(), "Games|blob|01000000");
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"Games", 1}}));
}

TEST_F(ACategoryList, StoresANameFromPolicyWithoutBlanksAndTabsAroundIt) {
    setCategoriesByPolicy(1, {L"\t Social Media \t"}, L"1");
    EXPECT_EQ(categoryRows(), "Social Media|blob|01000000");
}

TEST_F(ACategoryList, StoresANameFromAClientAsItCame) {
    static_cast<void>(printed([] { setCategories({{"\tGames ", 1}}); }));
    EXPECT_EQ(categoryRows(), "\tGames |blob|01000000");
}

TEST_F(ACategoryList, ServesOneForEveryCategoryWhateverActionWasGiven) {
    setCategoriesByPolicy(1, {L"A", L"B", L"C"}, L"123");
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"A", 1}, {"B", 1}, {"C", 1}}));
    restarted();
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"A", 1}, {"B", 1}, {"C", 1}}));
}

TEST_F(ACategoryList, TakesOnlyTheEntriesThatAreWhole) {
    EXPECT_EQ(setCategoriesByPolicy(1, {L"A", L"B"}, L"11", 0, 2147483647), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"A", 1}, {"B", 1}}));
    setCategoriesByPolicy(1, {L"A", L"B", L"C"}, L"1", 0);
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"A", 1}}));
    setCategoriesByPolicy(1, {L"A"}, L"111", 0, -2147483647);
    EXPECT_TRUE(servedCategories().empty());
}

TEST_F(ACategoryList, LeavesOutANameThatIsLongerThanItsReadersBuffers) {
    const std::wstring longest(1023, L'a');
    setCategoriesByPolicy(1, {longest, longest + L"b", std::wstring(512, L'\u00e9'), L"News"}, L"1111");
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{std::string(1023, 'a'), 1}, {"News", 1}}));
}

TEST_F(ACategoryList, IsStoredWholeWhileAnotherProgramWritesToo) {
    constexpr int categories = 60;
    std::vector<std::wstring> names;
    for (int index = 0; index < categories; ++index) {
        names.push_back(L"category" + std::to_wstring(index));
    }
    preferences();
    std::atomic<bool> isOver{false};
    std::thread other([&] {
        std::string seen;
        // One write for each new row: without a pause it could keep a row out for longer than a statement waits.
        while (!isOver) {
            sql("pragma busy_timeout=5000; insert or replace into privateIPRange values('10.0.0.0/8')");
            eventually([&] {
                const std::string rows = sql("select count(*) from catblockinginfo");
                return std::exchange(seen, rows) != rows || isOver;
            });
        }
    });
    setCategoriesByPolicy(1, names, std::wstring(categories, L'1'));
    isOver = true;
    other.join();
    EXPECT_EQ(sql("select count(*) from catblockinginfo"), std::to_string(categories));
    EXPECT_EQ(servedCategories().size(), static_cast<std::size_t>(categories));
}

TEST_F(ACategoryList, ServesWhatTheFileHoldsAfterTwoReplacementsAtATime) {
    replaceBetween(
        "catblockinginfo",
        [] {
            setCategories({{"Games", 1}});
        },
        [] { setCategoriesByPolicy(1, {L"News"}, L"1"); });
    EXPECT_EQ(categoryRows(), "News|blob|01000000");
    EXPECT_EQ(servedCategories(), (CategoryBlockDetails{{"News", 1}}));
}

TEST_F(ACategoryList, SaysWhatPolicyDidToIt) {
    EXPECT_EQ(linesOf([] {
                  setCategoriesByPolicy(1, {L"News", L"Games"}, L"12", 7);
              }),
              (Lines{"2 STPreferenceController::setCategoryBlockDetails - entered with value 1",
                     "2 STPreferenceController::setCategoryBlockDetails - isNonCategoryBlocked 1",
                     "1 STPreferenceController::setCategoryBlockDetails 1 updating member variable with data in DB",
                     "1 Category Name is News and action is 1", "1 Category Name is Games and action is 1"}));
    EXPECT_EQ(linesOf([] { setCategoriesByPolicy(1, {}, L"", 0); })[1],
              "2 STPreferenceController::setCategoryBlockDetails - isNonCategoryBlocked 0");
}

TEST_F(ACategoryList, SaysWhatAClientDidToIt) {
    EXPECT_EQ(linesOf([] {
                  setCategories({{"News", 1}, {"Games", 0}});
              }),
              (Lines{"2 STPreferenceController::setCategoryBlockDetails 2 entered",
                     "1 STPreferenceController::setCategoryBlockDetails 2 updating member variable with data in DB",
                     "1 Category Name is News and action is 1"}));
}

TEST_F(ACategoryList, SaysThatNothingCouldBeReadBack) {
    const auto withoutTable = [this](const std::function<void()>& act) {
        return leveled(
            [this] {
                std::filesystem::remove(file());
                makeTables();
                preferences();
                setCategories({{"Games", 1}});
                sql("drop table catblockinginfo");
            },
            [&act] {
                act();
                EXPECT_TRUE(servedCategories().empty());
            });
    };
    EXPECT_THAT(withoutTable([] {
                    EXPECT_EQ(setCategories({{"News", 1}}), Sentrel::ST_ERROR_NONE);
                }),
                testing::Contains("1 STPreferenceController::setCategoryBlockDetails 2 - no data found in DB to update "
                                  "member variable"));
    EXPECT_THAT(withoutTable([] { EXPECT_EQ(setCategoriesByPolicy(1, {L"News"}, L"1"), Sentrel::ST_ERROR_NONE); }),
                testing::Contains("1 STPreferenceController::setCategoryBlockDetails 1 - no data found in DB to update "
                                  "member variable"));
}

TEST_F(ACategoryList, TracesThatItWasAskedFor) {
    EXPECT_EQ(linesOf([] { servedCategories(); }),
              (Lines{"1 STPreferenceController::getCategoryBlockDetails entered"}));
}

// The allow/block list.

TEST_F(AnAllowBlockList, ServesTheAllowedUrlFirstWhenAllowingHasPrecedenceAndTheBlockedOneOtherwise) {
    EXPECT_EQ(setUrlsByPolicy(1, {L"http://b.example", L"http://a.example"}, {1, 0}), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(served(), (Urls{{"http://a.example", 0}, {"http://b.example", 1}}));
    EXPECT_TRUE(preferences().getAllowOverBlockPrecedenceStatus());
    EXPECT_EQ(stored("ALLOW_OVER_Block"), "blob 01000000");
    setUrlsByPolicy(0, {L"http://a.example", L"http://b.example"}, {0, 1});
    EXPECT_EQ(served(), (Urls{{"http://b.example", 1}, {"http://a.example", 0}}));
    EXPECT_FALSE(preferences().getAllowOverBlockPrecedenceStatus());
    EXPECT_EQ(stored("ALLOW_OVER_Block"), "blob 00000000");
    restarted();
    EXPECT_EQ(served(), (Urls{{"http://b.example", 1}, {"http://a.example", 0}}));
}

TEST_F(AnAllowBlockList, TakesEveryPrecedenceButZeroForAllowing) {
    for (const int precedence : {2, -1}) {
        setUrlsByPolicy(0, {}, {});
        setUrlsByPolicy(precedence, {L"http://b.example", L"http://a.example"}, {1, 0});
        EXPECT_TRUE(preferences().getAllowOverBlockPrecedenceStatus()) << precedence;
        EXPECT_EQ(served(), (Urls{{"http://a.example", 0}, {"http://b.example", 1}})) << precedence;
        EXPECT_EQ(stored("ALLOW_OVER_Block"), precedence == 2 ? "blob 02000000" : "blob FFFFFFFF");
    }
}

TEST_F(AnAllowBlockList, ServesWhatTheFileHoldsAfterTwoReplacementsAtATime) {
    replaceBetween(
        "allowblocksettings",
        [] {
            setUrls({{"http://a.example", 1}});
        },
        [] { setUrlsByPolicy(0, {L"http://b.example"}, {1}); });
    EXPECT_EQ(rows(), "http://b.example|integer|1");
    EXPECT_EQ(served(), (Urls{{"http://b.example", 1}}));
}

TEST_F(AnAllowBlockList, WritesThePrecedenceAlsoWhenItIsTheCurrentOne) {
    setUrlsByPolicy(0, {}, {});
    EXPECT_EQ(stored("ALLOW_OVER_Block"), "blob 00000000");
}

TEST_F(AnAllowBlockList, StoresAUrlFromPolicyWithoutBlanksAroundItAndOneFromAClientAsItCame) {
    setUrlsByPolicy(0, {L"  \thttp://a.example "}, {1});
    EXPECT_EQ(rows(), "http://a.example|integer|1");
    setUrls({{"  http://a.example", 5}});
    EXPECT_EQ(rows(), "  http://a.example|integer|5");
}

TEST_F(AnAllowBlockList, KeepsTheLaterOfTwoEntriesForOneUrl) {
    setUrls({{"http://a.example", 1}, {"http://b.example", 1}, {"http://a.example", 0}});
    EXPECT_EQ(rows(), "http://b.example|integer|1\nhttp://a.example|integer|0");
}

TEST_F(AnAllowBlockList, IsEmptiedByAnEmptyOne) {
    setUrls({{"http://a.example", 1}});
    EXPECT_EQ(setUrls({}), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(rows(), "");
    EXPECT_TRUE(served().empty());
}

TEST_F(AnAllowBlockList, DoesNotTouchThePrecedenceForAClient) {
    setUrlsByPolicy(1, {}, {});
    setUrls({{"http://b.example", 1}, {"http://a.example", 0}});
    EXPECT_TRUE(preferences().getAllowOverBlockPrecedenceStatus());
    EXPECT_EQ(served(), (Urls{{"http://a.example", 0}, {"http://b.example", 1}}));
}

TEST_F(AnAllowBlockList, PrintsWhatAClientSentInItsOrder) {
    EXPECT_EQ(printed([] {
                  setUrls({{"http://b.example", 1}, {"http://a.example", 0}, {"", 3}, {"x\ny", 2}});
              }),
              "http://b.example Block\nhttp://a.example Allow\n Block\nx\\x0ay Block\n");
    EXPECT_EQ(printed([] { setUrlsByPolicy(0, {L"http://b.example"}, {1}); }), "");
}

TEST_F(AnAllowBlockList, LeavesOutAnEmptyUrl) {
    setUrls({{"", 1}, {"http://a.example", 1}});
    EXPECT_EQ(rows(), "http://a.example|integer|1");
}

TEST_F(AnAllowBlockList, TakesOnlyTheEntriesThatHaveAnAction) {
    EXPECT_EQ(setUrlsByPolicy(0, {L"http://a.example", L"http://b.example"}, {1}), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(rows(), "http://a.example|integer|1");
    setUrlsByPolicy(0, {L"http://a.example"}, {0, 1, 1});
    EXPECT_EQ(rows(), "http://a.example|integer|0");
}

TEST_F(AnAllowBlockList, TakesAUrlOfAsManyBytesAsItsReadersBuffersHold) {
    setUrlsByPolicy(0, {std::wstring(1023, L'a'), std::wstring(511, L'\u00e9') + L"b", std::wstring(512, L'\u00e9')},
                    {0, 0, 0});
    std::string twoBytesEach;
    for (int character = 0; character < 511; ++character) {
        twoBytesEach += "\xc3\xa9";
    }
    EXPECT_EQ(served(), (Urls{{std::string(1023, 'a'), 0}, {twoBytesEach + "b", 0}}));
}

TEST_F(AnAllowBlockList, SaysThatEntriesAreNotWholeAndThatAUrlIsTooLong) {
    EXPECT_EQ(linesOf([] {
                  setUrlsByPolicy(0, {std::wstring(1024, L'a'), L"http://b.example"}, {1});
              }),
              (Lines{"2 STPreferenceController::setAllowBlockDetails 1 - entered",
                     "1 STPreferenceController::setAllowBlockDetails - only 1 of 2 entries are whole",
                     "1 STPreferenceController::setAllowBlockDetails - left out a text that is too long"}));
}

TEST_F(AnAllowBlockList, KeepsAUrlFromPolicyUpToItsFirstCharacterThatNoUtf8Has) {
    setUrlsByPolicy(0, {std::wstring(L"http://a.example/") + static_cast<wchar_t>(0xD800) + L"x"}, {1});
    EXPECT_EQ(rows(), "http://a.example/|integer|1");
}

TEST_F(AnAllowBlockList, SaysWhatAClientDidToIt) {
    EXPECT_EQ(linesOf([] {
                  setUrls({{"http://b.example", 3}, {"http://a.example", 0}});
              }),
              (Lines{"2 STPreferenceController::setAllowBlockDetails 2 - entered",
                     "1 STPreferenceController::setAllowBlockDetails 2 URL Name is http://b.example and action is 3",
                     "1 STPreferenceController::setAllowBlockDetails 2 URL Name is http://a.example and action is 0",
                     "1 STPreferenceController::setAllowBlockDetails 2 - Updating member variable"}));
}

TEST_F(AnAllowBlockList, StaysEmptyInMemoryWhenItCannotBeReadBackAndComesBackWithTheNextStart) {
    setUrls({{"http://a.example", 1}});
    sql("alter table allowblocksettings rename to aside");
    EXPECT_EQ(setUrls({{"http://b.example", 1}}), Sentrel::ST_ERROR_NONE);
    EXPECT_TRUE(served().empty());
    sql("alter table aside rename to allowblocksettings");
    restarted();
    EXPECT_EQ(served(), (Urls{{"http://a.example", 1}}));
}

TEST_F(AnAllowBlockList, OfPolicyStaysEmptyInMemoryWhenItCannotBeReadBack) {
    setUrls({{"http://a.example", 1}});
    sql("alter table allowblocksettings rename to aside");
    EXPECT_EQ(setUrlsByPolicy(0, {L"http://b.example"}, {1}), Sentrel::ST_ERROR_NONE);
    EXPECT_TRUE(served().empty());
}

TEST_F(AnAllowBlockList, KeepsWhatTheSqliteProgramWroteInTheOrderOfTheFile) {
    sql("insert into allowblocksettings values('http://z.example', 1), ('http://a.example', 1), "
        "('http://ok.example', 0)");
    restarted();
    EXPECT_EQ(served(), (Urls{{"http://z.example", 1}, {"http://a.example", 1}, {"http://ok.example", 0}}));
}

TEST_F(AnAllowBlockList, TracesNothingWhenItIsAskedFor) {
    EXPECT_EQ(linesOf([] { served(); }), Lines{});
}

// Private ranges.

TEST_F(APrivateRangeList, IsEmptiedByAnEmptyOne) {
    EXPECT_EQ(preferences().setPrivateIPRange({"10.0.0.0-10.255.255.255"}), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(ranges(), "10.0.0.0-10.255.255.255");
    EXPECT_EQ(preferences().setPrivateIPRange({}), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(ranges(), "");
}

TEST_F(APrivateRangeList, SkipsARangeWithAColonAndStoresTheDottedOneBesideIt) {
    EXPECT_EQ(linesOf([] {
                  preferences().setPrivateIPRange({"fc00::/7", " 10.0.0.0/8 ", ""});
              }),
              (Lines{"5 STPreferenceController::setPrivateIPRange - entered",
                     "1 STPreferenceController::setPrivateIPRange ignoring IPV6 private range."}));
    EXPECT_EQ(ranges(), " 10.0.0.0/8 ");
}

// What all of them share.

struct ListSetter {
    const char* name; ///< of the case
    std::function<int()> set;
    const char* entry;
    const char* lineStart; ///< of the lines about path and handle
    const char* setter;    ///< in the lines about exceptions
};

class AListSetter : public APreferenceList, public testing::WithParamInterface<ListSetter> {
protected:
    /// The lines of the setter when the question for the path is answered by @p answer.
    Lines linesWith(const std::function<bool(std::string&)>& answer, int expected) const {
        const auto path = settingsPath();
        return leveled(
            [&] {
                settingsPath() = path;
                preferences();
                settingsPath() = answer;
            },
            [&] { EXPECT_EQ(GetParam().set(), expected); });
    }
    std::string line(const std::string& start, const std::string& rest) const {
        return "1 STPreferenceController::" + start + rest;
    }
};

INSTANTIATE_TEST_SUITE_P(
    Each, AListSetter,
    testing::Values(ListSetter{"CategoriesOfPolicy", [] { return setCategoriesByPolicy(1, {}, L""); },
                               "2 STPreferenceController::setCategoryBlockDetails - entered with value 1",
                               "setCategoryBlockDetails", "setCategoryBlockDetails"},
                    ListSetter{"CategoriesOfAClient", [] { return setCategories({}); },
                               "2 STPreferenceController::setCategoryBlockDetails 2 entered",
                               "setCategoryBlockDetails 2", "setCategoryBlockDetails"},
                    ListSetter{"UrlsOfPolicy", [] { return setUrlsByPolicy(0, {}, {}); },
                               "2 STPreferenceController::setAllowBlockDetails 1 - entered", "setAllowBlockDetails",
                               "setAllowBlockDetails"},
                    ListSetter{"UrlsOfAClient", [] { return setUrls({}); },
                               "2 STPreferenceController::setAllowBlockDetails 2 - entered", "setAllowBlockDetails 2",
                               "setAllowBlockDetails"},
                    ListSetter{"Ranges", [] { return preferences().setPrivateIPRange({}); },
                               "5 STPreferenceController::setPrivateIPRange - entered", "setPrivateIPRange",
                               "setPrivateIPRange"}),
    [](const auto& setter) { return std::string(setter.param.name); });

TEST_P(AListSetter, FailsWithoutAPath) {
    EXPECT_EQ(linesWith([](std::string&) { return false; }, Sentrel::ST_ERROR_DATABASE),
              (Lines{GetParam().entry, line(GetParam().lineStart, " - Error while getting user DB Path")}));
}

TEST_P(AListSetter, FailsWhenTheFileCannotBeOpened) {
    const auto elsewhere = [this](std::string& path) {
        path = file() + ".d/no/such";
        return true;
    };
    EXPECT_EQ(linesWith(elsewhere, Sentrel::ST_ERROR_DATABASE),
              (Lines{GetParam().entry, line(GetParam().lineStart, " - Error while getting DB handle")}));
}

TEST_P(AListSetter, TurnsExceptionsIntoTheirCodesAndLines) {
    EXPECT_EQ(linesWith([](std::string&) -> bool { throw Sentrel::PreferencesException("worn out"); },
                        Sentrel::ST_ERROR_PREFERENCES_EXCEPTION),
              (Lines{GetParam().entry, line(GetParam().setter, " - Caught Preferences exception worn out")}));
    EXPECT_EQ(linesWith([](std::string&) -> bool { throw std::runtime_error("unknown"); }, Sentrel::ST_ERROR_GENERIC),
              (Lines{GetParam().entry, line(GetParam().setter, " - Caught generic exception ")}));
}

TEST_P(AListSetter, SucceedsWithoutTablesAndSignalsNothing) {
    std::filesystem::remove(file());
    preferences();
    EXPECT_EQ(GetParam().set(), Sentrel::ST_ERROR_NONE);
    EXPECT_THAT(Recording::instance().calls(), testing::IsEmpty());
}

TEST(Trim, TakesTheCharactersOffBothEndsAndLeavesThoseWithin) {
    using Sentrel::trim;
    EXPECT_EQ(trim(" \t a b\t ", " \t"), "a b");
    EXPECT_EQ(trim("ab", " \t"), "ab");
    EXPECT_EQ(trim("\na ", " \t"), "\na");
    EXPECT_EQ(trim("", " \t"), "");
    EXPECT_EQ(trim("\t \t", " \t"), "");
    EXPECT_EQ(trim(" a ", ""), " a ");
}

} // namespace
} // namespace testing_support
