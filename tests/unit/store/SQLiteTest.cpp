// The connection and the row set. Real: SQLite, its files, and another process that locks them. Not real where a test
// says so: the time that a wait takes, and an open that answers busy.
#include "store/SQLite.h"

#include "tests/unit/store/Interposed.h"
#include "tests/unit/store/SettingsFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

using testing::Each;
using testing::SizeIs;

constexpr unsigned kTenthOfASecond = 100'000;

/// How often this process has the file open.
int timesOpen(const std::string& path) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the iterator's own descriptor
        count += std::filesystem::read_symlink(entry, gone) == path ? 1 : 0;
    }
    return count;
}

bool prepare(CSQLiteRowSet& rowSet, const CSQLiteDBConnection& connection, const std::string& sql) {
    return rowSet.Open(connection, sql.data(), sql.size());
}

std::string text(const std::pair<const unsigned char*, int>& column) {
    return {reinterpret_cast<const char*>(column.first), std::size_t(column.second)};
}

std::string blob(const std::pair<const void*, int>& column) {
    return {static_cast<const char*>(column.first), std::size_t(column.second)};
}

class AConnection : public testing::Test {
protected:
    SettingsFile file;
    CSQLiteDBConnection connection;
};

TEST_F(AConnection, ThatWasNeverOpenedTellsThatItHasNoHandle) {
    EXPECT_EQ(connection.GetLastError(), 7);
}

TEST_F(AConnection, ThatWasNeverOpenedExecutesNothing) {
    EXPECT_FALSE(connection.ExecuteSQL("create table made(x)"));
    EXPECT_TRUE(std::filesystem::is_empty(file.directory()));
}

TEST_F(AConnection, MakesAnEmptyFileWhenThereIsNone) {
    EXPECT_TRUE(connection.Open(file.path().c_str()));
    EXPECT_EQ(connection.GetLastError(), SQLITE_OK);
    EXPECT_EQ(std::filesystem::file_size(file.path()), 0U);
}

TEST_F(AConnection, ExecutesWhatIsRightAndTellsWhatIsNot) {
    ASSERT_TRUE(connection.Open(file.path().c_str()));
    EXPECT_TRUE(connection.ExecuteSQL("create table made(x); insert into made values (5)"));
    EXPECT_FALSE(connection.ExecuteSQL("create table made(x)"));
    EXPECT_EQ(connection.GetLastError(), SQLITE_ERROR);
    EXPECT_EQ(file.sqlite("select x from made"), "5\n");
}

TEST_F(AConnection, ClosesWhatIsOpenBeforeItOpensAnother) {
    const std::string other = file.beside("other.db");
    ASSERT_TRUE(connection.Open(file.path().c_str()));
    ASSERT_EQ(timesOpen(file.path()), 1);
    ASSERT_TRUE(connection.Open(other.c_str()));
    EXPECT_EQ(timesOpen(file.path()), 0);
    EXPECT_EQ(timesOpen(other), 1);
}

TEST_F(AConnection, ClosesWhenItIsDestroyed) {
    {
        CSQLiteDBConnection shortLived;
        ASSERT_TRUE(shortLived.Open(file.path().c_str()));
        ASSERT_EQ(timesOpen(file.path()), 1);
    }
    EXPECT_EQ(timesOpen(file.path()), 0);
}

TEST_F(AConnection, CanBeClosedTwice) {
    ASSERT_TRUE(connection.Open(file.path().c_str()));
    connection.Close();
    connection.Close();
    EXPECT_EQ(connection.GetLastError(), 7);
    EXPECT_EQ(timesOpen(file.path()), 0);
}

TEST_F(AConnection, KeepsAHandleThatSQLiteRefusesToClose) {
    ASSERT_TRUE(connection.Open(file.path().c_str()));
    CSQLiteRowSet rowSet;
    ASSERT_TRUE(prepare(rowSet, connection, "select 1"));
    connection.Close();
    EXPECT_NE(connection.GetLastError(), 7);
    EXPECT_TRUE(connection.ExecuteSQL("create table made(x)"));
    rowSet.Close();
    connection.Close();
    EXPECT_EQ(connection.GetLastError(), 7);
}

