// SQLite with owners and exceptions. Real: database files.
#include "base/Database.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>

namespace Sentrel {
namespace {

/// A database file with one empty table, "t", of a number and a blob.
class ADatabase : public testing::Test {
protected:
    ADatabase() {
        std::ofstream(m_path).close();
        execute(*openDatabase(m_path), "CREATE TABLE t(number INTEGER, bytes BLOB)");
    }

    std::int64_t rows() const { return queryInteger(*openDatabase(m_path), "SELECT count(*) FROM t"); }

    /// SQLite's code for the failure of @p work; SQLITE_OK when it does not fail.
    static int codeOf(const std::function<void()>& work) {
        try {
            work();
        } catch (const DatabaseError& error) {
            EXPECT_STRNE(error.what(), "");
            return error.code();
        }
        return SQLITE_OK;
    }

    testing_support::PrivateRoot m_root;
    const std::string m_path = m_root.file("a.db");
};

TEST_F(ADatabase, IsOnlyOpenedWhereItIs) {
    EXPECT_EQ(codeOf([&] { openDatabase(m_root.file("none.db")); }), SQLITE_CANTOPEN);
    const std::string link = m_root.file("link.db");
    ASSERT_EQ(::symlink(m_path.c_str(), link.c_str()), 0);
    EXPECT_NE(codeOf([&] { openDatabase(link); }), SQLITE_OK) << "a link is not followed";
}

TEST_F(ADatabase, TellsTheErrnoBehindAFailure) {
    try {
        openDatabase(m_root.file("none.db"));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.systemError(), ENOENT);
    }
}

TEST_F(ADatabase, GivesBackWhatAStatementStored) {
    const DatabasePtr database = openDatabase(m_path);
    const std::string bytes("a\0b\xff", 4);
    Statement insert(*database, "INSERT INTO t VALUES(?1, ?2)");
    for (const std::string_view each : {std::string_view(bytes), std::string_view()}) {
        StatementUse use(insert);
        use->bind(1, std::int64_t{1} << 40);
        use->bind(2, each);
        EXPECT_FALSE(use->step());
    }
    EXPECT_EQ(lastInsertedRow(*database), 2);
    Statement select(*database, "SELECT number, bytes, typeof(bytes) FROM t ORDER BY rowid");
    StatementUse use(select);
    ASSERT_TRUE(use->step());
    EXPECT_EQ(use->integer(0), std::int64_t{1} << 40);
    EXPECT_EQ(use->bytes(1), bytes);
    ASSERT_TRUE(use->step());
    EXPECT_EQ(use->bytes(1), "");
    EXPECT_EQ(use->bytes(2), "blob") << "empty is not NULL";
    EXPECT_FALSE(use->step());
}

TEST_F(ADatabase, RefusesAStatementAndAParameterThatDoNotFitIt) {
    const DatabasePtr database = openDatabase(m_path);
    EXPECT_EQ(codeOf([&] { Statement(*database, "SELECT nothing FROM nowhere"); }), SQLITE_ERROR);
    Statement insert(*database, "INSERT INTO t VALUES(?1, NULL)");
    EXPECT_EQ(codeOf([&] { insert.bind(2, std::int64_t{1}); }), SQLITE_RANGE);
    EXPECT_EQ(queryInteger(*database, "SELECT number FROM t"), 0) << "no row is 0";
}

TEST_F(ADatabase, KeepsATransactionOnlyWhenItIsCommitted) {
    const DatabasePtr database = openDatabase(m_path);
    {
        const WriteTransaction transaction(*database);
        execute(*database, "INSERT INTO t VALUES(1, NULL)");
    }
    EXPECT_EQ(rows(), 0);
    {
        WriteTransaction transaction(*database);
        execute(*database, "INSERT INTO t VALUES(1, NULL)");
        transaction.commit();
    }
    EXPECT_EQ(rows(), 1);
}

TEST_F(ADatabase, IsBusyToASecondWriterWhoMayWaitForItsLock) {
    const DatabasePtr first = openDatabase(m_path);
    const DatabasePtr second = openDatabase(m_path);
    const WriteTransaction transaction(*first);
    EXPECT_EQ(codeOf([&] { const WriteTransaction other(*second); }), SQLITE_BUSY);
    constexpr std::chrono::milliseconds wait{50};
    setLockWait(*second, wait);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(codeOf([&] { const WriteTransaction other(*second); }), SQLITE_BUSY);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, wait / 2);
}

TEST_F(ADatabase, EmptiesItsWriteAheadLogUnlessAReaderHoldsIt) {
    const DatabasePtr database = openDatabase(m_path);
    execute(*database, "PRAGMA journal_mode=WAL");
    execute(*database, "INSERT INTO t VALUES(1, NULL)");
    {
        const DatabasePtr reader = openDatabase(m_path);
        execute(*reader, "BEGIN; SELECT count(*) FROM t");
        execute(*database, "INSERT INTO t VALUES(2, NULL)");
        EXPECT_FALSE(emptyWriteAheadLog(*database));
    }
    EXPECT_TRUE(emptyWriteAheadLog(*database));
    EXPECT_EQ(std::ifstream(m_path + "-wal", std::ios::ate).tellg(), 0);
}

} // namespace
} // namespace Sentrel
