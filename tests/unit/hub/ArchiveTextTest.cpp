// Text archives that keep every byte and believe no number from outside. Real: the archive library.
#include "hub/ArchiveText.h"
#include "tests/support/ArchiveValue.h"

#include <gtest/gtest.h>

#include <boost/serialization/map.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>

#include <cwchar>
#include <limits>
#include <map>
#include <vector>

namespace {

using testing_support::valueIn;

constexpr auto kBoth = std::ios_base::in | std::ios_base::out | std::ios_base::binary;

template <class... T>
std::wstring written(const T&... values) {
    const auto stream = HVB::makeOutStream(kBoth, 4096);
    {
        boost::archive::text_woarchive archive(*stream, 0);
        static_cast<void>((archive << ... << values));
    }
    return stream->str();
}

/// An archive whose body is @p body behind a true header.
std::wstring archiveOf(const std::wstring& body) {
    const auto stream = HVB::makeOutStream(kBoth, 256);
    const boost::archive::text_woarchive archive(*stream, 0);
    return stream->str() + L" " + body;
}

std::string everyByte() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

TEST(TheByteLocale, WidensAndNarrowsEach256ByteValuesOneToOne) {
    const auto& facet = std::use_facet<std::ctype<wchar_t>>(HVB::byteLocale());
    for (int byte = 0; byte < 256; ++byte) {
        const char narrow = static_cast<char>(byte);
        EXPECT_EQ(facet.widen(narrow), static_cast<wchar_t>(byte));
        EXPECT_EQ(facet.narrow(static_cast<wchar_t>(byte), '!'), narrow);
    }
}

TEST(TheByteLocale, NarrowsWhatIsNoByteToTheFallback) {
    const auto& facet = std::use_facet<std::ctype<wchar_t>>(HVB::byteLocale());
    for (const wchar_t wide : {L'\x100', L'\x20AC', static_cast<wchar_t>(-1), static_cast<wchar_t>(-61),
                               std::numeric_limits<wchar_t>::max()}) {
        EXPECT_EQ(facet.narrow(wide, '!'), '!');
    }
}

TEST(AnArchive, BringsEveryByteOfANarrowTextBack) {
    EXPECT_EQ(valueIn<std::string>(written(everyByte())), everyByte());
}

TEST(AnArchive, BringsBackAListWhoseElementsTakeTwoCharactersEach) { // no element takes less
    for (const std::size_t size : {1U, 2U, 1000U}) {
        const std::vector<bool> flags(size, true);
        EXPECT_EQ(valueIn<std::vector<bool>>(written(flags)), flags);
    }
}

TEST(AnArchive, BringsACategoryNameWithAnAccentBack) {
    const std::map<int, std::string> names{{1, "Caf\xC3\xA9"}, {2, ""}, {3, "a b"}};
    EXPECT_EQ((valueIn<std::map<int, std::string>>(written(names))), names);
}

TEST(AnArchive, BringsEveryWideCharacterBack) {
    std::wstring text = L"a \x20AC";
    for (const int value : {0, 1, 0x7F, 0x80, 0xFF, 0x100, 0xD800, 0x10FFFF, 0x110000, -1, -2, -61, -128}) {
        text += static_cast<wchar_t>(value);
    }
    text += std::numeric_limits<wchar_t>::min();
    text += std::numeric_limits<wchar_t>::max();
    EXPECT_EQ(valueIn<std::wstring>(written(text)), text);
}

TEST(AnArchive, KeepsTheCharacterThatEqualsTheEndOfFile) {
    for (std::size_t length = 1; length < 600; length += 37) {
        const std::wstring text(length, static_cast<wchar_t>(WEOF));
        EXPECT_EQ(valueIn<std::wstring>(written(text)), text) << length;
    }
}

TEST(AnArchive, BringsEmptyTextsBackBetweenOthers) {
    const std::vector<std::wstring> texts{L"", L"x", L"", L""};
    EXPECT_EQ(valueIn<std::vector<std::wstring>>(written(texts)), texts);
    EXPECT_EQ(valueIn<std::wstring>(written(std::wstring())), L"");
    EXPECT_EQ(valueIn<std::string>(written(std::string())), "");
    EXPECT_EQ(valueIn<std::vector<int>>(written(std::vector<int>())), std::vector<int>());
}

TEST(AnArchive, BringsNumbersAndTruthBack) {
    EXPECT_EQ(valueIn<int>(written(-2147483647)), -2147483647);
    EXPECT_EQ(valueIn<bool>(written(true)), true);
    const std::map<int, bool> states{{3, true}, {7, false}, {9, true}};
    EXPECT_EQ((valueIn<std::map<int, bool>>(written(states))), states);
}

TEST(AnArchive, ReadsSeveralValuesInTheirOrder) {
    const auto stream = HVB::makeInStream(written(std::wstring(L"first one"), 2, std::string("third")));
    const auto archive = HVB::makeInArchive(*stream);
    std::wstring first;
    int second = 0;
    std::string third;
    *archive >> first >> second >> third;
    EXPECT_EQ(first, L"first one");
    EXPECT_EQ(second, 2);
    EXPECT_EQ(third, "third");
}

TEST(AnArchive, IsUnboundedWhenItsReaderWasMadeElsewhere) {
    const auto stream =
        HVB::makeInStream(written(std::wstring(L"wide"), std::string("narrow"), std::vector<int>{1, 2}));
    boost::archive::text_wiarchive archive(*stream, 0);
    std::wstring wide;
    std::string narrow;
    std::vector<int> numbers;
    archive >> wide >> narrow >> numbers;
    EXPECT_EQ(wide, L"wide");
    EXPECT_EQ(narrow, "narrow");
    EXPECT_EQ(numbers, (std::vector<int>{1, 2}));
}

struct Lie {
    const char* what;
    const wchar_t* body;
};

struct ALyingArchive : testing::TestWithParam<Lie> {};

// Some of these declare more than the machine has memory for, so a reader that believed them would not come back.
TEST_P(ALyingArchive, IsRefusedAsAWideText) {
    EXPECT_THROW(valueIn<std::wstring>(archiveOf(GetParam().body)), boost::archive::archive_exception);
}

TEST_P(ALyingArchive, IsRefusedAsANarrowText) {
    EXPECT_THROW(valueIn<std::string>(archiveOf(GetParam().body)), boost::archive::archive_exception);
}

TEST_P(ALyingArchive, IsRefusedAsAList) {
    EXPECT_THROW(valueIn<std::vector<std::string>>(archiveOf(GetParam().body)), boost::archive::archive_exception);
}

TEST_P(ALyingArchive, IsRefusedAsAMap) {
    using Map = std::map<int, bool>;
    EXPECT_THROW(valueIn<Map>(archiveOf(std::wstring(L"0 0 ") + GetParam().body)), boost::archive::archive_exception);
}

INSTANTIATE_TEST_SUITE_P(ThatDeclares, ALyingArchive,
                         testing::Values(Lie{"TwoThousandMillion", L"2000000000 x"},
                                         Lie{"TheLargestNumber", L"18446744073709551615 x"},
                                         Lie{"MoreThanANumberHolds", L"99999999999999999999999 x"},
                                         Lie{"OneMoreThanThereIs", L"4 xxx"}, Lie{"OneAndHasNothing", L"1"},
                                         Lie{"OneAndHasTheSeparatorAlone", L"1 "}, Lie{"MinusOne", L"-1 x"},
                                         Lie{"NoNumber", L"x"}),
                         [](const auto& test) { return test.param.what; });

TEST(AText, OfExactlyTheDeclaredLengthIsRead) {
    EXPECT_EQ(valueIn<std::wstring>(archiveOf(L"3 xyz")), L"xyz");
}

TEST(AText, ThatIsEmptyNeedsNoSeparatorAtTheEnd) {
    EXPECT_EQ(valueIn<std::wstring>(archiveOf(L"0")), L"");
    EXPECT_EQ(valueIn<std::wstring>(archiveOf(L"0 ")), L"");
}

struct AHead : testing::TestWithParam<std::wstring> {};

TEST_P(AHead, ThatIsNotAnArchivesIsRefused) {
    const auto stream = HVB::makeInStream(GetParam());
    EXPECT_THROW(HVB::makeInArchive(*stream), boost::archive::archive_exception);
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, AHead,
                         testing::Values(L"", L"2", L"22 serialization::archiv", L"22 serialization::archivf 19 0 0",
                                         L"2000000000 serialization::archive 19 0 0", L"hello",
                                         L"23 serialization::archive", L"22 serialization::archive 65535 0 0",
                                         L"22 serialization::archive x"));

} // namespace
