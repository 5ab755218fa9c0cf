// Connections to the event server and the records that come over them, of every length.
#include "tests/unit/eventserver/EventServerFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <utility>

using namespace testing_support;
using Sentrel::STEventServer;

namespace {

TEST_F(AnEventServer, OutlivesAClientThatConnectsAndCloses) {
    start();
    Client(root.eventSocket()).hangUp();
    EXPECT_TRUE(eventuallyTraced(
        "STEventServer::processSocketEvent - nothing to read from connection so closing session with client"));
    expectService();
    EXPECT_TRUE(tracedRecords().empty());
}

TEST_F(AnEventServer, ClosesTheConnectionBehindAnEventAndSendsNothingBack) {
    start();
    EXPECT_EQ(exchange(bytesOf(record("1", kDropped, "p"))), "");
    expectService();
}

TEST_F(AnEventServer, TracesAConnectionLineByLine) {
    start();
    ASSERT_TRUE(waitsInSelect());
    const std::size_t before = log.lines().size();
    const STEventData event = record("42", kDropped, "safari");
    exchange(bytesOf(event));
    ASSERT_TRUE(waitsInSelect(2));
    Lines lines = log.lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    ASSERT_GT(lines.size(), 8u);
    const auto numberOf = [](const std::string& line) { return line.substr(line.rfind(' ') + 1); };
    const std::string client = numberOf(lines[4]);
    Lines expected{"STEventServer::monitorFd - select returned 1",
                   "STEventServer::run - FD is set so read the data from socket",
                   "STEventServer::processSocketEvent - Entered",
                   "STEventServer::processSocketEvent - Going to accept a connection from client",
                   "STEventServer::processSocketEvent - Going to read data from socket with clientFD " + client,
                   "STEventServer::processSocketEvent - Server Received: 42 at " + client};
    expected =
        expected + recordLines(event) +
        Lines{"EventReporter::sendSTEvent - Invoked ", "EventReporter::sendBlockEventToHVB - Invoked ", lines.back()};
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(lines.back().rfind("STEventServer::monitorFd - Inside while blocking on Select for fd ", 0), 0u);
}

TEST_F(AnEventServer, TracesTheFrameOfARecordAtLevelThreeAndItsFieldsAtFour) {
    start();
    const STEventData event = record("42", kDropped, "safari");
    ipcFlowvalue = 3;
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords(), (Lines{kHeader, kEnd}));
    EXPECT_EQ(count("STEventServer::processSocketEvent - Server Received"), 0u);
    ipcFlowvalue = 2;
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords(), (Lines{kHeader, kEnd}));
    ipcFlowvalue = 4;
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords().size(), 2u + 12u);
}

TEST_F(AnEventServer, ServesOneClientAfterTheOther) {
    start();
    const Client silent(root.eventSocket());
    ASSERT_TRUE(eventuallyTraced("STEventServer::processSocketEvent - Going to read data from socket"));
    const STEventData second = record("second", kDropped, "p");
    const Client next(root.eventSocket());
    EXPECT_TRUE(next.send(bytesOf(second))); // is there in full before the first one has said anything
    const STEventData first = record("first", kDropped, "p");
    EXPECT_TRUE(silent.send(bytesOf(first)));
    EXPECT_EQ(next.readToTheEnd(), "");
    EXPECT_EQ(tracedRecords(), recordLines(first) + recordLines(second));
}

TEST_F(AnEventServer, HandsAnEventToTheReporter) {
    start();
    exchange(bytesOf(record("1", "http://bad.example/page", "firefox")));
    STEventServer::releaseInstance(); // its thread has ended
    ASSERT_FALSE(hub.logs.empty());
    EXPECT_EQ(hub.logs.front().sourceId, 7);
    EXPECT_NE(hub.logs.front().detailText.find(L"http://bad.example/page"), std::wstring::npos);
}

// --- messages of every length -------------------------------------------------------------------------------------

TEST_F(AnEventServer, FillsAShortRecordWithZeroes) {
    start();
    STEventData secret{};
    std::memset(&secret, 'S', sizeof secret);
    const std::string whole = bytesOf(record("0123456789abcde", std::string(271, 'u'), std::string(63, 'p')));
    Lines expected;
    for (std::size_t length = 1; length < kEventRecordBytes; ++length) {
        exchange(bytesOf(secret));
        exchange(whole.substr(0, length));
        for (const STEventData& event : {secret, recordOf(whole.substr(0, length))}) {
            expected = std::move(expected) + recordLines(event);
        }
    }
    EXPECT_EQ(tracedRecords(), expected);
}

TEST_F(AnEventServer, TakesARecordOfExactlyItsLengthWhole) {
    start();
    const STEventData event = record("0123456789abcdef", std::string(272, 'u'), std::string(64, 'p')); // no terminators
    exchange(bytesOf(event));
    EXPECT_EQ(tracedRecords(), recordLines(event));
}

TEST_F(AnEventServer, CountsOnlyTheFirst392BytesOfALongerMessage) {
    start();
    const STEventData event = record("long", kDropped, "p");
    for (const std::size_t more : {1u, 500u, 632u}) {
        exchange(bytesOf(event) + std::string(more, 'x'));
    }
    Lines expected;
    for (int round = 0; round < 3; ++round) {
        expected = expected + recordLines(event);
    }
    EXPECT_EQ(tracedRecords(), expected);
}

TEST_F(AnEventServer, IgnoresWhatIsBehind1024Bytes) {
    start();
    const STEventData event = record("longest", kDropped, "p");
    const STEventData lost = record("lost", kDropped, "p");
    std::string message = bytesOf(event);
    message.resize(1024, 'x');
    exchange(message + bytesOf(lost));
    EXPECT_EQ(tracedRecords(), recordLines(event));
    expectService();
}

TEST_F(AnEventServer, TracesTextsThatAreNoUtf8OnOneLineEach) {
    start();
    exchange(bytesOf(record("a\nb", "Caf\xC3\xA9 \xFF\x1B[2J", "p\x80")));
    const Lines lines = tracedRecords();
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines[1], "STEventServer::processSocketEvent - Event ID - a\\x0ab ");
    EXPECT_EQ(lines[2], "STEventServer::processSocketEvent - URL - Caf\xC3\xA9 \\xff\\x1b[2J ");
    EXPECT_EQ(lines[3], "STEventServer::processSocketEvent - BrowserProcess Name - p\\x80 ");
    EXPECT_EQ(count("STEventServer::processSocketEvent - Server Received: a\\x0ab at "), 1u);
}

TEST_F(AnEventServer, OutlivesRandomBytes) {
    start();
    std::mt19937 random(20240229);
    for (int round = 0; round < 300; ++round) {
        std::string message(1 + random() % 1500, '\0');
        std::generate(message.begin(), message.end(), [&random] { return static_cast<char>(random()); });
        exchange(message);
    }
    EXPECT_EQ(count(kHeader), 300u);
    expectService();
}

} // namespace
