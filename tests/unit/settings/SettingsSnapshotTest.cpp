// A snapshot of the settings as JSON, in both directions.
#include "platform/settings/SettingsSnapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>
#include <string>

namespace {

using namespace Sentrel::settings;
using nlohmann::json;
using ::testing::HasSubstr;

const std::string kCipherText = "v1:6e2pRa9RGCUlbxtTyz7+e+qSPBIIXXSFIGxKDQbF2ILTDIvGW5Am6G6J8PwxVg==";

SettingsSnapshot everything() {
    SettingsSnapshot snapshot;
    snapshot.readAt = 1'767'225'600'000'001;
    snapshot.state = SnapshotState::Short;
    snapshot.reason = "the daemon ended while a list was replaced";
    snapshot.check = FileCheck{1'767'225'500'000'000, "row 3 missing from index"};
    snapshot.isChanging = true;
    snapshot.replacement = Replacement{"allow_block", 1000, 371};
    snapshot.policy = MachinePolicy{true, 5, "line 3: no text", {"Enabled", "allow_block"}, true};
    snapshot.numbers = {{"Enabled", 1}, {"RedSiteAction", -3}, {"AllowBlockListChecksum", 48}};
    snapshot.unreadable = {"SSOn"};
    snapshot.categories = {{"Caf\xC3\xA9", 4}, {"Games", 0}};
    snapshot.allowBlock = {{"http://b.example/", 1}, {"http://a.example/", 0}, {"http://b.example/", 7}};
    snapshot.privateRanges = {"10.0.0.0-10.255.255.255", ""};
    snapshot.proxy = {"proxy.example", "", true, kCipherText, 3128, 0, 1};
    return snapshot;
}

std::string refusalOf(const std::string& text) {
    try {
        (void)snapshotOf(text);
    } catch (const SnapshotError& error) {
        return error.what();
    }
    return "taken";
}

/// The document of everything(), with a member at a JSON pointer in place of its own.
std::string changed(const std::string& pointer, const json& value) {
    json document = json::parse(textOf(everything()));
    document[json::json_pointer(pointer)] = value;
    return document.dump();
}

TEST(ASettingsSnapshot, ComesBackFromItsTextAsItWas) {
    EXPECT_EQ(snapshotOf(textOf(everything())), everything());
    EXPECT_EQ(snapshotOf(textOf(SettingsSnapshot())), SettingsSnapshot());
}

TEST(ASettingsSnapshot, HasTheMembersThatTheFormatNames) {
    const json document = json::parse(textOf(everything()));
    EXPECT_EQ(document.at("format"), 1);
    EXPECT_EQ(document.at("state"), "short");
    EXPECT_EQ(document.at("numbers").at("RedSiteAction"), -3);
    EXPECT_EQ(document.at("allow_block").dump(),
              R"([["http://b.example/",1],["http://a.example/",0],["http://b.example/",7]])");
    EXPECT_EQ(document.at("replacing").dump(), R"({"list":"allow_block","of":1000,"stored":371})");
}

TEST(ASettingsSnapshot, KeepsEveryByteOfATextThatIsNoUtf8) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    SettingsSnapshot snapshot;
    for (const std::string& name :
         {all, std::string("a\0b", 3), std::string("\xC3"), std::string("\xED\xA0\x80"), std::string("\xC0\x80"),
          std::string("\xF5\x80\x80\x80"), std::string("\x7F\x01"), std::string("\xEF\xBF\xBE")}) {
        snapshot.allowBlock.push_back({name, 1});
        snapshot.privateRanges.push_back(name);
    }
    snapshot.proxy.user = all;
    EXPECT_EQ(snapshotOf(textOf(snapshot)), snapshot);
    EXPECT_THAT(textOf(snapshot), HasSubstr(R"([{"hex":"610062"},1])"));
}

TEST(ASettingsSnapshot, RefusesAnUnknownOrMissingMember) {
    EXPECT_EQ(refusalOf(changed("/news", 1)), ": has a member that no snapshot has");
    EXPECT_EQ(refusalOf(changed("/proxy/news", 1)), "/proxy: has a member that no snapshot has");
    EXPECT_EQ(refusalOf(changed("/format", 2)), "/format: is another one than this program knows");
    for (const char* member : {"format", "read_at", "state", "reason", "changing", "numbers", "unreadable",
                               "categories", "allow_block", "private_ranges", "proxy"}) {
        json document = json::parse(textOf(everything()));
        document.erase(member);
        EXPECT_EQ(refusalOf(document.dump()), std::string("/") + member + ": is missing");
    }
}

TEST(ASettingsSnapshot, RefusesAValueOfAnotherType) {
    EXPECT_EQ(refusalOf(changed("/read_at", "now")), "/read_at: is no number, or one out of range");
    EXPECT_EQ(refusalOf(changed("/state", "fine")), "/state: is no state");
    EXPECT_EQ(refusalOf(changed("/changing", 1)), "/changing: is neither true nor false");
    EXPECT_EQ(refusalOf(changed("/numbers", json::array())), "/numbers: is no object");
    EXPECT_EQ(refusalOf(changed("/numbers/Enabled", 0.5)), "/numbers/Enabled: is no number, or one out of range");
    EXPECT_EQ(refusalOf(changed("/numbers/Other", 1)), "/numbers/Other: is no key of a number");
    EXPECT_EQ(refusalOf(changed("/categories", 1)), "/categories: is no list");
    EXPECT_EQ(refusalOf(changed("/allow_block/0", json::array({"a"}))), "/allow_block: has an entry that is no pair");
    EXPECT_EQ(refusalOf(changed("/private_ranges/0", {{"hex", "abc"}})), "/private_ranges: is no hexadecimal text");
    EXPECT_EQ(refusalOf(changed("/private_ranges/0", {{"hex", "0x"}})), "/private_ranges: is no hexadecimal text");
    EXPECT_EQ(refusalOf(changed("/replacing/list", "others")), "/replacing: names no list");
    EXPECT_EQ(refusalOf(changed("/policy/managed", 1)), "/policy/managed: is neither true nor false");
    EXPECT_EQ(refusalOf(changed("/policy/rules", "Enabled")), "/policy/rules: is no list");
    EXPECT_EQ(refusalOf(changed("/policy/local_grants", 1)), "/policy/local_grants: is neither true nor false");
    EXPECT_EQ(refusalOf(changed("/policy/news", 1)), "/policy: has a member that no snapshot has");
}

TEST(ASettingsSnapshot, RefusesANumberThatDoesNotFit) {
    EXPECT_EQ(snapshotOf(changed("/numbers/Enabled", std::numeric_limits<std::int32_t>::min())).numbers.at("Enabled"),
              std::numeric_limits<std::int32_t>::min());
    for (const std::int64_t number : {std::int64_t{1} << 31U, -(std::int64_t{1} << 31U) - 1}) {
        EXPECT_THAT(refusalOf(changed("/numbers/Enabled", number)), HasSubstr("out of range"));
    }
    EXPECT_THAT(refusalOf(changed("/replacing/of", -1)), HasSubstr("out of range"));
}

TEST(ASettingsSnapshot, RefusesAPasswordThatIsNoCipherText) {
    EXPECT_TRUE(isCipherText(kCipherText));
    for (const char* clear : {"", "secret", "v1:", "v1:c2VjcmV0", "v2:6e2pRa9RGCUlbxtTyz7+e+qSPBIIXXSFIGxKDQbF2ILT"}) {
        EXPECT_FALSE(isCipherText(clear)) << clear;
        EXPECT_EQ(refusalOf(changed("/proxy/password", clear)), "/proxy: has a password that may not be shown");
    }
}

TEST(ASettingsSnapshot, RefusesATextThatIsNoJsonOrTooDeep) {
    EXPECT_THAT(refusalOf(""), HasSubstr("line 1"));
    EXPECT_THAT(refusalOf("{} {}"), HasSubstr("line 1"));
    EXPECT_EQ(refusalOf("[]"), ": is no object");
    EXPECT_THAT(refusalOf(std::string(1000, '[')), HasSubstr("nested too deeply"));
    EXPECT_THAT(refusalOf(R"({"state":"none","state":"none"})"), HasSubstr("is there twice"));
}

TEST(ASettingsSnapshot, HasABoundOnItsEntriesInBothDirections) {
    SettingsSnapshot snapshot;
    std::string text = textOf(snapshot);
    snapshot.privateRanges.assign(kMaxSnapshotEntries, "");
    snapshot.categories.push_back({"one more", 1});
    EXPECT_THROW((void)textOf(snapshot), SnapshotError);

    std::string ranges = R"("private_ranges":[)";
    for (std::size_t i = 0; i < kMaxSnapshotEntries; ++i) {
        ranges += R"("",)";
    }
    const std::string none = R"("private_ranges":[])";
    text.replace(text.find(none), none.size(), ranges + R"(""])");
    EXPECT_EQ(refusalOf(text), "the lists have more than 300000 entries");
}

} // namespace
