// The names and the text encoding of the hub. All real; no bus.
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/BusAddress.h"

#include <gtest/gtest.h>

namespace {

using namespace HVB::bus;

TEST(AMember, GivesTheIdBehindItsPrefix) {
    EXPECT_EQ(memberId("Command1003", "Command"), 1003);
    EXPECT_EQ(memberId("Event-5", "Event"), -5);
}

TEST(AMember, MayHaveLeadingZeros) {
    EXPECT_EQ(memberId("Command0100001", "Command"), 100001);
    EXPECT_EQ(memberId("Event01002", "Event"), 1002);
}

TEST(AMember, IsRefusedWhenItIsNotExactlyAPrefixAndANumber) {
    for (const char* member : {"", "Command", "Command1x", "Command 1", "Command99999999999", "command1", "Event1"}) {
        EXPECT_EQ(memberId(member, "Command"), std::nullopt) << member;
    }
}

TEST(AWideText, ComesBackUnchangedWhateverItsCharactersAre) {
    const std::wstring text{L'a',
                            L'\0',
                            static_cast<wchar_t>(0xFFFFFFC3),
                            static_cast<wchar_t>(0xFFFFFFFF),
                            static_cast<wchar_t>(0xD800),
                            static_cast<wchar_t>(0x110000)};
    const std::string_view bytes = asBytes(text);
    EXPECT_EQ(bytes.size(), text.size() * 4);
    EXPECT_EQ(fromBytes(bytes.data(), bytes.size()), text);
    EXPECT_EQ(fromBytes(nullptr, 0), std::wstring());
}

TEST(AWideText, TravelsWithTheLowByteFirst) {
    EXPECT_EQ(asBytes(std::wstring_view(L"\x12345678", 1)), std::string_view("\x78\x56\x34\x12", 4));
}

TEST(Bytes, AreNoWideTextWhenTheyAreNotWholeCharacters) {
    const std::string bytes(9, 'x');
    for (const std::size_t size : {1U, 2U, 3U, 5U, 9U}) {
        EXPECT_EQ(fromBytes(bytes.data(), size), std::nullopt) << size;
    }
}

TEST(Bytes, AreNoWideTextBeyondTheLimit) {
    const std::string bytes(kMaxTextBytes + 4, '\0');
    EXPECT_NE(fromBytes(bytes.data(), kMaxTextBytes), std::nullopt);
    EXPECT_EQ(fromBytes(bytes.data(), bytes.size()), std::nullopt);
}

TEST(ABusAddress, EscapesWhatHasAMeaningInOne) {
    EXPECT_EQ(busAddress("/usr/local/hvb_var/hvbdsocket-64.x"), "unix:path=/usr/local/hvb_var/hvbdsocket-64.x");
    EXPECT_EQ(busAddress("/a,b;c=d e%\xC3"), "unix:path=/a%2cb%3bc%3dd%20e%25%c3");
}

} // namespace
