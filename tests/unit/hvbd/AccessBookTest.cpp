// Requests and grants as they are written down. Real: the file.
#include "apps/hvbd/AccessBook.h"

#include "apps/hvbd/HvbdLimits.h"
#include "base/Database.h"
#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace HVB::hub;
using HVB::bus::RequestState;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;
constexpr uid_t kRoot = 0;

class AnAccessBook : public testing::Test {
    testing_support::TemporaryDirectory m_directory;

protected:
    std::string m_path = m_directory.path().string() + "/requests.db";
    AccessBook m_book{m_path};

    std::vector<std::uint64_t> idsOf(std::optional<uid_t> user = std::nullopt) {
        std::vector<std::uint64_t> ids;
        for (const auto& request : m_book.requests(0, 2000, user)) {
            ids.push_back(request.id);
        }
        return ids;
    }
    /// A grant of this entry that is in force.
    std::uint64_t grant(const std::string& entry, std::int64_t until, EntryStanding before = {}) {
        const std::uint64_t request = m_book.ask(kAlice, "http://" + entry + "/" + std::to_string(++m_asked), "", 1);
        const std::uint64_t id = m_book.beginGrant({request, entry, until, before}, kRoot, 2);
        m_book.confirmGrant(id, 3);
        return id;
    }
    std::string refusalOf(const std::function<void()>& work) {
        try {
            work();
        } catch (const AccessRefused& refused) {
            return refused.what();
        }
        return "not refused";
    }
    int m_asked = 0;
};

TEST_F(AnAccessBook, HasNoFileBeforeTheFirstRequest) {
    EXPECT_THAT(idsOf(), IsEmpty());
    EXPECT_THAT(m_book.due(100), IsEmpty());
    EXPECT_EQ(m_book.nextEnd(), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(m_path));
    m_book.ask(kAlice, "http://a.example/", "", 1);
    EXPECT_EQ(std::filesystem::status(m_path).permissions(), std::filesystem::perms(0640));
}

TEST_F(AnAccessBook, KeepsWhatWasAskedForTheNextStart) {
    const std::uint64_t id = m_book.ask(kAlice, "http://a.example/\xC3\xBC", "for \"work\"", 7);
    AccessBook next(m_path);
    const auto requests = next.requests(0, 10, kAlice);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0], (HVB::bus::AccessRequest{id, kAlice, 7, "http://a.example/\xC3\xBC", "for \"work\"",
                                                    RequestState::Open, 0, "", 0}));
}

TEST_F(AnAccessBook, GivesAUserItsOwnRequestsAlone) {
    const std::uint64_t first = m_book.ask(kAlice, "http://a.example/", "", 1);
    const std::uint64_t second = m_book.ask(kBob, "http://a.example/", "", 2);
    EXPECT_THAT(idsOf(kAlice), ElementsAre(first));
    EXPECT_THAT(idsOf(kBob), ElementsAre(second));
    EXPECT_THAT(idsOf(), ElementsAre(first, second));
}

TEST_F(AnAccessBook, TakesAnOpenRequestForTheSamePageOnce) {
    const std::uint64_t id = m_book.ask(kAlice, "http://a.example/", "please", 1);
    EXPECT_EQ(m_book.ask(kAlice, "http://a.example/", "again", 2), id);
    m_book.deny(id, "no", kRoot, 3);
    EXPECT_NE(m_book.ask(kAlice, "http://a.example/", "again", 4), id);
}

TEST_F(AnAccessBook, TakesTwentyOpenRequestsOfAUser) {
    for (int at = 0; at < kMaxOpenRequestsOfUser; ++at) {
        m_book.ask(kAlice, "http://a.example/" + std::to_string(at), "", at);
    }
    EXPECT_THAT(refusalOf([&] { m_book.ask(kAlice, "http://b.example/", "", 30); }), HasSubstr("20 requests"));
    EXPECT_EQ(idsOf().size(), 20U);
    m_book.ask(kBob, "http://b.example/", "", 31);
    m_book.deny(1, "", kRoot, 32);
    m_book.ask(kAlice, "http://b.example/", "", 33);
}

