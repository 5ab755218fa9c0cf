// The SQL of the four tables. Real: everything; where a test says so, an allocation fails.
#include "store/Queries.h"

#include "tests/unit/store/Interposed.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

template <class Class>
IQueryInterface* instanceOf() {
    return Class::getInstance();
}

struct Table {
    int type;
    IQueryInterface* (*queries)();
    const char* get;
    const char* set;
    const char* create;
    const char* remove;
    const char* allRows;
};

const Table kTables[]{
    {0, instanceOf<GeneralSetting>, "select value from vxsetting where name=?",
     "insert or replace into vxsetting values (?,?)",
     "create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name))", "delete from vxsetting",
     "select * from vxsetting"},
    {1, instanceOf<CategoryBlocking>, "select value from catblockinginfo where name=?",
     "insert or replace into catblockinginfo values (?,?)",
     "create table catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name))", "delete from catblockinginfo",
     "select * from catblockinginfo"},
    {2, instanceOf<AllowBlockSettings>, "select value from allowblocksettings where name=?",
     "insert or replace into allowblocksettings values (?,?)",
     "create table allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name))",
     "delete from allowblocksettings", "select * from allowblocksettings"},
    {3, instanceOf<PrivateIPRange>, "select * from privateIPRange", "insert or replace into privateIPRange values (?)",
     "create table privateIPRange(range text NOT NULL, PRIMARY KEY(range))", "delete from privateIPRange",
     "select * from privateIPRange"},
};

TEST(TheQueries, AreTheFormatsOwnForEachTable) {
    for (const Table& table : kTables) {
        SCOPED_TRACE(table.type);
        IQueryInterface* queries = table.queries();
        ASSERT_NE(queries, nullptr);
        EXPECT_EQ(queries->GenerateGetQuery(), table.get);
        EXPECT_EQ(queries->GenerateSetQuery(), table.set);
        EXPECT_EQ(queries->GenerateCreateQuery(), table.create);
        EXPECT_EQ(queries->GenerateDeleteQuery(), table.remove);
        EXPECT_EQ(queries->GenerateGetAllRowsQuery(), table.allRows);
    }
}

TEST(TheQueries, AreFoundByTheTypeOfTheirTable) {
    for (const Table& table : kTables) {
        SCOPED_TRACE(table.type);
        EXPECT_EQ(queryText(table.type, &IQueryInterface::GenerateGetQuery), table.get);
        EXPECT_EQ(queryText(table.type, &IQueryInterface::GenerateSetQuery), table.set);
        EXPECT_EQ(queryText(table.type, &IQueryInterface::GenerateCreateQuery), table.create);
        EXPECT_EQ(queryText(table.type, &IQueryInterface::GenerateDeleteQuery), table.remove);
        EXPECT_EQ(queryText(table.type, &IQueryInterface::GenerateGetAllRowsQuery), table.allRows);
    }
}

TEST(TheQueries, OfATypeWithoutATableAreThoseOfTheScalarSettings) {
    for (const int type : {-1, 4}) {
        EXPECT_EQ(queryText(type, &IQueryInterface::GenerateSetQuery), kTables[0].set) << type;
    }
}

TEST(TheQueries, OrderTheAllowBlockListByItsValue) {
    EXPECT_EQ(allowBlockRowsQuery(true), "select * from allowblocksettings ORDER BY value ASC");
    EXPECT_EQ(allowBlockRowsQuery(false), "select * from allowblocksettings ORDER BY value DESC");
}

TEST(AQueryClass, HasOneInstance) {
    for (const Table& table : kTables) {
        EXPECT_NE(table.queries(), nullptr) << table.type;
        EXPECT_EQ(table.queries(), table.queries()) << table.type;
    }
}

/// The first calls of a process, each without the memory for the instance. @return what went wrong, as an exit status
int firstCallsWithoutMemory() {
    for (const Table& table : kTables) {
        const AllocationFailure atOnce(0);
        if (table.queries() != nullptr || !AllocationFailure::happened()) {
            return 1;
        }
    }
    for (const Table& table : kTables) {
        const AllocationFailure atOnce(0);
        if (queryText(table.type, &IQueryInterface::GenerateDeleteQuery) != kTables[0].remove) {
            return 2;
        }
    }
    for (const Table& table : kTables) {
        if (table.queries() == nullptr) {
            return 3;
        }
    }
    return 0;
}

TEST(AQueryClassDeathTest, GivesNullWithoutMemoryAndTriesAgainAtTheNextCall) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // in a process that has no instances yet
    EXPECT_EXIT(std::_Exit(firstCallsWithoutMemory()), testing::ExitedWithCode(0), "");
}

} // namespace
