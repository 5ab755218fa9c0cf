// What the subscribed hub events do. Real: the receiver and the process's controller. Not real: the preferences and the
// hub, which record.
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "hub/Exceptions.h"
#include "hub/HVBEventNotificationImpl.h"
#include "hub/HVBMessages.h"
#include "hub/Payloads.h"
#include "tests/support/ArchiveValue.h"
#include "tests/support/FlowLines.h"
#include "tests/support/Lines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/support/RecordingController.h"

#include <boost/archive/archive_exception.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

using testing::IsEmpty;

class AHubEvent : public testing::Test {
protected:
    /// Delivers an event as the broker does. @return what the receiver returned.
    bool deliverText(int id, const std::wstring& text) {
        HVB::EventData event(id);
        testing_support::deliverText(event, text);
        return receiver.handleEventNotification(event);
    }
    template <class Value>
    bool deliver(int id, const Value& value) {
        HVB::EventData carrier(id);
        carrier.writePayload(value);
        return deliverText(id, carrier.m_pOutStream->str());
    }
    bool deliver(int id) {
        HVB::EventData event(id);
        return receiver.handleEventNotification(event);
    }

    /// The lines on stDaemonFlow, each with the level that it needs.
    template <class Act>
    Lines leveled(Act act) {
        Sentrel::VXController::getInstance();
        return leveledLines(stDaemonFlowvalue, [&] {
            store.calls.clear();
            act();
        });
    }

    template <class Exception>
    void failAt(const std::string& operation, const Exception& exception) {
        store.before = [operation, exception](const std::string& called) {
            if (called == operation) {
                throw exception;
            }
        };
    }

    PreferenceRecording& store = PreferenceRecording::instance();
    HVBEventNotificationImpl receiver;
};

constexpr const char* kDebugEntered = "2 VXController::handleDebugLogEventData entered - Event Notification Handler";
constexpr const char* kProxyEntered =
    "2 VXController::handleProxySettingsEventData entered - Event Notification Handler";

TEST_F(AHubEvent, OfAnyOtherIdIsTakenWithoutALookAtIt) {
    for (const int id : {0, 1, 1002, 1003, 1004, 1006, 1008, -1}) {
        const Lines lines = leveled([this, id] { EXPECT_TRUE(deliverText(id, L"22 serialization::archive 18 x")); });
        EXPECT_THAT(lines, IsEmpty()) << id;
    }
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AHubEvent, OfAnyOtherIdIsNotCopied) {
    const std::size_t& copies = Recording::instance().copiedEvents;
    EXPECT_TRUE(deliver(1006, 7));
    EXPECT_EQ(copies, 0U);
    EXPECT_TRUE(deliver(1005, std::map<int, bool>{}));
    EXPECT_EQ(copies, 1U);
    EXPECT_TRUE(deliver(1007, std::vector<proxySettings>{}));
    EXPECT_EQ(copies, 2U);
}

using ADebugLogEvent = AHubEvent;

TEST_F(ADebugLogEvent, SwitchesTheModulesDebugLogging) {
    EXPECT_TRUE(deliver(1005, std::map<int, bool>{{7, true}}));
    EXPECT_EQ(store.calls, (Lines{"setDebugLoggingStatus 1"}));
    store.calls.clear();
    store.debugLogging = true;
    EXPECT_TRUE(deliver(1005, std::map<int, bool>{{7, false}}));
    EXPECT_EQ(store.calls, (Lines{"setDebugLoggingStatus 0"}));
}

TEST_F(ADebugLogEvent, IsReadOnlyUpToTheModulesEntry) {
    const Lines lines = leveled([this] {
        EXPECT_TRUE(deliver(1005, std::map<int, bool>{{9, false}, {7, true}, {3, false}}));
    });
    EXPECT_EQ(lines,
              (Lines{kDebugEntered, "5 Iterating HV ID 3", "5 Iterating HV ID 7", "3 OldStatus = OFF, NewStatus = ON",
                     "4 VXController::handleDebugLogEventData LogLevel changed so would need to update preference"}));
    EXPECT_EQ(store.calls, (Lines{"setDebugLoggingStatus 1"}));
}

TEST_F(ADebugLogEvent, WithTheCurrentStatusCallsNoSetter) {
    for (const bool status : {true, false}) {
        store.debugLogging = status;
        const Lines lines = leveled([&] { EXPECT_TRUE(deliver(1005, std::map<int, bool>{{7, status}})); });
        const char* const compared = status ? "3 OldStatus = ON, NewStatus = ON" : "3 OldStatus = OFF, NewStatus = OFF";
        EXPECT_EQ(lines, (Lines{kDebugEntered, "5 Iterating HV ID 7", compared}));
        EXPECT_THAT(store.calls, IsEmpty());
    }
}

TEST_F(ADebugLogEvent, WithoutTheModulesEntryChangesNothing) {
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(1005, std::map<int, bool>{{-7, true}, {8, true}})); });
    EXPECT_EQ(lines, (Lines{kDebugEntered, "5 Iterating HV ID -7", "5 Iterating HV ID 8"}));
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(ADebugLogEvent, WithoutTheModulesEntryDoesNotAskForTheStatus) {
    store.before = [](const std::string& operation) { ADD_FAILURE() << operation; };
    EXPECT_TRUE(deliver(1005, std::map<int, bool>{{6, true}, {8, true}}));
}

