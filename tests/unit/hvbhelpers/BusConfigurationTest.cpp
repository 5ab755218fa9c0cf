// The text of the bus configuration. What the bus makes of it is shown in tests/integration/BusPolicyTest.cpp.
#include "platform/hvbhelpers/BusConfiguration.h"
#include "hub/HubIds.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using HVB::bus::busConfiguration;
using HVB::bus::BusConfigurationOptions;

BusConfigurationOptions options() {
    return {.socketPath = "/run/hub", .daemonUser = "watcher", .hubUser = "post", .adminGroup = "wheel"};
}

/// The section that begins with this policy element.
std::string section(const std::string& text, const std::string& attribute) {
    const std::size_t begin = text.find("<policy " + attribute + ">");
    return begin == std::string::npos ? "" : text.substr(begin, text.find("</policy>", begin) - begin);
}

bool allowsCommand(const std::string& section, int id) {
    return section.find("send_member=\"Command" + std::to_string(id) + "\"") != std::string::npos;
}

TEST(ABusConfiguration, HasNoDenyRule) {
    EXPECT_EQ(busConfiguration(options()).find("<deny"), std::string::npos);
}

TEST(ABusConfiguration, LetsEveryoneSendExactlyTheCommandsThatOnlyRead) {
    const std::string everyone = section(busConfiguration(options()), "context=\"default\"");
    for (const int id : {1003, 1004, 1022, 100001, 100003}) {
        EXPECT_TRUE(allowsCommand(everyone, id)) << id;
    }
    for (const int id : {1021, 1023, 100000, 100002, 100004}) {
        EXPECT_FALSE(allowsCommand(everyone, id)) << id;
    }
}

TEST(ABusConfiguration, LetsTheAdministratorsGroupSendEveryCommand) {
    const std::string administrators = section(busConfiguration(options()), "group=\"wheel\"");
    for (const Sentrel::CommandInfo& command : Sentrel::kCommands) {
        EXPECT_TRUE(allowsCommand(administrators, command.id)) << command.name;
    }
}

TEST(ABusConfiguration, HasNoGroupSectionWithoutAGroup) {
    BusConfigurationOptions noGroup = options();
    noGroup.adminGroup.clear();
    EXPECT_EQ(busConfiguration(noGroup).find("group="), std::string::npos);
}

TEST(ABusConfiguration, GivesEachNameToOneUserOnly) {
    const std::string text = busConfiguration(options());
    for (const auto& [name, owner] : {std::pair{"Module7", "watcher"}, {"Module1", "post"}, {"Hub", "post"}}) {
        const std::string rule = std::string("<allow own=\"com.orvanta.hvb1.") + name + "\"/>";
        const std::size_t first = text.find(rule);
        ASSERT_NE(first, std::string::npos) << name;
        EXPECT_EQ(text.find(rule, first + 1), std::string::npos) << name;
        EXPECT_NE(section(text, "user=\"" + std::string(owner) + "\"").find(rule), std::string::npos) << name;
    }
}

TEST(ABusConfiguration, EscapesWhatItIsGiven) {
    BusConfigurationOptions odd = options();
    odd.socketPath = "/run/a<b>&\"c";
    odd.adminGroup = "r&d\"<";
    const std::string text = busConfiguration(odd);
    EXPECT_NE(text.find("<listen>unix:path=/run/a%3cb%3e%26%22c</listen>"), std::string::npos);
    EXPECT_NE(text.find("<policy group=\"r&amp;d&quot;&lt;\">"), std::string::npos);
}

TEST(ABusConfiguration, IsRefusedWithoutAPathOrAUser) {
    for (std::string BusConfigurationOptions::*member :
         {&BusConfigurationOptions::socketPath, &BusConfigurationOptions::daemonUser,
          &BusConfigurationOptions::hubUser}) {
        BusConfigurationOptions lacking = options();
        (lacking.*member).clear();
        EXPECT_THROW(busConfiguration(lacking), std::invalid_argument);
    }
}

TEST(AGroup, IsFoundOnlyWhenItExists) {
    EXPECT_TRUE(HVB::bus::groupExists("root"));
    EXPECT_FALSE(HVB::bus::groupExists("no-such-group-here"));
}

} // namespace
