// The frame of a policy's enforcement and the general pass.
#include "managed/PolicyChecksum.h"
#include "store/STPreferenceController.h"
#include "tests/unit/managed/PolicyFixture.h"

#include <stdexcept>

namespace testing_support {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// The checksum.

TEST(AChecksum, OfAbcIsTheNegatedSumOfItsBytes) {
    EXPECT_EQ(calculate_checksum("abc", 3), 218);
}

TEST(AChecksum, OfNoBytesIsZeroWhateverThePointerShows) {
    EXPECT_EQ(calculate_checksum("abc", 0), 0);
    EXPECT_EQ(calculate_checksum(nullptr, 0), 0);
}

TEST(AChecksum, CountsBytesAbove127AsNegative) {
    EXPECT_EQ(calculate_checksum("\xff\x80", 2), 0x81); // -1 and -128 sum up to -129
}

TEST(AChecksum, OfAListsTextCountsOnlyAsManyBytesAsItsLengthLeavesInEightBits) {
    EXPECT_EQ(Sentrel::detail::checksumOf(std::string(300, 'a')), calculate_checksum(std::string(44, 'a').data(), 44));
    EXPECT_EQ(Sentrel::detail::checksumOf(std::string(256, 'a')), 0);
    EXPECT_EQ(Sentrel::detail::checksumOf(" "), 224);
}

// The frame.

using APolicy = PolicyFixture;

TEST_F(APolicy, IsNotEnforcedWhenItSaysSo) {
    wholeContent();
    list(L"uiSiteCount", L"0");
    for (const wchar_t* value : {L"0", L"-5", L"no number"}) {
        policy.insert(L"NODE_ST_1070UNIX", L"EnforcePolicy", value);
        EXPECT_TRUE(enforcement.enforcePolicy(L"", policy));
    }
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(APolicy, IsEnforcedWholeWithoutTheSwitchAndWithOneAboveZero) {
    wholeContent();
    list(L"uiSiteCount", L"0");
    EXPECT_TRUE(enforcement.enforcePolicy(L"", policy));
    const Lines calls = store.calls;
    EXPECT_THAT(calls, ElementsAre("setCategoryBlockDetails 1 2 10 al,ga 0", "signalPrefChange 8",
                                   testing::StartsWith("setCategoryBlockListChecksum "), "setAllowBlockDetails -1",
                                   "signalPrefChange 7", "setAllowBlockListChecksum 224"));
    policy.insert(L"NODE_ST_1070UNIX", L"EnforcePolicy", L"3");
    store.calls.clear();
    EXPECT_TRUE(enforcement.enforcePolicy(L"", policy));
    EXPECT_THAT(store.calls, ElementsAre("setCategoryBlockDetails 1 2 10 al,ga 0", "signalPrefChange 8",
                                         "setAllowBlockDetails -1", "signalPrefChange 7"));
}

TEST_F(APolicy, EndsAtItsCategoriesWhenTheyFail) {
    general(L"EventLogging", L"bGreenRatedSites", L"1");
    list(L"uiSiteCount", L"0");
    const Lines lines = leveled([this] { EXPECT_FALSE(enforcement.enforcePolicy(L"", policy)); });
    EXPECT_THAT(store.calls, ElementsAre("setLogGREENSitesStatus 1"));
    EXPECT_EQ(lines, (Lines{"5 VXPolicyEnforcementImpl::enforcePolicy() - Entered",
                            "2 VXPolicyEnforcementImpl::enforceGeneralPolicy - Entered",
                            "3 VXPolicyEnforcementImpl::enforceGeneralPolicy Log GREEN Sites status turned to LOG",
                            "5 VXPolicyEnforcementImpl::enforceGeneralPolicy - exiting",
                            "2 VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Entered",
                            "5 VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - exiting",
                            "2 enforcePolicy::Error Sentrel Category Options Policy enforcement failed ",
                            "5 VXPolicyEnforcementImpl::enforcePolicy - exiting"}));
    EXPECT_THAT(systemLog(), ElementsAre("7 VXPolicyEnforcementImpl::enforcePolicy() - Entered",
                                         "7 VXPolicyEnforcementImpl::enforceGeneralPolicy() - Entered",
                                         "7 VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy() - Entered",
                                         "7 VXPolicyEnforcementImpl::enforcePolicy - exiting"));
}

TEST_F(APolicy, WhoseListFailsSaysSo) {
    wholeContent();
    const Lines lines = leveled([this] { EXPECT_FALSE(enforcement.enforcePolicy(L"", policy)); });
    EXPECT_THAT(lines, Contains("2 enforcePolicy::Error Sentrel Allow-Block Options Policy enforcement failed "));
    EXPECT_THAT(store.calls, Contains("signalPrefChange 8"));
    EXPECT_THAT(store.calls, Not(Contains("signalPrefChange 7")));
}

TEST_F(APolicy, TracesItsSwitch) {
    policy.insert(L"NODE_ST_1070UNIX", L"EnforcePolicy", L"-5");
    EXPECT_EQ(leveled([this] { enforcement.enforcePolicy(L"", policy); }),
              (Lines{"5 VXPolicyEnforcementImpl::enforcePolicy() - Entered", "5 Sentrel EnforcePolicy Status = -5",
                     "5 VXPolicyEnforcementImpl::enforcePolicy - exiting"}));
}

TEST_F(APolicy, AtALogonDoesNothing) {
    wholeContent();
    EXPECT_TRUE(enforcement.enforcePolicy(L"a", L"b", L"c", 1, HVBEnterprise::AGENT_LOGON, policy));
    EXPECT_THAT(store.calls, IsEmpty());
    EXPECT_FALSE(enforcement.isPartialEnforcementSupported());
}

TEST_F(APolicy, PassesOnWhatTheControllerThrowsAndKeepsWhatWasWritten) {
    general(L"EventLogging", L"bGreenRatedSites", L"1");
    general(L"ActionEnforcement", L"bPhishingBlock", L"1");
    store.before = [](const std::string& operation) {
        if (operation == "setBlockPhishingStatus") {
            throw std::runtime_error("unknown");
        }
    };
    EXPECT_THROW(enforcement.enforcePolicy(L"", policy), std::runtime_error);
    EXPECT_THAT(store.calls, ElementsAre("setLogGREENSitesStatus 1", "setBlockPhishingStatus 1"));
}

// The general pass.

using AGeneralPolicy = PolicyFixture;

TEST_F(AGeneralPolicy, WithoutKeysLeavesEverythingAsItWas) {
    EXPECT_TRUE(enforcement.enforceGeneralPolicy(policy));
    EXPECT_THAT(store.calls, IsEmpty());
    EXPECT_FALSE(policyReceived());
}

TEST_F(AGeneralPolicy, TakesItsKeysInTheirOrder) {
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"0");
    general(L"ActionEnforcement", L"bRpxFailClose", L"1");
    general(L"ActionEnforcement", L"bPhishingBlock", L"0");
    general(L"ActionEnforcement", L"applyActionNonRPX", L"2");
    general(L"EventLogging", L"bAllowedConfiguredBlockAllowList", L"1");
    general(L"EventLogging", L"bGreenRatedSites", L"2");
    general(L"Sentrel", L"bEnableSentrel", L"0");
    EXPECT_TRUE(enforcement.enforceGeneralPolicy(policy));
    EXPECT_THAT(store.calls,
                ElementsAre("setEnableSentrel 0", "signalPrefChange 0", "setLogGREENSitesStatus 0",
                            "setLogAllowSiteStatus 1", "setSTUnVerifiedAction 2", "setBlockPhishingStatus 0",
                            "setRPXUnReachableAction 1", "setPrivateIPRange", "setPrivateIpChecksum 224"));
}

TEST_F(AGeneralPolicy, SaysWhatItDoes) {
    general(L"Sentrel", L"bEnableSentrel", L"0");
    general(L"EventLogging", L"bGreenRatedSites", L"0");
    general(L"EventLogging", L"bAllowedConfiguredBlockAllowList", L"0");
    general(L"ActionEnforcement", L"bPhishingBlock", L"1");
    general(L"ActionEnforcement", L"bRpxFailClose", L"0");
    const std::string pass = "VXPolicyEnforcementImpl::enforceGeneralPolicy";
    EXPECT_EQ(
        leveled([this] { enforcement.enforceGeneralPolicy(policy); }),
        (Lines{"2 " + pass + " - Entered", "3 " + pass + " Sentrel status turned to OFF",
               "3 Signalling a Dashboard Status Change", "3 " + pass + " Log GREEN Sites status turned to DONOTLOG",
               "3 " + pass + " Log Allow Sites status turned to DONOTLOG",
               "3 " + pass + " Phishing status turned to BLOCK",
               "3 " + pass + " Unreachable RPX Action turned to ALLOW", "5 " + pass + " - exiting"}));
    EXPECT_THAT(systemLog(),
                ElementsAre("7 " + pass + "() - Entered", "7 Signalling Dashboard for Preference Status Change"));
}

TEST_F(AGeneralPolicy, MapsTheUnverifiedActionNotIdentically) {
    for (const auto& [value, call] :
         std::vector<std::pair<std::wstring, std::string>>{{L"0", "setSTUnVerifiedAction 3"},
                                                           {L"1", "setSTUnVerifiedAction 1"},
                                                           {L"2", "setSTUnVerifiedAction 2"},
                                                           {L"7", "setSTUnVerifiedAction 1"}}) {
        store.calls.clear();
        general(L"ActionEnforcement", L"applyActionNonRPX", value);
        enforcement.enforceGeneralPolicy(policy);
        EXPECT_EQ(store.calls, Lines{call});
    }
}

TEST_F(AGeneralPolicy, IsNotSignalledWhenItsSwitchIsInForce) {
    store.values.m_bEnable = false;
    controller().setPolicyEnabled(true);
    general(L"Sentrel", L"bEnableSentrel", L"0");
    enforcement.enforceGeneralPolicy(policy);
    EXPECT_FALSE(controller().policyEnabled());
    EXPECT_TRUE(policyReceived());
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AGeneralPolicy, TurnsTheModuleOnOnlyForExactlyOne) {
    store.values.m_bEnable = false;
    general(L"Sentrel", L"bEnableSentrel", L"2");
    enforcement.enforceGeneralPolicy(policy);
    EXPECT_THAT(store.calls, IsEmpty());
    general(L"Sentrel", L"bEnableSentrel", L"1");
    enforcement.enforceGeneralPolicy(policy);
    EXPECT_TRUE(controller().policyEnabled());
    EXPECT_THAT(store.calls, ElementsAre("setEnableSentrel 1", "signalPrefChange 0"));
}

TEST_F(AGeneralPolicy, WithACountOfZeroEmptiesThePrivateRanges) {
    for (const wchar_t* count : {L"0", L"-3"}) {
        store.calls.clear();
        general(L"ActionEnforcement", L"uiAgumentIPCount", count);
        enforcement.enforceGeneralPolicy(policy);
        EXPECT_EQ(store.calls.front(), "setPrivateIPRange");
    }
}

TEST_F(AGeneralPolicy, SkipsAPrivateRangeThatIsMissing) {
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"3");
    general(L"ActionEnforcement", L"szAgumentIP_0", L"10.0.0.0/8");
    general(L"ActionEnforcement", L"szAgumentIP_2", L"192.168.0.0/16");
    general(L"ActionEnforcement", L"szAgumentIP_3", L"172.16.0.0/12");
    const Lines lines = leveled([this] { enforcement.enforceGeneralPolicy(policy); });
    EXPECT_EQ(store.calls.front(), "setPrivateIPRange 10.0.0.0/8 192.168.0.0/16");
    EXPECT_THAT(lines, Contains("5 VXPolicyEnforcementImpl::enforceGeneralPolicy - Adding IP Range - 10.0.0.0/8"));
    EXPECT_EQ(Sentrel::STPreferenceController::getInstance()->getPrivateIpChecksum(),
              Sentrel::detail::checksumOf(" 10.0.0.0/8192.168.0.0/16"));
}

