// The commands for the debug logging switch. Not real: the controller and the hub, which record.
#include "hub/Exceptions.h"
#include "tests/unit/hub/CommandHandlerFixture.h"

#include <gmock/gmock.h>

#include <stdexcept>

using namespace testing_support;

namespace {

using testing::IsEmpty;

class ADebugLoggingCommand : public ACommandHandler {
protected:
    /// Every operation of this name fails from now on.
    template <class Exception>
    void failAt(const std::string& operation, const Exception& exception) {
        const auto hook = [operation, exception](const std::string& called) {
            if (called == operation) {
                throw exception;
            }
        };
        store.before = hook;
        hub.before = hook;
    }
    void expectEmptyReply() {
        EXPECT_TRUE(reply().succeeded);
        EXPECT_TRUE(reply().valid);
        EXPECT_FALSE(reply().hasPayload);
    }
};

TEST_F(ADebugLoggingCommand, IsAnsweredWithItsWholeHeader) {
    for (const int id : {1021, 1022}) {
        hub.forget();
        EXPECT_TRUE(deliver(id));
        EXPECT_EQ(reply().header.m_commandId, id);
        EXPECT_EQ(reply().header.m_token, 0x123456789abcdef0U);
        EXPECT_EQ(reply().header.m_sourceId, 4);
        EXPECT_EQ(reply().header.m_sequence, 99);
    }
}

using AGetOfDebugLogging = ADebugLoggingCommand;

TEST_F(AGetOfDebugLogging, AnswersTheStatus) {
    for (const bool status : {true, false}) {
        hub.forget();
        store.debugLogging = status;
        EXPECT_TRUE(deliver(1022));
        EXPECT_TRUE(reply().succeeded);
        EXPECT_TRUE(reply().valid);
        EXPECT_EQ(reply().payload<bool>(), status);
    }
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AGetOfDebugLogging, IsTraced) {
    for (const bool status : {true, false}) {
        store.debugLogging = status;
        EXPECT_EQ(leveled([this] { deliver(1022); }),
                  (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 1022",
                         "1 VXCommandImpl::handleCommand - Recieved CMD_GET_DEBUG_LOGGING_STATUS command",
                         "2 SFCommandImpl::handleGetDebugLoggingStatus- Entered",
                         std::string("3 SFCommandImpl::handleGetDebugLoggingStatus Logging Status = ") +
                             (status ? "ON" : "OFF"),
                         "2 SFCommandImpl::handleGetDebugLoggingStatus - Sent response through HVBCommBroker"}));
    }
}

TEST_F(AGetOfDebugLogging, IsTakenButNotAnsweredWhenTheControllerFails) {
    for (const char* operation : {"getInstance", "get"}) {
        failAt(operation, HVB::HVBException(3, "no configuration"));
        const Lines lines = leveled([this] { EXPECT_TRUE(deliver(1022)); });
        EXPECT_EQ(lines.back(), "1 VXCommandImpl::handleGetDebugLoggingStatus - - Caught generic exception ");
        EXPECT_TRUE(hub.replies.empty());
    }
}

TEST_F(AGetOfDebugLogging, TracesAnExceptionOfThisModuleWithItsMessage) {
    failAt("get", Sentrel::VXException(5, "the\tfifth"));
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(1022)); });
    EXPECT_EQ(lines.back(), "1 VXCommandImpl::handleGetDebugLoggingStatus - Caught exception the\\x09fifth");
    EXPECT_TRUE(hub.replies.empty());
}

TEST_F(AGetOfDebugLogging, IsTakenWhenTheReplyCannotBeSent) {
    failAt("sendCommandResponse", HVB::HVBException(-1, "gone"));
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(1022)); });
    EXPECT_EQ(lines.back(), "1 VXCommandImpl::handleGetDebugLoggingStatus - - Caught generic exception ");
}

using ASetOfDebugLogging = ADebugLoggingCommand;

TEST_F(ASetOfDebugLogging, CallsTheSetterWhenTheStatusDiffers) {
    for (const bool wanted : {true, false}) {
        hub.forget();
        store.calls.clear();
        store.debugLogging = !wanted;
        EXPECT_TRUE(deliver(1021, wanted));
        EXPECT_EQ(store.calls, (Lines{std::string("setDebugLoggingStatus ") + (wanted ? "1" : "0")}));
        expectEmptyReply();
    }
}

