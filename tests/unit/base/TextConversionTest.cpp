// Between UTF-8 and wide strings. Real: the C library's conversions.
#include "base/TextConversion.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

constexpr int kUntouched = 99;

struct Wide {
    int result = kUntouched;
    int sizeAfter = 0;
    std::wstring text;
};

/// The conversion into a buffer of @p size characters, and of none more.
Wide widened(const std::string& source, int size) {
    std::wstring target(static_cast<std::size_t>(size > 0 ? size : 1), L'?');
    Wide wide{kUntouched, size, L""};
    wide.result = char2widechar(source.c_str(), target.data(), &wide.sizeAfter);
    wide.text = wide.result == 0 ? target.substr(0, target.find(L'\0')) : target;
    return wide;
}

std::wstring widened(const std::string& source) {
    return widened(source, static_cast<int>(source.size()) + 1).text;
}

struct Narrow {
    int result = kUntouched;
    int sizeAfter = 0;
    std::string text;
};

Narrow narrowed(const std::wstring& source, int size) {
    std::string target(static_cast<std::size_t>(size > 0 ? size : 1), '?');
    Narrow narrow{kUntouched, size, ""};
    narrow.result = widechar2charstr(source.c_str(), target.data(), &narrow.sizeAfter);
    narrow.text = narrow.result == 0 ? target.substr(0, target.find('\0')) : target;
    return narrow;
}

std::string narrowed(const std::wstring& source) {
    return narrowed(source, 6 * static_cast<int>(source.size()) + 1).text;
}

TEST(Widening, RefusesASizeEqualToTheLengthAndTakesOneMore) {
    EXPECT_EQ(widened("abc", 3).result, -1);
    EXPECT_EQ(widened("abc", 4).result, 0);
    EXPECT_EQ(widened("abc", 4).text, L"abc");
    EXPECT_EQ(widened("", 0).result, -1);
    EXPECT_EQ(widened("", 1).result, 0);
    EXPECT_EQ(widened("a", -1).result, -1);
}

TEST(Widening, LeavesSizeAndTargetAloneWhenItRefuses) {
    EXPECT_EQ(widened("abc", 3).text, L"???");
    EXPECT_EQ(widened("abc", 3).sizeAfter, 3);
    EXPECT_EQ(widened("abc", 100).sizeAfter, 100);
}

TEST(Widening, RefusesANullPointer) {
    wchar_t target = L'?';
    int size = 1;
    EXPECT_EQ(char2widechar(nullptr, &target, &size), -1);
    EXPECT_EQ(char2widechar("", nullptr, &size), -1);
    EXPECT_EQ(char2widechar("", &target, nullptr), -1);
    EXPECT_EQ(target, L'?');
}

TEST(Widening, ReadsUtf8OfEveryLength) {
    EXPECT_EQ(widened("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z"), L"a\u00E9\u20AC\U0001F600z");
    EXPECT_EQ(widened("Caf\xC3\xA9", 6).text, L"Caf\u00E9"); // the size counts bytes
    EXPECT_EQ(widened(std::string(10000, 'x')), std::wstring(10000, L'x'));
}

TEST(Widening, EndsEarlyAtABadSequence) {
    for (const char* bad : {"\xFF", "\xC3", "\xC3(", "\x80", "\xC0\x80", "\xED\xA0\x80", "\xE2\x82"}) {
        const std::string source = std::string("ab") + bad + "";
        EXPECT_EQ(widened(source, 20).result, 0);
        EXPECT_EQ(widened(source, 20).text, L"ab");
        EXPECT_EQ(widened(std::string(bad)), L"");
    }
    EXPECT_EQ(widened("ab\xFFzz"), L"ab");
}

TEST(Narrowing, RefusesLessThanSixBytesForEachCharacterAndOne) {
    EXPECT_EQ(narrowed(L"abc", 18).result, -1);
    EXPECT_EQ(narrowed(L"abc", 19).result, 0);
    EXPECT_EQ(narrowed(L"abc", 19).text, "abc");
    EXPECT_EQ(narrowed(L"", 0).result, -1);
    EXPECT_EQ(narrowed(L"", 1).result, 0);
    EXPECT_EQ(narrowed(L"", -1).result, -1);
}

TEST(Narrowing, LeavesSizeAndTargetAloneWhenItRefuses) {
    EXPECT_EQ(narrowed(L"abc", 3).text, "???");
    EXPECT_EQ(narrowed(L"abc", 3).sizeAfter, 3);
    EXPECT_EQ(narrowed(L"abc", 100).sizeAfter, 100);
}

TEST(Narrowing, RefusesANullTextOrTarget) {
    char target = '?';
    int size = 1;
    EXPECT_EQ(widechar2charstr(nullptr, &target, &size), -1);
    EXPECT_EQ(widechar2charstr(L"", nullptr, &size), -1);
    EXPECT_EQ(target, '?');
}

TEST(Narrowing, WritesUtf8OfEveryLength) {
    EXPECT_EQ(narrowed(L"a\u00E9\u20AC\U0001F600z"), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z");
    EXPECT_EQ(narrowed(std::wstring(10000, L'\u20AC')).size(), 30000u);
}

TEST(Narrowing, FitsIntoSixBytesForEachCharacter) {
    const std::string text = narrowed(std::wstring(1000, static_cast<wchar_t>(0x7FFFFFFF)));
    EXPECT_EQ(text.size(), 6000u);
}

TEST(Narrowing, EndsEarlyAtWhatNoUtf8Has) {
    for (const int bad : {0xD800, 0xDFFF, -1, -61}) {
        const std::wstring source = std::wstring(L"ab") + static_cast<wchar_t>(bad) + L"z";
        EXPECT_EQ(narrowed(source, 100).result, 0);
        EXPECT_EQ(narrowed(source, 100).text, "ab");
    }
}

TEST(AText, ComesBackFromWideningAndNarrowing) {
    const std::string text = "\x01 ~\x7F \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80";
    EXPECT_EQ(narrowed(widened(text)), text);
}

} // namespace
