// The payloads of the hub's screens, of its events, and plain numbers. All real; allocations are metered.
#include "hub/Payloads.h"
#include "hub/STPreferences.h"

#include "hub/HubIds.h"
#include "tests/unit/hub/PayloadText.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

using boost::archive::archive_exception;
using testing_support::AllocationMeter;

using Proxies = std::vector<proxySettings>;
using DebugMap = std::map<int, bool>;

namespace {

/// What a wide text can hold that another encoding may not.
std::wstring everyKindOfCharacter() {
    std::wstring text;
    for (int byte = 0; byte < 256; ++byte) {
        text += static_cast<wchar_t>(byte);
    }
    return text + L"\x20AC" + static_cast<wchar_t>(0xD800) + static_cast<wchar_t>(0x10FFFF);
}

AboutBoxData aboutBox() {
    AboutBoxData data;
    data.m_moduleId = 7;
    data.m_versionItems = {{L"Sentrel_HF", L""}, {L"Sentrel_Version", L"1.2 (3)"}};
    return data;
}

DashBoardData dashBoard() {
    DashBoardData data;
    data.m_moduleId = 7;
    data.m_statusItems[L"a"].m_displayText = L"ENABLED_STRING";
    data.m_statusItems[L"a"].m_status = DASHBOARD_MANAGED_AT_RISK;
    data.m_statusItems[L"b"].m_status = DASHBOARD_LOCAL_DISABLED;
    return data;
}

proxySettings proxy(const std::string& host) {
    proxySettings settings;
    settings.httpAuth = 1;
    settings.port = 8080;
    settings.type = -2;
    settings.host = host;
    settings.uname = "user name";
    settings.pass = "p";
    return settings;
}

void expectEqual(const Proxies& left, const Proxies& right) {
    ASSERT_EQ(left.size(), right.size());
    for (std::size_t at = 0; at < left.size(); ++at) {
        EXPECT_EQ(left[at].httpAuth, right[at].httpAuth);
        EXPECT_EQ(left[at].port, right[at].port);
        EXPECT_EQ(left[at].type, right[at].type);
        EXPECT_EQ(left[at].host, right[at].host);
        EXPECT_EQ(left[at].uname, right[at].uname);
        EXPECT_EQ(left[at].pass, right[at].pass);
    }
}

TEST(AnAboutBox, HasEachMemberInItsPlaceOfTheArchive) {
    EXPECT_EQ(payloadOf(aboutBox()), kHeader + L" 0 0"              // the class: tracking, version
                                               L" 7"                // module
                                               L" 0 0 2 0"          // map: tracking, version, count, entry's version
                                               L" 0 0"              // the class of an entry, once
                                               L" 10 Sentrel_HF 0 " // an empty text ends in its separator
                                               L" 15 Sentrel_Version 7 1.2 (3)");
    EXPECT_EQ(payloadOf(AboutBoxData()), kHeader + L" 0 0 0 0 0 0 0");
}

TEST(AnAboutBox, ComesBackWithEveryCharacter) {
    AboutBoxData data = aboutBox();
    data.m_versionItems[L""] = everyKindOfCharacter();
    data.m_versionItems[everyKindOfCharacter()] = L"x";
    const auto arrived = payloadIn<AboutBoxData>(payloadOf(data));
    EXPECT_EQ(arrived.m_moduleId, 7);
    EXPECT_EQ(arrived.m_versionItems, data.m_versionItems);
}

TEST(ADashBoard, HasEachMemberInItsPlaceOfTheArchive) {
    EXPECT_EQ(payloadOf(dashBoard()), kHeader + L" 0 0 7"                     // the class, module
                                                L" 0 0 2 0 0 0"               // map, the class of an entry
                                                L" 1 a 0 0 14 ENABLED_STRING" // key, the class of a line once, text
                                                L" 5"                         // status
                                                L" 1 b 0  2");
    EXPECT_EQ(payloadOf(DashBoardData()), kHeader + L" 0 0 0 0 0 0 0");
}

TEST(ADashBoard, ComesBackWithEveryStatus) {
    DashBoardData data;
    for (const auto status : {DASHBOARD_LOCAL_ENABLED, DASHBOARD_LOCAL_DISABLED, DASHBOARD_MANAGED_ENABLED,
                              DASHBOARD_MANAGED_DISABLED, DASHBOARD_MANAGED_AT_RISK}) {
        data.m_statusItems[std::to_wstring(status)].m_status = status;
        data.m_statusItems[std::to_wstring(status)].m_displayText = everyKindOfCharacter();
    }
    const auto arrived = payloadIn<DashBoardData>(payloadOf(data));
    ASSERT_EQ(arrived.m_statusItems.size(), 5u);
    for (const auto& [key, line] : arrived.m_statusItems) {
        EXPECT_EQ(std::to_wstring(line.m_status), key);
        EXPECT_EQ(line.m_displayText, everyKindOfCharacter());
    }
}

TEST(AStatus, HasTheNumberThatTheUserInterfaceKnows) {
    EXPECT_EQ(DASHBOARD_LOCAL_ENABLED, 0);
    EXPECT_EQ(DASHBOARD_LOCAL_DISABLED, 2);
    EXPECT_EQ(DASHBOARD_MANAGED_ENABLED, 3);
    EXPECT_EQ(DASHBOARD_MANAGED_DISABLED, 4);
    EXPECT_EQ(DASHBOARD_MANAGED_AT_RISK, 5);
}

TEST(ProxySettings, HaveEachMemberInItsPlaceOfTheArchive) {
    const Proxies proxies{proxy("proxy.example"), proxySettings()};
    EXPECT_EQ(payloadOf(proxies), kHeader + L" 0 0 2 0"   // the list: tracking, version, count, element's version
                                            L" 0 0"       // the class of an element, once: tracking, version
                                            L" 1 8080 -2" // authentication, port, type
                                            L" 13 proxy.example 9 user name 1 p"
                                            L" 0 0 0 0  0  0 ");
    EXPECT_EQ(payloadOf(Proxies()), kHeader + L" 0 0 0 0");
}

TEST(ProxySettings, ComeBackWithEveryByteInTheirOrderAndWithDuplicates) {
    Proxies proxies{proxy(everyByte()), proxy(""), proxy("a"), proxy("a"), proxySettings()};
    proxies[1].uname = everyByte();
    proxies[2].pass = everyByte() + everyByte();
    proxies[3].pass = std::string("a\0b\0", 4);
    expectEqual(payloadIn<Proxies>(payloadOf(proxies)), proxies);
    expectEqual(payloadIn<Proxies>(payloadOf(Proxies())), {});
}

TEST(ProxySettings, TakeThePlaceOfWhatTheReaderHadBefore) {
    const auto stream = HVB::makeInStream(payloadOf(Proxies{proxy("new")}));
    Proxies list{proxy("old"), proxy("older")};
    *HVB::makeInArchive(*stream) >> list;
    expectEqual(list, {proxy("new")});
}

TEST(ProxySettings, ThatClaimManyElementsCostWhatTheirTextHolds) {
    constexpr std::size_t claimed = 500000;
    expectRefusedCheaply<Proxies>(L" 0 0 " + std::to_wstring(claimed) + L" 0 0 0" + std::wstring(2 * claimed, L'x'));
    std::wstring text = kHeader + L" 0 0 " + std::to_wstring(claimed) + L" 0 0 0";
    while (text.size() < 2 * claimed) {
        text += L" 0 0 0 0  0  0 ";
    }
    const AllocationMeter meter;
    EXPECT_EQ(refusalOf<Proxies>(text), archive_exception::input_stream_error);
    EXPECT_LT(meter.greatest(), claimed * sizeof(proxySettings) / 3);
}

TEST(AListOfTexts, IsRefusedCheaplyWhenItClaimsElementsThatItLacks) {
    constexpr std::size_t characters = 300000;
    constexpr std::size_t claimed = 200000; // each takes two characters at the least
    const std::wstring text = kHeader + L" 0 0 " + std::to_wstring(claimed) + L" 0" + std::wstring(characters, L'x');
    const AllocationMeter meter;
    EXPECT_EQ(refusalOf<std::vector<std::string>>(text), archive_exception::input_stream_error);
    EXPECT_LT(meter.greatest(), claimed * sizeof(std::string) / 3);
}

TEST(ADebugMap, HasEachEntryInItsPlaceOfTheArchive) {
    EXPECT_EQ(payloadOf(DebugMap{{-3, true}, {7, false}}), kHeader +
                                                               L" 0 0 2 0" // map: tracking, version, count, entry's
                                                               L" 0 0"     // the class of an entry, once
                                                               L" -3 1 7 0");
    EXPECT_EQ(payloadOf(DebugMap()), kHeader + L" 0 0 0 0");
}

TEST(ADebugMap, ComesBack) {
    const DebugMap map{{std::numeric_limits<int>::min(), true}, {7, false}, {std::numeric_limits<int>::max(), true}};
    EXPECT_EQ(payloadIn<DebugMap>(payloadOf(map)), map);
    EXPECT_EQ(payloadIn<DebugMap>(payloadOf(DebugMap())), DebugMap());
}

TEST(ADebugMap, KeepsTheFirstOfTwoEntriesForOneModule) {
    EXPECT_EQ(payloadIn<DebugMap>(kHeader + L" 0 0 2 0 0 0 7 1 7 0"), (DebugMap{{7, true}}));
}

TEST(ANumberAndATruth, AreTheirWordBehindTheHeader) {
    EXPECT_EQ(payloadOf(static_cast<int>(Sentrel::ST_ERROR_NONE)), kHeader + L" 180000");
    EXPECT_EQ(payloadOf(true), kHeader + L" 1");
    EXPECT_EQ(payloadOf(false), kHeader + L" 0");
    for (const int number : {0, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_EQ(payloadIn<int>(payloadOf(number)), number);
    }
    EXPECT_TRUE(payloadIn<bool>(payloadOf(true)));
    EXPECT_FALSE(payloadIn<bool>(payloadOf(false)));
}

TEST(ANumberAndATruth, AreRefusedWhenTheyDoNotFit) {
    for (const wchar_t* word : {L" 2147483648", L" x", L"", L" ", L" -"}) {
        EXPECT_EQ(refusalOf<int>(kHeader + word), archive_exception::input_stream_error) << word;
    }
    for (const wchar_t* word : {L" 2", L" -1", L" true", L"", L" "}) {
        EXPECT_EQ(refusalOf<bool>(kHeader + word), archive_exception::input_stream_error) << word;
    }
}

// What holds for every payload.

TEST(APayloadOfEachKind, ThatIsCutOffAnywhereIsRefused) {
    expectEveryBeginningRefused<AboutBoxData>(replaced(payloadOf(aboutBox()), L"7 1.2 (3)", L"1 x"));
    expectEveryBeginningRefused<DashBoardData>(payloadOf(dashBoard()));
    expectEveryBeginningRefused<Proxies>(payloadOf(Proxies{proxy("a"), proxy("b")}));
    expectEveryBeginningRefused<DebugMap>(payloadOf(DebugMap{{3, true}, {7, false}}));
}

TEST(APayloadOfEachKind, OfALaterClassVersionIsRefused) {
    const auto refused = archive_exception::unsupported_class_version;
    EXPECT_EQ(refusalOf<AboutBoxData>(replaced(payloadOf(aboutBox()), L"18 0 0", L"18 0 1")), refused);
    EXPECT_EQ(refusalOf<DashBoardData>(replaced(payloadOf(dashBoard()), L"18 0 0", L"18 0 2")), refused);
    EXPECT_EQ(refusalOf<DashBoardData>(replaced(payloadOf(dashBoard()), L"1 a 0 0", L"1 a 0 1")), refused);
    EXPECT_EQ(refusalOf<Proxies>(replaced(payloadOf(Proxies{proxy("a")}), L"1 0 0 0 1 8080", L"1 0 0 9 1 8080")),
              refused);
}

TEST(APayloadOfEachKind, UnderAnotherSignatureIsRefused) {
    const auto refused = archive_exception::invalid_signature;
    EXPECT_EQ(refusalOf<AboutBoxData>(replaced(payloadOf(aboutBox()), L"archive", L"archivE")), refused);
    EXPECT_EQ(refusalOf<DashBoardData>(replaced(payloadOf(dashBoard()), L"22", L"21")), refused);
    EXPECT_EQ(refusalOf<Proxies>(L" " + payloadOf(Proxies())), refused);
    EXPECT_EQ(refusalOf<DebugMap>(L"hello"), refused);
    EXPECT_EQ(refusalOf<int>(L""), refused);
}

TEST(APayloadOfEachKind, WithALengthOrACountThatLiesIsRefusedCheaply) {
    for (const wchar_t* lie : {L"1152921504606846976", L"2000000000", L"18446744073709551615", L"-1"}) {
        const std::wstring number = lie;
        expectRefusedCheaply<AboutBoxData>(L" 0 0 7 0 0 " + number + L" 0 0 0 1 a 1 b");
        expectRefusedCheaply<AboutBoxData>(L" 0 0 7 0 0 1 0 0 0 " + number + L" a 1 b");
        expectRefusedCheaply<DashBoardData>(L" 0 0 7 0 0 " + number + L" 0 0 0 1 a 0 0 1 b 5");
        expectRefusedCheaply<DashBoardData>(L" 0 0 7 0 0 1 0 0 0 1 a 0 0 " + number + L" b 5");
        expectRefusedCheaply<Proxies>(L" 0 0 " + number + L" 0 0 0 1 8080 2 1 a 1 b 1 c");
        expectRefusedCheaply<Proxies>(L" 0 0 1 0 0 0 1 8080 2 " + number + L" a 1 b 1 c");
        expectRefusedCheaply<Proxies>(L" 0 0 1 0 0 0 1 8080 2 1 a 1 b " + number + L" c");
        expectRefusedCheaply<DebugMap>(L" 0 0 " + number + L" 0 0 0 7 1");
    }
}

// A program that saves a class through a pointer somewhere tracks it. In front of each object stands its number then.

TEST(APayloadOfEachKind, ThatIsTrackedComesBackWhole) {
    const auto about = payloadIn<AboutBoxData>(kHeader + L" 1 0 0 7 1 0 1 2 0 1 0 2 1 a 1 b 3 1 c 1 d");
    EXPECT_EQ(about.m_versionItems, (std::map<std::wstring, std::wstring>{{L"a", L"b"}, {L"c", L"d"}}));
    const auto board = payloadIn<DashBoardData>(kHeader + L" 1 0 0 7 1 0 1 2 0 1 0 2 1 a 1 0 3 1 x 5 4 1 b 5 1 y 2");
    ASSERT_EQ(board.m_statusItems.size(), 2U);
    EXPECT_EQ(board.m_statusItems.at(L"a").m_displayText, L"x");
    EXPECT_EQ(board.m_statusItems.at(L"b").m_displayText, L"y");
    EXPECT_EQ(board.m_statusItems.at(L"b").m_status, DASHBOARD_LOCAL_DISABLED);
    const auto proxies = payloadIn<Proxies>(kHeader + L" 1 0 0 2 0 1 0 1 0 1 2 1 a 1 b 1 c 2 3 4 5 1 d 1 e 1 f");
    ASSERT_EQ(proxies.size(), 2U);
    EXPECT_EQ(proxies[0].host, "a");
    EXPECT_EQ(proxies[1].type, 5);
    EXPECT_EQ(proxies[1].pass, "f");
    EXPECT_EQ(payloadIn<DebugMap>(kHeader + L" 1 0 0 2 0 1 0 1 3 1 2 7 0"), (DebugMap{{3, true}, {7, false}}));
}

TEST(APayloadOfEachKind, MayTrackItsElementsAlone) {
    EXPECT_EQ(payloadIn<DebugMap>(kHeader + L" 0 0 2 0 1 0 0 3 1 1 7 0"), (DebugMap{{3, true}, {7, false}}));
    const auto board = payloadIn<DashBoardData>(kHeader + L" 0 0 7 0 0 2 0 0 0 1 a 1 0 0 1 x 5 1 b 1 1 y 2");
    EXPECT_EQ(board.m_statusItems.at(L"b").m_displayText, L"y");
}

TEST(APayloadOfEachKind, WhoseObjectStandsForAnEarlierOneIsRefused) { // two characters would make an element
    expectRefusedCheaply<AboutBoxData>(L" 1 0 0 7 1 0 1 2 0 1 0 2 1 a 1 b 2");
    expectRefusedCheaply<AboutBoxData>(L" 1 0 0 7 1 0 0");
    expectRefusedCheaply<DashBoardData>(L" 0 0 7 0 0 2 0 0 0 1 a 1 0 0 1 x 5 1 b 0");
    expectRefusedCheaply<Proxies>(L" 0 0 4 0 1 0 0 1 8080 2 1 a 1 b 1 c 0 0 0");
    expectRefusedCheaply<DebugMap>(L" 0 0 3 0 1 0 0 7 1 1 8 1 0");
}

TEST(APayloadOfEachKind, WhoseObjectHasAnotherNumberThanTheNextIsRefused) {
    for (const wchar_t* number : {L"1", L"4294967295", L"4294967296", L"-1", L"x"}) {
        expectRefusedCheaply<AboutBoxData>(std::wstring(L" 1 0 ") + number + L" 7 0 0 0 0");
        expectRefusedCheaply<DashBoardData>(std::wstring(L" 1 0 ") + number + L" 7 0 0 0 0");
        expectRefusedCheaply<Proxies>(std::wstring(L" 1 0 ") + number + L" 0 0");
        expectRefusedCheaply<DebugMap>(std::wstring(L" 1 0 ") + number + L" 0 0");
    }
    expectRefusedCheaply<DebugMap>(L" 1 0 0 2 0 1 0 1 3 1 3 7 0");
    expectRefusedCheaply<DebugMap>(L" 2 0 0 0 0"); // and neither tracked nor untracked is a third thing
}

TEST(APayloadOfEachKind, WithALengthOrACountThatLiesIsRefusedCheaplyAlsoWhenItIsTracked) {
    for (const wchar_t* lie : {L"1152921504606846976", L"2000000000", L"18446744073709551615", L"-1"}) {
        const std::wstring number = lie;
        expectRefusedCheaply<AboutBoxData>(L" 1 0 0 7 1 0 1 " + number + L" 0 1 0 2 1 a 1 b");
        expectRefusedCheaply<AboutBoxData>(L" 1 0 0 7 1 0 1 1 0 1 0 2 1 a " + number + L" b");
        expectRefusedCheaply<DashBoardData>(L" 1 0 0 7 1 0 1 " + number + L" 0 1 0 2 1 a 1 0 3 1 x 5");
        expectRefusedCheaply<DashBoardData>(L" 1 0 0 7 1 0 1 1 0 1 0 2 1 a 1 0 3 " + number + L" x 5");
        expectRefusedCheaply<Proxies>(L" 1 0 0 " + number + L" 0 1 0 1 0 1 2 1 a 1 b 1 c");
        expectRefusedCheaply<Proxies>(L" 1 0 0 1 0 1 0 1 0 1 2 1 a " + number + L" b 1 c");
        expectRefusedCheaply<DebugMap>(L" 1 0 0 " + number + L" 0 1 0 1 3 1");
    }
}

/// Bytes that are asked for in all, freed ones included, for each character of @p head, a count, @p behind and as many
/// elements as make a long text.
template <class T>
std::size_t bytesPerCharacter(const std::wstring& head, const std::wstring& behind,
                              const std::function<std::wstring(const std::wstring& number)>& element) {
    constexpr std::size_t longText = 300000;
    std::size_t count = 0;
    std::wstring elements;
    while (elements.size() < longText) {
        elements += element(std::to_wstring(count++));
    }
    const std::wstring text = kHeader + head + std::to_wstring(count) + behind + elements;
    const AllocationMeter meter;
    EXPECT_EQ(refusalOf<T>(text), -1);
    return meter.total() / text.size();
}

// The plain list of proxies is the dearest of all. That objects are tracked costs the reader less than its text does.
TEST(APayloadOfEachKind, CostsABoundedAmountForEachCharacterTrackedOrNot) {
    constexpr std::size_t most = 40;
    const std::wstring settings = L" 0 0 1 0 3 2 1 10 0 0 0 0 1 0 0 0 0 0 0 ";
    const auto proxy = [](const std::wstring&) { return L" 0 0 0 0  0  0 "; };
    const auto trackedProxy = [](const std::wstring& number) { return L"\n" + number + L" 0 0 0 0  0  0 "; };
    const auto url = [](const std::wstring&) { return L" 0  1"; };
    const auto trackedUrl = [](const std::wstring& number) { return L"\n" + number + L" 0  1"; };
    const auto entry = [](const std::wstring& number) { return L" " + number + L" 1"; };
    const auto trackedEntry = [](const std::wstring& number) { return L"\n" + number + L" " + number + L" 1"; };
    const auto sameEntry = [](const std::wstring& number) { return L"\n" + number + L" 7 1"; };
    EXPECT_LT(bytesPerCharacter<Proxies>(L" 0 0 ", L" 0 0 0", proxy), most);
    EXPECT_LT(bytesPerCharacter<Proxies>(L" 0 0 ", L" 0 1 0", trackedProxy), most);
    EXPECT_LT(bytesPerCharacter<Sentrel::STPreferences>(settings, L" 0 0 0", url), most);
    EXPECT_LT(bytesPerCharacter<Sentrel::STPreferences>(settings, L" 0 1 0", trackedUrl), most);
    EXPECT_LT(bytesPerCharacter<DebugMap>(L" 0 0 ", L" 0 0 0", entry), most);
    EXPECT_LT(bytesPerCharacter<DebugMap>(L" 0 0 ", L" 0 1 0", trackedEntry), most);
    EXPECT_LT(bytesPerCharacter<DebugMap>(L" 0 0 ", L" 0 1 0", sameEntry), most);
}

TEST(APayloadOfEachKind, ThatIsNoiseIsRefused) {
    expectNoiseRefused<AboutBoxData>();
    expectNoiseRefused<DashBoardData>();
    expectNoiseRefused<Proxies>();
    expectNoiseRefused<DebugMap>();
}

TEST(TheMeter, SeesWhatAReaderAllocates) { // so that the tests above cannot pass without one
    const std::wstring text = payloadOf(Proxies{proxy(std::string(100000, 'x'))});
    const AllocationMeter meter;
    payloadIn<Proxies>(text);
    EXPECT_GT(meter.greatest(), 100000u);
}

} // namespace
