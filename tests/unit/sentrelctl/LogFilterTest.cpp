// Which records a filter of the log wants.
#include "apps/sentrelctl/reports/LogFilter.h"

#include "tests/unit/sentrelctl/SampleReport.h"

#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

bool wants(const LogFilter& filter) {
    return filter.wants(sampleRecord()); // anna on host1, https://red.example/a, stored at 1700000000000123
}

TEST(ALogFilter, WantsEverythingWhenItIsEmpty) {
    EXPECT_TRUE(LogFilter().isEmpty());
    EXPECT_TRUE(wants({}));
    EXPECT_TRUE(LogFilter().wants(stored(L"junk", L"junk")));
}

TEST(ALogFilter, HasItsFirstMomentInAndItsLastOneOut) {
    constexpr std::int64_t at = 1700000000000123;
    EXPECT_TRUE(wants({.since = at, .until = {}, .url = "", .user = ""}));
    EXPECT_FALSE(wants({.since = at + 1, .until = {}, .url = "", .user = ""}));
    EXPECT_FALSE(wants({.since = {}, .until = at, .url = "", .user = ""}));
    EXPECT_TRUE(wants({.since = {}, .until = at + 1, .url = "", .user = ""}));
}

TEST(ALogFilter, FindsAPartOfTheUrlInCapitalsOrNot) {
    for (const char* part : {"red.example", "RED.Example/A", "https://red.example/a", "/"}) {
        EXPECT_TRUE(wants({.since = {}, .until = {}, .url = part, .user = ""})) << part;
    }
    EXPECT_FALSE(wants({.since = {}, .until = {}, .url = "red.example/b", .user = ""}));
}

TEST(ALogFilter, KnowsAUserWithAndWithoutTheHost) {
    for (const char* name : {"anna", "anna@host1", "host1\\anna"}) {
        EXPECT_TRUE(wants({.since = {}, .until = {}, .url = "", .user = name})) << name;
    }
    for (const char* name : {"ann", "host1", "anna@host", "ANNA", "anna@host2"}) {
        EXPECT_FALSE(wants({.since = {}, .until = {}, .url = "", .user = name})) << name;
    }
}

TEST(ALogFilter, WantsWhatEachOfItsPartsWants) {
    EXPECT_TRUE(wants({.since = 1, .until = INT64_MAX, .url = "red", .user = "anna"}));
    EXPECT_FALSE(wants({.since = 1, .until = INT64_MAX, .url = "red", .user = "bert"}));
    EXPECT_FALSE(wants({.since = 1, .until = INT64_MAX, .url = "blue", .user = "anna"}));
}

TEST(ALogFilter, FindsNoUrlAndNoUserInWhatCannotBeDecoded) {
    EXPECT_FALSE((LogFilter{.since = {}, .until = {}, .url = "j", .user = ""}.wants(stored(L"junk", L"junk"))));
    EXPECT_FALSE((LogFilter{.since = {}, .until = {}, .url = "", .user = "j"}.wants(stored(L"junk", L"junk"))));
}

} // namespace
} // namespace Sentrel::ctl
