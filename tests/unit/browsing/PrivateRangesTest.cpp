// Private address ranges: how they are written, and which addresses they hold.
#include "browser/decision/PrivateRanges.h"

#include <gtest/gtest.h>

namespace Sentrel::browsing {
namespace {

constexpr std::uint32_t kTen = 10U << 24U; // 10.0.0.0

TEST(APrivateRange, IsWrittenInFourWays) {
    EXPECT_EQ(parseAddressRange("10.0.0.0-10.0.0.9"), (AddressRange{kTen, kTen + 9}));
    EXPECT_EQ(parseAddressRange(" 10.0.0.0 - 10.0.0.9\t"), (AddressRange{kTen, kTen + 9}));
    EXPECT_EQ(parseAddressRange("10.0.0.0/8"), (AddressRange{kTen, kTen + 0xFFFFFF}));
    EXPECT_EQ(parseAddressRange("10.1.2.3/255.0.0.0"), (AddressRange{kTen, kTen + 0xFFFFFF}));
    EXPECT_EQ(parseAddressRange("10.0.0.1"), (AddressRange{kTen + 1, kTen + 1}));
    EXPECT_EQ(parseAddressRange("0.0.0.0/0"), (AddressRange{0, ~0U}));
    EXPECT_EQ(parseAddressRange("10.0.0.1/32"), (AddressRange{kTen + 1, kTen + 1}));
}

TEST(APrivateRange, IsNoOtherText) {
    for (const char* text : {"", " ", "10", "10.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/8x",
                             "10.0.0.0-", "-10.0.0.0", "10.0.0.9-10.0.0.0", "10.0.0.0/255.0.255.0", "10.0.0.*",
                             "host.example", "010.0.0.1", "fe80::/10", "10.0.0.0-10.0.0.9-10.0.0.10"}) {
        EXPECT_EQ(parseAddressRange(text), std::nullopt) << text;
    }
}

TEST(PrivateRangesOfSettings, HoldTheirEndsAndNothingBeyond) {
    const PrivateRanges ranges({"192.168.0.0/16", "nonsense", "10.0.0.0-10.0.0.9"});
    EXPECT_EQ(ranges.find(kTen - 1), PrivateRanges::kNone);
    EXPECT_EQ(ranges.find(kTen), 2U);
    EXPECT_EQ(ranges.find(kTen + 9), 2U);
    EXPECT_EQ(ranges.find(kTen + 10), PrivateRanges::kNone);
    EXPECT_EQ(ranges.find(0xC0A80000U), 0U);
    EXPECT_EQ(ranges.find(0xC0A8FFFFU), 0U);
    EXPECT_EQ(ranges.find(0xC0A90000U), PrivateRanges::kNone);
    EXPECT_EQ(ranges.unreadable(), std::vector<std::size_t>{1});
}

TEST(PrivateRangesOfSettings, MayMeetAndLieWithinEachOther) {
    const PrivateRanges ranges({"10.0.0.0/8", "10.0.0.5", "10.255.0.0-11.0.0.9", "0.0.0.0-255.255.255.255"});
    EXPECT_EQ(ranges.find(kTen + 5), 3U) << "the first by address";
    for (const std::uint32_t address : {0U, kTen, kTen + 5, kTen + 0x1000009, ~0U}) {
        EXPECT_NE(ranges.find(address), PrivateRanges::kNone) << address;
    }
    EXPECT_EQ(PrivateRanges({"10.0.0.0/8", "10.255.0.0-11.0.0.9"}).find(kTen + 0x1000009), 1U);
    EXPECT_EQ(PrivateRanges({"10.0.0.0/8", "10.255.0.0-11.0.0.9"}).find(kTen + 0x100000A), PrivateRanges::kNone);
}

} // namespace
} // namespace Sentrel::browsing
