// How a URL is cut into its parts, and how the URL is found in a whitelist request. Everything here is real.
#include "events/NPlgHelper.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Parts {
    std::string domain = "old domain";
    std::string path = "old path";

    explicit Parts(const std::string& url) { NPlgHelper::ExtractBaseDomain(url, domain, path); }
    bool operator==(const Parts&) const = default;
};

void expectParts(const std::string& url, const std::string& domain, const std::string& path) {
    const Parts parts(url);
    EXPECT_EQ(parts.domain, domain) << url;
    EXPECT_EQ(parts.path, path) << url;
}

TEST(AUrl, WithSchemeHostAndPathGivesHostAndPath) {
    expectParts("http://shop.example/pay/now", "shop.example", "pay/now");
}

TEST(AUrl, WithoutASchemeGivesWhatStandsBeforeAndBehindTheFirstSlash) {
    expectParts("shop.example/pay/now", "shop.example", "pay/now");
    expectParts("shop.example/", "shop.example", "");
}

TEST(AUrl, WithoutAPathGivesTheHostAndEmptiesThePath) {
    expectParts("https://shop.example", "shop.example", "");
}

TEST(AUrl, WithoutAnySlashIsAllDomainAndKeepsThePath) {
    expectParts("shop.example", "shop.example", "old path");
    expectParts("mailto:someone", "mailto:someone", "old path");
}

TEST(AUrl, ThatIsEmptyGivesAnEmptyDomainAndKeepsThePath) {
    expectParts("", "", "old path");
}

TEST(AUrl, WithOneSlashBehindItsSchemeGivesNeither) {
    expectParts("s:/p", "", "");
    expectParts("http:/shop.example/pay", "", "");
    expectParts("s:/", "", "");
    expectParts(":/", "", "");
}

TEST(AUrl, ThatBeginsWithASlashGivesNeither) {
    expectParts("/p", "", "");
    expectParts("/", "", "");
    expectParts("//h/p", "", "");
}

TEST(AUrl, WithThreeSlashesGivesAnEmptyDomainAndThePath) {
    expectParts("s:///p", "", "p");
}

TEST(AUrl, OfASchemeAloneGivesNeither) {
    expectParts("s://", "", "");
}

TEST(AUrl, KeepsPortUserAndQueryWhereTheyFall) {
    expectParts("http://a:b@h:8080/p?q=1/2#x", "a:b@h:8080", "p?q=1/2#x");
    expectParts("http://h?q=1", "h?q=1", "");
    expectParts("http://h?q=/x", "h?q=", "x");
}

TEST(AUrl, IsNeitherDecodedNorLowerCasedNorCutToItsBaseDomain) {
    expectParts("HTTP://A.B.Shop.Example/%41", "A.B.Shop.Example", "%41");
}

TEST(AUrl, KeepsBytesAbove127AndSlashesAtTheEnd) {
    expectParts("s://\xFF\x80/\xC3//", "\xFF\x80", "\xC3//");
}

/// A request with the positions that were found in it; a position that is not null is told as the text from there on.
struct Request {
    std::string text;
    const char* begin = "untouched";
    const char* end = "untouched";
    bool found = false;

    explicit Request(std::string request, const char* token = "ABCD") : text(std::move(request)) {
        found = NPlgHelper::GetWhitelistURLPosition(text.c_str(), &begin, &end, token);
    }
    std::string url() const { return {begin, end}; }
};

TEST(AWhitelistRequest, GivesTheUrlBetweenItsTwoParameters) {
    const Request request("about:blank?command=whitelist&token=ABCD&whitelisturl=http://h/p&redirectURL=http://h/p");
    ASSERT_TRUE(request.found);
    EXPECT_EQ(request.url(), "http://h/p");
    EXPECT_EQ(request.begin, request.text.c_str() + request.text.find("http://h/p"));
}

TEST(AWhitelistRequest, WithAWrongTokenIsRefusedAndClearsBothPositions) {
    const Request request("about:blank?command=whitelist&token=ABCE&whitelisturl=http://h/&redirectURL=x");
    EXPECT_FALSE(request.found);
    EXPECT_EQ(request.begin, nullptr);
    EXPECT_EQ(request.end, nullptr);
}

