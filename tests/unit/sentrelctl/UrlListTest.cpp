// The allow/block list as lines, and changes to it.
#include "apps/sentrelctl/preferences/UrlList.h"

#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

TEST(AListOfLines, HasAUrlALineAndSkipsBlankLinesAndComments) {
    const ParsedList parsed =
        parseList("# comment\n\nhttp://a/\n  \t \n\thttp://b/#part \n  # more\nhttp://c/", kBlock);
    EXPECT_EQ(parsed.entries, (UrlList{{"http://a/", 1}, {"http://b/#part", 1}, {"http://c/", 1}}));
    EXPECT_TRUE(parsed.bad.empty());
}

TEST(AListOfLines, MayComeFromAnEditorThatEndsLinesWithCarriageReturns) {
    EXPECT_EQ(parseList("http://a/\r\n\r\nallow b\r\n", kBlock).entries, (UrlList{{"http://a/", 1}, {"b", 0}}));
}

TEST(AListOfLines, TakesTheActionInFrontOfAUrl) {
    EXPECT_EQ(parseList("allow a\nblock\tb\nallow   c\nd\nallowance\nblock allow\n", kAllow).entries,
              (UrlList{{"a", 0}, {"b", 1}, {"c", 0}, {"d", 0}, {"allowance", 0}, {"allow", 1}}));
}

TEST(AListOfLines, TellsBadLinesByTheirNumbersAndKeepsTheGoodOnes) {
    const std::string longest(kMaxNameBytes, 'x');
    const ParsedList parsed =
        parseList("good\na b\n" + longest + "x\n" + longest + "\nallow\nx\x01y\n\xff\nwarn x\nlast", kBlock);
    EXPECT_EQ(parsed.entries, (UrlList{{"good", 1}, {longest, 1}, {"last", 1}}));
    std::string told;
    for (const BadLine& bad : parsed.bad) {
        told += std::to_string(bad.number) + ": " + bad.why + "\n";
    }
    EXPECT_EQ(told, "2: it has white space in it\n"
                    "3: it has 1024 bytes, at most 1023\n"
                    "5: it is empty\n"
                    "6: it has a control character in it\n"
                    "7: it is not UTF-8\n"
                    "8: it has white space in it\n");
}

TEST(AListOfLines, IsEmptyWithoutText) {
    const ParsedList parsed = parseList("", kBlock);
    EXPECT_TRUE(parsed.entries.empty());
    EXPECT_TRUE(parsed.bad.empty());
}

TEST(AnEntry, ComesBackFromItsLine) {
    const UrlList list{{"allow", 1}, {"block", 0}, {"#", 1}, {"http://caf\xC3\xA9/", 0}, {"x", 1}};
    std::string lines;
    for (const ListEntry& entry : list) {
        lines += listLine(entry) + "\n";
    }
    EXPECT_EQ(parseList(lines, kAllow).entries, list);
    EXPECT_EQ(parseList(lines, kBlock).entries, list);
}

TEST(AUrl, MayHoldNoWhiteSpaceAndNoControlCharacters) {
    for (const std::string& url :
         {std::string("a b"), std::string("a\nb"), std::string("\ta"), std::string("a\rb"), std::string("a\0b", 3),
          std::string("a\x1b["), std::string("a\x7f"), std::string()}) {
        EXPECT_TRUE(faultOfUrl(url)) << url;
    }
    EXPECT_FALSE(faultOfUrl("http://caf\xC3\xA9.example/?a=%20#b"));
}

TEST(ACategory, MayHoldBlanks) {
    EXPECT_FALSE(faultOfCategory("Social Networking"));
    EXPECT_TRUE(faultOfCategory("a\tb"));
    EXPECT_TRUE(faultOfCategory("\xff"));
    EXPECT_TRUE(faultOfCategory(""));
}

TEST(AChange, TakesThePlaceOfTheEntryWithItsUrlOrGoesToTheEnd) {
    UrlList list{{"a", 2}, {"b", 0}, {"c", 1}};
    applyChanges(list, {{"b", 1}, {"d", 0}, {"d", 1}});
    EXPECT_EQ(list, (UrlList{{"a", 2}, {"b", 1}, {"c", 1}, {"d", 1}}));
}

TEST(ARemoval, TellsWhatIsNotThereInTheOrderOfTheQuestion) {
    UrlList list{{"a", 0}, {"b", 1}};
    EXPECT_EQ(removeFrom(list, {"z", "b", "y", "z"}), (std::vector<std::string>{"z", "y"}));
    EXPECT_EQ(list, (UrlList{{"a", 0}}));
}

TEST(AComparison, FindsEntriesThatLackOrAreOfTheOtherKind) {
    EXPECT_EQ(missingFrom({{"a", 0}, {"b", 2}}, {{"a", 0}, {"b", 1}}), UrlList());
    EXPECT_EQ(missingFrom({{"a", 0}}, {{"a", 1}, {"b", 0}}), (UrlList{{"a", 1}, {"b", 0}}));
}

TEST(AList, IsCountedByKind) {
    EXPECT_EQ(countText({}), "0 entries: 0 allow, 0 block");
    EXPECT_EQ(countText({{"a", -3}}), "1 entry: 0 allow, 1 block");
    EXPECT_EQ(jsonText(countJson({{"a", 0}, {"b", 7}, {"c", 1}}), JsonMode::Short),
              "{\"entries\":3,\"allow\":1,\"block\":2}\n");
    EXPECT_EQ(jsonText(entryJson({"\xff", 7}), JsonMode::Short),
              "{\"url\":\"\\\\xff\",\"action\":\"block\",\"code\":7}\n");
}

} // namespace
} // namespace Sentrel::ctl
