// The one form of an address, by the table that says it.
#include "browser/decision/WebUrl.h"
#include "tests/unit/browsing/DecisionVectors.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <map>

namespace Sentrel::browsing {
namespace {

UrlFault faultNamed(const std::string& name) {
    static const std::map<std::string, UrlFault> faults{{"no scheme", UrlFault::NoScheme},
                                                        {"other scheme", UrlFault::OtherScheme},
                                                        {"host", UrlFault::BadHost},
                                                        {"port", UrlFault::BadPort},
                                                        {"malformed", UrlFault::Malformed}};
    return faults.at(name);
}

std::string shown(const std::variant<WebUrl, UrlFault>& reading) {
    const WebUrl* const url = std::get_if<WebUrl>(&reading);
    return url != nullptr ? url->text() : faultText(std::get<UrlFault>(reading));
}

TEST(WebUrl, HasTheFormThatTheTableSays) {
    std::size_t checked = 0;
    for (const auto& row : decisionVectors("addresses.json", "addresses")) {
        const std::string text = row.at("text");
        const std::string expected = row.contains("is") ? row["is"] : faultText(faultNamed(row.at("fault")));
        EXPECT_EQ(shown(parseWebUrl(text)), expected) << text;
        ++checked;
    }
    EXPECT_GT(checked, 80U);
}

TEST(WebUrl, IsReadFromItsOwnFormAsTheSameAgain) {
    for (const auto& row : decisionVectors("addresses.json", "addresses")) {
        const auto reading = parseWebUrl(row.at("text").get<std::string>());
        if (const WebUrl* const url = std::get_if<WebUrl>(&reading)) {
            EXPECT_EQ(parseWebUrl(url->text()), reading) << url->text();
        }
    }
}

TEST(WebUrl, HasAnAddressOnlyWhenItsHostIsOne) {
    for (const auto& row : decisionVectors("addresses.json", "addresses")) {
        const auto reading = parseWebUrl(row.at("text").get<std::string>());
        if (const WebUrl* const url = std::get_if<WebUrl>(&reading)) {
            const std::string expected = row.value("address", "");
            EXPECT_EQ(url->address.has_value(), !expected.empty()) << url->text();
            EXPECT_TRUE(!url->address || *url->address == ntohl(inet_addr(expected.c_str()))) << url->text();
        }
    }
}

TEST(WebUrl, IsReadAlsoWhenItIsVeryLong) {
    constexpr std::size_t bytes = 200'000;
    for (const std::string& part : {std::string("a"), std::string("/"), std::string("../a/"), std::string("%41")}) {
        std::string text = "https://site.example/";
        while (text.size() < bytes) {
            text += part;
        }
        EXPECT_TRUE(std::holds_alternative<WebUrl>(parseWebUrl(text))) << part;
    }
}

} // namespace
} // namespace Sentrel::browsing
