// The daemon's receivers of commands, events and health checks. Not real: the hub, which is a recording broker.
#include "daemon/Trace.h"
#include "hub/HVBEventNotificationImpl.h"
#include "hub/HVBMessages.h"
#include "hub/VXCommandImpl.h"
#include "hub/VXHealthCheckImpl.h"
#include "tests/support/Lines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/support/TraceLog.h"
#include "tests/unit/daemon/DaemonRoot.h"

#include <gtest/gtest.h>

#include <memory>

using namespace testing_support;

namespace {

struct AReceiver : testing::Test {
    DaemonRoot root;
    TraceLog log;
    Recording& hub = Recording::instance();
};

struct ACommandReceiver : AReceiver {
    std::unique_ptr<Sentrel::VXCommandImpl> receiver = std::make_unique<Sentrel::VXCommandImpl>();
};

TEST_F(ACommandReceiver, TracesItsBirthAndItsEndAtLevelFive) {
    receiver.reset();
    EXPECT_EQ(log.lines(), (Lines{"VXCommandImpl::VXCommandImpl", "VXCommandImpl::~VXCommandImpl"}));
    stCmdFlowvalue = 4;
    receiver = std::make_unique<Sentrel::VXCommandImpl>();
    receiver.reset();
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(ACommandReceiver, RefusesACommandThatItDoesNotKnowAndSendsNoReply) {
    HVB::CommandData command(4711, 7, true);
    EXPECT_FALSE(receiver->handleCommand(command));
    EXPECT_TRUE(hub.calls().empty());
    EXPECT_EQ(log.lines().back(), "VXCommandImpl::handleCommand - Recieved unrecognised Command");
}

TEST_F(ACommandReceiver, TracesAnUnknownCommandAtLevelOneAndNotBelow) {
    HVB::CommandData command(4711, 7, true);
    stCmdFlowvalue = 1;
    receiver->handleCommand(command);
    stCmdFlowvalue = 0;
    receiver->handleCommand(command);
    EXPECT_EQ(log.lines(),
              (Lines{"VXCommandImpl::VXCommandImpl", "VXCommandImpl::handleCommand - Recieved unrecognised Command"}));
}

TEST_F(ACommandReceiver, OnlyTracesAResponseAtLevelOneAndNotBelow) {
    HVB::CommandResult result;
    stCmdFlowvalue = 1;
    receiver->handleCommandResponse(result);
    stCmdFlowvalue = 0;
    receiver->handleCommandResponse(result);
    EXPECT_EQ(log.lines(), (Lines{"VXCommandImpl::VXCommandImpl", "VXCommandImpl::handleCommandResponse -Entered."}));
    EXPECT_TRUE(hub.calls().empty());
}

using AnEventReceiver = AReceiver;

TEST_F(AnEventReceiver, RegistersItselfWithTheBrokerOfTheHubsSocket) {
    HVBEventNotificationImpl receiver;
    EXPECT_EQ(hub.calls(), (Lines{"getInstance " + root.hubSocket(), "setEventInterface"}));
    EXPECT_EQ(hub.eventInterface, &receiver);
}

TEST_F(AnEventReceiver, PassesOnWhatTheBrokerThrows) {
    hub.before = [](const std::string& operation) {
        if (operation == "setEventInterface") {
            throw HVB::HVBException(-111, "no hub");
        }
    };
    EXPECT_THROW(HVBEventNotificationImpl(), HVB::HVBException);
}

TEST_F(AnEventReceiver, AnswersTrueForAnEventThatIsNoneOfItsAndTracesNothing) {
    HVBEventNotificationImpl receiver;
    for (const int id : {0, 1002, 1003, 4711, -1}) {
        HVB::EventData event(id);
        EXPECT_TRUE(receiver.handleEventNotification(event)) << id;
    }
    EXPECT_TRUE(log.lines().empty());
}

using AHealthCheckReceiver = AReceiver;

TEST_F(AHealthCheckReceiver, TracesItsBirthAndItsEndAtLevelTwo) {
    { const Sentrel::VXHealthCheckImpl receiver; }
    const Lines both{"VXHealthCheckImpl::VXHealthCheckImpl - Object created",
                     "VXHealthCheckImpl::~VXHealthCheckImpl - Object destroyed"};
    EXPECT_EQ(log.lines(), both);
    hcFlowvalue = 2;
    { const Sentrel::VXHealthCheckImpl receiver; }
    EXPECT_EQ(log.lines().size(), 4u);
    hcFlowvalue = 1;
    { const Sentrel::VXHealthCheckImpl receiver; }
    EXPECT_EQ(log.lines().size(), 4u);
}

TEST_F(AHealthCheckReceiver, AnswersTrueBeforeTheAgentWrapperExists) {
    hcFlowvalue = 0; // silent while the controller and its own receiver come to be
    Sentrel::VXHealthCheckImpl receiver;
    EXPECT_TRUE(receiver.handleHealthCheck());
    hcFlowvalue = 5;
    EXPECT_TRUE(receiver.handleHealthCheck());
    EXPECT_EQ(log.lines(), (Lines{"VXHealthCheckImpl::handleHealthCheck - Entered",
                                  "VXHealthCheckImpl::handleHealthCheck - Exiting"}));
    hcFlowvalue = 4;
    EXPECT_TRUE(receiver.handleHealthCheck());
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_TRUE(hub.calls().empty());
    hcFlowvalue = 0;
}

} // namespace
