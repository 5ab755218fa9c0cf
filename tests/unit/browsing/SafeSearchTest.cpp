// Safe search at the engines that are known.
#include "browser/decision/SafeSearch.h"

#include <array>
#include <gtest/gtest.h>

namespace Sentrel::browsing {
namespace {

std::string safe(const std::string& text) {
    return withSafeSearch(std::get<WebUrl>(parseWebUrl(text))).value_or("as it is");
}

TEST(SafeSearch, IsAddedToTheSearchesOfTheKnownEngines) {
    EXPECT_EQ(safe("https://www.google.com/search?q=a"), "https://www.google.com/search?q=a&safe=active");
    EXPECT_EQ(safe("https://google.co.uk/search?hl=en&q=a"), "https://google.co.uk/search?hl=en&q=a&safe=active");
    EXPECT_EQ(safe("https://www.bing.com/search?q=a"), "https://www.bing.com/search?q=a&adlt=strict");
    EXPECT_EQ(safe("https://www.bing.com/images/search?q=a"), "https://www.bing.com/images/search?q=a&adlt=strict");
    EXPECT_EQ(safe("https://duckduckgo.com/?q=a"), "https://duckduckgo.com/?q=a&kp=1");
    EXPECT_EQ(safe("https://search.yahoo.com/search?p=a"), "https://search.yahoo.com/search?p=a&vm=r");
}

TEST(SafeSearch, TakesThePlaceOfAnotherValue) {
    EXPECT_EQ(safe("https://www.google.com/search?safe=off&q=a"), "https://www.google.com/search?q=a&safe=active");
    EXPECT_EQ(safe("https://www.google.com/search?q=a&safe=active&safe=off"),
              "https://www.google.com/search?q=a&safe=active");
    EXPECT_EQ(safe("https://www.google.com/search?safe=off&q=a&safe=active"),
              "https://www.google.com/search?q=a&safe=active");
    EXPECT_EQ(safe("https://www.google.com/search?%73afe=off&q=a"), "https://www.google.com/search?q=a&safe=active");
}

TEST(SafeSearch, LeavesAloneWhatIsSafeAlready) {
    EXPECT_EQ(safe("https://www.google.com/search?q=a&safe=active"), "as it is");
    EXPECT_EQ(safe(safe("https://www.bing.com/search?q=a")), "as it is");
}

TEST(SafeSearch, LeavesAloneWhatIsNoSearch) {
    for (const char* text :
         {"https://www.google.com/", "https://www.google.com/search", "https://www.google.com/search?hl=en",
          "https://www.google.com/maps?q=a", "https://site.example/search?q=a",
          "https://google.site.example/search?q=a", "https://mygoogle.com/search?q=a",
          "https://www.bing.com.site.example/search?q=a", "https://google/search?q=a"}) {
        EXPECT_EQ(safe(text), "as it is") << text;
    }
}

} // namespace
} // namespace Sentrel::browsing
