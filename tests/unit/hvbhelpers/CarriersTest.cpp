// Payloads between carriers and messages, and the copy of an event. All real; no bus.
#include "platform/hvbhelpers/Carriers.h"
#include "hub/HVBMessages.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using HVB::CommandData;
using HVB::EventData;
using HVB::detail::outgoingPayload;
using HVB::detail::Payload;
using HVB::detail::setInput;

/// An event as the broker would deliver it, with these two values in it.
void deliver(EventData& event, int number, const std::wstring& text) {
    EventData sent(event.m_eventId);
    sent.writePayload(number);
    sent.writePayload(text);
    setInput(event, outgoingPayload(sent));
}

TEST(ACarrier, HasNoPayloadBeforeAValueIsWritten) {
    const CommandData data(1003, 7, true);
    const Payload payload = outgoingPayload(data);
    EXPECT_FALSE(payload.present);
    EXPECT_TRUE(payload.text.empty());
}

TEST(ACarrier, GivesItsValuesToTheInputOfAnother) {
    EventData event(1005);
    deliver(event, 42, L"text");
    int number = 0;
    std::wstring text;
    event.readPayload(number);
    event.readPayload(text);
    EXPECT_EQ(number, 42);
    EXPECT_EQ(text, L"text");
}

TEST(ACarrier, DoesNotCountAsWrittenWhenItArrived) {
    EventData event(1005);
    deliver(event, 42, L"text");
    EXPECT_FALSE(event.m_bHasPayload);
    EXPECT_FALSE(outgoingPayload(event).present) << "what is sent on is what its receiver wrote";
    EXPECT_FALSE(outgoingPayload(EventData(event)).present);
}

TEST(ACarrier, SendsWhatItsReceiverWroteAfterItArrived) {
    EventData event(1005);
    deliver(event, 42, L"text");
    event.writePayload(7);
    EventData written(1005);
    written.writePayload(7);
    EXPECT_TRUE(outgoingPayload(event).present);
    EXPECT_EQ(outgoingPayload(event).text, written.m_pOutStream->str());
}

TEST(ACarrier, StaysWrittenWhenAMessageArrivesInIt) {
    EventData event(1005);
    event.writePayload(7);
    setInput(event, {});
    EXPECT_TRUE(outgoingPayload(event).present);
}

TEST(ACarrier, LosesItsInputWhenAMessageWithoutPayloadFollows) {
    EventData event(1005);
    deliver(event, 42, L"text");
    setInput(event, {});
    EXPECT_EQ(event.m_pInArchive, nullptr);
    EXPECT_EQ(event.m_pInStream, nullptr);
}

TEST(ACarrier, GetsNoInputFromATextThatIsNoArchive) {
    EventData event(1005);
    EXPECT_THROW(setInput(event, {true, L"22 not an archive"}), boost::archive::archive_exception);
    EXPECT_EQ(event.m_pInArchive, nullptr);
    EXPECT_EQ(event.m_pInStream, nullptr);
}

TEST(ACopiedEvent, ReadsThePayloadFromItsFirstValueAgain) {
    EventData event(1005);
    event.m_sequence = 9;
    deliver(event, 42, L"text");
    int number = 0;
    event.readPayload(number);

    EventData copy(event);
    number = 0;
    std::wstring text;
    copy.readPayload(number);
    copy.readPayload(text);
    EXPECT_EQ(copy.m_eventId, 1005);
    EXPECT_EQ(copy.m_sequence, 9);
    EXPECT_FALSE(copy.m_bHasPayload);
    EXPECT_EQ(number, 42);
    EXPECT_EQ(text, L"text");

    std::wstring rest;
    event.readPayload(rest);
    EXPECT_EQ(rest, L"text");
}

TEST(ACopiedEvent, CarriesWhatWasWrittenAndTakesMore) {
    EventData event(1003);
    event.writePayload(7);
    EventData copy(event);
    EXPECT_EQ(copy.m_pOutStream->str(), event.m_pOutStream->str());
    copy.writePayload(8);
    event.writePayload(8);
    EXPECT_EQ(copy.m_pOutStream->str(), event.m_pOutStream->str());
}

TEST(ACopiedEvent, IsLikeANewOneWhenNothingWasWritten) {
    EventData event(1003);
    EventData copy(event);
    EXPECT_FALSE(copy.m_bHasPayload);
    EXPECT_EQ(copy.m_pInArchive, nullptr);
    EXPECT_EQ(copy.m_pOutStream->str(), EventData(1).m_pOutStream->str());
    copy.writePayload(5);
    event.writePayload(5);
    EXPECT_EQ(copy.m_pOutStream->str(), event.m_pOutStream->str());
}

} // namespace
