// A log store that was filled to a higher limit than it has now, on real files.
#include "apps/hvbd/HvbdLimits.h"
#include "apps/hvbd/LogStore.h"
#include "base/Database.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

using namespace HVB::hub;

namespace {

class ALogStoreAboveItsLimit : public testing::Test {
protected:
    static constexpr std::uint64_t kOldLimit = 16 * kSliceBytes;
    static constexpr std::uint64_t kNewLimit = 2 * kSliceBytes;

    void SetUp() override {
        LogStore before(path, kOldLimit);
        const LogRecord first{7, 8, "first", "", 1};
        before.append({&first, 1});
        fill();
    }

    /// Adds records of 1000 bytes, ten to a minute, up to the old limit.
    void fill() const {
        Sentrel::execute(*Sentrel::openDatabase(path),
                         ("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                          std::to_string(kOldLimit / 1064) +
                          ") INSERT INTO log(stored_at, source, type, text, detail, count)"
                          " SELECT (i / 10) * 60000000, 7, 8, randomblob(1000), x'', 1 FROM n")
                             .c_str());
    }

    std::uint64_t add() {
        const LogRecord record{7, 8, "new", "", 1};
        return store.append({&record, 1}).front();
    }

    std::uint64_t storedBytes() const {
        return static_cast<std::uint64_t>(Sentrel::queryInteger(
            *Sentrel::openDatabase(path), "SELECT sum(length(text) + length(detail) + 64) FROM log"));
    }

    testing_support::TemporaryDirectory directory;
    const std::string path = directory.file("hvblog.db");
    LogStore store{path, kNewLimit};
};

TEST_F(ALogStoreAboveItsLimit, GivesUpNoMoreThanASliceForARecord) {
    const std::uint64_t before = storedBytes();
    add();
    EXPECT_LE(storedBytes(), before - kSliceBytes);
    EXPECT_GT(storedBytes(), before - kSliceBytes - 2000);
    EXPECT_TRUE(store.hasSurplus());
}

TEST_F(ALogStoreAboveItsLimit, ComesDownToItInSlicesThatTakeLittleRoomBesideIt) {
    store.open();
    ASSERT_TRUE(store.hasSurplus());
    std::uint64_t before = storedBytes();
    int slices = 0;
    std::uintmax_t largestWal = 0;
    while (store.shrink()) {
        const std::uint64_t now = storedBytes();
        EXPECT_GT(now + kSliceBytes + 2000, before);
        EXPECT_LT(now, before);
        before = now;
        largestWal = std::max(largestWal, std::filesystem::file_size(path + "-wal"));
        ++slices;
    }
    EXPECT_GT(slices, 10);
    EXPECT_LT(largestWal, 2 * kSliceBytes);
    EXPECT_LE(storedBytes(), kNewLimit);
    EXPECT_GT(storedBytes(), kNewLimit - 2000) << "and no further";
    EXPECT_FALSE(store.shrink());
}

TEST_F(ALogStoreAboveItsLimit, DoesNotGrowWhileRecordsArriveFasterThanSlicesGo) {
    std::mt19937 random(7);
    std::string text(500'000, '\0'); // which gets no smaller
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
    store.open();
    std::uint64_t before = storedBytes();
    while (store.hasSurplus()) {
        const std::vector<LogRecord> batch(3, LogRecord{7, 8, text, "", 1});
        store.append(batch);
        EXPECT_LT(storedBytes(), before);
        before = storedBytes();
    }
    EXPECT_LE(before, kNewLimit);
}

} // namespace
