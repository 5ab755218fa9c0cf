// What several lists say of a site together, and a database that cannot be believed.
#include "tests/unit/ratings/RatingsFixture.h"

#include "base/UniqueFd.h"

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace testing_support {
namespace {

using namespace Sentrel::ratings;

TEST_F(RatingLists, RateTheNamesBelowOneThatIsCovered) {
    import("a", ListFormat::Domains, 50, "bad.example\n192.0.2.1\n");
    EXPECT_EQ(rated("bad.example"), "50 a");
    EXPECT_EQ(rated("www.bad.example"), "50 a");
    EXPECT_EQ(rated("notbad.example"), "none");
    EXPECT_EQ(rated("example"), "none");
    EXPECT_EQ(rated("192.0.2.1"), "50 a");
    EXPECT_EQ(rated("9.192.0.2.1.example"), "none");
}

TEST_F(RatingLists, RateOnlyTheNameThatIsNamedAlone) {
    import("a", ListFormat::Hosts, 50, "0.0.0.0 bad.example\n");
    EXPECT_EQ(rated("bad.example"), "50 a");
    EXPECT_EQ(rated("www.bad.example"), "none");
    import("b", ListFormat::Rpz, 40, "*.bad.example CNAME .\n");
    EXPECT_EQ(rated("bad.example"), "50 a");
    EXPECT_EQ(rated("www.bad.example"), "40 b");
}

TEST_F(RatingLists, GiveTheHighestRatingWhateverIsMoreExact) {
    import("high", ListFormat::Domains, 60, "bad.example\n");
    import("low", ListFormat::Hosts, 5, "0.0.0.0 www.bad.example\n");
    EXPECT_EQ(rated("www.bad.example"), "60 high");
    import("same", ListFormat::Domains, 60, "bad.example\n");
    EXPECT_EQ(rated("bad.example"), "60 high");
}

TEST_F(RatingLists, UniteCategoriesAndPhishing) {
    ListHead games = headOf("games", ListFormat::Domains, 20);
    games.facts.categories = {"Games", "Fun"};
    fileWith("games.txt", "site.example\n");
    m_store.import(games, -1);
    ListHead phishing = headOf("phishing", ListFormat::Hosts, -100);
    phishing.facts.categories = {"Fun", "Fraud"};
    phishing.facts.isPhishing = true;
    fileWith("phishing.txt", "0.0.0.0 www.site.example\n");
    m_store.import(phishing, -1);
    const RatingDatabase database(databasePath());
    const SiteRating* const www = database.find(pageOf("www.site.example"));
    ASSERT_NE(www, nullptr);
    EXPECT_EQ(www->standing.rating, 20);
    EXPECT_EQ(www->ratedBy, "games");
    EXPECT_TRUE(www->standing.isPhishing);
    ASSERT_EQ(www->standing.categories.size(), 3U);
    EXPECT_EQ(www->standing.categories[2].name, "Fraud");
    EXPECT_EQ(database.listsOf(*www), (ListPlaces{0, 1}));
    EXPECT_FALSE(database.find(pageOf("site.example"))->standing.isPhishing);
}

TEST_F(RatingLists, LeaveOutWhatTheListItselfTakesOut) {
    import("a", ListFormat::Adblock, 50,
           "||bad.example^\n||x.good.bad.example^\n@@||good.bad.example^\n||twice.example^\n@@||twice.example^\n");
    EXPECT_EQ(rated("bad.example"), "50 a");
    EXPECT_EQ(rated("good.bad.example"), "none");
    EXPECT_EQ(rated("y.good.bad.example"), "none");
    EXPECT_EQ(rated("x.good.bad.example"), "none");
    EXPECT_EQ(rated("twice.example"), "none");
    import("b", ListFormat::Domains, 40, "good.bad.example\n");
    EXPECT_EQ(rated("y.good.bad.example"), "40 b");
}

TEST_F(RatingLists, LeaveTheNearestWordOfAZoneInForce) {
    import("a", ListFormat::Rpz, 50,
           "*.bad.test CNAME .\n*.good.bad.test CNAME rpz-passthru.\nworse.good.bad.test CNAME .\n");
    EXPECT_EQ(rated("a.bad.test"), "50 a");
    EXPECT_EQ(rated("a.good.bad.test"), "none");
    EXPECT_EQ(rated("worse.good.bad.test"), "50 a");
}

/// A walk through the lists, as a second opinion.
class PlainLists {
public:
    void add(int rating, const std::string& name, bool coversBelow) { m_lists[rating].emplace_back(name, coversBelow); }

    int ratingOf(const std::string& host) const {
        for (auto list = m_lists.rbegin(); list != m_lists.rend(); ++list) {
            for (const auto& [name, coversBelow] : list->second) {
                if (host == name || (coversBelow && host.ends_with("." + name))) {
                    return list->first;
                }
            }
        }
        return -100;
    }

private:
    std::map<int, std::vector<std::pair<std::string, bool>>> m_lists;
};

/// A record of the table, as one that looks up in memory takes it.
const SiteRating& inTable(const RatingTable& table, std::string host) {
    for (bool isHost = true; !host.empty(); isHost = false) {
        const std::uint64_t hash = hashOfName(host, table.key);
        const auto place =
            std::lower_bound(table.names.begin(), table.names.end(), hash,
                             [](const RatedName& each, std::uint64_t wanted) { return each.hash < wanted; });
        if (place != table.names.end() && place->hash == hash) {
            return table.classes[isHost ? place->itself : place->below];
        }
        const std::size_t dot = host.find('.');
        host = dot == std::string::npos ? "" : host.substr(dot + 1);
    }
    return table.classes[0];
}

TEST_F(RatingLists, GiveWhatAWalkThroughThemGives) {
    std::mt19937 random(20261122); // NOLINT: the same names each time
    const auto someName = [&random](std::uint_fast32_t fewest) {
        std::string name = "t";
        for (auto labels = fewest + random() % 3; labels > 0; --labels) {
            name = std::string(1, static_cast<char>('a' + random() % 3)) + "." + name;
        }
        return name;
    };
    PlainLists plain;
    for (int list = 0; list < 5; ++list) {
        std::string content;
        for (int line = 0; line < 12; ++line) {
            const bool coversBelow = random() % 2 == 0;
            const std::string name = someName(2);
            plain.add(10 + list, name, coversBelow);
            content += (coversBelow ? "*." + name + " CNAME .\n" : "") + name + " CNAME .\n";
        }
        import("list" + std::to_string(list), ListFormat::Rpz, 10 + list, content);
    }
    const RatingDatabase database(databasePath());
    const RatingTable table = database.table();
    for (int round = 0; round < 2000; ++round) {
        const std::string host = someName(0);
        const SiteRating* const found = database.find(pageOf(host));
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->standing.rating, plain.ratingOf(host)) << host;
        EXPECT_EQ(inTable(table, host).standing.rating, plain.ratingOf(host)) << host;
    }
    EXPECT_GT(table.names.size(), 5U);
    EXPECT_TRUE(std::is_sorted(table.names.begin(), table.names.end(),
                               [](const RatedName& left, const RatedName& right) { return left.hash < right.hash; }));
}

TEST_F(RatingLists, AreRefusedWhereTheFileWasCut) {
    import("a", ListFormat::Domains, 50, "a.example\nb.example\nc.example\n");
    const std::string whole = contentOf(databasePath());
    for (std::size_t size = whole.size(); size-- > 0;) {
        ASSERT_EQ(::truncate(databasePath().c_str(), static_cast<off_t>(size)), 0);
        EXPECT_THROW(const RatingDatabase cut(databasePath()), UnusableList) << size;
    }
}

TEST_F(RatingLists, AreReadWithoutHarmWhateverBytesAreWrong) {
    import("a", ListFormat::Domains, 50, "a.example\nb.example\nc.example\n");
    const std::string whole = contentOf(databasePath());
    const Sentrel::UniqueFd file(::open(databasePath().c_str(), O_WRONLY | O_CLOEXEC));
    std::size_t refused = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (const char damage : {'\xFF', '\x80', '\x01'}) {
            const auto place = static_cast<off_t>(at);
            const char damaged = static_cast<char>(whole[at] ^ damage);
            ASSERT_EQ(::pwrite(file.get(), &damaged, 1, place), 1);
            try {
                const RatingDatabase database(databasePath());
                database.find(pageOf("www.a.example"));
                EXPECT_LE(database.table().names.size(), 4U);
            } catch (const UnusableList&) {
                ++refused;
            }
            ASSERT_EQ(::pwrite(file.get(), &whole[at], 1, place), 1);
        }
    }
    EXPECT_GT(refused, 2048U) << "a table pointer that is wrong leads out of the file";
}

