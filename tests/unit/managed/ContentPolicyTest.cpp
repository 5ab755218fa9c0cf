// The second pass, categories and ratings, and the third, the allow/block list.
#include "managed/PolicyChecksum.h"
#include "store/STPreferenceController.h"
#include "tests/unit/managed/PolicyFixture.h"

namespace testing_support {
namespace {

using Sentrel::detail::checksumOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string kPass = "VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy";
constexpr const wchar_t* kActions = L"ContentActions";

class AContentPolicy : public PolicyFixture {
protected:
    bool enforce() { return enforcement.enforceCategoryAndSiteRatingPolicy(policy); }
    Lines rated(const std::wstring& overall) {
        store.calls.clear();
        content(L"RatingActions", L"uiOverall", overall);
        EXPECT_TRUE(enforce());
        return store.calls;
    }
    /// A policy without a category step.
    void ratingsOnly() { content(kActions, L"bEnableCategorization", L"-1"); }
};

TEST_F(AContentPolicy, WithoutItsSwitchFailsAndWritesNothing) {
    content(L"RatingActions", L"uiOverall", L"84");
    EXPECT_EQ(leveled([this] { EXPECT_FALSE(enforce()); }),
              (Lines{"2 " + kPass + " - Entered", "5 " + kPass + " - exiting"}));
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AContentPolicy, WithASwitchOfMinusOneAppliesTheRatingsAlone) {
    ratingsOnly();
    EXPECT_EQ(rated(L"84"), (Lines{"setYellowSiteAction 3", "setRedSiteAction 2", "signalPrefChange 2"}));
}

TEST_F(AContentPolicy, WithASwitchOfZeroStillFetchesAllAndSignals) {
    wholeContent();
    content(kActions, L"bEnableCategorization", L"0");
    EXPECT_TRUE(enforce());
    EXPECT_EQ(store.calls[0], "setCategoryBlockDetails 0 2 10 al,ga 0");
    EXPECT_EQ(store.calls[1], "signalPrefChange 8");
}

TEST_F(AContentPolicy, HandsItsSwitchAndItsUncategorizedActionOnUnchanged) {
    wholeContent();
    content(kActions, L"bEnableCategorization", L"5");
    content(kActions, L"uiActionUncategorized", L"3");
    const Lines lines = leveled([this] { EXPECT_TRUE(enforce()); });
    EXPECT_EQ(store.calls[0], "setCategoryBlockDetails 5 2 10 al,ga 3");
    EXPECT_THAT(lines, Contains("2 " + kPass + " - UnCategorized Block Val - 3 "));
}

TEST_F(AContentPolicy, WithoutACountFailsAndSaysSo) {
    content(kActions, L"bEnableCategorization", L"1");
    content(L"RatingActions", L"uiOverall", L"84");
    const Lines lines = leveled([this] { EXPECT_FALSE(enforce()); });
    EXPECT_THAT(lines, Contains("2 " + kPass + " - No Category Present "));
    EXPECT_THAT(systemLog(), ElementsAre("7 " + kPass + "() - Entered", "7 " + kPass + " - No Category Present "));
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AContentPolicy, WithACountOfZeroOrLessFails) {
    for (const wchar_t* count : {L"0", L"-1", L"-7"}) {
        wholeContent(L"84");
        content(kActions, L"uiBitCount", count);
        const Lines lines = leveled([this] { EXPECT_FALSE(enforce()); });
        EXPECT_THAT(lines, Contains("2 " + kPass + " - Issue with gathering Action Bit"));
        EXPECT_THAT(store.calls, IsEmpty());
    }
}

TEST_F(AContentPolicy, WithFewerActionsThanCategoriesFails) {
    wholeContent(L"84");
    content(kActions, L"uiBitCount", L"3");
    content(kActions, L"uiContentBitCodes", L"al,ga,ne");
    const Lines lines = leveled([this] { EXPECT_FALSE(enforce()); });
    EXPECT_THAT(lines, Contains("2 " + kPass + " - Issue with gathering Action Bit"));
    content(kActions, L"uiBitCount", L"2147483647");
    EXPECT_FALSE(enforce());
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AContentPolicy, WithFewerCodesThanCategoriesOrNoneFails) {
    for (const wchar_t* codes : {L"al", L"", L",,,", L"al,"}) {
        wholeContent(L"84");
        content(kActions, L"uiContentBitCodes", codes);
        const Lines lines = leveled([this] { EXPECT_FALSE(enforce()); });
        EXPECT_THAT(lines, Contains("2 " + kPass + " - Issue with gathering Category Code"));
        EXPECT_THAT(store.calls, IsEmpty());
    }
}

TEST_F(AContentPolicy, WithTextsThatAreTooLongFails) {
    wholeContent(L"84");
    content(kActions, L"szActionCodes", std::wstring(1024, L'1'));
    EXPECT_FALSE(enforce());
    wholeContent(L"84");
    content(kActions, L"szActionCodes", std::wstring(9000, L'1'));
    EXPECT_FALSE(enforce());
    wholeContent(L"84");
    content(kActions, L"uiContentBitCodes", L"al," + std::wstring(1024, L'g'));
    EXPECT_FALSE(enforce());
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AContentPolicy, NeverTakesACodeThatWasCut) {
    const std::wstring sixteen = L"abcdefghijklmno,"; // 512 of them are one more than there is room for
    std::wstring codes;
    for (int i = 0; i < 512; ++i) {
        codes += sixteen;
    }
    wholeContent(L"84");
    content(kActions, L"uiBitCount", L"512");
    content(kActions, L"szActionCodes", std::wstring(512, L'1'));
    content(kActions, L"uiContentBitCodes", codes.substr(0, codes.size() - 1));
    EXPECT_TRUE(enforce()); // fits to the character
    store.calls.clear();
    content(kActions, L"uiContentBitCodes", codes.substr(0, codes.size() - 1) + L"p");
    const Lines lines = leveled([this] { EXPECT_FALSE(enforce()); });
    EXPECT_THAT(lines, Contains("2 " + kPass + " - Issue with gathering Category Code"));
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AContentPolicy, DropsEmptyCodes) {
    wholeContent();
    content(kActions, L"uiContentBitCodes", L"al,,ga");
    EXPECT_TRUE(enforce());
    EXPECT_EQ(store.calls[0], "setCategoryBlockDetails 1 2 10 al,ga 0");
}

TEST_F(AContentPolicy, TakesAsManyActionsAsItCountsAndAllItsCodes) {
    wholeContent();
    content(kActions, L"szActionCodes", L"1034");
    content(kActions, L"uiContentBitCodes", L"al,ga,ne");
    EXPECT_TRUE(enforce());
    EXPECT_EQ(store.calls[0], "setCategoryBlockDetails 1 2 10 al,ga,ne 0");
    EXPECT_EQ(Sentrel::STPreferenceController::getInstance()->getCategoryBlockListChecksum(),
              checksumOf("11034algane"));
}

TEST_F(AContentPolicy, RecordsItsChecksumOnlyWhenItChanged) {
    wholeContent();
    const Lines lines = leveled([this] {
        Sentrel::STPreferenceController::getInstance()->setCategoryBlockListChecksum(0);
        store.calls.clear();
        enforce();
    });
    EXPECT_THAT(lines, Contains("2 " + kPass + " - Category Block List changed, updating configuration"));
    EXPECT_EQ(store.calls.back(), "setCategoryBlockListChecksum " + std::to_string(checksumOf("110alga")));
    store.calls.clear();
    EXPECT_TRUE(enforce());
    EXPECT_EQ(store.calls, (Lines{"setCategoryBlockDetails 1 2 10 al,ga 0", "signalPrefChange 8"}));
}

TEST_F(AContentPolicy, WithoutRatingsFailsThoughItsCategoriesAreStored) {
    wholeContent();
    HVBEnterprise::SectionsHandle without;
    for (const wchar_t* key : {L"bEnableCategorization", L"uiBitCount", L"szActionCodes", L"uiContentBitCodes"}) {
        std::wstring value;
        HVBEnterprise::PolicySetting setting;
        setting.m_featureId = kContentFeature;
        ASSERT_TRUE(policy.getPropValue(setting, kActions, key, value));
        without.insertForFeature(kContentFeature, kActions, key, value);
    }
    EXPECT_FALSE(enforcement.enforceCategoryAndSiteRatingPolicy(without));
    EXPECT_THAT(store.calls, Contains("signalPrefChange 8"));
}

TEST_F(AContentPolicy, WithRatingsOfZeroChangesNoRating) {
    ratingsOnly();
    EXPECT_THAT(rated(L"0"), IsEmpty());
}

struct Packed {
    int overall;
    int yellow;
    int red;
    int unrated;
};
class PackedRatings : public AContentPolicy, public testing::WithParamInterface<Packed> {};

INSTANTIATE_TEST_SUITE_P(Each, PackedRatings,
                         testing::Values(Packed{0x54, 3, 2, 1}, Packed{0x24, 3, 3, 2}, Packed{0x001, 1, 3, 2},
                                         Packed{0x002, 2, 3, 2}, Packed{0x003, 2, 3, 2}, Packed{0x008, 2, 1, 2},
                                         Packed{0x018, 2, 3, 2}, Packed{0x080, 2, 3, 2}, Packed{0x100, 2, 3, 3},
                                         Packed{0x140, 2, 3, 2}, Packed{0x200, 2, 3, 2}, Packed{-2, 2, 3, 2}),
                         [](const auto& packed) {
                             return "Of" + std::to_string(static_cast<unsigned>(packed.param.overall));
                         });

TEST_P(PackedRatings, GiveTheThreeActions) {
    ratingsOnly();
    store.values.m_yellowSiteAction = store.values.m_redSiteAction = store.values.m_unratedSiteAction = 99;
    EXPECT_EQ(rated(std::to_wstring(GetParam().overall)),
              (Lines{"setYellowSiteAction " + std::to_string(GetParam().yellow),
                     "setRedSiteAction " + std::to_string(GetParam().red),
                     "setUnratedSiteAction " + std::to_string(GetParam().unrated), "signalPrefChange 2"}));
}

TEST_P(PackedRatings, ThatAreInForceAreNotSignalled) {
    ratingsOnly();
    store.values.m_yellowSiteAction = GetParam().yellow;
    store.values.m_redSiteAction = GetParam().red;
    store.values.m_unratedSiteAction = GetParam().unrated;
    EXPECT_THAT(rated(std::to_wstring(GetParam().overall)), IsEmpty());
}

TEST_F(AContentPolicy, SignalsAChangeOfOneRatingAlone) {
    ratingsOnly();
    store.values.m_yellowSiteAction = 3;
    store.values.m_redSiteAction = 2;
    store.values.m_unratedSiteAction = 2;
    EXPECT_EQ(rated(L"84"), (Lines{"setUnratedSiteAction 1", "signalPrefChange 2"}));
    store.values.m_unratedSiteAction = 1;
    store.values.m_yellowSiteAction = 1;
    EXPECT_EQ(rated(L"84"), (Lines{"setYellowSiteAction 3", "signalPrefChange 2"}));
}

TEST_F(AContentPolicy, SaysWhichRatingsItChanges) {
    ratingsOnly();
    content(L"RatingActions", L"uiOverall", L"84");
    store.values.m_unratedSiteAction = 2;
    EXPECT_EQ(leveled([this] { enforce(); }),
              (Lines{"2 " + kPass + " - Entered", "5 Sentrel Site Rating Action = 84",
                     "3 " + kPass + " - Action for YELLOW_SITE is 3", "3 " + kPass + " - Action for RED_SITE is 2",
                     "3 " + kPass + " - Action for UNVERIFIED_SITE is 1", "3 Signalling a Preference Change",
                     "5 " + kPass + " - exiting"}));
}

const std::string kListPass = "VXPolicyEnforcementImpl::enforceAllowBlockPolicy";

class AListPolicy : public PolicyFixture {
protected:
    bool enforce() { return enforcement.enforceAllowBlockPolicy(policy); }
    static unsigned char checksum() {
        return Sentrel::STPreferenceController::getInstance()->getAllowBlockListChecksum();
    }
};

TEST_F(AListPolicy, WithoutACountIsRefusedAndTheStoredListStays) {
    list(L"szSite0", L"http://a.example");
    EXPECT_EQ(leveled([this] { EXPECT_FALSE(enforce()); }),
              (Lines{"2 " + kListPass + " - Entered ", "2 " + kListPass + " - No Category Present "}));
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AListPolicy, WithACountOfZeroStoresAnEmptyListAndSignals) {
    for (const wchar_t* count : {L"0", L"-4"}) {
        store.calls.clear();
        list(L"uiSiteCount", count);
        list(L"szSite0", L"http://a.example");
        EXPECT_TRUE(enforce());
        EXPECT_THAT(store.calls, Contains("setAllowBlockDetails -1"));
        EXPECT_THAT(store.calls, Contains("signalPrefChange 7"));
        EXPECT_EQ(checksum(), 224);
    }
}

TEST_F(AListPolicy, StoresItsSitesAndActionsWithItsPrecedence) {
    list(L"uiSiteCount", L"2");
    list(L"bPrecedenceOverProhibitLists", L"1");
    list(L"szSite0", L"http://a.example");
    list(L"Action0", L"1");
    list(L"szSite1", L"http://b.example");
    list(L"Action1", L"0");
    const Lines lines = leveled([this] {
        Sentrel::STPreferenceController::getInstance()->setAllowBlockListChecksum(0);
        store.calls.clear();
        EXPECT_TRUE(enforce());
    });
    const unsigned expected = checksumOf(" http://a.examplehttp://b.example10");
    EXPECT_EQ(store.calls, (Lines{"setAllowBlockDetails 1 http://a.example http://b.example 1 0", "signalPrefChange 7",
                                  "setAllowBlockListChecksum " + std::to_string(expected)}));
    EXPECT_EQ(lines, (Lines{"2 " + kListPass + " - Entered ", "2 " + kListPass + " - Allow Over Block Precedence - 1",
                            "2 " + kListPass + " - secData size : 6",
                            "2 " + kListPass + " - allowBlockList size : 2, allowBlockActionList size : 2",
                            "3 " + kListPass + " - Allow Block List changed, updating configuration"}));
    store.calls.clear();
    EXPECT_TRUE(enforce());
    EXPECT_THAT(store.calls, Not(Contains(StartsWith("setAllowBlockListChecksum"))));
}

TEST_F(AListPolicy, WithASiteMissingHandsOnOneSiteAndTwoActions) {
    list(L"uiSiteCount", L"2");
    list(L"szSite0", L"http://a.example");
    list(L"Action0", L"1");
    list(L"Action1", L"0");
    const Lines lines = leveled([this] { EXPECT_TRUE(enforce()); });
    EXPECT_EQ(store.calls.front(), "setAllowBlockDetails -1 http://a.example 1 0");
    EXPECT_THAT(lines, Contains("2 " + kListPass + " - Issue with ST_ALLOW_BLOCK_SITE_KEY"));
    EXPECT_THAT(lines, Contains("2 " + kListPass + " - Issue with ST_ALLOW_BLOCK_ALLOW_OVER_BLOCK_KEY"));
}

TEST_F(AListPolicy, WithAnActionMissingHandsOnTwoSitesAndOneAction) {
    list(L"uiSiteCount", L"2");
    list(L"szSite0", L"http://a.example");
    list(L"szSite1", L"http://b.example");
    list(L"Action1", L"1");
    const Lines lines = leveled([this] { EXPECT_TRUE(enforce()); });
    EXPECT_EQ(store.calls.front(), "setAllowBlockDetails -1 http://a.example http://b.example 1");
    EXPECT_THAT(lines, Contains("2 " + kListPass + " - Issue with ST_ALLOW_BLOCK_ACTION_KEY"));
}

TEST_F(AListPolicy, KeepsThePlaceOfASiteThatIsTooLong) {
    list(L"uiSiteCount", L"2");
    list(L"szSite0", std::wstring(9000, L'a'));
    list(L"szSite1", L"http://b.example");
    list(L"Action0", L"1");
    list(L"Action1", L"0");
    EXPECT_TRUE(enforce());
    EXPECT_EQ(store.calls.front(), "setAllowBlockDetails -1 " + std::string(8191, 'a') + " http://b.example 1 0");
    EXPECT_EQ(checksum(), checksumOf(" http://b.example10"));
}

TEST_F(AListPolicy, StoresAChangeThatItsChecksumDoesNotCover) {
    list(L"uiSiteCount", L"1");
    list(L"Action0", L"1");
    list(L"szSite0", std::wstring(298, L'a'));
    enforce();
    store.calls.clear();
    list(L"szSite0", std::wstring(297, L'a') + L"b");
    EXPECT_TRUE(enforce());
    EXPECT_EQ(store.calls, (Lines{"setAllowBlockDetails -1 " + std::string(297, 'a') + "b 1", "signalPrefChange 7"}));
}

TEST_F(AListPolicy, ReadsNoMoreSitesThanItsBound) {
    list(L"uiSiteCount", L"2147483647");
    list(L"szSite0", L"http://a.example");
    list(L"Action0", L"1");
    const std::string said = "VXPolicyEnforcementImpl - looks for 100000 entries only, of 2147483647";
    const Lines lines = linesOf(mgsFlowvalue, 1, [this] { EXPECT_TRUE(enforce()); });
    EXPECT_THAT(lines, ElementsAre(said, said)) << "once for the sites, once for the actions";
    EXPECT_EQ(store.calls.front(), "setAllowBlockDetails -1 http://a.example 1");
}

} // namespace
} // namespace testing_support