TEST_F(AnAccessBook, ForgetsTheRequestThatWasAnsweredFirstWhenItIsFull) {
    m_book.ask(0, "http://a.example/", "", 1);
    // Each one by ask() would wait for the disk a thousand times.
    Sentrel::execute(*Sentrel::openDatabase(m_path),
                     "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 999)"
                     " INSERT INTO request(user, asked_at, url, reason) SELECT i / 20, 1, i, '' FROM n");
    EXPECT_THAT(refusalOf([&] { m_book.ask(5000, "http://a.example/", "", 2); }), HasSubstr("1000 requests"));
    m_book.deny(8, "", kRoot, 3);
    m_book.deny(4, "", kRoot, 4);
    const std::uint64_t newest = m_book.ask(5000, "http://a.example/", "", 5);
    const std::vector<std::uint64_t> ids = idsOf();
    EXPECT_EQ(ids.size(), 1000U);
    EXPECT_EQ(ids.back(), newest);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 8), 0);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 4), 1);
}

TEST_F(AnAccessBook, AnswersARequestOnce) {
    const std::uint64_t id = m_book.ask(kAlice, "http://a.example/", "", 1);
    m_book.deny(id, "not here", kRoot, 5);
    EXPECT_EQ(refusalOf([&] { m_book.deny(id, "", kRoot, 6); }), "request 1 was denied already");
    EXPECT_EQ(refusalOf([&] { m_book.openRequest(id); }), "request 1 was denied already");
    EXPECT_THAT(refusalOf([&] { m_book.deny(9, "", kRoot, 6); }), HasSubstr("there is no request 9"));
    EXPECT_THAT(refusalOf([&] { m_book.deny(~std::uint64_t{0}, "", kRoot, 6); }), HasSubstr("there is no request"));
    const auto denied = m_book.requests(0, 1).front();
    EXPECT_EQ(denied.answer, "not here");
    EXPECT_EQ(denied.answeredAt, 5);
}

TEST_F(AnAccessBook, LeavesARequestOpenUntilItsEntryIsThere) {
    const std::uint64_t request = m_book.ask(kAlice, "http://a.example/", "", 1);
    const std::uint64_t id = m_book.beginGrant({request, "a.example", 50, {}}, kRoot, 2);
    EXPECT_EQ(m_book.requests(0, 1).front().state, RequestState::Open);
    EXPECT_THAT(m_book.grants(0, 10), IsEmpty());
    m_book.confirmGrant(id, 3);
    const auto granted = m_book.requests(0, 1).front();
    EXPECT_EQ(granted.state, RequestState::Granted);
    EXPECT_EQ(granted.answer, "a.example");
    EXPECT_EQ(granted.until, 50);
    EXPECT_THAT(m_book.grants(0, 10),
                ElementsAre(HVB::bus::AccessGrant{id, request, kAlice, "a.example", 2, 50, false}));
}

TEST_F(AnAccessBook, HasAGrantThatWasNeverConfirmedEndAtTheNextStart) {
    const std::uint64_t request = m_book.ask(kAlice, "http://a.example/", "", 1);
    const std::uint64_t id = m_book.beginGrant({request, "a.example", 0, {true, 3}}, kRoot, 2);
    AccessBook next(m_path);
    EXPECT_LE(next.nextEnd().value_or(99), 1);
    EXPECT_THAT(next.due(3), ElementsAre(GrantEnd{id, "a.example", {true, 3}}));
}

TEST_F(AnAccessBook, TellsWhichGrantsAreOver) {
    const std::uint64_t late = grant("late.example", 90);
    const std::uint64_t soon = grant("soon.example", 60);
    grant("good.example", 0);
    EXPECT_EQ(m_book.nextEnd(), 60);
    EXPECT_THAT(m_book.due(59), IsEmpty());
    EXPECT_THAT(m_book.due(60), ElementsAre(GrantEnd{soon, "soon.example", {}}));
    m_book.takeOff(m_book.due(60));
    EXPECT_EQ(m_book.nextEnd(), 90);
    EXPECT_THAT(m_book.due(1000), ElementsAre(GrantEnd{late, "late.example", {}}));
}

TEST_F(AnAccessBook, HasARevokedGrantEndAtOnce) {
    const std::uint64_t id = grant("a.example", 0);
    EXPECT_EQ(m_book.nextEnd(), std::nullopt);
    m_book.endGrant(id, 40);
    EXPECT_EQ(m_book.due(41).size(), 1U);
    EXPECT_TRUE(m_book.grants(0, 1).front().isEnding);
    EXPECT_EQ(m_book.requests(0, 1).front().until, 40) << "the user sees that it is over";
    EXPECT_THAT(refusalOf([&] { m_book.endGrant(77, 41); }), HasSubstr("there is no grant 77"));
}

TEST_F(AnAccessBook, RemembersWhatWasThereBeforeTheFirstOfTwoGrantsOfAnEntry) {
    grant("a.example", 60, {true, 1});
    const std::uint64_t second = grant("a.example", 90, {true, 0});
    EXPECT_THAT(m_book.due(1000), ElementsAre(GrantEnd{second, "a.example", {true, 1}}));
}

