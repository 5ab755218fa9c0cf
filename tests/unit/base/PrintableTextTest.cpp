// What text from outside becomes before it is shown.

#include "base/PrintableText.h"
#include <gtest/gtest.h>
#include <string>

namespace Sentrel::text {
namespace {

/// Bytes as a report widens them: each by its sign.
std::wstring signExtended(std::string_view bytes) {
    std::wstring wide;
    for (const char byte : bytes) {
        wide += static_cast<wchar_t>(static_cast<signed char>(byte));
    }
    return wide;
}

TEST(PrintableText, LeavesOrdinaryTextOfEveryLengthOfCharacterAsItIs) {
    const std::string text = "a~ \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x90\xA7";
    EXPECT_EQ(printable(text), text);
    EXPECT_EQ(validUtf8(text), text);
}

TEST(PrintableText, EscapesEveryAsciiControlCharacter) {
    for (int code = 0; code < 0x80; ++code) {
        const std::string text(1, static_cast<char>(code));
        const bool isControl = code < 0x20 || code == 0x7F;
        EXPECT_EQ(printable(text) == text, !isControl) << code;
    }
    EXPECT_EQ(printable(std::string("\x1b[2J\n\t\0\x7f", 8)), "\\x1b[2J\\x0a\\x09\\x00\\x7f");
}

TEST(PrintableText, EscapesCharactersThatSteerHowALineIsShown) {
    EXPECT_EQ(printable("\xC2\x9B"
                        "2J"),
              "\\u{009b}2J");
    EXPECT_EQ(printable("\xE2\x80\xAEmoc.evil"), "\\u{202e}moc.evil");
    EXPECT_EQ(printable("\xE2\x80\xA8|\xE2\x80\x8B|\xEF\xBB\xBF"), "\\u{2028}|\\u{200b}|\\u{feff}");
    EXPECT_EQ(printable("\xF3\xA0\x81\x81"), "\\u{e0041}");
}

TEST(PrintableText, EscapesEachByteThatIsNoUtf8) {
    EXPECT_EQ(printable("a\xFFz"), "a\\xffz");
    EXPECT_EQ(printable("\xC3("), "\\xc3(");
    EXPECT_EQ(printable("\xE2\x82"), "\\xe2\\x82") << "cut in the middle of a character";
    EXPECT_EQ(printable("\xC0\xAF"), "\\xc0\\xaf") << "longer than it needs to be";
    EXPECT_EQ(printable("\xE0\x80\x9B"), "\\xe0\\x80\\x9b") << "a control character in disguise";
    EXPECT_EQ(printable("\xED\xA0\x80"), "\\xed\\xa0\\x80") << "a surrogate";
    EXPECT_EQ(printable("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "behind the last character";
}

TEST(PrintableText, KeepsControlCharactersForAWriterThatEscapesThemItself) {
    EXPECT_EQ(validUtf8("\x1b\n\xC2\x9B\xFF"), "\x1b\n\xC2\x9B\\xff");
}

TEST(NarrowedText, TurnsSignExtendedBytesBackIntoThoseBytes) {
    std::string all;
    for (int code = 1; code < 0x100; ++code) {
        all += static_cast<char>(code);
    }
    EXPECT_EQ(narrowed(signExtended(all)), all);
    EXPECT_EQ(narrowed(signExtended("caf\xC3\xA9")), "caf\xC3\xA9");
}

TEST(NarrowedText, TakesOtherValuesAsCharacters) {
    EXPECT_EQ(narrowed(L"caf\u00E9 \u20AC \U0001F427"), "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x90\xA7");
}

TEST(NarrowedText, EscapesValuesThatAreNeitherByteNorCharacter) {
    const std::wstring text{static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000),
                            static_cast<wchar_t>(0xFFFFFF7F)};
    EXPECT_EQ(narrowed(text), "\\u{0000d800}\\u{00110000}\\u{ffffff7f}");
}

TEST(ShortenedText, KeepsATextOfExactlyTheLimit) {
    EXPECT_EQ(shortened("abcdef", 6), "abcdef");
}

TEST(ShortenedText, CutsALongerOneBetweenCharactersAndMarksTheCut) {
    EXPECT_EQ(shortened("abcdefg", 6), "abc…");
    EXPECT_EQ(shortened("aéééé", 7), "aé…"); // the next character would end in the middle
}

TEST(ShortenedText, IsEmptyWhenNotEvenTheMarkFits) {
    EXPECT_EQ(shortened("abcdef", 2), "");
}

} // namespace
} // namespace Sentrel::text
