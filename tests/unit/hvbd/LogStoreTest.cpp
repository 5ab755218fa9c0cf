// The log store on real files: order, limits, and every trouble a file can have. What a kill -9 of the process and a
// full disk do is shown in tests/integration/HvbdTest.cpp.
#include "apps/hvbd/LogStore.h"
#include "apps/hvbd/HvbdLimits.h"
#include "base/Database.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/unit/hvbd/ReportTexts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

using namespace HVB::hub;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;

/// Bytes that cannot be stored in fewer.
std::string noise(std::size_t size) {
    std::mt19937 random(7);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

class ALogStore : public testing::Test {
protected:
    std::uint64_t add(std::string_view text, std::string_view detail = "") {
        const LogRecord record{7, 8, text, detail, 1};
        return store.append({&record, 1}).front();
    }

    std::vector<std::uint64_t> ids(std::uint64_t after = 0, std::uint32_t limit = 1000, bool newest = false) {
        std::vector<std::uint64_t> found;
        for (const StoredRecord& record : store.read(after, limit, newest)) {
            found.push_back(record.id);
        }
        return found;
    }

    /// All that there are, however large.
    std::vector<std::uint64_t> idsInFile() const {
        std::vector<std::uint64_t> found;
        const auto database = Sentrel::openDatabase(path);
        Sentrel::Statement rows(*database, "SELECT id FROM log ORDER BY id");
        while (rows.step()) {
            found.push_back(static_cast<std::uint64_t>(rows.integer(0)));
        }
        return found;
    }

    std::string trouble() {
        try {
            add("text");
        } catch (const LogStoreError& error) {
            EXPECT_EQ(error.kind(), LogStoreError::Kind::Trouble);
            return error.message();
        }
        return "stored";
    }

    /// Stores a record with a number. @return its id.
    std::uint64_t addNumbered(std::uint64_t instance, std::uint64_t number) {
        const LogRecord record{7, 8, "numbered", "", 1, RecordNumber{instance, number}};
        return store.append({&record, 1}).front();
    }

    /// Stores a report. @return its id.
    std::uint64_t report(const std::wstring& site, const std::wstring& page) {
        const hvbd_tests::ReportTexts texts = hvbd_tests::reportOf(site, page);
        return add(texts.text, texts.detail);
    }

    /// Stores reports of one page each on as many sites, a hundred in a batch.
    void reportMany(const std::wstring& site, int count) {
        constexpr int batch = 100;
        for (int begin = 0; begin < count; begin += batch) {
            std::vector<hvbd_tests::ReportTexts> texts;
            for (int i = begin; i < std::min(begin + batch, count); ++i) {
                texts.push_back(hvbd_tests::reportOf(site + std::to_wstring(i) + L".example", L"page"));
            }
            std::vector<LogRecord> records;
            for (const auto& one : texts) {
                records.push_back({7, 8, one.text, one.detail, 1});
            }
            store.append(records);
        }
    }

    /// Lets the records that there are have been stored so many minutes ago.
    void age(int minutes) {
        outside(("UPDATE log SET stored_at = stored_at - " + std::to_string(minutes) + " * 60000000").c_str());
    }

    std::int64_t number(const char* sql) const { return Sentrel::queryInteger(*Sentrel::openDatabase(path), sql); }

    /// Runs SQL as another program would, on a connection of its own.
    void outside(const char* sql) { Sentrel::execute(*Sentrel::openDatabase(path), sql); }

    std::string content() const { return testing_support::readFile(path); }

    std::string moveAway() const {
        return "Move it away together with " + path + "-wal and " + path +
               "-shm; the next record then makes a new one.";
    }

    testing_support::TemporaryDirectory directory;
    const std::string path = directory.file("hvblog.db");
    LogStore store{path, kMebibyte};
};

TEST_F(ALogStore, GivesBackWhatItWasGiven) {
    const std::string text("\0\1\2\3\xC3\xFF\xFF\xFF", 8);
    const LogRecord record{-7, 3, text, "", -2};
    EXPECT_EQ(store.append({&record, 1}), std::vector<std::uint64_t>{1});
    const auto records = store.read(0, 10, false);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, 1U);
    EXPECT_GT(records[0].storedAt, 1'600'000'000'000'000);
    EXPECT_EQ(records[0].source, -7);
    EXPECT_EQ(records[0].type, 3);
    EXPECT_EQ(records[0].text, text);
    EXPECT_EQ(records[0].detail, "");
    EXPECT_EQ(records[0].count, -2);
}

TEST_F(ALogStore, StoresARecordOfANumberOnce) {
    EXPECT_EQ(addNumbered(5, 1), 1U);
    EXPECT_EQ(addNumbered(5, 1), HVB::bus::kAlreadyStored);
    EXPECT_EQ(addNumbered(5, 2), 2U);
    EXPECT_EQ(addNumbered(5, 1), HVB::bus::kAlreadyStored) << "a late copy of one before the last";
    EXPECT_EQ(addNumbered(5, 9), 3U) << "numbers that were never sent leave gaps";
    EXPECT_EQ(addNumbered(UINT64_MAX, 1), 4U) << "each instance has numbers of its own";
    EXPECT_EQ(ids(), (std::vector<std::uint64_t>{1, 2, 3, 4}));
}

TEST_F(ALogStore, StoresANumberOnceWhenItComesTwiceInOneBatch) {
    const LogRecord record{7, 8, "x", "", 1, RecordNumber{5, 1}};
    const std::vector<LogRecord> twice{record, record};
    EXPECT_EQ(store.append(twice), (std::vector<std::uint64_t>{1, HVB::bus::kAlreadyStored}));
}

TEST_F(ALogStore, RemembersNumbersAsLongAsItsFile) {
    addNumbered(5, 1);
    LogStore again(path, kMebibyte);
    const LogRecord record{7, 8, "x", "", 1, RecordNumber{5, 1}};
    EXPECT_EQ(again.append({&record, 1}).front(), HVB::bus::kAlreadyStored);
    outside("DELETE FROM log");
    EXPECT_EQ(again.append({&record, 1}).front(), HVB::bus::kAlreadyStored) << "also when the record was dropped";
}

TEST_F(ALogStore, RemembersOnlyTheInstancesThatStoredLast) {
    for (std::uint64_t instance = 1; instance <= kMaxInstances; ++instance) {
        addNumbered(instance, 1);
    }
    addNumbered(1, 2);
    addNumbered(kMaxInstances + 1, 1);
    EXPECT_EQ(Sentrel::queryInteger(*Sentrel::openDatabase(path), "SELECT count(*) FROM sender"), kMaxInstances);
    EXPECT_EQ(addNumbered(1, 2), HVB::bus::kAlreadyStored) << "the first instance, which stored again";
    EXPECT_NE(addNumbered(2, 1), HVB::bus::kAlreadyStored) << "the one that has been silent for longest";
}

TEST_F(ALogStore, GivesAReportBackAsItCame) {
    const hvbd_tests::ReportTexts odd =
        hvbd_tests::reportOf(L"host.example", {L'/', static_cast<wchar_t>(0xFFFFFFC3), L'\x20AC'});
    const hvbd_tests::ReportTexts plain = hvbd_tests::reportOf(L"host.example", L"page");
    add(odd.text, odd.detail);
    add(plain.text, plain.detail);
    add("", plain.detail);
    add(plain.detail, "");
    const auto records = store.read(0, 10, false);
    ASSERT_EQ(records.size(), 4U);
    EXPECT_EQ(records[0].text, odd.text);
    EXPECT_EQ(records[0].detail, odd.detail);
    EXPECT_EQ(records[1].text, plain.text);
    EXPECT_EQ(records[1].detail, plain.detail);
    EXPECT_EQ(records[2].text, "");
    EXPECT_EQ(records[2].detail, plain.detail);
    EXPECT_EQ(records[3].text, plain.detail);
}

TEST_F(ALogStore, TakesASixthOfAReportsBytes) {
    std::size_t bytes = 0;
    for (int i = 0; i < 100; ++i) {
        const std::wstring page = L"news/2026/11/" + std::to_wstring(i * 7919) + L".html?session=" + std::to_wstring(i);
        report(L"site" + std::to_wstring(i) + L".example", page);
        const hvbd_tests::ReportTexts texts = hvbd_tests::reportOf(L"site" + std::to_wstring(i) + L".example", page);
        bytes += texts.text.size() + texts.detail.size() + kRecordOverheadBytes;
    }
    EXPECT_LT(number("SELECT sum(length(text) + length(detail) + 64) FROM log"), static_cast<std::int64_t>(bytes / 6));
    Sentrel::emptyWriteAheadLog(*Sentrel::openDatabase(path));
    EXPECT_LT(fs::file_size(path), bytes / 4) << "and the file is as much smaller, but for its first pages";
}

TEST_F(ALogStore, PassesOverARowThatIsNoPackedText) {
    report(L"host.example", L"one");
    report(L"host.example", L"two");
    report(L"host.example", L"three");
    outside("UPDATE log SET text = CAST('d' AS BLOB) WHERE id = 1; UPDATE log SET packed = 999999999 WHERE id = 2");
    EXPECT_EQ(ids(0, 1), std::vector<std::uint64_t>{3});
    EXPECT_EQ(ids(0, 1, true), std::vector<std::uint64_t>{3});
}

/// Each report of the flood is of another site: nothing is alike.
TEST_F(ALogStore, KeepsTheReportsOfAQuietHourThroughAFlood) {
    for (int i = 0; i < 20; ++i) {
        report(L"honest" + std::to_wstring(i) + L".example", L"page");
        age(3);
    }
    reportMany(L"flood", 3000);
    const auto left = idsInFile();
    ASSERT_GT(left.size(), 1000U);
    EXPECT_LT(left.size(), 2500U) << "the limit was reached";
    for (std::uint64_t honest = 1; honest <= 20; ++honest) {
        EXPECT_EQ(left[honest - 1], honest);
    }
    EXPECT_EQ(left.back(), 3020U) << "the newest is there";
}

TEST_F(ALogStore, MergesReportsOfLikeKindIntoTheNewestWithTheSumOfTheirCounts) {
    LogStore small(path, 20'000);
    const auto append = [&](const std::wstring& site, int page) {
        const hvbd_tests::ReportTexts texts = hvbd_tests::reportOf(site, std::to_wstring(page));
        const LogRecord record{7, 8, texts.text, texts.detail, 1};
        small.append({&record, 1});
    };
    append(L"honest.example", 1);
    int flood = 0;
    while (number("SELECT max(count) FROM log") == 1) {
        append(L"flood.example", ++flood);
    }
    EXPECT_EQ(number("SELECT count(*) FROM log WHERE id = 1 AND count = 1"), 1) << "another kind stays as it is";
    EXPECT_EQ(number("SELECT sum(count) FROM log"), flood + 1) << "no report goes uncounted";
    EXPECT_EQ(number("SELECT count(*) FROM log"), 3) << "the merged ones, and the one that needed the room";
    EXPECT_EQ(number("SELECT max(id) FROM log"), flood + 1);
    const auto records = store.read(0, 10, false);
    EXPECT_EQ(records.back().detail, hvbd_tests::reportOf(L"flood.example", std::to_wstring(flood)).detail);
}

TEST_F(ALogStore, KeepsTheCountOfMergedReportsWithinItsType) {
    report(L"flood.example", L"page");
    report(L"flood.example", L"page");
    outside("UPDATE log SET count = 2147483647");
    LogStore small(path, 10'000);
    const hvbd_tests::ReportTexts texts = hvbd_tests::reportOf(L"flood.example", L"page");
    const LogRecord record{7, 8, texts.text, texts.detail, 1};
    while (number("SELECT count(*) FROM log WHERE id = 1") == 1) {
        small.append({&record, 1});
    }
    EXPECT_EQ(number("SELECT max(count) FROM log"), 2147483647);
}

TEST_F(ALogStore, TakesAStoreOfTheFirstLayoutOver) {
    std::ofstream(path).close();
    outside(
        "CREATE TABLE log(id INTEGER PRIMARY KEY AUTOINCREMENT, stored_at INTEGER NOT NULL, source INTEGER NOT NULL,"
        " type INTEGER NOT NULL, text BLOB NOT NULL, detail BLOB NOT NULL, count INTEGER NOT NULL);"
        "PRAGMA application_id=1213612620; PRAGMA user_version=1;"
        "INSERT INTO log VALUES(3, 17, 7, 8, CAST('abcd' AS BLOB), CAST('efgh' AS BLOB), 2)");
    EXPECT_EQ(addNumbered(5, 1), 4U);
    const auto records = store.read(0, 10, false);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].id, 3U);
    EXPECT_EQ(records[0].storedAt, 17);
    EXPECT_EQ(records[0].text, "abcd");
    EXPECT_EQ(records[0].detail, "efgh");
    EXPECT_EQ(records[0].count, 2);
}

TEST_F(ALogStore, ReadsTheFirstOrTheLastRecordsInAscendingOrder) {
    for (int i = 0; i < 6; ++i) {
        add("x");
    }
    using Ids = std::vector<std::uint64_t>;
    EXPECT_EQ(ids(), (Ids{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(ids(2, 2), (Ids{3, 4}));
    EXPECT_EQ(ids(0, 2, true), (Ids{5, 6}));
    EXPECT_EQ(ids(5, 3, true), (Ids{6}));
    EXPECT_EQ(ids(6), Ids{});
    EXPECT_EQ(ids(UINT64_MAX), Ids{});
    EXPECT_EQ(ids(0, 0), Ids{});
}

TEST_F(ALogStore, ReadsNoMoreThanAThousandRecordsAtOnce) {
    const std::vector<LogRecord> records(1001, LogRecord{7, 8, "x", "", 1});
    store.append(records);
    const auto first = ids(0, UINT32_MAX);
    ASSERT_EQ(first.size(), 1000U);
    EXPECT_EQ(first.front(), 1U);
    const auto last = ids(0, UINT32_MAX, true);
    ASSERT_EQ(last.size(), 1000U);
    EXPECT_EQ(last.back(), 1001U);
}

TEST_F(ALogStore, ReadsNoMoreTextThanOneReplyHoldsButAlwaysOneRecord) {
    LogStore large(path, 64 * kMebibyte);
    const std::string half(kMaxReadBytes / 2, 'a');
    const std::vector<LogRecord> records{
        {7, 8, half, "", 1}, {7, 8, "", half, 1}, {7, 8, "x", "", 1}, {7, 8, half, half, 1}};
    large.append(records);
    EXPECT_EQ(large.read(0, 10, false).size(), 2U);
    EXPECT_EQ(large.read(3, 10, false).size(), 1U);
    EXPECT_EQ(large.read(0, 10, true).size(), 1U);
}

TEST_F(ALogStore, MakesItsFileForItsOwnerAndItsGroupAlone) {
    const mode_t before = umask(0);
    add("x");
    umask(before);
    struct stat facts {};
    for (const std::string& name : {path, path + "-wal", path + "-shm"}) {
        ASSERT_EQ(stat(name.c_str(), &facts), 0) << name;
        EXPECT_EQ(facts.st_mode & 07777U, 0640U) << name;
    }
}

TEST_F(ALogStore, KeepsEveryRecordAcrossALimitThatIsNotReached) {
    LogStore again(path, kMebibyte);
    add("one");
    const LogRecord record{7, 8, "two", "", 1};
    EXPECT_EQ(again.append({&record, 1}), std::vector<std::uint64_t>{2});
    EXPECT_EQ(ids(), (std::vector<std::uint64_t>{1, 2}));
}

TEST_F(ALogStore, DropsTheOldestRecordsWhenTheLimitIsReachedAndNoOthers) {
    // Four of these just fit, with what each costs beside its texts.
    const std::string quarter = noise(kMebibyte / 4 - kRecordOverheadBytes);
    for (int i = 0; i < 4; ++i) {
        add(quarter);
    }
    EXPECT_EQ(idsInFile(), (std::vector<std::uint64_t>{1, 2, 3, 4}));
    add("", "x");
    EXPECT_EQ(idsInFile(), (std::vector<std::uint64_t>{2, 3, 4, 5}));
    add(quarter);
    EXPECT_EQ(idsInFile(), (std::vector<std::uint64_t>{3, 4, 5, 6}));
}

TEST_F(ALogStore, NeverGivesAnIdTwiceEvenWhenTheNewestRecordWasDeletedByHand) {
    add("one");
    add("two");
    outside("DELETE FROM log");
    EXPECT_EQ(add("three"), 3U);
}

TEST_F(ALogStore, KeepsTheNewestRecordThoughItFillsTheLimitAlone) {
    add("x");
    add(noise(kMebibyte - kRecordOverheadBytes));
    EXPECT_EQ(idsInFile(), std::vector<std::uint64_t>{2});
}

TEST_F(ALogStore, RefusesARecordThatIsLargerThanTheLimitAndSaysSo) {
    const std::string text(kMebibyte - kRecordOverheadBytes + 1, 'x');
    try {
        add(text);
        FAIL() << "stored";
    } catch (const LogStoreError& error) {
        EXPECT_EQ(error.kind(), LogStoreError::Kind::Refused);
        EXPECT_EQ(error.message(), "the record has 1048577 bytes, more than the whole log store may hold (1048576). "
                                   "Raise hvbd's --log-limit-mib or send less.");
    }
    EXPECT_EQ(add("x"), 1U);
}

/// What the header promises: below twice the limit and 1 MiB.
TEST_F(ALogStore, KeepsItsFilesBoundedWithRecordsOfEverySize) {
    const std::string text = noise(70'000);
    std::uint64_t given = 0;
    while (given < 20 * kMebibyte) {
        // Sizes that fill pages badly are among them: just above half a page, and just above a whole one.
        std::vector<LogRecord> batch;
        for (const std::size_t size : {0UL, 100UL, 2040UL, 4070UL, 9000UL, 70'000UL}) {
            batch.push_back({7, 8, std::string_view(text).substr(0, size), "", 1});
            given += size + kRecordOverheadBytes;
        }
        store.append(batch);
    }
    EXPECT_LT(fs::file_size(path), 3 * kMebibyte);
    EXPECT_LT(fs::file_size(path + "-wal"), 6 * kMebibyte);
}

TEST_F(ALogStore, KeepsItsFileBoundedWithRecordsThatFillEachPageByHalf) {
    const std::string text = noise(2040);
    const std::vector<LogRecord> batch(50, LogRecord{7, 8, text, "", 1});
    for (std::uint64_t given = 0; given < 6 * kMebibyte; given += batch.size() * text.size()) {
        store.append(batch);
    }
    EXPECT_LT(fs::file_size(path), 3 * kMebibyte);
}

TEST_F(ALogStore, CountsAgainWhenAnotherProgramDeletedRecords) {
    const std::string half = noise(kMebibyte / 2 - kRecordOverheadBytes);
    add(half);
    add(half);
    outside("DELETE FROM log WHERE id = 1");
    add(half);
    EXPECT_EQ(idsInFile(), (std::vector<std::uint64_t>{2, 3}));
}

TEST_F(ALogStore, TakesALowerLimitIntoForceWithTheNextRecord) {
    const std::vector<LogRecord> records(100, LogRecord{7, 8, "x", "", 1});
    store.append(records);
    LogStore smaller(path, 10 * (kRecordOverheadBytes + 1));
    const LogRecord record{7, 8, "x", "", 1};
    smaller.append({&record, 1});
    EXPECT_EQ(smaller.read(0, 1000, false).size(), 10U);
    EXPECT_EQ(smaller.read(0, 1000, false).back().id, 101U);
}

TEST_F(ALogStore, IsEmptyAndMakesNoFileWhenItIsReadBeforeTheFirstRecord) {
    EXPECT_TRUE(ids().empty());
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(ALogStore, MakesANewFileWhenItsFileWasDeleted) {
    add("one");
    fs::remove(path);
    EXPECT_EQ(add("two"), 1U);
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(store.read(0, 10, false).front().text, "two");
    EXPECT_EQ(Sentrel::queryInteger(*Sentrel::openDatabase(path), "SELECT count(*) FROM log"), 1);
}

TEST_F(ALogStore, GoesOnInTheFileThatWasPutInItsPlace) {
    const std::string other = directory.file("other.db");
    {
        LogStore second(other, kMebibyte);
        const std::vector<LogRecord> records(5, LogRecord{7, 8, "x", "", 1});
        second.append(records);
    }
    add("one");
    fs::rename(other, path);
    EXPECT_EQ(add("two"), 6U);
    ASSERT_EQ(ids().size(), 6U);
    EXPECT_EQ(store.read(5, 10, false).front().text, "two");
}

/// The record that was answered last may stand in the write-ahead log alone when somebody moves the file away.
TEST_F(ALogStore, KeepsTheWriteAheadLogOfAFileThatWasMovedAway) {
    add("one");
    const std::string moved = directory.file("moved.db");
    fs::rename(path, moved);
    EXPECT_EQ(add("two"), 1U);
    EXPECT_EQ(ids().size(), 1U);
    fs::rename(path + "-wal.orphan", moved + "-wal");
    LogStore old(moved, kMebibyte);
    ASSERT_EQ(old.read(0, 10, false).size(), 1U);
    EXPECT_EQ(old.read(0, 10, false).front().text, "one");
}

TEST_F(ALogStore, LosesNothingWhenItsWriteAheadLogWasDeleted) {
    add("one");
    fs::remove(path + "-wal");
    add("two");
    LogStore again(path, kMebibyte);
    EXPECT_EQ(again.read(0, 10, false).size(), 2U);
}

TEST_F(ALogStore, SaysThatAnotherProgramHoldsTheLockAndWorksAgainAfterwards) {
    add("one");
    {
        const Sentrel::DatabasePtr other = Sentrel::openDatabase(path);
        Sentrel::execute(*other, "BEGIN IMMEDIATE");
        EXPECT_EQ(trouble(), "cannot store the record: " + path +
                                 " is locked by another program. End that program (fuser " + path + " names it).");
        EXPECT_EQ(ids(), std::vector<std::uint64_t>{1});
    }
    EXPECT_EQ(add("two"), 2U);
}

TEST_F(ALogStore, LeavesADamagedFileAsItIsAndWorksAgainOnceItWasMovedAway) {
    std::ofstream(path) << std::string(8192, 'x');
    const std::string before = content();
    EXPECT_EQ(trouble(), "cannot store the record: " + path + " is damaged (file is not a database). " + moveAway());
    EXPECT_THROW(ids(), LogStoreError);
    EXPECT_EQ(content(), before);
    EXPECT_FALSE(fs::exists(path + "-wal"));
    fs::rename(path, path + ".damaged");
    EXPECT_EQ(add("one"), 1U);
}

TEST_F(ALogStore, ReportsDamageInsideTheFileToo) {
    {
        LogStore before(path, kMebibyte);
        const std::vector<LogRecord> records(500, LogRecord{7, 8, "some text", "", 1});
        before.append(records);
    }
    {
        std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(4096);
        file << std::string(fs::file_size(path) - 4096, '\xA5');
    }
    const std::string before = content();
    EXPECT_NE(trouble().find(path + " is damaged (database disk image is malformed). "), std::string::npos);
    EXPECT_EQ(content(), before);
}

TEST_F(ALogStore, LeavesANewerLayoutAsItIsAndWorksAgainOnceItWasMovedAway) {
    {
        LogStore before(path, kMebibyte);
        const LogRecord record{7, 8, "x", "", 1};
        before.append({&record, 1});
    }
    outside("PRAGMA user_version=99");
    const std::string before = content();
    EXPECT_EQ(trouble(), "cannot open the log store: " + path +
                             " was written by a newer hvbd (layout 99). Install that one again. Or: " + moveAway());
    EXPECT_THROW(ids(), LogStoreError);
    EXPECT_EQ(content(), before);
    fs::rename(path, path + ".newer");
    EXPECT_EQ(add("one"), 1U);
}

TEST_F(ALogStore, LeavesAnotherProgramsDatabaseAsItIs) {
    std::ofstream(path).close();
    outside("CREATE TABLE mine(x); INSERT INTO mine VALUES(1)");
    const std::string before = content();
    EXPECT_EQ(trouble(), "cannot open the log store: " + path + " is the database of another program. " + moveAway());
    EXPECT_EQ(content(), before);
}

TEST_F(ALogStore, SaysWhatStandsInItsPlaceWhenThatIsNoFile) {
    fs::create_directory(path);
    EXPECT_EQ(trouble(), "cannot open the log store: " + path + " is a directory. Move it away.");
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(trouble(), "cannot open the log store: " + path + " is not a regular file. Move it away.");
    fs::remove(path);
    EXPECT_EQ(add("one"), 1U);
}

TEST_F(ALogStore, DoesNotFollowASymbolicLinkInItsPlace) {
    const std::string target = directory.file("elsewhere");
    fs::create_symlink(target, path);
    EXPECT_EQ(trouble(),
              "cannot open the log store: " + path + " is a symbolic link, which hvbd does not follow. Move it away.");
    EXPECT_FALSE(fs::exists(target));
}

TEST_F(ALogStore, FollowsASymbolicLinkInItsDirectorysPath) {
    fs::create_directory(directory.file("real"));
    fs::create_symlink(directory.file("real"), directory.file("link"));
    LogStore behind(directory.file("link/hvblog.db"), kMebibyte);
    const LogRecord record{7, 8, "x", "", 1};
    EXPECT_EQ(behind.append({&record, 1}), std::vector<std::uint64_t>{1});
    EXPECT_TRUE(fs::exists(directory.file("real/hvblog.db")));
}

TEST_F(ALogStore, SaysThatItsDirectoryIsMissing) {
    LogStore lost(directory.file("none/hvblog.db"), kMebibyte);
    const LogRecord record{7, 8, "x", "", 1};
    try {
        lost.append({&record, 1});
        FAIL() << "stored";
    } catch (const LogStoreError& error) {
        EXPECT_EQ(error.message(), "cannot open the log store: the directory of " + directory.file("none/hvblog.db") +
                                       " does not exist. Make it, owned by hvbd's user.");
    }
}

TEST_F(ALogStore, RefusesRecordsRatherThanLetAReaderWithoutEndFillTheDisk) {
    LogStore large(path, 8 * kMebibyte);
    const std::string text = noise(4 * kMebibyte);
    const LogRecord record{7, 8, text, "", 1};
    large.append({&record, 1});
    std::string message;
    {
        const Sentrel::DatabasePtr reader = Sentrel::openDatabase(path);
        Sentrel::execute(*reader, "BEGIN; SELECT count(*) FROM log");
        for (int i = 0; i < 20 && message.empty(); ++i) {
            try {
                large.append({&record, 1});
            } catch (const LogStoreError& error) {
                message = error.message();
            }
        }
        EXPECT_LT(fs::file_size(path + "-wal"), static_cast<std::uint64_t>(kMaxWalBytes) + 2 * text.size());
    }
    EXPECT_EQ(message, "cannot store the record: a program reads " + path + " without end, so that " + path +
                           "-wal cannot be emptied. End that program (fuser " + path + " names it).");
    EXPECT_NO_THROW(large.append({&record, 1}));
    EXPECT_LT(fs::file_size(path + "-wal"), static_cast<std::uint64_t>(kMaxWalBytes));
}

} // namespace
