// Going through a log that has gaps and gives a page at a time.
#include "apps/sentrelctl/reports/LogPages.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace Sentrel::ctl {
namespace {

using Ids = std::vector<std::uint64_t>;

/// A log of empty records.
class ALog : public testing::Test {
protected:
    static constexpr std::size_t kPage = 3;

    ReadPage reader() {
        return [this](std::uint64_t after) {
            std::vector<StoredRecord> page;
            for (const std::uint64_t id : ids) {
                if (id > after && page.size() < kPage) {
                    page.emplace_back().id = id;
                    ++timesRead;
                }
            }
            return page;
        };
    }

    Ids shown(std::uint64_t after, std::uint64_t last) {
        Ids all;
        forEachPage(reader(), after, last, [&](const std::vector<StoredRecord>& page) {
            for (const StoredRecord& record : page) {
                all.push_back(record.id);
            }
        });
        return all;
    }

    /// The ids that a listing of the newest @p count multiples of @p step shows.
    Ids newest(std::uint64_t count, std::uint64_t step = 1) {
        const auto isWanted = [step](const StoredRecord& record) { return record.id % step == 0; };
        Ids all = shown(beginOfNewest(reader(), 0, ids.empty() ? 0 : ids.back(), count, isWanted), UINT64_MAX);
        std::erase_if(all, [step](std::uint64_t id) { return id % step != 0; });
        return all;
    }

    Ids ids;
    std::size_t timesRead = 0;
};

TEST_F(ALog, IsGoneThroughPageByPage) {
    ids = {1, 2, 5, 6, 7, 8, 20};
    EXPECT_EQ(shown(0, 20), ids);
    EXPECT_EQ(shown(2, 7), (Ids{5, 6, 7}));
    EXPECT_EQ(shown(20, 20), Ids());
}

TEST_F(ALog, EndsWhereItsIdsFall) {
    const ReadPage fallsBack = [](std::uint64_t /*after*/) {
        std::vector<StoredRecord> page(2);
        page[0].id = 8;
        page[1].id = 1;
        return page;
    };
    Ids all;
    EXPECT_EQ(forEachPage(fallsBack, 7, 100, [&](const auto& page) { all.push_back(page.size()); }), 100U);
    EXPECT_EQ(all, Ids{1});
}

TEST_F(ALog, GivesAsManyOfTheNewestAsAreAskedForAcrossGaps) {
    ids = {3, 10, 4000, 4001, 9000, 100000, 100001};
    EXPECT_EQ(newest(1), Ids{100001});
    EXPECT_EQ(newest(3), (Ids{9000, 100000, 100001}));
    EXPECT_EQ(newest(6), (Ids{10, 4000, 4001, 9000, 100000, 100001}));
    EXPECT_EQ(newest(7), ids);
    EXPECT_EQ(newest(100), ids);
    ids.clear();
    EXPECT_EQ(newest(5), Ids());
}

TEST_F(ALog, GivesTheNewestOfThoseThatAreWanted) {
    for (std::uint64_t id = 1; id <= 1000; ++id) {
        ids.push_back(id);
    }
    EXPECT_EQ(newest(2, 300), (Ids{600, 900}));
    EXPECT_EQ(newest(9, 300), (Ids{300, 600, 900}));
}

TEST_F(ALog, IsNotReadWholeForItsNewest) {
    for (std::uint64_t id = 1; id <= 1000; ++id) {
        ids.push_back(id);
    }
    beginOfNewest(reader(), 0, 1000, 20, [](const StoredRecord&) { return true; });
    EXPECT_LE(timesRead, 70U);
}

TEST_F(ALog, IsNotReadBehindWhereItsNewestMayBegin) {
    ids = {1, 2, 3, 4, 5};
    const auto all = [](const StoredRecord&) { return true; };
    EXPECT_EQ(beginOfNewest(reader(), 3, 5, 4, all), 3U);
    EXPECT_EQ(beginOfNewest(reader(), 3, 5, 1, all), 4U);
    EXPECT_EQ(timesRead, 4U);
}

/// A log of a record an hour.
class ALogOfHours : public ALog {
protected:
    static constexpr std::int64_t kHour = std::int64_t{3600} * 1000000;

    ReadPage readerOfOne() {
        return [this](std::uint64_t after) {
            ++timesRead;
            std::vector<StoredRecord> page;
            const auto found = std::upper_bound(ids.begin(), ids.end(), after);
            if (found != ids.end()) {
                page.emplace_back().id = *found;
                page.back().storedAt = times.at(*found);
            }
            return page;
        };
    }

    void store(std::uint64_t id, std::int64_t hour) {
        ids.push_back(id);
        times[id] = hour * kHour;
    }

    std::map<std::uint64_t, std::int64_t> times;
};

TEST_F(ALogOfHours, IsNotReadWholeForATime) {
    for (std::uint64_t id = 1; id <= 10000; ++id) {
        store(3 * id, static_cast<std::int64_t>(id));
    }
    EXPECT_EQ(beginOfTime(readerOfOne(), 30000, 5000 * kHour), 3U * (5000 - 24 - 1));
    EXPECT_LE(timesRead, 16U);
    EXPECT_EQ(beginOfTime(readerOfOne(), 30000, 0), 0U);
    EXPECT_EQ(beginOfTime(readerOfOne(), 30000, INT64_MIN), 0U);
    EXPECT_EQ(beginOfTime(readerOfOne(), 30000, INT64_MAX), 30000U);
    EXPECT_EQ(beginOfTime(readerOfOne(), 0, 0), 0U) << "an empty log";
}

TEST_F(ALogOfHours, MissesNothingWhenTheClockWasSetBackADay) {
    for (const std::uint64_t setBackAt : {10U, 500U, 777U, 990U}) {
        ids.clear();
        times.clear();
        for (std::uint64_t id = 1; id <= 1000; ++id) {
            store(id, static_cast<std::int64_t>(id) - (id >= setBackAt ? 24 : 0));
        }
        for (std::int64_t since = 0; since < 1000; ++since) {
            const std::uint64_t begin = beginOfTime(readerOfOne(), 1000, since * kHour);
            for (std::uint64_t id = 1; id <= begin; ++id) {
                ASSERT_LT(times[id], since * kHour) << id << " is missed, set back at " << setBackAt;
            }
        }
    }
}

} // namespace
} // namespace Sentrel::ctl
