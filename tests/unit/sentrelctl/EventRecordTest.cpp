// The bytes of a record, field by field.
#include "apps/sentrelctl/clients/EventRecord.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Json.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace Sentrel::ctl {
namespace {

constexpr std::size_t kRecordBytes = 392;

std::string number(std::int32_t value) {
    std::string bytes(sizeof(value), '\0');
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

std::string padded(std::string text, std::size_t size) {
    text.resize(size, '\0');
    return text;
}

std::string refusalOf(const RecordFields& fields) {
    try {
        recordBytes(fields);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), ExitCode::BadUsage);
        return failure.line();
    }
    return "not refused";
}

TEST(AnEventRecord, IsASampleOfABlockedSiteByDefault) {
    const std::string expected = padded("sentrelctl", 16) + padded("https://blocked.example/", 272) +
                                 padded("sentrelctl", 64) + number(50) + number(3) + number(0) + number(0) + number(0) +
                                 number(0) + number(0) + number(1) + number(1) + number(0);
    EXPECT_EQ(expected.size(), kRecordBytes);
    EXPECT_EQ(recordBytes(RecordFields()), expected);
}

TEST(AnEventRecord, HasEachFieldAtItsOffset) {
    RecordFields fields;
    fields.eventId = "id";
    fields.url = "http://a.example/b";
    fields.browser = "firefox";
    fields.rating = -100;
    fields.action = 2;
    fields.inList = 3;
    fields.listBlocks = 4;
    fields.blockedInCategory = 5;
    fields.category = 6;
    fields.phishing = 7;
    fields.reputationReachable = 8;
    fields.count = 9;
    fields.userAction = INT32_MIN;
    const std::string bytes = recordBytes(fields);
    ASSERT_EQ(bytes.size(), kRecordBytes);
    EXPECT_EQ(bytes.substr(0, 16), padded("id", 16));
    EXPECT_EQ(bytes.substr(16, 272), padded("http://a.example/b", 272));
    EXPECT_EQ(bytes.substr(288, 64), padded("firefox", 64));
    const std::vector<std::int32_t> numbers{-100, 2, 3, 4, 5, 6, 7, 8, 9, INT32_MIN};
    for (std::size_t at = 0; at < numbers.size(); ++at) {
        EXPECT_EQ(bytes.substr(352 + 4 * at, 4), number(numbers[at])) << "offset " << 352 + 4 * at;
    }
}

TEST(AnEventRecord, TakesTheLongestTextThatLeavesRoomForTheNul) {
    RecordFields fields;
    fields.eventId = std::string(15, 'i');
    fields.url = std::string(271, 'u');
    fields.browser = std::string(63, 'b');
    const std::string bytes = recordBytes(fields);
    EXPECT_EQ(bytes.substr(0, 352), padded(fields.eventId, 16) + padded(fields.url, 272) + padded(fields.browser, 64));
}

TEST(AnEventRecord, IsRefusedWithTheLimitWhenATextDoesNotFit) {
    RecordFields fields;
    fields.url = std::string(272, 'u');
    EXPECT_EQ(refusalOf(fields), "sentrelctl: bad usage: --url: the text has 272 bytes, the field takes 271. "
                                 "Shorten it, or send the bytes with --raw.");
    fields = RecordFields();
    fields.eventId = std::string(16, 'i');
    EXPECT_EQ(refusalOf(fields), "sentrelctl: bad usage: --event-id: the text has 16 bytes, the field takes 15. "
                                 "Shorten it, or send the bytes with --raw.");
    fields = RecordFields();
    fields.browser = std::string(64, 'b');
    EXPECT_EQ(refusalOf(fields), "sentrelctl: bad usage: --browser: the text has 64 bytes, the field takes 63. "
                                 "Shorten it, or send the bytes with --raw.");
}

TEST(AnEventRecord, HasStableFieldNamesInJson) {
    RecordFields fields;
    fields.url = "http://\xFF/";
    EXPECT_EQ(jsonText(recordJson(fields), JsonMode::Short),
              R"({"event_id":"sentrelctl","url":"http://\\xff/","browser":"sentrelctl","rating":50,"action":3,)"
              R"("in_list":0,"list_blocks":0,"blocked_in_category":0,"category":0,"phishing":0,)"
              R"("reputation_reachable":1,"count":1,"user_action":0})"
              "\n");
}

TEST(AnAction, IsAWordOrANumber) {
    EXPECT_EQ(actionCode("allow"), 1);
    EXPECT_EQ(actionCode("warn"), 2);
    EXPECT_EQ(actionCode("block"), 3);
    EXPECT_EQ(actionCode("1"), 1);
    EXPECT_EQ(actionCode("-7"), -7);
}

TEST(AnAction, IsRefusedWhenItIsNeither) {
    for (const char* text : {"", "deny", "3x", "3 ", "2147483648"}) {
        EXPECT_THROW(actionCode(text), Failure) << text;
    }
}

} // namespace
} // namespace Sentrel::ctl
