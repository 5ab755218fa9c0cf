// The record keeper on a real bus with a spool on a real disk. The hub behind it is a double that keeps its answers to
// itself or refuses, as it is told.
#include "platform/hvbhelpers/RecordKeeper.h"
#include "hub/Exceptions.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeHub.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;
using HVB::detail::kSpoolDataOffset;
using HVB::detail::RecordKeeper;

class ARecordKeeper : public testing::Test {
protected:
    std::unique_ptr<RecordKeeper> make(std::size_t spoolBytes = HVB::detail::kSpoolFileBytes) {
        auto keeper = std::make_unique<RecordKeeper>(
            bus.socketPath(), spool,
            [this](const std::string& line) {
                const std::lock_guard lock(mutex);
                said.push_back(line);
            },
            spoolBytes);
        keeper->begin();
        return keeper;
    }

    static void hand(RecordKeeper& keeper, const std::wstring& text) {
        HVB::LogRequest request;
        request.m_sourceId = 7;
        request.m_logType = HVB::LOG_TYPE_BROWSER_EVENT;
        request.m_text = text;
        request.m_detailText = L"detail of " + text;
        request.m_count = 3;
        keeper.hand(request);
    }

    /// The code of what hand throws; 0 when it takes the record.
    static int refusal(RecordKeeper& keeper, const std::wstring& text) {
        try {
            hand(keeper, text);
            return 0;
        } catch (const HVB::HVBException& error) {
            return error.code();
        }
    }

    static std::vector<std::wstring> texts(FakeHub& hub) {
        std::vector<std::wstring> found;
        for (const FakeHub::Record& record : hub.records()) {
            found.push_back(record.text);
        }
        return found;
    }

    std::vector<std::string> lines() {
        const std::lock_guard lock(mutex);
        return said;
    }

    PrivateRoot root;
    HubBus bus{root};
    const std::string spool = root.varDirectory() + "/reports.spool";
    std::mutex mutex;
    std::vector<std::string> said;
};

TEST_F(ARecordKeeper, SendsARecordWithItsNumberAndWaitsForTheAnswer) {
    FakeHub hub(bus.socketPath());
    const auto keeper = make();
    hand(*keeper, L"one");
    hand(*keeper, L"two");
    const auto records = hub.records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].number, 1U);
    EXPECT_EQ(records[1].number, 2U);
    EXPECT_NE(records[0].instance, 0U);
    EXPECT_EQ(records[0].instance, records[1].instance);
    EXPECT_EQ(records[0].source, 7);
    EXPECT_EQ(records[0].type, 8);
    EXPECT_EQ(records[0].text, L"one");
    EXPECT_EQ(records[0].detail, L"detail of one");
    EXPECT_EQ(records[0].count, 3);
    EXPECT_EQ(keeper->counts().waiting, 0U);
}

TEST_F(ARecordKeeper, KeepsRecordsUntilTheHubIsThereAndDeliversThemInOrder) {
    const auto keeper = make();
    for (const wchar_t* text : {L"one", L"two", L"three"}) {
        hand(*keeper, text);
    }
    EXPECT_EQ(keeper->counts().waiting, 3U);
    FakeHub hub(bus.socketPath());
    ASSERT_TRUE(eventually([&] { return keeper->counts().waiting == 0; }));
    EXPECT_EQ(texts(hub), (std::vector<std::wstring>{L"one", L"two", L"three"}));
    hand(*keeper, L"four");
    EXPECT_EQ(texts(hub).back(), L"four") << "at once again";
}

TEST_F(ARecordKeeper, WaitsForAHubThatDoesNotAnswerOnce) {
    auto hub = std::make_unique<FakeHub>(bus.socketPath());
    hub->fallSilent();
    const auto keeper = make();
    hand(*keeper, L"one");
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) {
        hand(*keeper, L"more");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, HVB::bus::kCallTimeout);
    EXPECT_EQ(keeper->counts().waiting, 101U);
    hub.reset();
    FakeHub next(bus.socketPath());
    ASSERT_TRUE(eventually([&] { return keeper->counts().waiting == 0; }));
    EXPECT_EQ(next.records().size(), 101U);
    EXPECT_EQ(next.records().front().number, 1U) << "the number of its first sending";
}

TEST_F(ARecordKeeper, GivesEachLifeOfTheProcessAnInstanceAndKeepsThatOfWhatWaits) {
    make()->end();
    hand(*make(), L"one");
    const auto keeper = make();
    hand(*keeper, L"two");
    FakeHub hub(bus.socketPath());
    ASSERT_TRUE(eventually([&] { return hub.records().size() == 2; }));
    EXPECT_NE(hub.records()[0].instance, hub.records()[1].instance);
    EXPECT_EQ(hub.records()[1].number, 1U);
}

