// Payloads between carriers and messages, and the copy of an event. All real; no bus.
#include "platform/hvbhelpers/Carriers.h"
#include "hub/HVBMessages.h"

#include <gtest/gtest.h>

#include <boost/serialization/map.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace {

using boost::archive::archive_exception;

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

/// What @p event throws when a value is read from it; none when it throws nothing.
template <class Value>
std::optional<archive_exception::exception_code> refusalOf(EventData& event) {
    try {
        Value value{};
        event.readPayload(value);
        return std::nullopt;
    } catch (const archive_exception& refusal) {
        return refusal.code;
    }
}

struct ATextThatIsNoArchive : testing::TestWithParam<std::pair<std::wstring, archive_exception::exception_code>> {};

INSTANTIATE_TEST_SUITE_P(
    Each, ATextThatIsNoArchive,
    testing::Values(std::pair(L"", archive_exception::invalid_signature),
                    std::pair(L"22 not an archive", archive_exception::invalid_signature),
                    std::pair(L"22 serialization::archive x", archive_exception::input_stream_error),
                    std::pair(L"22 serialization::archive 9999 0 0 0 0", archive_exception::unsupported_version)));

TEST_P(ATextThatIsNoArchive, StandsInTheCarrierUntilItIsReadAndThenSaysWhy) {
    const auto& [text, refusal] = GetParam();
    for (const auto& read : {refusalOf<int>, refusalOf<bool>, refusalOf<std::string>, refusalOf<std::wstring>,
                             refusalOf<std::map<int, bool>>}) {
        EventData event(1005);
        setInput(event, {true, text});
        ASSERT_NE(event.m_pInArchive, nullptr) << "without one the reader would take it for no payload";
        EXPECT_EQ(event.m_pInStream->str(), text);
        EXPECT_EQ(read(event), refusal);
        EXPECT_EQ(read(event), refusal) << "also the second time";
    }
}

TEST_P(ATextThatIsNoArchive, CannotBeReadFromACopyEither) {
    EventData event(1005);
    setInput(event, {true, GetParam().first});
    EventData copy(event);
    EventData second(copy);
    EXPECT_EQ(refusalOf<int>(copy), GetParam().second);
    EXPECT_EQ((refusalOf<std::map<int, bool>>(second)), GetParam().second);
    EventData afterwards(copy);
    EXPECT_EQ(refusalOf<int>(afterwards), GetParam().second);
}

TEST_P(ATextThatIsNoArchive, GivesWayToTheNextMessage) {
    EventData event(1005);
    setInput(event, {true, GetParam().first});
    deliver(event, 42, L"text");
    int number = 0;
    event.readPayload(number);
    EXPECT_EQ(number, 42);
}

TEST(ACarrier, RefusesAValueOfAnotherKindInATextThatIsNoArchive) {
    for (const wchar_t* text :
         {L"22 not an archive", L"22 serialization::archivX 18 5", L"22 serialization::archive 9999 5"}) {
        EventData event(1005);
        setInput(event, {true, text});
        EXPECT_TRUE(refusalOf<double>(event)) << text;
        EXPECT_TRUE(refusalOf<std::uint64_t>(event)) << text;
    }
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