TEST_F(AGeneralPolicy, StoresTheRangesAgainWhenTheirChecksumIsTheSame) {
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"0");
    enforcement.enforceGeneralPolicy(policy);
    store.calls.clear();
    enforcement.enforceGeneralPolicy(policy);
    EXPECT_THAT(store.calls, ElementsAre("setPrivateIPRange"));
}

TEST_F(AGeneralPolicy, FindsARangeBehindTheSectionsNameAlone) {
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"1");
    policy.insert(L"ActionEnforcement", L"szAgumentIP_0", L"10.0.0.0/8");
    enforcement.enforceGeneralPolicy(policy);
    EXPECT_EQ(store.calls.front(), "setPrivateIPRange 10.0.0.0/8");
}

TEST_F(AGeneralPolicy, ReadsNoMoreRangesThanItsBound) {
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"2147483647");
    general(L"ActionEnforcement", L"szAgumentIP_0", L"10.0.0.0/8");
    const Lines lines = leveled([this] { enforcement.enforceGeneralPolicy(policy); });
    EXPECT_EQ(store.calls.front(), "setPrivateIPRange 10.0.0.0/8");
    const std::string said = "1 VXPolicyEnforcementImpl - looks for 100000 entries only, of 2147483647";
    EXPECT_EQ(std::count(lines.begin(), lines.end(), said), 1) << "not once for each entry";
}