// A record whose lengths add up to nothing leads to itself.
TEST_F(RatingLists, EndThoughARecordLeadsBack) {
    import("a", ListFormat::Domains, 50, "a.example\nb.example\n");
    {
        constexpr off_t firstRecord = 2048;
        constexpr std::uint32_t lengths[] = {0xFFFFFFF8U, 0};
        const Sentrel::UniqueFd file(::open(databasePath().c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(::pwrite(file.get(), lengths, sizeof lengths, firstRecord), ssize_t{sizeof lengths});
    }
    EXPECT_TRUE(RatingDatabase(databasePath()).table().names.empty());
}

TEST_F(RatingLists, AreRefusedWhereOthersMayWriteThem) {
    import("a", ListFormat::Domains, 50, "a.example\n");
    ::chmod(databasePath().c_str(), 0666);
    EXPECT_THROW(const RatingDatabase open(databasePath()), UnusableList);
    ::chmod(databasePath().c_str(), 0644);
    ::rename(databasePath().c_str(), (databasePath() + ".real").c_str());
    ASSERT_EQ(::symlink((databasePath() + ".real").c_str(), databasePath().c_str()), 0);
    EXPECT_THROW(const RatingDatabase link(databasePath()), std::system_error);
}

} // namespace
} // namespace testing_support
