// The write-ahead logs of store files that were moved away one after the other.
#include "apps/hvbd/LogStore.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

using namespace HVB::hub;

namespace {

class ALogStoreThatIsMovedAwayAgain : public testing::Test {
protected:
    static constexpr std::uint64_t kLimit = std::uint64_t{1} << 20;

    void add(const std::string& text) {
        const LogRecord record{7, 8, text, "", 1};
        store.append({&record, 1});
    }

    /// The one record of a file that was moved away, when it is put together with its write-ahead log again.
    static std::string onlyRecordOf(const std::string& moved, const std::string& orphan) {
        std::filesystem::rename(orphan, moved + "-wal");
        LogStore old(moved, kLimit);
        const auto records = old.read(0, 10, false);
        return records.size() == 1 ? records.front().text : std::to_string(records.size()) + " records";
    }

    testing_support::TemporaryDirectory directory;
    const std::string path = directory.file("hvblog.db");
    LogStore store{path, kLimit};
};

TEST_F(ALogStoreThatIsMovedAwayAgain, KeepsTheWriteAheadLogOfEachOfItsFiles) {
    for (const std::string name : {"one", "two", "three"}) {
        add(name);
        std::filesystem::rename(path, directory.file(name));
    }
    add("four");
    EXPECT_EQ(onlyRecordOf(directory.file("one"), path + "-wal.orphan"), "one");
    EXPECT_EQ(onlyRecordOf(directory.file("two"), path + "-wal.orphan-2"), "two");
    EXPECT_EQ(onlyRecordOf(directory.file("three"), path + "-wal.orphan-3"), "three");
    EXPECT_EQ(store.read(0, 10, false).front().text, "four");
}

TEST_F(ALogStoreThatIsMovedAwayAgain, RefusesRecordsWhenTooManyWriteAheadLogsLieThere) {
    std::ofstream(path + "-wal.orphan") << "precious";
    for (int i = 2; i <= 100; ++i) {
        std::ofstream(path + "-wal.orphan-" + std::to_string(i)) << "precious";
    }
    add("one");
    std::filesystem::rename(path, directory.file("one"));
    try {
        add("two");
        FAIL() << "stored";
    } catch (const LogStoreError& error) {
        EXPECT_EQ(error.message(), "cannot open the log store: " + path +
                                       " was moved away 101 times, and its write-ahead logs are kept as " + path +
                                       "-wal.orphan to -wal.orphan-100. Put each beside its file or remove it.");
    }
    std::filesystem::remove(path + "-wal.orphan-50");
    add("two");
    EXPECT_EQ(onlyRecordOf(directory.file("one"), path + "-wal.orphan-50"), "one");
}

} // namespace