TEST_F(AConnection, CannotOpenAFileInADirectoryThatDoesNotExist) {
    EXPECT_FALSE(connection.Open(file.beside("absent/product.db").c_str()));
    EXPECT_EQ(connection.GetLastError(), 14);
}

TEST_F(AConnection, TriesAFailingOpenOnceOnly) {
    const WatchedOpens opens;
    const TimelessWaits waits;
    EXPECT_FALSE(connection.Open(file.beside("absent/product.db").c_str()));
    EXPECT_EQ(opens.count, 1);
    EXPECT_THAT(waits.all, SizeIs(0));
}

TEST_F(AConnection, TriesABusyOpenElevenTimesAndWaitsAfterEach) {
    const WatchedOpens opens(100, SQLITE_BUSY);
    const TimelessWaits waits;
    EXPECT_FALSE(connection.Open(file.path().c_str()));
    EXPECT_EQ(opens.count, 11);
    EXPECT_THAT(waits.all, SizeIs(11));
    EXPECT_THAT(waits.all, Each(kTenthOfASecond));
}

TEST_F(AConnection, OpensAsSoonAsItIsNotBusyAnyMore) {
    const WatchedOpens opens(10, SQLITE_BUSY);
    const TimelessWaits waits;
    EXPECT_TRUE(connection.Open(file.path().c_str()));
    EXPECT_EQ(opens.count, 11);
    EXPECT_THAT(waits.all, SizeIs(10));
}

TEST_F(AConnection, WaitsTenTimesForALockAndThenGivesUp) {
    const TimelessWaits waits;
    for (int count = 0; count < 10; ++count) {
        EXPECT_EQ(CSQLiteDBConnection::OnDBBusy(nullptr, count), 1) << count;
    }
    EXPECT_THAT(waits.all, SizeIs(10));
    EXPECT_THAT(waits.all, Each(kTenthOfASecond));
    EXPECT_EQ(CSQLiteDBConnection::OnDBBusy(nullptr, 10), 0);
    EXPECT_THAT(waits.all, SizeIs(10));
}

TEST(ARowSetWithoutAStatement, CanBeResetAndSteppedButNotBound) {
    CSQLiteRowSet rowSet;
    EXPECT_TRUE(rowSet.Reset());
    EXPECT_FALSE(rowSet.BindText(1, "name", 4));
    EXPECT_FALSE(rowSet.BindBlob(1, "name", 4));
    EXPECT_FALSE(rowSet.BindInt(1, 4));
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_FALSE(rowSet.m_bHasRow);
}

TEST(ARowSetWithoutAStatement, HasNoColumns) {
    const CSQLiteRowSet rowSet;
    EXPECT_EQ(rowSet.GetColBlob(0), (std::pair<const void*, int>(nullptr, 0)));
    EXPECT_EQ(rowSet.GetColText(0), (std::pair<const unsigned char*, int>(nullptr, 0)));
    EXPECT_EQ(rowSet.GetColInt(0), 0);
}

TEST(ARowSetWithoutAStatement, CannotBeOpenedOnAConnectionWithoutAHandle) {
    const CSQLiteDBConnection connection;
    CSQLiteRowSet rowSet;
    EXPECT_FALSE(prepare(rowSet, connection, "select 1"));
}

/// A row set on a file with one table, which has a unique name and a value.
class ARowSet : public AConnection {
protected:
    ARowSet() {
        open = connection.Open(file.path().c_str()) &&
               connection.ExecuteSQL("create table made(name text primary key, value)");
    }
    void SetUp() override { ASSERT_TRUE(open); }

    std::string rows() const { return file.sqlite("select name, value from made order by rowid"); }

    bool open = false;
    CSQLiteRowSet rowSet;
};

TEST_F(ARowSet, ReadsNoFurtherThanTheLengthOfTheStatement) {
    const std::string sql = "select 12345";
    ASSERT_TRUE(rowSet.Open(connection, sql.data(), sql.size() - 3));
    ASSERT_TRUE(rowSet.Execute());
    EXPECT_EQ(rowSet.GetColInt(0), 12);
}

