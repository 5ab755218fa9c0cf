// The real controller over a real settings file in a private directory. Not real: the hub, which is a recording broker,
// and the question where the file is, which can be made to fail.
#pragma once

#include "store/STPreferenceController.h"
#include "tests/support/Lines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TraceLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {

/// Stands behind NPlgHelper::GetUserDBPath in these tests: what it returns, what it throws.
std::function<bool(std::string& path)>& settingsPath();

/// Threads: the test's. Owner: the test.
class PreferenceFixture : public testing::Test {
protected:
    PreferenceFixture();
    ~PreferenceFixture() override;

    std::string file() const { return m_directory.file("Users/Shared/.orvanta/product.db"); }
    std::string configurationFile() const {
        return m_directory.file("usr/local/Orvanta/hvb/config/Sentrel/HVConfig.xml");
    }
    void writeConfiguration(const std::string& syslogEnable, const std::string& logLevel) const;

    /// Lays the four tables into a new file.
    void makeTables() const;
    /// Has the sqlite3 program work on the file. @return what it printed, lines parted by newlines, none at the end.
    std::string sql(const std::string& statement) const;
    /// The value under a key of the general table, as the sqlite3 program sees it; the key is stored with its NUL.
    std::string stored(const std::string& key) const;

    /// The controller, loaded when it is first asked for.
    static Sentrel::STPreferenceController& controller() { return *Sentrel::STPreferenceController::getInstance(); }
    /// As a new start of the daemon finds it.
    static Sentrel::STPreferenceController& restarted();

    /// The lines that @p act writes on configFlow, each with the level that it needs and a blank in front. It is run
    /// once for each level, every time from what @p arrange makes of a controller that is loaded anew.
    static Lines leveled(const std::function<void()>& arrange, const std::function<void()>& act);

    /// What @p act prints on standard output.
    static std::string printed(const std::function<void()>& act);

private:
    TemporaryDirectory m_directory;
};

} // namespace testing_support
