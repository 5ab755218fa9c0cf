// What the agent publishes, and the request to collect.
#include "platform/hvbagent/PropertyDocument.h"
#include "platform/hvbagent/StrictJson.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace HVBEnterprise;
using namespace HVBEnterprise::agent;
using nlohmann::json;

TEST(APropertyDocument, HoldsTheSectionsTheKindAndTheTime) {
    SectionsHandle properties;
    properties.insert(L"General", L"Language", L"d\u00E9");
    properties.insert(L"General", L"szProductVer", L" 10.7.123");
    properties.insert(L"Options", L"bSTEnabled", L"1");
    EXPECT_EQ(json::parse(propertyDocument(properties, true, "now")),
              json({{"time", "now"},
                    {"full", true},
                    {"sections",
                     {{"General", {{"Language", "dé"}, {"szProductVer", " 10.7.123"}}},
                      {"Options", {{"bSTEnabled", "1"}}}}}}));
    EXPECT_EQ(json::parse(propertyDocument({}, false, "now")),
              json({{"time", "now"}, {"full", false}, {"sections", json::object()}}));
}

TEST(APropertyDocument, IsValidUtf8WhateverTheTextsAre) {
    SectionsHandle properties;
    properties.insert({L'a', wchar_t{0xD800}}, L"\"\n", {L'\0', wchar_t{0x110000}});
    const json document = json::parse(propertyDocument(properties, true, "now"));
    EXPECT_EQ(document["sections"]["a\xEF\xBF\xBD"]["\"\n"], std::string("\0\xEF\xBF\xBD", 4));
}

TEST(AStateDocument, TellsOnlineOrOffline) {
    EXPECT_EQ(json::parse(stateDocument(true, "now")), json({{"state", "online"}, {"time", "now"}}));
    EXPECT_EQ(json::parse(stateDocument(false, "now")), json({{"state", "offline"}, {"time", "now"}}));
}

TEST(ACollectRequest, SaysWhetherAllIsWanted) {
    EXPECT_TRUE(readCollectRequest(R"({"full": true})"));
    EXPECT_FALSE(readCollectRequest(R"( {"full":false} )"));
}

TEST(ACollectRequest, IsRefusedInEveryOtherForm) {
    for (const std::string& bad :
         {std::string(), std::string("true"), std::string("{}"), std::string(R"({"full": "true"})"),
          std::string(R"({"full": true, "x": 1})"), std::string(R"({"full": true, "full": true})"),
          std::string(R"({"full": true})") + std::string(1024, ' ')}) {
        EXPECT_THROW((void)readCollectRequest(bad), DocumentError) << bad;
    }
}

} // namespace