TEST_F(ASetOfDebugLogging, LeavesTheSwitchWhenItIsTheCurrentStatus) {
    for (const bool current : {true, false}) {
        hub.forget();
        store.debugLogging = current;
        EXPECT_TRUE(deliver(1021, current));
        EXPECT_THAT(store.calls, IsEmpty());
        expectEmptyReply();
    }
}

TEST_F(ASetOfDebugLogging, WithoutAPayloadTurnsTheSwitchOff) {
    store.debugLogging = true;
    EXPECT_TRUE(deliver(1021));
    EXPECT_EQ(store.calls, (Lines{"setDebugLoggingStatus 0"}));
    expectEmptyReply();
}

TEST_F(ASetOfDebugLogging, AnswersTheSameWhenTheSetterFails) {
    store.results = {{"setDebugLoggingStatus", 180003}};
    EXPECT_TRUE(deliver(1021, true));
    EXPECT_EQ(store.calls, (Lines{"setDebugLoggingStatus 1"})) << "and nothing is signalled here";
    expectEmptyReply();
}

TEST_F(ASetOfDebugLogging, IsTraced) {
    EXPECT_EQ(leveled([this] { deliver(1021, true); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 1021",
                     "1 VXCommandImpl::handleCommand - Recieved CMD_SET_DEBUG_LOGGING_STATUS command",
                     "2 SFCommandImpl::handleSetDebugLoggingStatus - Entered", "3 OldStatus = OFF, NewStatus = ON",
                     "4 VXCommandImpl::handleSetDebugLoggingStatus LogLevel changed so would need to update preference",
                     "2 VXCommandImpl::handleSetDebugLoggingStatus - Sent response through HVBCommBroker"}));
    store.debugLogging = true;
    EXPECT_EQ(leveled([this] { deliver(1021, true); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 1021",
                     "1 VXCommandImpl::handleCommand - Recieved CMD_SET_DEBUG_LOGGING_STATUS command",
                     "2 SFCommandImpl::handleSetDebugLoggingStatus - Entered", "3 OldStatus = ON, NewStatus = ON",
                     "2 VXCommandImpl::handleSetDebugLoggingStatus - Sent response through HVBCommBroker"}));
}

TEST_F(ASetOfDebugLogging, ChangesAndAnswersNothingWhenTheOldStatusCannotBeRead) {
    failAt("get", std::runtime_error("unknown"));
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(1021, true)); });
    EXPECT_EQ(lines.back(), "1 VXCommandImpl::handleSetDebugLoggingStatus - - Caught generic exception ");
    EXPECT_THAT(store.calls, IsEmpty());
    EXPECT_TRUE(hub.replies.empty());
}

TEST_F(ASetOfDebugLogging, ChangesAndAnswersNothingWhenThePayloadCannotBeRead) {
    store.debugLogging = true;
    const std::string caught = "1 VXCommandImpl::handleSetDebugLoggingStatus - - Caught generic exception ";
    EXPECT_EQ(leveled([this] { EXPECT_TRUE(deliverBehindTheHeader(1021, L" x")); }).back(), caught);
    EXPECT_EQ(leveled([this] { EXPECT_TRUE(deliverText(1021, L"noise")); }).back(), caught);
    EXPECT_EQ(leveled([this] { EXPECT_TRUE(deliverText(1021, L"")); }).back(), caught);
    EXPECT_THAT(store.calls, IsEmpty());
    EXPECT_TRUE(hub.replies.empty());
}

TEST_F(ASetOfDebugLogging, TracesAnExceptionOfThisModuleWithItsMessage) {
    failAt("setDebugLoggingStatus", Sentrel::VXException(5, "the\tfifth"));
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(1021, true)); });
    EXPECT_EQ(lines.back(), "1 VXCommandImpl::handleSetDebugLoggingStatus - Caught exception the\\x09fifth");
    EXPECT_TRUE(hub.replies.empty());
}

TEST_F(ASetOfDebugLogging, IsTakenWhenTheReplyCannotBeSentAndTheChangeStays) {
    failAt("sendCommandResponse", HVB::HVBException(-1, "gone"));
    EXPECT_TRUE(deliver(1021, true));
    EXPECT_EQ(store.calls, (Lines{"setDebugLoggingStatus 1"}));
}

} // namespace
