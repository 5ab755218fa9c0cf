// The lists as who rates sites: reachable or not, and followed when they change.
#include "tests/unit/ratings/RatingsFixture.h"

#include <chrono>
#include <filesystem>

namespace testing_support {
namespace {

using namespace Sentrel::ratings;
namespace fs = std::filesystem;
using Provider = Sentrel::ratings::RatingLists;

TEST_F(RatingLists, AreNotOutOfReachWhereThereAreNone) {
    Provider provider(databasePath());
    EXPECT_TRUE(provider.status().isReachable);
    EXPECT_EQ(provider.status().because, "no rating list was imported");
    EXPECT_TRUE(provider.rate(pageOf("a.example")).standing.isReachable);
    EXPECT_EQ(provider.rate(pageOf("a.example")).standing.rating, Sentrel::browsing::kNoRating);
    EXPECT_FALSE(provider.table().has_value());
    EXPECT_FALSE(provider.refresh());
}

// Not to see them is not to have none: every site would look like one of which nothing is known.
TEST_F(RatingLists, AreNotReachableWhereTheyCannotBeSeen) {
    const std::string loop = m_directory.file("loop");
    fs::create_symlink(loop, loop);
    Provider provider(loop + "/ratings.cdb");
    EXPECT_FALSE(provider.status().isReachable);
    EXPECT_EQ(provider.status().because.find("the rating database cannot be used: "), 0U) << provider.status().because;
    EXPECT_FALSE(provider.rate(pageOf("a.example")).standing.isReachable);
    fs::remove(loop);
    EXPECT_TRUE(provider.refresh());
    EXPECT_TRUE(provider.status().isReachable);
}

TEST_F(RatingLists, AreFollowedWhenTheyChange) {
    Provider provider(databasePath());
    import("a", ListFormat::Domains, 50, "a.example\n");
    EXPECT_TRUE(provider.refresh());
    EXPECT_FALSE(provider.refresh());
    EXPECT_TRUE(provider.status().isReachable) << provider.status().because;
    EXPECT_EQ(provider.rate(pageOf("a.example")).ratedBy, "a");
    EXPECT_TRUE(provider.rate(pageOf("b.example")).standing.isReachable);
    import("b", ListFormat::Domains, 60, "a.example\n");
    EXPECT_EQ(provider.rate(pageOf("a.example")).ratedBy, "a") << "the old file is mapped";
    EXPECT_TRUE(provider.refresh());
    EXPECT_EQ(provider.rate(pageOf("a.example")).ratedBy, "b");
    EXPECT_EQ(provider.status().lists.size(), 2U);
    m_store.remove("a");
    m_store.remove("b");
    EXPECT_TRUE(provider.refresh());
    EXPECT_TRUE(provider.rate(pageOf("a.example")).ratedBy.empty());
    EXPECT_EQ(provider.status().because, "no rating list was imported");
}

TEST_F(RatingLists, StayInUseWhenTheNewFileCannotBeUsed) {
    import("a", ListFormat::Domains, 50, "a.example\n");
    Provider provider(databasePath());
    fs::remove(databasePath());
    std::ofstream(databasePath()) << "no database";
    EXPECT_TRUE(provider.refresh());
    EXPECT_EQ(provider.rate(pageOf("a.example")).ratedBy, "a");
    EXPECT_TRUE(provider.status().isReachable);
    Provider late(databasePath());
    EXPECT_FALSE(late.status().isReachable);
    EXPECT_EQ(late.status().because, "the rating database cannot be used: it is no database");
}

TEST_F(RatingLists, AreNotReachableWhenTheNewestIsTooOld) {
    const auto makeOlder = [this](const std::string& name, std::chrono::days age) {
        fs::last_write_time(m_directory.file(name + ".txt"), fs::file_time_type::clock::now() - age);
        m_store.update(name);
    };
    import("a", ListFormat::Domains, 50, "a.example\n");
    import("b", ListFormat::Domains, 50, "b.example\n");
    makeOlder("a", kMaxListAge + std::chrono::days(5));
    Provider provider(databasePath());
    EXPECT_TRUE(provider.status().isReachable);
    makeOlder("b", kMaxListAge + std::chrono::days(2));
    EXPECT_TRUE(provider.refresh());
    EXPECT_EQ(provider.status().because, "the newest rating list is older than 30 days");
    const SiteRating rating = provider.rate(pageOf("a.example"));
    EXPECT_FALSE(rating.standing.isReachable);
    EXPECT_EQ(rating.standing.rating, 50) << "what is known is said all the same";
}

} // namespace
} // namespace testing_support
