// The five preference commands of a real daemon on a real bus, asked as a user interface asks them and as bytes, and
// what they leave in the settings file, seen from outside with the sqlite3 program.
#pragma once

#include "tests/support/Machine.h"
#include "tests/support/Preferences.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

/// What the members of a snapshot say, without those of the lists.
inline std::string scalarsOf(const Sentrel::STPreferences& preferences) {
    std::ostringstream text;
    text << "enable " << preferences.m_bEnable << " safe " << preferences.m_bSafeSearch << " red "
         << preferences.m_redSiteAction << " yellow " << preferences.m_yellowSiteAction << " unrated "
         << preferences.m_unratedSiteAction << " unverified " << preferences.m_unverifiedAction << " categories "
         << preferences.m_bCategoryBlocking << " allow-over-block " << preferences.m_bAllowOverBlock << " type "
         << preferences.m_prefType << " individual " << preferences.m_bIndividual << " unused "
         << preferences.m_bUnused;
    return text.str();
}

constexpr const char* kFreshScalars = "enable 1 safe 0 red 3 yellow 2 unrated 1 unverified 1 categories 1 "
                                      "allow-over-block 0 type 10 individual 0 unused 0";

/// A snapshot in which every scalar differs from its first value.
inline Sentrel::STPreferences allDifferent() {
    Sentrel::STPreferences preferences;
    preferences.m_bEnable = false;
    preferences.m_bSafeSearch = true;
    preferences.m_redSiteAction = 1;
    preferences.m_yellowSiteAction = 3;
    preferences.m_unratedSiteAction = 2;
    preferences.m_bCategoryBlocking = false;
    preferences.m_unverifiedAction = 3;
    return preferences;
}
constexpr const char* kDifferentScalars = "enable 0 safe 1 red 1 yellow 3 unrated 2 unverified 3 categories 0 "
                                          "allow-over-block 0 type 10 individual 0 unused 0";

constexpr ReceivedEvent kDashboard{Sentrel::EVT_DASHBOARD_STATUS_CHANGE, false};
constexpr ReceivedEvent kPreferences{Sentrel::EVT_PREFERENCES_CHANGE, false};

class APreferenceStore : public ::testing::Test {
protected:
    void SetUp() override {
        machine.initSettings();
        start();
    }

    void start() { ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output(); }
    void restart() {
        ASSERT_EQ(machine.stopDaemon(), 0) << machine.daemon().output();
        start();
    }
    /// Ends the daemon, with all that it still had to send, and gives every event that it sent.
    std::vector<ReceivedEvent> eventsToTheEnd() {
        EXPECT_EQ(machine.stopDaemon(), 0) << machine.daemon().output();
        return client.eventsUntilNow();
    }
    /// The value of a setting in hexadecimal; the name's terminator is part of the key.
    std::string stored(const std::string& name) {
        std::string value = machine.sql("select hex(value) from vxsetting where hex(name) = hex('" + name + "')||'00'");
        return value.substr(0, value.find('\n'));
    }
    std::string allRows() {
        return machine.sql("select hex(name), hex(value) from vxsetting order by 1;"
                           "select name, hex(value) from catblockinginfo order by 1;"
                           "select name, value from allowblocksettings order by 1;"
                           "select range from privateIPRange order by 1");
    }

    Machine machine;
    PreferenceClient client{machine.bus().socketPath()};
};

} // namespace testing_support
