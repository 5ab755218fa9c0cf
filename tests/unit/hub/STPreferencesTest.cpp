// The snapshot of the preferences and its way over the hub. All real; allocations are metered.
#include "hub/STPreferences.h"

#include "tests/unit/hub/FilledPreferences.h"
#include "tests/unit/hub/PayloadText.h"

#include <gtest/gtest.h>

#include <boost/archive/iterators/dataflow_exception.hpp>

#include <utility>
#include <vector>

using boost::archive::archive_exception;
using boost::archive::iterators::dataflow_exception;
using Sentrel::AllowBlockDetails;
using Sentrel::STPreferences;
using testing_support::filledPreferences;

namespace {

using Entries = std::vector<std::pair<std::string, int>>;

AllowBlockDetails listOf(const Entries& entries) {
    AllowBlockDetails list;
    for (const auto& [key, action] : entries) {
        list.emplace(key, action);
    }
    return list;
}

template <class Map>
Entries entriesOf(const Map& map) {
    return {map.begin(), map.end()};
}

void expectEqual(const STPreferences& left, const STPreferences& right) {
    EXPECT_EQ(left.m_bEnable, right.m_bEnable);
    EXPECT_EQ(left.m_bSafeSearch, right.m_bSafeSearch);
    EXPECT_EQ(left.m_redSiteAction, right.m_redSiteAction);
    EXPECT_EQ(left.m_yellowSiteAction, right.m_yellowSiteAction);
    EXPECT_EQ(left.m_unratedSiteAction, right.m_unratedSiteAction);
    EXPECT_EQ(left.m_prefType, right.m_prefType);
    EXPECT_EQ(left.m_bIndividual, right.m_bIndividual);
    EXPECT_EQ(left.m_bCategoryBlocking, right.m_bCategoryBlocking);
    EXPECT_EQ(left.m_bUnused, right.m_bUnused);
    EXPECT_EQ(left.m_bAllowOverBlock, right.m_bAllowOverBlock);
    EXPECT_EQ(left.m_unverifiedAction, right.m_unverifiedAction);
    EXPECT_EQ(left.m_categoryBlockDetails, right.m_categoryBlockDetails);
    EXPECT_EQ(entriesOf(left.m_allowBlockDetails), entriesOf(right.m_allowBlockDetails));
}

std::string wrapped(const std::string& key) {
    STPreferences preferences;
    preferences.setAllowBlockDetails(listOf({{key, 0}}));
    return preferences.m_allowBlockDetails.begin()->first;
}

std::string unwrapped(const std::string& text) {
    STPreferences preferences;
    preferences.m_allowBlockDetails.emplace(text, 0);
    return preferences.getAllowBlockDetails().begin()->first;
}

// Keys in base64.

TEST(AnAllowBlockKey, IsPaddedToAMultipleOfFourSigns) {
    EXPECT_EQ(wrapped("f"), "Zg==");
    EXPECT_EQ(wrapped("fo"), "Zm8=");
    EXPECT_EQ(wrapped("foo"), "Zm9v");
    EXPECT_EQ(wrapped("foob"), "Zm9vYg==");
}

TEST(AnAllowBlockKey, ThatIsEmptyStaysEmpty) {
    EXPECT_EQ(wrapped(""), "");
    EXPECT_EQ(unwrapped(""), "");
}

TEST(AnAllowBlockKey, UsesTheWholeAlphabetAndNoLineBreaks) {
    EXPECT_EQ(wrapped("\xFB\xFF\xBF"), "+/+/");
    EXPECT_EQ(wrapped(std::string(300, 'a')).find_first_not_of("YWFh"), std::string::npos);
}

TEST(AnAllowBlockKey, ComesBackByteForByteWhateverBytesItHas) {
    for (std::size_t first = 0; first < 256; ++first) {
        const std::string rotated = everyByte().substr(first) + everyByte().substr(0, first) + "x";
        for (const std::size_t length : {std::size_t{1}, std::size_t{2}, std::size_t{3}, rotated.size()}) {
            const std::string key = rotated.substr(rotated.size() - length);
            EXPECT_EQ(unwrapped(wrapped(key)), key);
        }
    }
    EXPECT_EQ(unwrapped(wrapped(std::string("a\0\0b", 4))), std::string("a\0\0b", 4));
}

TEST(AnAllowBlockKey, LosesItsNulsAtTheEndAsPadding) {
    EXPECT_EQ(unwrapped(wrapped(std::string("a\0b\0\0", 5))), std::string("a\0b", 3));
    EXPECT_EQ(unwrapped(wrapped(std::string(7, '\0'))), "");
}

TEST(AnAllowBlockKey, IsUnwrappedWithoutPaddingAndWithoutTheBitsThatMakeNoByte) {
    EXPECT_EQ(unwrapped("Zg"), "f");
    EXPECT_EQ(unwrapped("Zm8"), "fo");
    EXPECT_EQ(unwrapped("Zm9vY"), "foo");
    EXPECT_EQ(unwrapped("Z"), "");
}

TEST(AnAllowBlockKey, ThatIsNoBase64ThrowsWhereverTheCharacterIs) {
    for (const char* text : {"!", "Zm9!", "Zm9v!", "!m9v", "Zm9v\n", "Zm 9v", "Zm9v\xC3", "-_-_", "Zg==\x80"}) {
        try {
            unwrapped(text);
            ADD_FAILURE() << text;
        } catch (const dataflow_exception& exception) {
            EXPECT_EQ(exception.code, dataflow_exception::invalid_base64_character) << text;
        }
    }
    EXPECT_THROW(unwrapped(std::string("Zm9v\0", 5)), dataflow_exception);
}

// The allow/block list.

TEST(AnAllowBlockList, WithAKeyThatIsNoBase64GivesNoEntriesAndKeepsItsOwn) {
    STPreferences preferences;
    preferences.setAllowBlockDetails(listOf({{"a.example", 0}}));
    preferences.m_allowBlockDetails.emplace("a!", 1);
    AllowBlockDetails result = listOf({{"before", 5}});
    EXPECT_THROW(result = preferences.getAllowBlockDetails(), dataflow_exception);
    EXPECT_EQ(entriesOf(result), (Entries{{"before", 5}}));
    EXPECT_EQ(preferences.m_allowBlockDetails.size(), 2u);
}

TEST(AnAllowBlockList, KeepsOrderDuplicatesAndActionsThroughWrapping) {
    const Entries entries{{"b.example", 0}, {"a.example", -1}, {"b.example", 7},
                          {"", 1},          {"a.example", 0},  {"b.example", 0}};
    STPreferences preferences;
    preferences.setAllowBlockDetails(listOf(entries));
    EXPECT_EQ(entriesOf(preferences.getAllowBlockDetails()), entries);
}

TEST(AnAllowBlockList, ThatIsSetTwiceHasTheSecondBehindTheFirst) {
    STPreferences preferences;
    preferences.setAllowBlockDetails(listOf({{"b", 0}, {"c", 1}}));
    preferences.setAllowBlockDetails(listOf({{"a", 2}}));
    EXPECT_EQ(entriesOf(preferences.getAllowBlockDetails()), (Entries{{"b", 0}, {"c", 1}, {"a", 2}}));
}

TEST(AnAllowBlockList, WithTheSameKeyTwiceKeepsBothInOrderThroughTheArchive) {
    STPreferences preferences;
    const Entries entries{{"z.example", 1}, {"a.example", 1}, {"z.example", 0}, {"z.example", 1}};
    preferences.setAllowBlockDetails(listOf(entries));
    const auto arrived = payloadIn<STPreferences>(payloadOf(preferences));
    EXPECT_EQ(entriesOf(arrived.getAllowBlockDetails()), entries);
}

// The archive.

TEST(Preferences, ComeBackWithTheirDefaults) {
    STPreferences arrived = filledPreferences();
    arrived = payloadIn<STPreferences>(payloadOf(STPreferences()));
    EXPECT_EQ(arrived.m_prefType, 10);
    EXPECT_EQ(arrived.m_unverifiedAction, 1);
    expectEqual(arrived, STPreferences());
}

TEST(Preferences, AreBornWithTheirDefaults) {
    const STPreferences preferences;
    EXPECT_TRUE(preferences.m_bEnable);
    EXPECT_FALSE(preferences.m_bSafeSearch);
    EXPECT_EQ(preferences.m_redSiteAction, 3);
    EXPECT_EQ(preferences.m_yellowSiteAction, 2);
    EXPECT_EQ(preferences.m_unratedSiteAction, 1);
    EXPECT_EQ(preferences.m_prefType, Sentrel::ST_ALL_PREFERENCES);
    EXPECT_FALSE(preferences.m_bIndividual);
    EXPECT_FALSE(preferences.m_bCategoryBlocking);
    EXPECT_FALSE(preferences.m_bAllowOverBlock);
    EXPECT_TRUE(preferences.m_allowBlockDetails.empty());
    EXPECT_FALSE(preferences.m_bUnused);
    EXPECT_EQ(preferences.m_unverifiedAction, 1);
    EXPECT_TRUE(preferences.m_categoryBlockDetails.empty());
}

TEST(Preferences, HaveEachMemberInItsPlaceOfTheArchive) {
    EXPECT_EQ(payloadOf(STPreferences()), kHeader +
                                              L" 0 0"       // the class: tracking, version
                                              L" 1 0"       // enable, safe search
                                              L" 3 2 1 10"  // red, yellow, unrated, type
                                              L" 0 0 0 0"   // individual, category blocking, unused, allow over block
                                              L" 1"         // unverified
                                              L" 0 0 0 0"   // categories: tracking, version, count, entry's version
                                              L" 0 0 0 0"); // allow/block list: the same
    EXPECT_EQ(payloadOf(filledPreferences()),
              kHeader + L" 0 0 0 1 21 -22 2147483647 7 1 1 0 1 -2147483648"
                        L" 0 0 2 0"           // two categories
                        L" 0 0"               // the class of an entry, once: tracking, version
                        L" 0  9 8 gambling 1" // length, text, value; an empty text is two blanks
                        L" 0 0 3 0 12 Yi5leGFtcGxl 0 12 YS5leGFtcGxl 1 12 Yi5leGFtcGxl 7");
}

TEST(Preferences, ThatAreFilledComeBackWhole) {
    expectEqual(payloadIn<STPreferences>(payloadOf(filledPreferences())), filledPreferences());
}

TEST(Preferences, KeepThePlaceOfTheUnusedMember) {
    STPreferences preferences;
    preferences.m_bUnused = true;
    const auto arrived = payloadIn<STPreferences>(payloadOf(preferences));
    EXPECT_TRUE(arrived.m_bUnused);
    EXPECT_FALSE(arrived.m_bCategoryBlocking);
    EXPECT_FALSE(arrived.m_bAllowOverBlock);
}

TEST(Preferences, BringEveryByteOfACategoryNameBack) {
    STPreferences preferences;
    preferences.m_categoryBlockDetails = {{everyByte(), 1}, {"", 2}, {std::string("a\0b\0", 4), 3}, {"Caf\xC3\xA9", 4}};
    for (const char byte : everyByte()) {
        preferences.m_categoryBlockDetails.emplace(std::string(600, byte), byte);
    }
    preferences.setAllowBlockDetails(listOf({{everyByte(), 1}}));
    preferences.m_allowBlockDetails.emplace(everyByte(), 2); // a key as a client may send it, not in base64
    expectEqual(payloadIn<STPreferences>(payloadOf(preferences)), preferences);
}

TEST(Preferences, TakeATypeThatHasNoNameAsItIs) {
    const std::wstring text = replaced(payloadOf(STPreferences()), L" 3 2 1 10 ", L" 3 2 1 -99 ");
    EXPECT_EQ(static_cast<int>(payloadIn<STPreferences>(text).m_prefType), -99);
}

TEST(Preferences, OfALaterClassVersionAreRefused) {
    const std::wstring text = replaced(payloadOf(filledPreferences()), L"18 0 0 ", L"18 0 1 ");
    EXPECT_EQ(refusalOf<STPreferences>(text), archive_exception::unsupported_class_version);
}

TEST(Preferences, OfTheArchiveVersionBehindTheLibrarysAreRead) {
    EXPECT_EQ(HVB::kLatestArchiveVersion, 19U);
    expectEqual(payloadIn<STPreferences>(replaced(payloadOf(filledPreferences()), L"archive 18", L"archive 19")),
                filledPreferences());
    expectEqual(payloadIn<STPreferences>(replaced(payloadOf(filledPreferences()), L"archive 18", L"archive 17")),
                filledPreferences());
}

TEST(Preferences, OfALaterArchiveOrUnderAnotherSignatureAreRefused) {
    const std::wstring text = payloadOf(STPreferences());
    for (const wchar_t* later : {L"archive 20", L"archive 9999", L"archive 65535"}) {
        EXPECT_EQ(refusalOf<STPreferences>(replaced(text, L"archive 18", later)),
                  archive_exception::unsupported_version);
    }
    for (const wchar_t* none : {L"archive 65536", L"archive 99999999999999999999", L"archive x"}) {
        EXPECT_EQ(refusalOf<STPreferences>(replaced(text, L"archive 18", none)), archive_exception::input_stream_error)
            << none;
    }
    EXPECT_EQ(refusalOf<STPreferences>(replaced(text, L"archive", L"arkhive")), archive_exception::invalid_signature);
    EXPECT_EQ(refusalOf<STPreferences>(replaced(text, L"22 ", L"2000000000 ")), archive_exception::invalid_signature);
    EXPECT_EQ(refusalOf<STPreferences>(L""), archive_exception::invalid_signature);
}

TEST(Preferences, ThatAreCutOffAnywhereAreRefused) {
    expectEveryBeginningRefused<STPreferences>(payloadOf(STPreferences()));
    expectEveryBeginningRefused<STPreferences>(payloadOf(filledPreferences()));
}

TEST(Preferences, WithANumberThatDoesNotFitAreRefused) {
    const std::wstring scalars = L" 0 0 1 0 3 2 1 10 ";
    for (const wchar_t* wrong : {L" 0 0 2 0 3 2 1 10 ", L" 0 0 -1 0 3 2 1 10 ", L" 0 0 1 0 2147483648 2 1 10 ",
                                 L" 0 0 1 0 3 2 1 99999999999 ", L" 0 0 x 0 3 2 1 10 "}) {
        EXPECT_EQ(refusalOf<STPreferences>(replaced(payloadOf(STPreferences()), scalars, wrong)),
                  archive_exception::input_stream_error);
    }
}

TEST(Preferences, WithALengthOrACountThatLiesAreRefusedCheaply) {
    const std::wstring scalars = L" 0 0 1 0 3 2 1 10 0 0 0 0 1";
    for (const wchar_t* lie : {L"1152921504606846976", L"2000000000", L"18446744073709551615", L"-1"}) {
        const std::wstring number = lie;
        expectRefusedCheaply<STPreferences>(scalars + L" 0 0 " + number + L" 0 0 0 1 a 1 0 0 0 0");
        expectRefusedCheaply<STPreferences>(scalars + L" 0 0 1 0 0 0 " + number + L" a 1 0 0 0 0");
        expectRefusedCheaply<STPreferences>(scalars + L" 0 0 0 0 0 0 " + number + L" 0 0 0 4 Zm9v 1");
        expectRefusedCheaply<STPreferences>(scalars + L" 0 0 0 0 0 0 1 0 0 0 " + number + L" Zm9v 1");
    }
}

/// As a program writes them that saves preferences, their lists and entries through pointers somewhere.
const std::wstring kTracked = kHeader + L" 1 0 0 0 1 21 -22 2147483647 7 1 1 0 1 -2147483648"
                                        L" 1 0 1 2 0" // the categories: tracking, version, number, count
                                        L" 1 0"       // the class of an entry
                                        L" 2 0  9 3 8 gambling 1"
                                        L" 1 0 4 3 0 5 12 Yi5leGFtcGxl 0 6 12 YS5leGFtcGxl 1 7 12 Yi5leGFtcGxl 7";

TEST(Preferences, ThatAreTrackedComeBackWhole) {
    expectEqual(payloadIn<STPreferences>(kTracked), filledPreferences());
    expectEqual(payloadIn<STPreferences>(replaced(payloadOf(filledPreferences()), L"18 0 0 ", L"18 1 0 0 ")),
                filledPreferences());
}

TEST(Preferences, ThatAreTrackedAndCutOffAnywhereAreRefused) {
    expectEveryBeginningRefused<STPreferences>(kTracked);
}

TEST(Preferences, WithAnEntryThatStandsForAnEarlierOneAreRefused) { // it would take two characters
    expectRefusedCheaply<STPreferences>(L" 0 0 1 0 3 2 1 10 0 0 0 0 1 0 0 0 0 0 0 3 0 1 0 0 4 Zm9v 1 0 0");
    expectRefusedCheaply<STPreferences>(L" 0 0 1 0 3 2 1 10 0 0 0 0 1 0 0 0 0 0 0 3 0 1 0 0 4 Zm9v 1 2 4 Zm9v 1");
}

TEST(Preferences, ThatAreNoiseAreRefused) {
    expectNoiseRefused<STPreferences>();
}

} // namespace