TEST_F(AGeneralPolicy, LeavesOutARangeThatIsLongerThanItsReadersBuffers) {
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"3");
    general(L"ActionEnforcement", L"szAgumentIP_0", std::wstring(1024, L'1'));
    general(L"ActionEnforcement", L"szAgumentIP_1", std::wstring(9000, L'1'));
    general(L"ActionEnforcement", L"szAgumentIP_2", L"10.0.0.0/8");
    const Lines lines = leveled([this] { enforcement.enforceGeneralPolicy(policy); });
    EXPECT_EQ(store.calls.front(), "setPrivateIPRange 10.0.0.0/8");
    EXPECT_THAT(lines, Contains("1 VXPolicyEnforcementImpl - a policy text takes more than 1023 bytes"));
    EXPECT_THAT(lines, Contains("1 VXPolicyEnforcementImpl::getPolicyKeyValue - cut a text of 9000 characters"));
}

TEST_F(AGeneralPolicy, TakesARangeOfAsManyBytesAsItsReadersBuffersHold) {
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"3");
    general(L"ActionEnforcement", L"szAgumentIP_0", std::wstring(1023, L'1'));
    general(L"ActionEnforcement", L"szAgumentIP_1", std::wstring(511, L'\u00e9') + L"1");
    general(L"ActionEnforcement", L"szAgumentIP_2", std::wstring(512, L'\u00e9'));
    enforcement.enforceGeneralPolicy(policy);
    std::string twoBytesEach;
    for (int character = 0; character < 511; ++character) {
        twoBytesEach += "\xc3\xa9";
    }
    EXPECT_EQ(store.calls.front(), "setPrivateIPRange " + std::string(1023, '1') + " " + twoBytesEach + "1");
}

