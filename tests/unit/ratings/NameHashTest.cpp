// The hashes by which names are looked up in memory, against vectors that other programs are held to as well.
#include "tests/unit/ratings/RatingsFixture.h"

#include <nlohmann/json.hpp>

namespace testing_support {
namespace {

using namespace Sentrel::ratings;

TEST_F(RatingLists, HashNamesAsTheVectorsSay) {
    std::ifstream file(SENTREL_SOURCE_DIR "/tests/data/ratings/name-hashes.json");
    const auto vectors = nlohmann::json::parse(file);
    const NameKey key = vectors.at("key").get<NameKey>();
    ASSERT_GT(vectors.at("names").size(), 5U);
    for (const auto& vector : vectors.at("names")) {
        EXPECT_EQ(hashOfName(vector.at("name").get<std::string>(), key),
                  std::stoull(vector.at("hash").get<std::string>(), nullptr, 16))
            << vector;
    }
}

TEST_F(RatingLists, AreHandedOutByTheHashesOfTheirNames) {
    import("a", ListFormat::Domains, 50, "bad.example\n");
    import("b", ListFormat::Hosts, 40, "0.0.0.0 www.other.example\n");
    const RatingTable table = RatingDatabase(databasePath()).table();
    ASSERT_EQ(table.names.size(), 2U);
    ASSERT_EQ(table.classes.size(), 3U);
    for (const RatedName& name : table.names) {
        const bool isCovered = name.hash == hashOfName("bad.example", table.key);
        EXPECT_TRUE(isCovered || name.hash == hashOfName("www.other.example", table.key));
        EXPECT_EQ(table.classes[name.itself].ratedBy, isCovered ? "a" : "b");
        EXPECT_EQ(table.classes[name.below].ratedBy, isCovered ? "a" : "");
    }
}

TEST_F(RatingLists, HashWithAnotherKeyEachTimeTheyAreCompiled) {
    import("a", ListFormat::Domains, 50, "bad.example\n");
    const NameKey first = RatingDatabase(databasePath()).table().key;
    m_store.update("");
    EXPECT_NE(RatingDatabase(databasePath()).table().key, first);
}

} // namespace
} // namespace testing_support