TEST(AWhitelistRequest, WithATokenThatIsLongerOrShorterIsRefused) {
    EXPECT_FALSE(Request("about:blank?command=whitelist&token=ABCDE&whitelisturl=u").found);
    EXPECT_FALSE(Request("about:blank?command=whitelist&token=ABC&whitelisturl=u").found);
    EXPECT_FALSE(Request("about:blank?command=whitelist&token=abcd&whitelisturl=u").found);
}

TEST(AWhitelistRequest, WithoutARedirectEndsWithTheText) {
    const Request request("about:blank?command=whitelist&token=ABCD&whitelisturl=http://h/p");
    ASSERT_TRUE(request.found);
    EXPECT_EQ(request.url(), "http://h/p");
    EXPECT_EQ(*request.end, '\0');
}

TEST(AWhitelistRequest, EndsWithTheTextThoughItsUrlHoldsAnAmpersand) {
    const Request request("about:blank?command=whitelist&token=ABCD&whitelisturl=http://h/p?a=1&b=2");
    ASSERT_TRUE(request.found);
    EXPECT_EQ(request.url(), "http://h/p?a=1&b=2");
    EXPECT_EQ(*request.end, '\0');
}

TEST(AWhitelistRequest, WithARedirectThatIsNotLastEndsWithTheText) {
    const Request request("about:blank?command=whitelist&token=ABCD&whitelisturl=u&redirectURL=v&b=2");
    ASSERT_TRUE(request.found);
    EXPECT_EQ(request.url(), "u&redirectURL=v&b=2");
}

TEST(AWhitelistRequest, EndsAtTheLastRedirectOnly) {
    const Request request("about:blank?command=whitelist&token=ABCD&whitelisturl=u?a=1&redirectURL=v&redirectURL=w");
    ASSERT_TRUE(request.found);
    EXPECT_EQ(request.url(), "u?a=1&redirectURL=v");
}

TEST(AWhitelistRequest, WithAnEmptyUrlGivesAnEmptyUrl) {
    const Request toTheEnd("about:blank?command=whitelist&token=ABCD&whitelisturl=");
    ASSERT_TRUE(toTheEnd.found);
    EXPECT_EQ(toTheEnd.url(), "");
    const Request redirecting("about:blank?command=whitelist&token=ABCD&whitelisturl=&redirectURL=x");
    ASSERT_TRUE(redirecting.found);
    EXPECT_EQ(redirecting.url(), "");
}

TEST(AWhitelistRequest, WithAnEmptyTokenIsFoundForAnEmptyToken) {
    const Request request("about:blank?command=whitelist&token=&whitelisturl=u", "");
    ASSERT_TRUE(request.found);
    EXPECT_EQ(request.url(), "u");
}

TEST(AWhitelistRequest, MustBeginExactly) {
    EXPECT_FALSE(Request("").found);
    EXPECT_FALSE(Request(" about:blank?command=whitelist&token=ABCD&whitelisturl=u").found);
    EXPECT_FALSE(Request("About:blank?command=whitelist&token=ABCD&whitelisturl=u").found);
    EXPECT_FALSE(Request("about:blank?command=whitelist&token=ABCD").found);
    EXPECT_FALSE(Request("about:blank?command=whitelist&token=ABCD&whiteListUrl=u").found);
}

TEST(AWhitelistRequest, WithANullPointerIsRefusedAndLeavesThePositionsUntouched) {
    const char* text = "about:blank?command=whitelist&token=ABCD&whitelisturl=u";
    const char* const untouched = "untouched";
    const char* begin = untouched;
    const char* end = untouched;
    EXPECT_FALSE(NPlgHelper::GetWhitelistURLPosition(nullptr, &begin, &end, "ABCD"));
    EXPECT_FALSE(NPlgHelper::GetWhitelistURLPosition(text, nullptr, &end, "ABCD"));
    EXPECT_FALSE(NPlgHelper::GetWhitelistURLPosition(text, &begin, nullptr, "ABCD"));
    EXPECT_FALSE(NPlgHelper::GetWhitelistURLPosition(text, &begin, &end, nullptr));
    EXPECT_EQ(begin, untouched);
    EXPECT_EQ(end, untouched);
}

} // namespace
