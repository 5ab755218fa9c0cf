// The carriers of the hub. Real: the carriers and the archive library.
#include "hub/HVBMessages.h"

#include "hub/Exceptions.h"
#include "hub/HVBInterfaces.h"
#include "tests/support/ArchiveValue.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

// What a carrier is, in the order in which a receiver that was built apart relies on it.
static_assert(std::is_base_of_v<HVB::BasicCommandData, HVB::CommandData>);
static_assert(std::is_base_of_v<HVB::SerializedData, HVB::CommandData>);
static_assert(std::is_base_of_v<HVB::BasicCommandResult, HVB::CommandResult>);
static_assert(std::is_base_of_v<HVB::SerializedData, HVB::CommandResult>);
static_assert(std::is_base_of_v<HVB::BasicEventData, HVB::EventData>);
static_assert(std::is_base_of_v<HVB::SerializedData, HVB::EventData>);
static_assert(std::is_base_of_v<HVB::SerializedData, HVB::LogRequest>);
static_assert(std::is_base_of_v<HVB::HVBInterface, HVB::CommandInterface>);
static_assert(std::is_base_of_v<HVB::HVBInterface, HVB::HealthCheckInterface>);
static_assert(std::is_base_of_v<HVB::HVBInterface, HVB::EventInterface>);
static_assert(std::has_virtual_destructor_v<HVB::SerializedData>);
static_assert(std::has_virtual_destructor_v<HVB::BasicCommandData>);
static_assert(std::has_virtual_destructor_v<HVB::CommandInterface>);
static_assert(std::has_virtual_destructor_v<HVB::HealthCheckInterface>);
static_assert(std::has_virtual_destructor_v<HVB::EventInterface>);
static_assert(!std::is_polymorphic_v<HVB::HVBInterface>);
static_assert(!std::is_polymorphic_v<Sentrel::VXException> && !std::is_polymorphic_v<HVB::HVBException>);
static_assert(std::is_same_v<decltype(HVB::BasicCommandData::m_token), std::uint64_t>);

/// Puts the payload that @p from has written where the broker would put it on a delivered object.
void deliver(const HVB::SerializedData& from, HVB::SerializedData& to) {
    testing_support::deliverText(to, from.m_pOutStream->str());
}

void expectOnlyTheHeader(const HVB::SerializedData& carrier) {
    EXPECT_FALSE(carrier.m_bHasPayload);
    EXPECT_EQ(carrier.m_pInStream, nullptr);
    EXPECT_EQ(carrier.m_pInArchive, nullptr);
    ASSERT_NE(carrier.m_pOutStream, nullptr);
    EXPECT_NE(carrier.m_pOutArchive, nullptr);
    const std::wstring text = carrier.m_pOutStream->str();
    EXPECT_EQ(text, testing_support::archiveHeader());
}

void expectDefaults(const HVB::BasicCommandData& header) {
    EXPECT_EQ(header.m_commandId, -1);
    EXPECT_EQ(header.m_token, 0u);
    EXPECT_EQ(header.m_sourceId, -1);
    EXPECT_EQ(header.m_targetId, -1);
    EXPECT_FALSE(header.m_bFlag);
    EXPECT_EQ(header.m_sequence, -1);
}

TEST(ACommand, IsBornWithItsIdItsTargetItsFlagAndDefaults) {
    const HVB::CommandData command(1023, 1, true);
    EXPECT_EQ(command.m_commandId, 1023);
    EXPECT_EQ(command.m_targetId, 1);
    EXPECT_TRUE(command.m_bFlag);
    EXPECT_EQ(command.m_token, 0u);
    EXPECT_EQ(command.m_sourceId, -1);
    EXPECT_EQ(command.m_sequence, -1);
}

TEST(ACommand, WithNoValueWrittenHoldsTheArchivesHeaderAndHasNoPayload) {
    expectOnlyTheHeader(HVB::CommandData(1023, 1, true));
}

TEST(AResult, IsBornSuccessfulValidAndWithADefaultHeader) {
    const HVB::CommandResult result;
    expectDefaults(result.m_commandData);
    EXPECT_TRUE(result.m_bSucceeded);
    EXPECT_TRUE(result.m_bValid);
}

TEST(AResult, WithNoValueWrittenHoldsTheArchivesHeaderAndHasNoPayload) {
    expectOnlyTheHeader(HVB::CommandResult());
}