// Look-ups.

using ALookUp = PolicyFixture;

TEST_F(ALookUp, TakesATextThatIsNoNumberForZeroAndFound) {
    policy.insert(L"s", L"k", L"abc");
    int value = -1;
    EXPECT_TRUE(enforcement.getPolicyKeyValue(policy, L"s", L"k", &value, Sentrel::VALUE_INTEGER));
    EXPECT_EQ(value, 0);
    policy.insert(L"s", L"k", L" 12\u00e9 34");
    EXPECT_TRUE(enforcement.getPolicyKeyValue(policy, L"s", L"k", &value, Sentrel::VALUE_INTEGER));
    EXPECT_EQ(value, 12);
    policy.insert(L"s", L"k", std::wstring(49, L'0') + L"123");
    EXPECT_TRUE(enforcement.getPolicyKeyValue(policy, L"s", L"k", &value, Sentrel::VALUE_INTEGER));
    EXPECT_EQ(value, 1) << "fifty bytes are looked at";
}

TEST_F(ALookUp, LeavesTheDestinationWhenTheKeyIsMissingOrTheKindUnknown) {
    policy.insert(L"s", L"k", L"5");
    int value = 77;
    EXPECT_FALSE(enforcement.getPolicyKeyValue(policy, L"s", L"other", &value, Sentrel::VALUE_INTEGER));
    EXPECT_FALSE(enforcement.getPolicyKeyValue(policy, L"t", L"k", &value, Sentrel::VALUE_INTEGER));
    EXPECT_TRUE(enforcement.getPolicyKeyValue(policy, L"s", L"k", &value, static_cast<Sentrel::VALUETYPE>(2)));
    EXPECT_EQ(value, 77);
}

