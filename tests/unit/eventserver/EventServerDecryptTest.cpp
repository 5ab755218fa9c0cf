// The requests that the event server answers with a text in clear.
#include "tests/unit/eventserver/EventServerFixture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace testing_support;

namespace {

struct ADecryptRequest : AnEventServer {
    ADecryptRequest() { start(); }
    static std::string replyOf(const std::string& clearText) {
        std::string reply = clearText;
        reply.resize(1024, '\0');
        return reply;
    }
};

TEST_F(ADecryptRequest, IsAnsweredWith1024BytesOfTextAndZeroes) {
    EXPECT_EQ(exchange(std::string("Decrypt secret\0", 15)), replyOf("clear secret"));
    EXPECT_EQ(agent.calls(), (Lines{"createInstance", "decryptMessage secret"}));
    EXPECT_TRUE(tracedRecords().empty());
}

TEST_F(ADecryptRequest, WithoutATerminatorEndsWhereItEnds) {
    EXPECT_EQ(exchange("Decrypt secret"), replyOf("clear secret"));
}

TEST_F(ADecryptRequest, EndsAtItsTerminatorWhateverIsBehind) {
    EXPECT_EQ(exchange(std::string("Decrypt secret\0more", 19)), replyOf("clear secret"));
}

TEST_F(ADecryptRequest, SeesNothingOfAnEarlierLongerOne) {
    exchange("Decrypt " + std::string(1016, 's'));
    EXPECT_EQ(exchange("Decrypt x"), replyOf("clear x"));
}

TEST_F(ADecryptRequest, WithNoTextAsksForNothing) {
    EXPECT_EQ(exchange("Decrypt "), replyOf("clear "));
    EXPECT_EQ(agent.calls().back(), "decryptMessage ");
}

TEST_F(ADecryptRequest, OfTheLargestSizeIsReadWhole) {
    agent.decrypt = [](const std::string& text) { return text; };
    EXPECT_EQ(exchange("Decrypt " + std::string(1016, 'x')), replyOf(std::string(1016, 'x')));
    exchange("Decrypt " + std::string(1016, 'x') + "yyy");
    EXPECT_EQ(agent.calls().back(), "decryptMessage " + std::string(1016, 'x'));
}

TEST_F(ADecryptRequest, WhoseClearTextIsLongerThanTheReplyIsCutAtItsEnd) {
    agent.decrypt = [](const std::string&) { return std::string(2000, 'c'); };
    EXPECT_EQ(exchange("Decrypt x"), std::string(1024, 'c'));
}

TEST_F(ADecryptRequest, WhoseClearTextHoldsATerminatorEndsThere) {
    agent.decrypt = [](const std::string&) { return std::string("clear\0hidden", 12); };
    EXPECT_EQ(exchange("Decrypt x"), replyOf("clear"));
}

TEST_F(ADecryptRequest, IsAnsweredWithZeroesWithoutAnAgent) {
    agent.present = false;
    EXPECT_EQ(exchange("Decrypt x"), replyOf(""));
}

TEST_F(ADecryptRequest, IsAnsweredWithZeroesWhenTheAgentThrows) {
    agent.decrypt = [](const std::string&) -> std::string { throw std::runtime_error("bad text"); };
    EXPECT_EQ(exchange("Decrypt x"), replyOf(""));
}

TEST_F(ADecryptRequest, IsKnownByItsFirstEightBytesAlone) {
    std::string event = bytesOf(record("Decrypt ", kDropped, "p"));
    EXPECT_EQ(exchange(event), replyOf("clear "));
    for (const char* other : {"Decrypt", "decrypt x", "Decrypt\tx", " Decrypt x", "DecryptX"}) {
        EXPECT_EQ(exchange(other), "") << other;
    }
    EXPECT_EQ(count(kHeader), 5u);
}

TEST_F(ADecryptRequest, TracesItsTextAtLevelFourAndNotBelow) {
    exchange("Decrypt secret\n");
    EXPECT_EQ(count("STEventServer::processSocketEvent - encPass: secret\\x0a"), 1u);
    ipcFlowvalue = 3;
    exchange("Decrypt secret\n");
    EXPECT_EQ(count("STEventServer::processSocketEvent - encPass: "), 1u);
}

TEST_F(ADecryptRequest, OfAClientThatHasGoneDoesNotEndTheDaemon) {
    const Client silent(root.eventSocket());
    ASSERT_TRUE(eventuallyTraced("STEventServer::processSocketEvent - Going to read data from socket"));
    Client gone(root.eventSocket());
    EXPECT_TRUE(gone.send("Decrypt secret"));
    gone.hangUp(); // while the server waits for the first one
    EXPECT_TRUE(silent.send("x"));
    expectService();
    EXPECT_EQ(agent.calls()[1], "decryptMessage secret");
}

TEST_F(ADecryptRequest, WhoseHandlingThrowsIsTracedAndTheNextOneServed) {
    agent.before = [this](const std::string& call) {
        if (call == "createInstance" && agent.calls().size() == 1) {
            throw std::runtime_error("no agent library");
        }
    };
    Client unlucky(root.eventSocket());
    EXPECT_TRUE(unlucky.send("Decrypt x"));
    expectService();
    EXPECT_EQ(count("STEventServer::processSocketEvent - Got unkown excpetion "), 1u);
}

} // namespace