TEST(AResult, CarriesTheHeaderOfItsCommandUnchanged) {
    HVB::CommandData command(1003, 7, true);
    command.m_token = 0xFEDCBA9876543210;
    command.m_sourceId = 12;
    command.m_sequence = 34;
    HVB::CommandResult result;
    result.m_commandData = command;
    EXPECT_EQ(result.m_commandData.m_commandId, 1003);
    EXPECT_EQ(result.m_commandData.m_token, 0xFEDCBA9876543210);
    EXPECT_EQ(result.m_commandData.m_sourceId, 12);
    EXPECT_EQ(result.m_commandData.m_targetId, 7);
    EXPECT_TRUE(result.m_commandData.m_bFlag);
    EXPECT_EQ(result.m_commandData.m_sequence, 34);
}

TEST(AnEvent, IsBornWithItsIdAndNoSequence) {
    const HVB::EventData event(1005);
    EXPECT_EQ(event.m_eventId, 1005);
    EXPECT_EQ(event.m_sequence, -1);
}

TEST(AnEvent, WithNoValueWrittenHoldsTheArchivesHeaderAndHasNoPayload) {
    expectOnlyTheHeader(HVB::EventData(1002));
}

TEST(ALogRequest, AllocatesNothingAndIgnoresValues) {
    HVB::LogRequest request;
    request.writePayload(5);
    int value = 77;
    request.readPayload(value);
    EXPECT_EQ(value, 77);
    EXPECT_FALSE(request.m_bHasPayload);
    EXPECT_EQ(request.m_pOutStream, nullptr);
    EXPECT_EQ(request.m_pInStream, nullptr);
    EXPECT_EQ(request.m_pOutArchive, nullptr);
    EXPECT_EQ(request.m_pInArchive, nullptr);
    EXPECT_EQ(request.m_text, L"");
    EXPECT_EQ(request.m_detailText, L"");
}

TEST(APayload, IsMarkedWithItsFirstValueAndGrowsInOrder) {
    HVB::CommandData command(1021, 7, true);
    command.writePayload(true);
    EXPECT_TRUE(command.m_bHasPayload);
    const std::wstring one = command.m_pOutStream->str();
    command.writePayload(7);
    EXPECT_EQ(command.m_pOutStream->str(), one + L" 7");
    EXPECT_EQ(one.substr(one.size() - 2), L" 1");
}

TEST(APayload, IsNotWrittenWithoutAnOutputArchive) {
    HVB::EventData event(1002);
    delete event.m_pOutArchive;
    event.m_pOutArchive = nullptr;
    const std::wstring before = event.m_pOutStream->str();
    event.writePayload(5);
    EXPECT_FALSE(event.m_bHasPayload);
    EXPECT_EQ(event.m_pOutStream->str(), before);
}

TEST(APayload, ThatIsMissingLeavesTheReaderItsDefaults) {
    HVB::CommandData delivered(100000, 7, true); // as the broker delivers a command without a payload
    int value = 77;
    std::wstring text = L"kept";
    delivered.readPayload(value);
    delivered.readPayload(text);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(text, L"kept");
}

TEST(APayload, IsReadInTheOrderInWhichItWasWritten) {
    HVB::CommandData sent(100000, 7, true);
    sent.writePayload(true);
    sent.writePayload(-5);
    sent.writePayload(std::string("Caf\xC3\xA9"));
    HVB::CommandData delivered(100000, 7, true);
    deliver(sent, delivered);
    bool flag = false;
    int number = 0;
    std::string text;
    delivered.readPayload(flag);
    delivered.readPayload(number);
    delivered.readPayload(text);
    EXPECT_TRUE(flag);
    EXPECT_EQ(number, -5);
    EXPECT_EQ(text, "Caf\xC3\xA9");
}

TEST(APayload, ThatIsTooShortThrowsWhatTheArchiveThrows) {
    HVB::CommandData sent(100000, 7, true);
    sent.writePayload(1);
    HVB::CommandData delivered(100000, 7, true);
    deliver(sent, delivered);
    int value = 0;
    delivered.readPayload(value);
    EXPECT_THROW(delivered.readPayload(value), boost::archive::archive_exception);
}

TEST(APayload, LargerThanTheExpectedOneArrivesWhole) {
    const std::wstring text(100000, L'\x20AC');
    HVB::CommandData sent(100000, 7, true);
    sent.writePayload(text);
    HVB::CommandData delivered(100000, 7, true);
    deliver(sent, delivered);
    std::wstring arrived;
    delivered.readPayload(arrived);
    EXPECT_EQ(arrived, text);
}

TEST(AnException, TellsItsCodeAndItsMessage) {
    EXPECT_EQ(HVB::HVBException(-111, "no hub").code(), -111);
    EXPECT_EQ(HVB::HVBException(-111, "no hub").message(), "no hub");
    EXPECT_EQ(Sentrel::VXException(180001, "failed").code(), 180001);
    EXPECT_EQ(Sentrel::VXException(180001, "failed").message(), "failed");
}

} // namespace
