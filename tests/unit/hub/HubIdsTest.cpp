// The numbers that cross a process boundary, written down a second time: one that changes here breaks other programs.
#include "hub/HubIds.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

namespace {

using namespace Sentrel;

TEST(HubIds, NumberTheCommands) {
    EXPECT_EQ(CMD_DASH_BOARD_REQUEST, 1003);
    EXPECT_EQ(CMD_ABOUT_BOX_REQUEST, 1004);
    EXPECT_EQ(CMD_SET_DEBUG_LOGGING_STATUS, 1021);
    EXPECT_EQ(CMD_GET_DEBUG_LOGGING_STATUS, 1022);
    EXPECT_EQ(CMD_RELOAD_HVB, 1023);
    EXPECT_EQ(ST_SET_PREFS, 100000);
    EXPECT_EQ(ST_GET_PREFS, 100001);
    EXPECT_EQ(ST_SET_PREFS_INDIVIDUAL, 100002);
    EXPECT_EQ(ST_GET_PREFS_INDIVIDUAL, 100003);
    EXPECT_EQ(ST_RESET_PREFS, 100004);
}

TEST(HubIds, NumberTheEvents) {
    EXPECT_EQ(EVT_DASHBOARD_STATUS_CHANGE, 1002);
    EXPECT_EQ(EVT_PREFERENCES_CHANGE, 1003);
    EXPECT_EQ(EVT_DEBUG_LOG_CHANGE, 1005);
    EXPECT_EQ(EVT_PROXY_SETTINGS_CHANGE, 1007);
}

TEST(HubIds, NumberTheResults) {
    EXPECT_EQ(ST_ERROR_NONE, 180000);
    EXPECT_EQ(ST_ERROR_GENERIC, 180001);
    EXPECT_EQ(ST_ERROR_DATABASE, 180003);
    EXPECT_EQ(ST_ERROR_INVALID_PREFERENCE, 180004);
    EXPECT_EQ(ST_ERROR_PREFERENCES_EXCEPTION, 180006);
}

TEST(HubIds, NumberThePreferences) {
    EXPECT_EQ(ST_ENABLE, 0);
    EXPECT_EQ(ST_SAFE_SEARCH, 1);
    EXPECT_EQ(ST_RED_SITE_ACTION, 2);
    EXPECT_EQ(ST_YELLOW_SITE_ACTION, 3);
    EXPECT_EQ(ST_UNRATED_SITE_ACTION, 4);
    EXPECT_EQ(ST_UNVERIFIED_ACTION, 5);
    EXPECT_EQ(ST_CATEGORY_BLOCKING, 6);
    EXPECT_EQ(ST_ALLOW_BLOCK_LIST, 7);
    EXPECT_EQ(ST_CATEGORY_BLOCK_LIST, 8);
    EXPECT_EQ(ST_DEBUG_LOGGING, 9);
    EXPECT_EQ(ST_ALL_PREFERENCES, 10);
}

TEST(HubIds, NumberModulesAndLogRecords) {
    EXPECT_EQ(HVB::MODULE_HUB, 1);
    EXPECT_EQ(HVB::MODULE_SENTREL, 7);
    EXPECT_EQ(HVB::LOG_TYPE_HISTORY_EVENT, 3);
    EXPECT_EQ(HVB::LOG_TYPE_RECENT_EVENT, 7);
    EXPECT_EQ(HVB::LOG_TYPE_BROWSER_EVENT, 8);
}

TEST(TheListOfCommands, NamesEachOnceWithItsOwnName) {
    const std::map<std::string, int> expected{{"CMD_DASH_BOARD_REQUEST", 1003},
                                              {"CMD_ABOUT_BOX_REQUEST", 1004},
                                              {"CMD_SET_DEBUG_LOGGING_STATUS", 1021},
                                              {"CMD_GET_DEBUG_LOGGING_STATUS", 1022},
                                              {"CMD_RELOAD_HVB", 1023},
                                              {"ST_SET_PREFS", 100000},
                                              {"ST_GET_PREFS", 100001},
                                              {"ST_SET_PREFS_INDIVIDUAL", 100002},
                                              {"ST_GET_PREFS_INDIVIDUAL", 100003},
                                              {"ST_RESET_PREFS", 100004}};
    std::map<std::string, int> listed;
    for (const CommandInfo& command : kCommands) {
        listed.emplace(command.name, command.id);
    }
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(kCommands.size(), expected.size());
}

TEST(TheListOfCommands, SendsOnlyTheReloadToTheHub) {
    for (const CommandInfo& command : kCommands) {
        EXPECT_EQ(command.receiver, command.id == CMD_RELOAD_HVB ? HVB::MODULE_HUB : HVB::MODULE_SENTREL)
            << command.name;
    }
}

TEST(TheListOfCommands, OpensOnlyTheFiveThatReadToEverybody) {
    std::set<int> open;
    for (const CommandInfo& command : kCommands) {
        if (command.access == CommandAccess::Everyone) {
            open.insert(command.id);
        }
    }
    EXPECT_EQ(open, (std::set<int>{1003, 1004, 1022, 100001, 100003}));
}

} // namespace
