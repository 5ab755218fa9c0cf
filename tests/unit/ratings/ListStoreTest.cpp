// Rating lists that are brought in, renewed and taken out.
#include "tests/unit/ratings/DirectorySyncs.h"
#include "tests/unit/ratings/RatingsFixture.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace testing_support {
namespace {

using namespace Sentrel::ratings;
namespace fs = std::filesystem;

/// Why @p work is refused; "" when it is not.
template <class Work>
std::string refusal(const Work& work) {
    try {
        work();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

TEST_F(RatingLists, TellWhichLinesAreBad) {
    std::string content = "good.example\n";
    for (int line = 0; line < 20; ++line) {
        content += "bad line\n";
    }
    const ListReport report = import("a", ListFormat::Domains, 50, content);
    EXPECT_EQ(report.facts.count, 1U);
    EXPECT_EQ(report.bad, 20U);
    ASSERT_EQ(report.firstBad.size(), kToldBadLines);
    EXPECT_EQ(report.firstBad[0].number, 2U);
    EXPECT_EQ(report.firstBad[9].number, 11U);
    EXPECT_EQ(report.firstBad[0].fault, "is no name that a host can have");
}

TEST_F(RatingLists, SkipLinesThatNoListHas) {
    const std::string content = "\xEF\xBB\xBF"
                                "first.example\r\n" +
                                std::string(100'000, 'a') + "\nsecond.example\n" + std::string("a\0b.example\n", 12) +
                                std::string(300'000, '.') + "\nlast.example";
    const ListReport report = import("a", ListFormat::Domains, 50, content);
    EXPECT_EQ(report.facts.count, 3U);
    ASSERT_EQ(report.firstBad.size(), 3U);
    EXPECT_EQ(report.firstBad[0].number, 2U);
    EXPECT_EQ(report.firstBad[0].fault, "is longer than 64 KiB");
    EXPECT_EQ(report.firstBad[1].number, 4U);
    EXPECT_EQ(report.firstBad[1].fault, "has a byte of value 0");
    EXPECT_EQ(report.firstBad[2].number, 5U);
    EXPECT_EQ(rated("last.example"), "50 a");
}

TEST_F(RatingLists, CountWhatIsPassedOver) {
    const ListReport report =
        import("a", ListFormat::Adblock, 50, "||a.example^\n||b.example^$third-party\nc##.ad\n! comment\n");
    EXPECT_EQ(report.facts.count, 1U);
    EXPECT_EQ(report.passedOver, 2U);
    EXPECT_EQ(report.bad, 0U);
}

TEST_F(RatingLists, RefuseAFileThatNamesNoHost) {
    import("a", ListFormat::Domains, 50, "old.example\n");
    EXPECT_EQ(refusal([this] { import("a", ListFormat::Hosts, 50, "# nothing\nnew.example\n"); }),
              "it names no host in the format hosts; line 2 does not begin with an address");
    EXPECT_EQ(rated("old.example"), "50 a");
}

TEST_F(RatingLists, RefuseWhatIsNoRegularFile) {
    ListHead head = headOf("a", ListFormat::Domains, 50);
    ::mkfifo(head.file.c_str(), 0600);
    EXPECT_NE(refusal([&] { m_store.import(head, -1); }).find("is no regular file"), std::string::npos);
    head.file = m_directory.file("missing");
    EXPECT_NE(refusal([&] { m_store.import(head, -1); }).find("cannot be opened"), std::string::npos);
}

TEST_F(RatingLists, HaveNamesThatLeadNowhereElse) {
    for (const char* name : {"", "../a", "a/b", ".a", "-a", "a b", "a\n"}) {
        EXPECT_FALSE(isListName(name)) << name;
        EXPECT_NE(refusal([&] { m_store.remove(name); }), "") << name;
    }
    EXPECT_FALSE(isListName(std::string(65, 'a')));
    EXPECT_TRUE(isListName("Easy-List_2.0"));
}

TEST_F(RatingLists, AreRenewedFromTheirFiles) {
    import("a", ListFormat::Domains, 50, "old.example\n");
    import("b", ListFormat::Domains, 40, "kept.example\n");
    fileWith("a.txt", "new.example\n");
    fs::remove(m_directory.file("b.txt"));
    const std::vector<UpdateReport> reports = m_store.update("");
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_TRUE(reports[0].report.has_value());
    EXPECT_FALSE(reports[1].report.has_value());
    EXPECT_NE(reports[1].why.find("b.txt: cannot be opened"), std::string::npos) << reports[1].why;
    EXPECT_EQ(rated("old.example"), "none");
    EXPECT_EQ(rated("new.example"), "50 a");
    EXPECT_EQ(rated("kept.example"), "40 b");
}

TEST_F(RatingLists, AreNotRenewedThroughALink) {
    import("a", ListFormat::Domains, 50, "old.example\n");
    fs::rename(m_directory.file("a.txt"), m_directory.file("other.txt"));
    fs::create_symlink(m_directory.file("other.txt"), m_directory.file("a.txt"));
    EXPECT_FALSE(m_store.update("a")[0].report.has_value());
    EXPECT_EQ(rated("old.example"), "50 a");
}

TEST_F(RatingLists, FromAPipeCannotBeRenewed) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::write(ends[1], "piped.example\n", 14), 14);
    ::close(ends[1]);
    ListHead head = headOf("a", ListFormat::Domains, 50);
    head.file.clear();
    m_store.import(head, ends[0]);
    ::close(ends[0]);
    EXPECT_EQ(rated("piped.example"), "50 a");
    EXPECT_EQ(m_store.update("a")[0].why, "it came from no file; import it again");
}

TEST_F(RatingLists, AreTakenOutOneByOne) {
    import("a", ListFormat::Domains, 50, "both.example\n");
    import("b", ListFormat::Domains, 40, "both.example\n");
    EXPECT_TRUE(m_store.remove("a"));
    EXPECT_EQ(rated("both.example"), "40 b");
    EXPECT_FALSE(m_store.remove("a"));
    EXPECT_TRUE(m_store.remove("b"));
    EXPECT_FALSE(fs::exists(databasePath()));
}

// Otherwise a power cut brings the last list back, and its sites are blocked again.
TEST_F(RatingLists, AreGoneFromTheDiskOnceTheLastOneIsTakenOut) {
    import("a", ListFormat::Domains, 50, "a.example\n");
    bool isGoneFromDisk = false;
    g_onDirectorySync = [&](const std::string& directory) {
        isGoneFromDisk = isGoneFromDisk || (fs::equivalent(directory, listsDirectory()) &&
                                            !fs::exists(databasePath()) && !fs::exists(listsDirectory() + "/a.list"));
    };
    m_store.remove("a");
    g_onDirectorySync = nullptr;
    EXPECT_TRUE(isGoneFromDisk);
}

TEST_F(RatingLists, OfAFileFromBefore1970AreAsOldAsCanBe) {
    import("a", ListFormat::Domains, 50, "a.example\n");
    const timespec times[2] = {{0, UTIME_OMIT}, {-2'000'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, m_directory.file("a.txt").c_str(), times, 0), 0);
    const UpdateReport update = m_store.update("a").at(0);
    ASSERT_TRUE(update.report.has_value()) << update.why;
    EXPECT_EQ(update.report->facts.date, std::chrono::sys_seconds());
    EXPECT_EQ(rated("a.example"), "50 a");
}

TEST_F(RatingLists, WithADateThatNoClockHasAreRefused) {
    ListHead head = headOf("a", ListFormat::Domains, 50);
    head.facts.date = kLatestDate;
    EXPECT_EQ(readListHead(textOf(head)).facts.date, kLatestDate);
    const DatabaseHead whole{{}, {head.facts}, {{}}};
    EXPECT_EQ(readDatabaseHead(textOf(whole)).lists.at(0).date, kLatestDate);
    const std::string date = "\"date\":" + std::to_string(kLatestDate.time_since_epoch().count());
    for (const char* wrong : {"8589934593", "-1", "9223372036854775807", "-9223372036854775808", "18446744073709551615",
                              "1e300", "1.5", "\"1\""}) {
        for (const auto& [text, read] : {std::pair<std::string, void (*)(const std::string&)>{
                                             textOf(head), [](const std::string& each) { readListHead(each); }},
                                         {textOf(whole), [](const std::string& each) { readDatabaseHead(each); }}}) {
            std::string damaged = text;
            damaged.replace(damaged.find(date), date.size(), std::string("\"date\":") + wrong);
            EXPECT_NE(refusal([&, reader = read] { reader(damaged); }).find("it is damaged: its"), std::string::npos)
                << damaged;
        }
    }
}

TEST_F(RatingLists, OfAZoneTellWhereABracketIsOpenedAndNeverClosed) {
    const ListReport report = import("a", ListFormat::Rpz, 50,
                                     "a.test CNAME .\n@ IN SOA localhost. root. ( 1 2\n 3 4 5\nb.test CNAME .\n"
                                     "c.test CNAME .\n");
    EXPECT_EQ(report.facts.count, 1U);
    EXPECT_EQ(report.bad, 1U);
    ASSERT_EQ(report.firstBad.size(), 1U);
    EXPECT_EQ(report.firstBad[0].number, 2U);
    EXPECT_EQ(report.firstBad[0].fault, "opens a bracket that nothing closes: what is behind it counts as its part");
}

TEST_F(RatingLists, OfAZoneTellOfAnOpenBracketBesidesManyBadLines) {
    std::string content = "a.test CNAME .\n";
    for (int line = 0; line < 20; ++line) {
        content += "bad.test\n";
    }
    const ListReport report = import("a", ListFormat::Rpz, 50, content + "b.test A (\n");
    EXPECT_EQ(report.bad, 21U);
    ASSERT_EQ(report.firstBad.size(), kToldBadLines);
    EXPECT_EQ(report.firstBad.back().number, 22U);
}

TEST_F(RatingLists, SayThatTheLastOneStaysInUse) {
    import("a", ListFormat::Domains, 50, "a.example\n");
    fs::remove(databasePath());
    fs::create_directory(databasePath());
    EXPECT_NE(refusal([this] { m_store.remove("a"); }).find("cannot be removed: its lists go on being used"),
              std::string::npos);
}

TEST_F(RatingLists, KeepWhatWasSaidOfThem) {
    ListHead head = headOf("a", ListFormat::Hosts, -100);
    head.facts.source = "https://lists.example/\xFF";
    head.facts.licence = "CC0";
    head.facts.categories = {"Games", "News"};
    head.facts.isPhishing = true;
    fileWith("a.txt", "0.0.0.0 a.example\n");
    m_store.import(head, -1);
    const std::vector<ListHead> lists = m_store.lists();
    ASSERT_EQ(lists.size(), 1U);
    EXPECT_EQ(lists[0].facts.source, "https://lists.example/\\xff");
    EXPECT_EQ(lists[0].facts.licence, "CC0");
    EXPECT_EQ(lists[0].facts.categories, head.facts.categories);
    EXPECT_EQ(lists[0].facts.rating, -100);
    EXPECT_TRUE(lists[0].facts.isPhishing);
    EXPECT_EQ(lists[0].facts.count, 1U);
    EXPECT_EQ(lists[0].format, ListFormat::Hosts);
    EXPECT_EQ(lists[0].file, fs::canonical(head.file));
}

TEST_F(RatingLists, CanBeReadByEveryUserAndWrittenByOne) {
    const mode_t before = ::umask(077);
    import("a", ListFormat::Domains, 50, "a.example\n");
    ::umask(before);
    struct stat facts {};
    ::stat(databasePath().c_str(), &facts);
    EXPECT_EQ(facts.st_mode & 07777, 0644U);
    ::stat(listsDirectory().c_str(), &facts);
    EXPECT_EQ(facts.st_mode & 07777, 0755U);
}

TEST_F(RatingLists, AreChangedByOneAtATime) {
    import("a", ListFormat::Domains, 50, "a.example\n");
    const int lock = ::open((listsDirectory() + "/.lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    EXPECT_EQ(refusal([this] { m_store.remove("a"); }), "another change of the rating lists is going on");
    ::close(lock);
    EXPECT_TRUE(m_store.remove("a"));
}

TEST_F(RatingLists, SayWhichKeptListIsDamaged) {
    import("a", ListFormat::Domains, 50, "a.example\nb.example\n");
    const std::string path = listsDirectory() + "/a.list";
    const std::string whole = contentOf(path);
    for (const std::string& damaged :
         std::vector<std::string>{"", whole.substr(0, 20), whole + "3example a\n", whole + "x\n", whole + "zzz\n",
                                  "{}\n", "{\"form\": 2}\n"}) {
        std::ofstream(path, std::ios::binary) << damaged;
        EXPECT_NE(refusal([this] { import("b", ListFormat::Domains, 50, "c.example\n"); }).find("a.list: it "),
                  std::string::npos)
            << damaged;
    }
}

} // namespace
} // namespace testing_support