TEST_F(ARecordKeeper, ThrowsWhenItsSpoolIsFullAndSaysSoOnce) {
    const auto keeper = make(kSpoolDataOffset + 256);
    while (refusal(*keeper, L"text") == 0) {
    }
    EXPECT_EQ(refusal(*keeper, L"text"), -ENOSPC);
    EXPECT_EQ(keeper->counts().refusedFull, 2U);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"reports are lost while the hub is away: the spool of reports is full"});
    const FakeHub hub(bus.socketPath());
    ASSERT_TRUE(eventually([&] { return keeper->counts().waiting == 0; }));
    EXPECT_EQ(refusal(*keeper, L"text"), 0);
}

TEST_F(ARecordKeeper, ThrowsWhenTheHubWillNeverStoreTheRecord) {
    FakeHub hub(bus.socketPath());
    hub.refuse(HVB::bus::kErrorLogRefused);
    const auto keeper = make();
    EXPECT_NE(refusal(*keeper, L"text"), 0);
    EXPECT_EQ(keeper->counts().waiting, 0U);
    EXPECT_EQ(keeper->counts().refusedByHub, 1U);
    EXPECT_EQ(refusal(*keeper, std::wstring(HVB::bus::kMaxTextBytes, L'x')), -EMSGSIZE);
}

TEST_F(ARecordKeeper, DropsAWaitingRecordThatTheHubWillNeverStoreAndGoesOn) {
    const auto keeper = make();
    for (int i = 0; i < 3; ++i) {
        hand(*keeper, L"text");
    }
    FakeHub hub(bus.socketPath(), HVB::bus::kErrorLogRefused);
    ASSERT_TRUE(eventually([&] { return keeper->counts().waiting == 0; }));
    EXPECT_EQ(keeper->counts().refusedByHub, 3U);
    EXPECT_EQ(lines(), std::vector<std::string>{"a report that waited is dropped: the hub will never store it"});
    hub.refuse("");
    hand(*keeper, L"next");
    EXPECT_EQ(texts(hub), std::vector<std::wstring>{L"next"});
}

TEST_F(ARecordKeeper, KeepsWhatTheHubCannotStoreNow) {
    FakeHub hub(bus.socketPath(), HVB::bus::kErrorLogStore);
    const auto keeper = make();
    hand(*keeper, L"one");
    hand(*keeper, L"two");
    EXPECT_EQ(keeper->counts().waiting, 2U);
    hub.refuse("");
    ASSERT_TRUE(eventually([&] { return keeper->counts().waiting == 0; }));
    EXPECT_EQ(texts(hub), (std::vector<std::wstring>{L"one", L"two"}));
}

TEST_F(ARecordKeeper, GoesOnTakingRecordsWhenDeliveringHasEnded) {
    const auto keeper = make();
    keeper->end();
    hand(*keeper, L"one");
    EXPECT_EQ(keeper->counts().waiting, 1U);
    FakeHub hub(bus.socketPath());
    hand(*keeper, L"two");
    EXPECT_EQ(keeper->counts().waiting, 2U) << "behind the one that waits";
    keeper->begin();
    ASSERT_TRUE(eventually([&] { return keeper->counts().waiting == 0; }));
    EXPECT_EQ(texts(hub), (std::vector<std::wstring>{L"one", L"two"}));
}

/// The end of the process and the loss of the module's name may come at once, each on a thread of its own.
TEST_F(ARecordKeeper, MayBeEndedByTwoThreadsAtOnce) {
    const auto keeper = make();
    constexpr int rounds = 200;
    for (int round = 0; round < rounds; ++round) {
        keeper->begin();
        std::thread other([&keeper] { keeper->end(); });
        keeper->end();
        other.join();
    }
    EXPECT_EQ(keeper->counts().waiting, 0U);
}

TEST_F(ARecordKeeper, DropsAWaitingRecordThatMakesNoSense) {
    {
        HVB::detail::SpoolFile file(spool);
        file.append("nonsense");
    }
    FakeHub hub(bus.socketPath());
    const auto keeper = make();
    ASSERT_TRUE(eventually([&] { return keeper->counts().waiting == 0; }));
    EXPECT_EQ(keeper->counts().damaged, 1U);
    hand(*keeper, L"next");
    EXPECT_EQ(texts(hub), std::vector<std::wstring>{L"next"});
}

TEST(APackedRecord, ComesBackWithEveryField) {
    const HVB::detail::NumberedRecord record{
        UINT64_MAX, 2, -3, 4, -5, std::string("a\0\0\0", 4), std::string("\xFF\xFF\xFF\xFF", 4)};
    const std::string packed = HVB::detail::packRecord(record);
    const auto back = HVB::detail::unpackRecord(packed);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->instance, UINT64_MAX);
    EXPECT_EQ(back->number, 2U);
    EXPECT_EQ(back->source, -3);
    EXPECT_EQ(back->type, 4);
    EXPECT_EQ(back->count, -5);
    EXPECT_EQ(back->text, record.text);
    EXPECT_EQ(back->detail, record.detail);
    for (std::size_t size = 0; size < 33; ++size) {
        EXPECT_FALSE(HVB::detail::unpackRecord(packed.substr(0, size))) << size;
    }
}

} // namespace
