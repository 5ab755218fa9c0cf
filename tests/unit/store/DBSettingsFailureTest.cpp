// The settings file when something is missing, foreign, locked or forbidden, and when memory runs out. Real: the files,
// the second user and the second process that locks. Not real: the time that a wait takes, and the memory.
#include "daemon/Trace.h"
#include "tests/support/AsUser.h"
#include "tests/support/Files.h"
#include "tests/support/TraceLog.h"
#include "tests/unit/store/Interposed.h"
#include "tests/unit/store/SettingsTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <tuple>

namespace {

namespace fs = std::filesystem;
using testing::Each;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

constexpr TableType kTypes[]{TABLE_GENERAL_SETTING, TABLE_CATEGORY_BLOCKING, TABLE_ALLOW_BLOCK, TABLE_PRIVATE_IP_RANGE};
constexpr auto kNoSuchType = static_cast<TableType>(4);

class ABadSettingsFile : public ASettingsFile {
protected:
    void expectNothingIsSet() {
        for (const TableType type : kTypes) {
            SCOPED_TRACE(type);
            EXPECT_FALSE(set("name", "value", type));
            EXPECT_FALSE(settings.Set("name", 1, type));
            EXPECT_FALSE(settings.Set("name", type));
        }
    }
    void expectDeletesClaimToBeDone() {
        for (const TableType type : kTypes) {
            EXPECT_TRUE(settings.Delete(type)) << type;
        }
    }
    /// What becomes of settings whose file has none of the tables, or none that can be looked at.
    void expectThatNothingWorks() {
        for (const TableType type : kTypes) {
            SCOPED_TRACE(type);
            EXPECT_EQ(get("name", type), "-");
            EXPECT_THAT(rows(type), testing::ElementsAre(Pair("failed", 0)));
        }
        expectNothingIsSet();
        expectDeletesClaimToBeDone();
        std::list<std::string> ranges;
        EXPECT_FALSE(settings.GetPrivateRangeList(ranges));
        EXPECT_THAT(ranges, IsEmpty());
        EXPECT_THAT(settings.GetProxyStrings(), IsEmpty());
    }
    std::string tables() const { return file.sqlite("select sql || ';' from sqlite_schema where sql is not null"); }
};

TEST_F(ABadSettingsFile, ThatIsAbsentIsMadeAndStaysEmpty) {
    EXPECT_TRUE(init());
    expectThatNothingWorks();
    EXPECT_EQ(fs::file_size(file.path()), 0U);
}

TEST_F(ABadSettingsFile, ThatIsEmptyIsAsGoodAsAbsent) {
    file.fillWith("");
    EXPECT_TRUE(init());
    EXPECT_FALSE(set("name", "value"));
    expectThatNothingWorks();
    EXPECT_EQ(fs::file_size(file.path()), 0U);
}

TEST_F(ABadSettingsFile, IsMadeTogetherWithItsDirectory) {
    const std::string path = file.beside("absent/product.db");
    EXPECT_TRUE(settings.Init(path.c_str(), false));
    expectThatNothingWorks();
    EXPECT_EQ(fs::file_size(path), 0U);
}

TEST_F(ABadSettingsFile, GetsNoDirectoryWhenSomethingElseIsWrong) {
    const WatchedOpens opens(1, SQLITE_NOMEM);
    EXPECT_FALSE(settings.Init(file.beside("absent/product.db").c_str(), false));
    EXPECT_EQ(opens.count, 1);
    EXPECT_TRUE(fs::is_empty(file.directory()));
}

TEST_F(ABadSettingsFile, GetsADirectoryWhoseModeTheUmaskDecides) {
    const mode_t before = umask(0027);
    EXPECT_TRUE(settings.Init(file.beside("tight/product.db").c_str(), false));
    umask(0);
    CVXDBSettings other;
    EXPECT_TRUE(other.Init(file.beside("wide/product.db").c_str(), false));
    umask(before);
    EXPECT_EQ(fs::status(file.beside("tight")).permissions(), fs::perms{0750});
    EXPECT_EQ(fs::status(file.beside("wide")).permissions(), fs::perms{0777});
}

TEST_F(ABadSettingsFile, GetsOneLevelOfDirectoriesOnly) {
    EXPECT_FALSE(settings.Init(file.beside("absent/too/product.db").c_str(), false));
    expectThatNothingWorks();
    EXPECT_TRUE(fs::is_empty(file.directory()));
}

/// A path of so many bytes in a directory that does not exist.
std::string pathOfLength(const SettingsFile& file, std::size_t length) {
    const std::string directory = file.beside(std::string(150, 'd')) + "/";
    return directory + std::string(length - directory.size(), 'f');
}

TEST_F(ABadSettingsFile, GetsADirectoryForAPathOf255BytesAndNotForOneMore) {
    const std::string tooLong = pathOfLength(file, 256);
    EXPECT_FALSE(settings.Init(tooLong.c_str(), false));
    EXPECT_TRUE(fs::is_empty(file.directory()));
    CVXDBSettings other;
    const std::string justRight = pathOfLength(file, 255);
    EXPECT_TRUE(other.Init(justRight.c_str(), false));
    EXPECT_TRUE(fs::exists(justRight));
}

TEST_F(ABadSettingsFile, MayHaveALongPathWhereNoDirectoryHasToBeMade) {
    const std::string path = pathOfLength(file, 256);
    fs::create_directory(fs::path(path).parent_path());
    EXPECT_TRUE(settings.Init(path.c_str(), false));
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(ABadSettingsFile, WithoutAPathIsRefused) {
    EXPECT_FALSE(settings.Init(nullptr, false));
    EXPECT_FALSE(settings.Init(nullptr, true));
    EXPECT_EQ(settings.GetLastError(), 7);
}

TEST_F(ABadSettingsFile, WithADirectoryInItsPlaceIsRefused) {
    fs::create_directory(file.path());
    EXPECT_FALSE(init());
    expectThatNothingWorks();
    EXPECT_TRUE(fs::is_empty(file.path()));
}

TEST_F(ABadSettingsFile, WithADirectoryInItsPlaceAndNoSlashInItsPathIsRefused) {
    const fs::path before = fs::current_path();
    fs::current_path(file.directory());
    fs::create_directory("product.db");
    const bool result = settings.Init("product.db", false);
    fs::current_path(before);
    EXPECT_FALSE(result);
}

TEST_F(ABadSettingsFile, WithAFileForItsDirectoryIsRefused) {
    file.fillWith("a file");
    EXPECT_FALSE(settings.Init((file.path() + "/product.db").c_str(), false));
    EXPECT_EQ(file.bytes(), "a file");
}

TEST_F(ABadSettingsFile, ThatIsNoDatabaseDoesNotStopTheStartAndIsNotTouched) {
    const std::string noise(5000, 'n');
    file.fillWith(noise);
    EXPECT_TRUE(init());
    expectThatNothingWorks();
    EXPECT_EQ(file.bytes(), noise);
}

TEST_F(ABadSettingsFile, ThatIsNoDatabaseIsNotRepaired) {
    const std::string noise(5000, 'n');
    file.fillWith(noise);
    EXPECT_FALSE(init(true));
    EXPECT_FALSE(settings.FixDatabase(TABLE_GENERAL_SETTING));
    EXPECT_EQ(file.bytes(), noise);
}

/// One of the four tables is missing, whichever journal the file has.
class ASettingsFileWithATableMissing : public ABadSettingsFile,
                                       public testing::WithParamInterface<std::tuple<TableType, std::string>> {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(layOut());
        const char* names[]{"vxsetting", "catblockinginfo", "allowblocksettings", "privateIPRange"};
        ASSERT_EQ(file.sqlite(std::string("drop table ") + names[missing()]), "");
        const std::string journal = std::get<1>(GetParam());
        ASSERT_EQ(file.sqlite("pragma journal_mode=" + journal), journal + "\n");
    }
    static TableType missing() { return std::get<0>(GetParam()); }
};

TEST_P(ASettingsFileWithATableMissing, ReadsTheTablesBeforeItByNameAndTheOthersAsAWhole) {
    const std::string before = file.bytes();
    EXPECT_TRUE(init());
    for (const TableType type : {TABLE_GENERAL_SETTING, TABLE_CATEGORY_BLOCKING, TABLE_ALLOW_BLOCK}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(getsARow(type), type < missing());
        CVXDBSettings::Rows found;
        EXPECT_EQ(settings.GetAllRows(type, found, true), type != missing());
        EXPECT_EQ(found.empty(), type == missing());
    }
    std::list<std::string> ranges;
    EXPECT_FALSE(settings.GetPrivateRangeList(ranges));
    EXPECT_EQ(ranges.empty(), missing() == TABLE_PRIVATE_IP_RANGE);
    expectNothingIsSet();
    expectDeletesClaimToBeDone();
    EXPECT_EQ(file.bytes(), before);
}

TEST_P(ASettingsFileWithATableMissing, GetsItBackByAFixAndKeepsTheOthers) {
    EXPECT_TRUE(init(true));
    std::string expected = kAllThere;
    expected[std::size_t(missing()) * 2] = '0';
    EXPECT_EQ(file.sqlite(kCounts), expected);
    CVXDBSettings next;
    ASSERT_TRUE(next.Init(file.path().c_str(), false));
    EXPECT_TRUE(next.Set("name", 5, "value", 5, TABLE_GENERAL_SETTING));
    EXPECT_EQ(file.sqlite("select value from vxsetting where hex(name) = '6E616D6500' or name = 'name'"), "value\n");
}

INSTANTIATE_TEST_SUITE_P(Each, ASettingsFileWithATableMissing,
                         testing::Combine(testing::ValuesIn(kTypes), testing::Values("delete", "wal")));

TEST_F(ABadSettingsFile, GetsAllFourTablesWhenItIsToBeFixed) {
    EXPECT_TRUE(init(true));
    EXPECT_EQ(tables(), "CREATE TABLE vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name));\n"
                        "CREATE TABLE catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name));\n"
                        "CREATE TABLE allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name));\n"
                        "CREATE TABLE privateIPRange(range text NOT NULL, PRIMARY KEY(range));\n");
}

TEST_F(ABadSettingsFile, IsNotTouchedByAFixWhenNothingIsMissing) {
    ASSERT_NO_FATAL_FAILURE(layOut());
    const std::string before = file.bytes();
    EXPECT_TRUE(init(true));
    EXPECT_TRUE(getsARow(TABLE_ALLOW_BLOCK));
    EXPECT_EQ(file.bytes(), before);
}

TEST_F(ABadSettingsFile, IsNotFixedUnlessAStatementHasJustFailed) {
    EXPECT_FALSE(settings.FixDatabase(TABLE_GENERAL_SETTING)) << "not open";
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_FALSE(settings.FixDatabase(TABLE_GENERAL_SETTING)) << "nothing wrong";
}

TEST_F(ABadSettingsFile, IsFixedOneTableAtATime) {
    ASSERT_TRUE(init());
    EXPECT_TRUE(settings.FixDatabase(TABLE_PRIVATE_IP_RANGE));
    EXPECT_EQ(tables(), "CREATE TABLE privateIPRange(range text NOT NULL, PRIMARY KEY(range));\n");
}

TEST_F(ABadSettingsFile, IsFixedForAnUnknownTypeWithTheScalarSettingsButNotReadable) {
    ASSERT_TRUE(init());
    EXPECT_FALSE(settings.FixDatabase(kNoSuchType));
    EXPECT_EQ(tables(), "CREATE TABLE vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name));\n");
}

TEST_F(ABadSettingsFile, CannotBeCreatedBeforeItIsOpenNorTriedAgainUntilClosed) {
    EXPECT_FALSE(settings.Create());
    ASSERT_TRUE(init());
    EXPECT_FALSE(settings.Create());
    EXPECT_EQ(tables(), "");
    settings.Close();
    EXPECT_TRUE(settings.Create());
    EXPECT_TRUE(settings.Create());
    EXPECT_EQ(file.sqlite(kCounts), "0\n0\n0\n0\n");
}

TEST_F(ABadSettingsFile, ThatIsNoDatabaseCannotBeCreated) {
    file.fillWith(std::string(5000, 'n'));
    ASSERT_TRUE(init());
    EXPECT_FALSE(settings.Create());
    EXPECT_FALSE(settings.Create());
}

TEST_F(ABadSettingsFile, IsCreatedByAWriteToATypeWithoutATable) {
    ASSERT_TRUE(init());
    EXPECT_EQ(get("name", kNoSuchType), "-");
    EXPECT_FALSE(settings.Delete(kNoSuchType));
    EXPECT_EQ(tables(), "");
    EXPECT_FALSE(set("name", "value", kNoSuchType));
    EXPECT_EQ(file.sqlite(kCounts), "0\n0\n0\n0\n");
    EXPECT_FALSE(settings.Set("name", 1, kNoSuchType));
    EXPECT_FALSE(settings.Set("name", kNoSuchType));
    EXPECT_EQ(file.sqlite(kCounts), "0\n0\n0\n0\n");
}

TEST_F(ABadSettingsFile, WithOneColumnTooManyIsRefusedForWriting) {
    ASSERT_NO_FATAL_FAILURE(layOut());
    ASSERT_EQ(file.sqlite("alter table allowblocksettings add column more"), "");
    EXPECT_FALSE(init());
    EXPECT_TRUE(getsARow(TABLE_GENERAL_SETTING));
    EXPECT_THAT(rows(TABLE_ALLOW_BLOCK), SizeIs(3));
    expectNothingIsSet();
    expectDeletesClaimToBeDone();
    EXPECT_EQ(file.sqlite(kCounts), kAllThere);
}

TEST_F(ABadSettingsFile, WithATableThatCannotBeEmptiedIsRefusedForWriting) {
    file.layOut(TABLE_PRIVATE_IP_RANGE);
    ASSERT_EQ(file.sqlite("create view privateIPRange as select 'a' as range; create trigger written "
                          "instead of insert on privateIPRange begin select 1; end"),
              "");
    EXPECT_FALSE(init());
    expectNothingIsSet();
    expectDeletesClaimToBeDone();
}

TEST_F(ABadSettingsFile, ThatIsLockedWhileItIsOpenedDoesNotStopTheStart) {
    ASSERT_NO_FATAL_FAILURE(layOut());
    {
        const ForeignLock lock(file);
        const TimelessWaits waits;
        EXPECT_TRUE(init());
        EXPECT_THAT(waits.all, SizeIs(10)) << "only the first statement is waited for";
        expectThatNothingWorks();
    }
    expectNothingIsSet();
    EXPECT_EQ(file.sqlite(kCounts), kAllThere);
}

TEST_F(ABadSettingsFile, ThatIsLockedIsNotFixedNorWasItWhenTheLockIsGone) {
    file.layOut(TABLE_GENERAL_SETTING);
    const std::string before = tables();
    ForeignLock lock(file);
    const TimelessWaits waits;
    EXPECT_FALSE(init(true));
    lock.release();
    EXPECT_FALSE(settings.FixDatabase(TABLE_GENERAL_SETTING)) << "the table was not what was wrong";
    EXPECT_EQ(tables(), before);
}

TEST_F(ABadSettingsFile, ThatIsLockedAfterItWasOpenedHidesIt) {
    ASSERT_NO_FATAL_FAILURE(open());
    {
        const ForeignLock lock(file);
        const TimelessWaits waits;
        EXPECT_FALSE(getsARow(TABLE_GENERAL_SETTING));
        EXPECT_TRUE(set("name", "value"));
        EXPECT_TRUE(settings.Set("new.example", 1, TABLE_ALLOW_BLOCK));
        EXPECT_TRUE(settings.Set("10.0.0.0/8", TABLE_PRIVATE_IP_RANGE));
        EXPECT_THAT(rows(TABLE_ALLOW_BLOCK), IsEmpty());
        expectDeletesClaimToBeDone();
        EXPECT_THAT(waits.all, SizeIs(9 * 10));
        EXPECT_THAT(waits.all, Each(100'000U));
    }
    EXPECT_EQ(file.sqlite(kCounts), kAllThere);
    EXPECT_FALSE(set("name", "value")) << "what failed shows once";
    EXPECT_TRUE(set("name", "value"));
    EXPECT_EQ(get("name"), "-") << "what failed shows once";
    EXPECT_EQ(get("name"), "value");
}

TEST_F(ABadSettingsFile, WithAWriteAheadLogIsReadWhileAnotherWritesAndItsRefusalsHidden) {
    ASSERT_NO_FATAL_FAILURE(layOut());
    ASSERT_EQ(file.sqlite("pragma journal_mode=wal"), "wal\n");
    {
        const ForeignLock lock(file);
        const TimelessWaits waits;
        EXPECT_TRUE(init());
        EXPECT_TRUE(getsARow(TABLE_GENERAL_SETTING));
        EXPECT_THAT(rows(TABLE_ALLOW_BLOCK), SizeIs(3));
        EXPECT_THAT(waits.all, IsEmpty()) << "nothing is waited for";
        EXPECT_TRUE(set("name", "value"));
        EXPECT_TRUE(settings.Delete(TABLE_ALLOW_BLOCK));
        EXPECT_THAT(waits.all, SizeIs(2 * 10));
        EXPECT_THAT(rows(TABLE_ALLOW_BLOCK), SizeIs(3));
    }
    EXPECT_EQ(file.sqlite(kCounts), kAllThere);
}

TEST_F(ABadSettingsFile, WithAWriteAheadLogIsWrittenWhileAnotherReads) {
    ASSERT_NO_FATAL_FAILURE(open());
    ASSERT_EQ(file.sqlite("pragma journal_mode=wal"), "wal\n");
    const ForeignLock reader(file, "BEGIN; SELECT count(*) FROM vxsetting");
    const TimelessWaits waits;
    EXPECT_TRUE(settings.Set("new.example", 1, TABLE_ALLOW_BLOCK));
    EXPECT_THAT(rows(TABLE_ALLOW_BLOCK), SizeIs(4));
    EXPECT_THAT(waits.all, IsEmpty());
}

/// Does @p work as a user who may not write to the directory.
std::string withoutTheRightToWrite(const SettingsFile& file, const std::function<std::string()>& work) {
    fs::permissions(file.directory(), fs::perms{0555});
    std::string outcome = testing_support::canActAsOthers() ? testing_support::asNobody(work) : work();
    fs::permissions(file.directory(), fs::perms{0755});
    return outcome;
}

TEST_F(ABadSettingsFile, CannotBeMadeInADirectoryThatIsReadOnly) {
    EXPECT_EQ(withoutTheRightToWrite(file, [this] { return init() ? "opened" : "refused"; }), "refused");
    EXPECT_TRUE(fs::is_empty(file.directory()));
}

TEST_F(ABadSettingsFile, CannotGetADirectoryInOneThatIsReadOnly) {
    const std::string path = file.beside("absent/product.db");
    EXPECT_EQ(withoutTheRightToWrite(file, [&] { return settings.Init(path.c_str(), false) ? "opened" : "refused"; }),
              "refused");
    EXPECT_TRUE(fs::is_empty(file.directory()));
}

TEST_F(ABadSettingsFile, ThatIsReadOnlyIsReadAndItsRefusalsHidden) {
    ASSERT_NO_FATAL_FAILURE(layOut());
    fs::permissions(file.path(), fs::perms{0444});
    EXPECT_EQ(withoutTheRightToWrite(file,
                                     [this] {
                                         std::string outcome = init() ? "opened" : "refused";
                                         outcome += getsARow(TABLE_GENERAL_SETTING) ? " read" : " unread";
                                         outcome += set("name", "value") ? " done" : " undone";
                                         return outcome + (settings.Delete(TABLE_ALLOW_BLOCK) ? " done" : " undone");
                                     }),
              "opened read done done");
    EXPECT_EQ(file.sqlite(kCounts), kAllThere);
}

/// The log that the lines of this folder would go to if anybody assigned their switches.
class OwnLog {
public:
    explicit OwnLog(const std::string& path) : m_path(path), m_stream(std::fopen(path.c_str(), "w")) {
        dbSettingsLog::logFilePtr = m_stream;
        dbSettingsLog::traceInited = 1;
        dbSettingsLog::safariPluginFlowvalue = 1;
    }
    OwnLog(const OwnLog&) = delete;
    OwnLog& operator=(const OwnLog&) = delete;
    ~OwnLog() {
        dbSettingsLog::safariPluginFlowvalue = 0;
        dbSettingsLog::traceInited = 0;
        dbSettingsLog::logFilePtr = nullptr;
        static_cast<void>(std::fclose(m_stream));
    }
    std::string text() const { return testing_support::readFile(m_path); }

private:
    std::string m_path;
    std::FILE* m_stream;
};

/// Settings whose memory runs out.
class SettingsWithoutMemory : public ABadSettingsFile {
protected:
    void SetUp() override {
        for (const TableType type : kTypes) { // what they ask their texts of is there already
            static_cast<void>(queryText(type, &IQueryInterface::GenerateGetQuery));
        }
    }

    static std::size_t numberOf(const std::string& what, const std::string& text) {
        std::size_t count = 0;
        for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
            ++count;
        }
        return count;
    }

    /// Runs @p operation on settings that @p prepare made ready, with each of its allocations failing in turn, and
    /// expects that it succeeds, says so once and leaves what can be used. @return how often it failed
    int failEach(const std::string& line, const std::function<void(CVXDBSettings&)>& prepare,
                 const std::function<bool(CVXDBSettings&)>& operation) {
        const OwnLog log(file.beside("log"));
        std::string before;
        for (int failures = 0;; ++failures) {
            SCOPED_TRACE(failures);
            CVXDBSettings failing;
            prepare(failing);
            bool succeeded = false;
            {
                const AllocationFailure failure(failures);
                succeeded = operation(failing);
            }
            if (!AllocationFailure::happened()) {
                return failures;
            }
            EXPECT_TRUE(succeeded);
            const std::string all = log.text();
            EXPECT_THAT(all.substr(before.size()), testing::EndsWith(line + "\n"));
            before = all;
        }
    }

    const std::function<void(CVXDBSettings&)> opened = [this](CVXDBSettings& failing) {
        ASSERT_TRUE(failing.Init(file.path().c_str(), false));
    };
};

TEST_F(SettingsWithoutMemory, AreBuiltAsFarAsItGoes) {
    const OwnLog log(file.beside("log"));
    constexpr int kAllocations = 24; // twelve row sets and their places
    for (int failures = 0; failures <= kAllocations; ++failures) {
        SCOPED_TRACE(failures);
        std::optional<CVXDBSettings> partial;
        {
            const AllocationFailure failure(failures);
            partial.emplace();
        }
        EXPECT_EQ(AllocationFailure::happened(), failures < kAllocations);
        EXPECT_TRUE(partial->Init(file.path().c_str(), false));
        EXPECT_FALSE(partial->Set("name", 4, "value", 5, kNoSuchType));
        EXPECT_EQ(std::size_t(std::min(failures + 1, kAllocations)), numberOf("CVXDBSettings\n", log.text()));
    }
}

TEST_F(SettingsWithoutMemory, AreInitialisedAsFarAsItGoes) {
    file.layOut();
    for (const bool fix : {false, true}) {
        const int allocations = failEach(
            "Exception in CVXDBSettings::Init", [](CVXDBSettings&) {},
            [&](CVXDBSettings& failing) { return failing.Init(file.path().c_str(), fix); });
        EXPECT_GE(allocations, 12) << "twelve texts";
    }
}

TEST_F(SettingsWithoutMemory, CreateAsFarAsItGoesAndMayTryAgain) {
    file.layOut();
    const int allocations = failEach("Exception in CVXDBSettings::Create", opened,
                                     [](CVXDBSettings& failing) { return failing.Create() && failing.Create(); });
    EXPECT_GE(allocations, 8) << "eight texts";
}

TEST_F(SettingsWithoutMemory, FixAsFarAsItGoes) {
    const int allocations = failEach(
        "Exception in CVXDBSettings::FixDatabase",
        [this](CVXDBSettings& failing) {
            ASSERT_EQ(file.sqlite("drop table if exists vxsetting"), "");
            opened(failing);
        },
        [](CVXDBSettings& failing) { return failing.FixDatabase(TABLE_GENERAL_SETTING); });
    EXPECT_EQ(allocations, 2) << "the texts that make and read the table";
}

TEST_F(SettingsWithoutMemory, SayNothingInTheDaemonsLog) {
    const testing_support::TraceLog log;
    const AllocationFailure failure(0);
    const CVXDBSettings partial;
    EXPECT_TRUE(AllocationFailure::happened());
    EXPECT_THAT(log.lines(), IsEmpty());
}

} // namespace