// A second grant that came to nothing: its entry is the first one's, which goes on.
TEST_F(AnAccessBook, LeavesAGrantInForceWhenAnotherOfItsEntryFails) {
    grant("a.example", 60);
    const std::uint64_t request = m_book.ask(kBob, "http://a.example/", "", 1);
    const std::uint64_t failed = m_book.beginGrant({request, "a.example", 90, {true, 0}}, kRoot, 4);
    EXPECT_THAT(m_book.due(5), ElementsAre(GrantEnd{failed, "a.example", {true, 0}})) << "it takes nothing out";
    m_book.takeOff(m_book.due(5));
    EXPECT_THAT(m_book.due(60), ElementsAre(GrantEnd{1, "a.example", {}}));
}

TEST_F(AnAccessBook, TakesAnEntryOutWhenAllOfItsGrantsAreOver) {
    const std::uint64_t first = grant("a.example", 60);
    const std::uint64_t request = m_book.ask(kBob, "http://a.example/", "", 1);
    const std::uint64_t failed = m_book.beginGrant({request, "a.example", 90, {true, 0}}, kRoot, 4);
    EXPECT_THAT(m_book.due(60), ElementsAre(GrantEnd{first, "a.example", {}}, GrantEnd{failed, "a.example", {}}));
}

// Until its entry is taken out, what a revoked grant left in the list was not allowed by hand.
TEST_F(AnAccessBook, RemembersWhatWasThereBeforeAGrantThatIsBeingTakenOut) {
    m_book.endGrant(grant("a.example", 60, {true, 1}), 10);
    const std::uint64_t second = grant("a.example", 90, {true, 0});
    EXPECT_THAT(m_book.due(1000), ElementsAre(GrantEnd{second, "a.example", {true, 1}}));
}

// The daemon may take a list after hvbd has given up waiting for it.
TEST_F(AnAccessBook, RemembersWhatWasThereBeforeAGrantWhoseEntryCameLate) {
    const std::uint64_t request = m_book.ask(kAlice, "http://a.example/", "", 1);
    m_book.beginGrant({request, "a.example", 50, {}}, kRoot, 2);
    const std::uint64_t again = m_book.beginGrant({request, "a.example", 90, {true, 0}}, kRoot, 3);
    m_book.confirmGrant(again, 4);
    EXPECT_THAT(m_book.due(1000), ElementsAre(GrantEnd{again, "a.example", {}}));
}

TEST_F(AnAccessBook, SaysThatItIsDamagedWhereARowCannotBe) {
    for (const char* const damage : {"UPDATE request SET state = 7", "UPDATE request SET url = x'FF'",
                                     "UPDATE request SET reason = x'6100'", "UPDATE request SET user = -1"}) {
        std::filesystem::remove(m_path);
        AccessBook book(m_path);
        book.ask(kAlice, "http://a.example/", "", 1);
        Sentrel::execute(*Sentrel::openDatabase(m_path), damage);
        try {
            book.requests(0, 10);
            ADD_FAILURE() << "taken: " << damage;
        } catch (const AccessBookError& error) {
            EXPECT_THAT(error.what(), HasSubstr(m_path + " is damaged")) << damage;
        }
    }
}

TEST_F(AnAccessBook, LeavesTheFileOfAnotherProgramAlone) {
    testing_support::writeFile(m_path, "");
    {
        const auto database = Sentrel::openDatabase(m_path);
        Sentrel::execute(*database, "CREATE TABLE theirs(a)");
    }
    EXPECT_THROW(m_book.ask(kAlice, "http://a.example/", "", 1), AccessBookError);
    const auto database = Sentrel::openDatabase(m_path);
    EXPECT_EQ(Sentrel::queryInteger(*database, "SELECT count(*) FROM sqlite_schema"), 1);
}

TEST_F(AnAccessBook, WorksAgainOnceItsDamagedFileWasMovedAway) {
    testing_support::writeFile(m_path, std::string(4096, 'x'));
    try {
        m_book.ask(kAlice, "http://a.example/", "", 1);
        ADD_FAILURE() << "taken";
    } catch (const AccessBookError& error) {
        EXPECT_THAT(error.what(), HasSubstr(m_path + " is damaged"));
    }
    std::filesystem::remove(m_path);
    m_book.ask(kAlice, "http://a.example/", "", 1);
    EXPECT_EQ(idsOf().size(), 1U);
}

} // namespace
