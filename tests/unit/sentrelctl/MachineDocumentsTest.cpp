// What the machines of a site published, as the broker gives it.
#include "apps/sentrelctl/fleet/MachineDocuments.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <deque>
#include <string>

namespace Sentrel::ctl {
namespace {

MqttMessage messageOf(const std::string& machine, const std::string& payload) {
    MqttMessage message;
    message.topic = "orvanta/v1/site/" + machine + "/state";
    message.payload = payload;
    return message;
}

TEST(TheMachinesDocuments, AreTheNewestOfEachInTheOrderOfTheMachines) {
    std::deque<MqttMessage> messages{messageOf("b", R"({"n":1})"), messageOf("a", R"({"n":2})"),
                                     messageOf("b", R"({"n":3})"), messageOf("c", "no document")};
    messages.push_back({});
    messages.back().topic = "orvanta/v1/another/d/state";
    const std::vector<MachineDocument> documents = newestOfEach(messages, "orvanta/v1/site/");
    ASSERT_EQ(documents.size(), 3U);
    EXPECT_EQ(documents[0].machine, "a");
    EXPECT_EQ((*documents[0].content)["n"], 2);
    EXPECT_EQ(documents[1].machine, "b");
    EXPECT_EQ((*documents[1].content)["n"], 3);
    EXPECT_EQ(documents[2].machine, "c");
    EXPECT_FALSE(documents[2].error.empty());
}

TEST(TheMachinesDocuments, TakeATimeThatGrowsWithTheirNumberAndNotItsSquare) {
    const auto shortestTimeOf = [](int machines) {
        std::deque<MqttMessage> messages;
        for (int i = 0; i < machines; ++i) {
            messages.push_back(messageOf("desk-of-a-department-" + std::to_string(i), "{}"));
        }
        auto shortest = std::chrono::steady_clock::duration::max();
        for (int round = 0; round < 3; ++round) {
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_EQ(newestOfEach(messages, "orvanta/v1/site/").size(), static_cast<std::size_t>(machines));
            shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
        }
        return shortest;
    };
    EXPECT_LT(shortestTimeOf(16'000), 40 * shortestTimeOf(1000)) << "a square is 256 times as long";
}

} // namespace
} // namespace Sentrel::ctl