TEST_F(ARowSet, HoldsNoStatementAfterOneThatCannotBePrepared) {
    ASSERT_TRUE(prepare(rowSet, connection, "insert into made values (?, ?)"));
    EXPECT_FALSE(prepare(rowSet, connection, "insert into absent values (?)"));
    EXPECT_FALSE(rowSet.BindInt(1, 1));
    connection.Close();
    EXPECT_EQ(connection.GetLastError(), 7) << "a statement is left";
}

TEST_F(ARowSet, GivesBackItsStatementForAnother) {
    ASSERT_TRUE(prepare(rowSet, connection, "select 1"));
    ASSERT_TRUE(prepare(rowSet, connection, "select 2"));
    ASSERT_TRUE(rowSet.Execute());
    EXPECT_EQ(rowSet.GetColInt(0), 2);
    rowSet.Close();
    connection.Close();
    EXPECT_EQ(connection.GetLastError(), 7) << "a statement is left";
}

TEST_F(ARowSet, CanBeClosedTwice) {
    ASSERT_TRUE(prepare(rowSet, connection, "select 1"));
    rowSet.Close();
    rowSet.Close();
    EXPECT_FALSE(rowSet.BindInt(1, 1));
}

TEST_F(ARowSet, StoresTextBlobAndIntegerWithTheirTypesAndFullLengths) {
    ASSERT_TRUE(prepare(rowSet, connection, "insert into made values (?, ?), ('number', ?)"));
    const std::string name("with\0zero", 9);
    const std::string value("\0\xff", 2);
    EXPECT_TRUE(rowSet.BindText(1, name.data(), name.size()));
    EXPECT_TRUE(rowSet.BindBlob(2, value.data(), value.size()));
    EXPECT_TRUE(rowSet.BindInt(3, -5));
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_EQ(file.sqlite("select typeof(name), hex(name), typeof(value), hex(value) from made"),
              "text|77697468007A65726F|blob|00FF\n"
              "text|6E756D626572|integer|2D35\n");
}

TEST_F(ARowSet, ReadsTextBlobAndInteger) {
    ASSERT_EQ(file.sqlite("insert into made values (cast(x'6100ff' as text), x'00ff00'), ('n', -5)"), "");
    ASSERT_TRUE(prepare(rowSet, connection, "select name, value from made order by rowid"));
    ASSERT_TRUE(rowSet.Execute());
    ASSERT_TRUE(rowSet.m_bHasRow);
    EXPECT_EQ(text(rowSet.GetColText(0)), std::string("a\0\xff", 3));
    EXPECT_EQ(blob(rowSet.GetColBlob(1)), std::string("\0\xff\0", 3));
    ASSERT_TRUE(rowSet.Execute());
    ASSERT_TRUE(rowSet.m_bHasRow);
    EXPECT_EQ(rowSet.GetColInt(1), -5);
    EXPECT_EQ(text(rowSet.GetColText(1)), "-5") << "the size is that of the text";
}

TEST_F(ARowSet, GivesNothingForAColumnWithoutAValue) {
    ASSERT_TRUE(prepare(rowSet, connection, "select null"));
    ASSERT_TRUE(rowSet.Execute());
    EXPECT_EQ(rowSet.GetColBlob(0), (std::pair<const void*, int>(nullptr, 0)));
    EXPECT_EQ(rowSet.GetColText(0), (std::pair<const unsigned char*, int>(nullptr, 0)));
}

TEST_F(ARowSet, HasARowUntilItComesToTheEnd) {
    ASSERT_TRUE(prepare(rowSet, connection, "select 1 union all select 2"));
    EXPECT_FALSE(rowSet.m_bHasRow);
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_TRUE(rowSet.m_bHasRow);
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_TRUE(rowSet.m_bHasRow);
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_FALSE(rowSet.m_bHasRow);
}

TEST_F(ARowSet, HasNoRowAfterAReset) {
    ASSERT_TRUE(prepare(rowSet, connection, "select 1"));
    ASSERT_TRUE(rowSet.Execute());
    ASSERT_TRUE(rowSet.m_bHasRow);
    EXPECT_TRUE(rowSet.Reset());
    EXPECT_FALSE(rowSet.m_bHasRow);
}

