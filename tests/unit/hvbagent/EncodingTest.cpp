// Encodings and hashes, against known values.
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/Topics.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace {

using namespace HVBEnterprise::agent;

TEST(Base64, GoesThereAndBack) {
    EXPECT_EQ(base64Of(""), "");
    EXPECT_EQ(base64Of("f"), "Zg==");
    EXPECT_EQ(base64Of("foobar"), "Zm9vYmFy");
    EXPECT_EQ(bytesOfBase64("Zg=="), "f");
    EXPECT_EQ(bytesOfBase64("Zm9vYmFy"), "foobar");
    EXPECT_EQ(bytesOfBase64(""), "");
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all += static_cast<char>(i);
        EXPECT_EQ(bytesOfBase64(base64Of(all)), all);
    }
}

TEST(Base64, RefusesWhatIsNone) {
    for (const char* bad : {"Z", "Zg", "Zg=", "Zg===", "Zh==", " Zg==", "Zg==\n", "Zg==Zg==", "_-8=", "é"}) {
        EXPECT_EQ(bytesOfBase64(bad), std::nullopt) << bad;
    }
}

TEST(ASha256, IsTheKnownOne) {
    EXPECT_EQ(sha256Of(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256Of("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(ATime, IsIso8601InUtc) {
    EXPECT_TRUE(std::regex_match(timeText(), std::regex(R"(20\d\d-[01]\d-[0-3]\dT[0-2]\d:[0-5]\d:[0-6]\d\.\d{3}Z)")))
        << timeText();
}

TEST(ATopicPart, HoldsNothingThatATopicOrAnAccessRuleWouldRead) {
    for (const char* good :
         {"a", "A-z_0.9", "..", "0123456789012345678901234567890123456789012345678901234567890123"}) {
        EXPECT_TRUE(isTopicPart(good)) << good;
    }
    for (const char* bad : {"", "a/b", "+", "#", "a b", "é", "$SYS", "%u", "a\n",
                            "01234567890123456789012345678901234567890123456789012345678901234"}) {
        EXPECT_FALSE(isTopicPart(bad)) << bad;
    }
}

TEST(TheTopics, AreThoseOfTheMachineAndItsGroups) {
    const Topics topics("here", "m1");
    EXPECT_EQ(topics.policy(), "orvanta/v1/here/m1/policy");
    EXPECT_EQ(topics.result(), "orvanta/v1/here/m1/policy/result");
    EXPECT_EQ(topics.properties(), "orvanta/v1/here/m1/properties");
    EXPECT_EQ(topics.collect(), "orvanta/v1/here/m1/collect");
    EXPECT_EQ(topics.state(), "orvanta/v1/here/m1/state");
    EXPECT_EQ(topics.groupPolicy("all"), "orvanta/v1/here/group/all/policy");
}

} // namespace