TEST_F(ADebugLogEvent, WithoutAPayloadOrEntriesChangesNothing) {
    EXPECT_EQ(leveled([this] { EXPECT_TRUE(deliver(1005)); }), (Lines{kDebugEntered}));
    EXPECT_EQ(leveled([this] { EXPECT_TRUE(deliver(1005, std::map<int, bool>{})); }), (Lines{kDebugEntered}));
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(ADebugLogEvent, WithAnUnreadablePayloadThrowsAndChangesNothing) {
    const std::wstring header = HVB::EventData(1005).m_pOutStream->str();
    EXPECT_THROW(deliverText(1005, header + L" 0 0 1 0 x"), boost::archive::archive_exception);
    EXPECT_THROW(deliverText(1005, L"noise"), boost::archive::archive_exception);
    EXPECT_THROW(deliverText(1005, L""), boost::archive::archive_exception);
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(ADebugLogEvent, IsReadFromItsFirstValueWhoeverReadItBefore) {
    HVB::EventData carrier(1005);
    carrier.writePayload(std::map<int, bool>{{7, true}});
    HVB::EventData event(1005);
    testing_support::deliverText(event, carrier.m_pOutStream->str());
    std::map<int, bool> read;
    event.readPayload(read);
    EXPECT_TRUE(receiver.handleEventNotification(event));
    EXPECT_EQ(store.calls, (Lines{"setDebugLoggingStatus 1"}));
}

TEST_F(ADebugLogEvent, EndsInATraceLineWhenTheControllerFails) {
    failAt("get", Sentrel::VXException(5, "the\tfifth"));
    EXPECT_EQ(leveled([this] {
                  EXPECT_TRUE(deliver(1005, std::map<int, bool>{{7, true}}));
              }),
              (Lines{kDebugEntered, "5 Iterating HV ID 7",
                     "1  VXController::handleDebugLogEventData - Got exception the\\x09fifth."}));
    failAt("getInstance", HVB::HVBException(3, "no configuration"));
    EXPECT_EQ(leveled([this] {
                  EXPECT_TRUE(deliver(1005, std::map<int, bool>{{7, true}}));
              }),
              (Lines{kDebugEntered, "5 Iterating HV ID 7",
                     "1 VXController::handleDebugLogEventData - Caught unknown exception"}));
    EXPECT_THAT(store.calls, IsEmpty());
}

proxySettings proxy(const std::string& host, int port) {
    proxySettings settings;
    settings.host = host;
    settings.uname = "user";
    settings.pass = "secret";
    settings.port = port;
    settings.type = 2;
    settings.httpAuth = 1;
    return settings;
}

using AProxyEvent = AHubEvent;

TEST_F(AProxyEvent, StoresItsElementWithAllFields) {
    EXPECT_TRUE(deliver(1007, std::vector<proxySettings>{proxy("proxy.example", 3128)}));
    EXPECT_EQ(store.calls, (Lines{"setRpxProxySettings proxy.example user secret 3128 2 1"}));
}

TEST_F(AProxyEvent, StoresItsElementsInTheirOrderAlsoBehindOneThatFails) {
    store.results = {{"setRpxProxySettings", 180003}};
    EXPECT_TRUE(deliver(1007, std::vector<proxySettings>{proxy("b.example", 1), proxy("a.example", 2)}));
    EXPECT_EQ(store.calls, (Lines{"setRpxProxySettings b.example user secret 1 2 1",
                                  "setRpxProxySettings a.example user secret 2 2 1"}));
}

TEST_F(AProxyEvent, WithoutAPayloadOrElementsCallsNoSetter) {
    EXPECT_EQ(leveled([this] { EXPECT_TRUE(deliver(1007)); }), (Lines{kProxyEntered}));
    EXPECT_EQ(leveled([this] { EXPECT_TRUE(deliver(1007, std::vector<proxySettings>{})); }), (Lines{kProxyEntered}));
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AProxyEvent, WithAnUnreadablePayloadThrowsAndStoresNothing) {
    const std::wstring header = HVB::EventData(1007).m_pOutStream->str();
    EXPECT_THROW(deliverText(1007, header + L" 0 0 1 0 x"), boost::archive::archive_exception);
    EXPECT_THROW(deliverText(1007, L"noise"), boost::archive::archive_exception);
    EXPECT_THROW(deliverText(1007, L""), boost::archive::archive_exception);
    EXPECT_THAT(store.calls, IsEmpty());
}

TEST_F(AProxyEvent, IsReadFromItsFirstValueWhoeverReadItBefore) {
    HVB::EventData carrier(1007);
    carrier.writePayload(std::vector<proxySettings>{proxy("proxy.example", 3128)});
    HVB::EventData event(1007);
    testing_support::deliverText(event, carrier.m_pOutStream->str());
    std::vector<proxySettings> read;
    event.readPayload(read);
    EXPECT_TRUE(receiver.handleEventNotification(event));
    EXPECT_EQ(store.calls, (Lines{"setRpxProxySettings proxy.example user secret 3128 2 1"}));
}

TEST_F(AProxyEvent, StopsAtAnExceptionWithATraceLine) {
    const std::vector<proxySettings> both{proxy("a.example", 1), proxy("b.example", 2)};
    failAt("setRpxProxySettings", Sentrel::VXException(5, "the\tfifth"));
    EXPECT_EQ(leveled([&] { EXPECT_TRUE(deliver(1007, both)); }),
              (Lines{kProxyEntered, "1  VXController::handleProxySettingsEventData - Got exception the\\x09fifth."}));
    EXPECT_EQ(store.calls, (Lines{"setRpxProxySettings a.example user secret 1 2 1"}));
    failAt("setRpxProxySettings", std::runtime_error("unknown"));
    EXPECT_EQ(leveled([&] { EXPECT_TRUE(deliver(1007, both)); }),
              (Lines{kProxyEntered, "1 VXController::handleProxySettingsEventData - Caught unknown exception"}));
    EXPECT_EQ(store.calls.size(), 1U);
}

} // namespace
