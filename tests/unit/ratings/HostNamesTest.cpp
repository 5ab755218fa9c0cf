// The names of hosts in rating lists.
#include "browser/ratings/HostNames.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace Sentrel::ratings;

TEST(AHostOfAList, IsBroughtIntoTheFormThatPagesHave) {
    const std::pair<const char*, const char*> forms[] = {
        {"Site.Example", "site.example"},
        {"site.example.", "site.example"},
        {"b\xC3\xBC"
         "cher.example",
         "xn--bcher-kva.example"},
        {"0x7f.1", "127.0.0.1"},
        {"192.0.2.1", "192.0.2.1"},
        {"[2001:db8:0::1]", "[2001:db8::1]"},
        {"a_b.example", "a_b.example"},
        {"example", "example"},
    };
    for (const auto& [text, host] : forms) {
        EXPECT_EQ(normalisedHost(text), host) << text;
    }
}

TEST(AHostOfAList, IsNoneWhenNoHostCanBeCalledSo) {
    const std::string longLabel(64, 'a');
    std::string longName;
    while (longName.size() < 254) {
        longName += "abcdefg.";
    }
    for (const std::string& text :
         {std::string(), std::string("."), std::string(".a.example"), std::string("a..example"),
          std::string("a b.example"), std::string("user@a.example"), std::string("a.example/path"),
          std::string("a.example:80"), std::string("a.example?x"), std::string("a.example#x"), std::string("1.2.3.400"),
          std::string("a.\x01.example"), std::string("\xFF.example"), longLabel + ".example", longName + "example",
          std::string("a.*"), std::string("a\0b.example", 11)}) {
        const bool isWildcard = text == "a.*"; // browsers go to such a host; the formats refuse it where it means more
        EXPECT_EQ(normalisedHost(text).has_value(), isWildcard) << text;
    }
}

TEST(AHostsKey, PutsTheNamesBelowItRightBehindIt) {
    EXPECT_EQ(orderedKey("www.site.example"), "example site www");
    EXPECT_EQ(orderedKey("192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(orderedKey("[::1]"), "[::1]");
    EXPECT_LT(orderedKey("a.site.example"), orderedKey("site-a.example"));
    EXPECT_TRUE(isBelow(orderedKey("a.site.example"), orderedKey("site.example")));
    EXPECT_FALSE(isBelow(orderedKey("asite.example"), orderedKey("site.example")));
    EXPECT_FALSE(isBelow(orderedKey("site.example"), orderedKey("site.example")));
    for (const char* host : {"a", "a.b", "www.site.example", "192.0.2.1", "[::1]"}) {
        EXPECT_EQ(hostOfKey(orderedKey(host)), host);
    }
}

} // namespace