TEST_F(ALookUp, CutsATextAtItsBuffer) {
    std::vector<wchar_t> buffer(Sentrel::kPolicyTextCharacters + 1, L'!');
    policy.insert(L"s", L"k", std::wstring(8191, L'x'));
    EXPECT_TRUE(enforcement.getPolicyKeyValue(policy, L"s", L"k", buffer.data(), Sentrel::VALUE_STRING));
    EXPECT_EQ(std::wstring(buffer.data()).size(), 8191u);
    policy.insert(L"s", L"k", std::wstring(8192, L'y'));
    EXPECT_TRUE(enforcement.getPolicyKeyValue(policy, L"s", L"k", buffer.data(), Sentrel::VALUE_STRING));
    EXPECT_EQ(std::wstring(buffer.data()), std::wstring(8191, L'y'));
    EXPECT_EQ(buffer[Sentrel::kPolicyTextCharacters], L'!');
}

TEST_F(ALookUp, WithASettingFindsOnlyWhatItsFeatureHas) {
    policy.insert(L"s", L"k", L"1");
    general(L"s", L"k", L"2");
    HVBEnterprise::PolicySetting setting;
    setting.m_featureId = kGeneralFeature;
    EXPECT_EQ(enforcement.getStringFromKey(policy, setting, L"s", L"k"), "2");
    setting.m_featureId = kContentFeature;
    EXPECT_EQ(enforcement.getStringFromKey(policy, setting, L"s", L"k"), "");
    EXPECT_EQ(enforcement.getStringFromKey(policy, L"s", L"k"), "1");
    EXPECT_EQ(enforcement.getStringFromKey(policy, L"s", L"none"), "");
}

TEST_F(ALookUp, OfAMissingSectionIsTraced) {
    Sentrel::VXPolicyEnforcementImpl::Section data;
    EXPECT_EQ(leveled([&] { EXPECT_FALSE(enforcement.getSectionData(policy, L"s", data)); }),
              (Lines{"2 In VXPolicyEnforcementImpl::getSectionData, failed to get secData"}));
}

TEST_F(ALookUp, InASectionCopiesTheValueOut) {
    std::wstring value = L"before";
    EXPECT_FALSE(enforcement.getPropValue({{L"k", L"v"}}, L"other", value));
    EXPECT_EQ(value, L"before");
    EXPECT_TRUE(enforcement.getPropValue({{L"k", L"v"}}, L"k", value));
    EXPECT_EQ(value, L"v");
}

} // namespace
} // namespace testing_support