TEST_F(ARowSet, KeepsItsBindingsOverAReset) {
    ASSERT_TRUE(prepare(rowSet, connection, "select ?"));
    ASSERT_TRUE(rowSet.BindInt(1, 77));
    ASSERT_TRUE(rowSet.Execute());
    ASSERT_TRUE(rowSet.Reset());
    ASSERT_TRUE(rowSet.Execute());
    EXPECT_EQ(rowSet.GetColInt(0), 77);
}

TEST_F(ARowSet, ReadsBoundBytesOnlyWhenItIsStepped) {
    ASSERT_TRUE(prepare(rowSet, connection, "insert into made values (?, ?)"));
    std::string name = "before";
    std::string value = "old";
    ASSERT_TRUE(rowSet.BindText(1, name.data(), name.size()));
    ASSERT_TRUE(rowSet.BindBlob(2, value.data(), value.size()));
    name.replace(0, 6, "behind");
    value.replace(0, 3, "new");
    ASSERT_TRUE(rowSet.Execute());
    EXPECT_EQ(rows(), "behind|new\n");
}

TEST_F(ARowSet, CannotBindAParameterThatTheStatementDoesNotHave) {
    ASSERT_TRUE(prepare(rowSet, connection, "select ?"));
    EXPECT_FALSE(rowSet.BindInt(0, 1));
    EXPECT_FALSE(rowSet.BindInt(2, 1));
    EXPECT_FALSE(rowSet.BindText(2, "a", 1));
    EXPECT_FALSE(rowSet.BindBlob(2, "a", 1));
}

TEST_F(ARowSet, TellsWhetherTheLastChangeTouchedARow) {
    ASSERT_TRUE(connection.ExecuteSQL("insert into made values ('a', 1)"));
    EXPECT_TRUE(rowSet.Changed(connection));
    ASSERT_TRUE(connection.ExecuteSQL("delete from made where name = 'b'"));
    EXPECT_FALSE(rowSet.Changed(connection));
}

TEST_F(ARowSet, ShowsARefusedWriteOnlyAtTheNextReset) {
    ASSERT_TRUE(connection.ExecuteSQL("insert into made values ('a', 1)"));
    ASSERT_TRUE(prepare(rowSet, connection, "insert into made values ('a', 2)"));
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_FALSE(rowSet.m_bHasRow);
    EXPECT_FALSE(rowSet.Reset());
    EXPECT_TRUE(rowSet.Reset());
    EXPECT_EQ(rows(), "a|1\n");
}

TEST_F(ARowSet, IsNotPreparedAnewAfterAChangeOfTheTables) {
    ASSERT_TRUE(connection.ExecuteSQL("insert into made values ('a', 1)"));
    ASSERT_TRUE(prepare(rowSet, connection, "select name from made"));
    ASSERT_TRUE(connection.ExecuteSQL("create table another(x)"));
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_FALSE(rowSet.m_bHasRow);
    EXPECT_FALSE(rowSet.Reset());
}

TEST_F(ARowSet, TakesAWriteThatMeetsALockForTooLongForDone) {
    ASSERT_TRUE(prepare(rowSet, connection, "insert into made values ('a', 1)"));
    ForeignLock lock(file);
    const TimelessWaits waits;
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_FALSE(rowSet.m_bHasRow);
    EXPECT_THAT(waits.all, SizeIs(10));
    EXPECT_THAT(waits.all, Each(kTenthOfASecond));
    lock.release();
    EXPECT_FALSE(rowSet.Reset());
    EXPECT_EQ(rows(), "");
}

TEST_F(ARowSet, WritesWhenTheLockGoesWhileItWaits) {
    ASSERT_TRUE(prepare(rowSet, connection, "insert into made values ('a', 1)"));
    ForeignLock lock(file);
    TimelessWaits waits;
    waits.duringAWait = [&] {
        if (waits.all.size() == 3) {
            lock.release();
        }
    };
    EXPECT_TRUE(rowSet.Execute());
    EXPECT_THAT(waits.all, SizeIs(3));
    EXPECT_TRUE(rowSet.Reset());
    EXPECT_EQ(rows(), "a|1\n");
}

} // namespace
