// What the tests of the settings file share.
#pragma once

#include "store/DBSettings.h"

#include "tests/unit/store/SettingsFile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

/// A settings file with rows in all four tables, written from outside, and settings that are not yet opened.
class ASettingsFile : public testing::Test {
protected:
    static constexpr const char* kRows =
        "insert into vxsetting values (cast(x'456E61626C656400' as text), x'01000000');"
        "insert into catblockinginfo values ('Gambling', x'07000000'), ('Adult', x'01000000');"
        "insert into allowblocksettings values ('good.example', 0), ('bad.example', 1), ('bad.example/2', 1);"
        "insert into privateIPRange values ('10.0.0.0-10.255.255.255'), ('192.168.0.0/16');";
    static constexpr const char* kCounts =
        "select count(*) from vxsetting; select count(*) from catblockinginfo;"
        "select count(*) from allowblocksettings; select count(*) from privateIPRange";
    static constexpr const char* kAllThere = "1\n2\n3\n2\n";

    void layOut() const {
        file.layOut();
        ASSERT_EQ(file.sqlite(kRows), "");
    }
    bool init(bool fix = false) { return settings.Init(file.path().c_str(), fix); }
    /// A file as it should be, opened.
    void open() {
        ASSERT_NO_FATAL_FAILURE(layOut());
        ASSERT_TRUE(init());
    }

    bool set(const std::string& name, const std::string& value, TableType type = TABLE_GENERAL_SETTING) {
        return settings.Set(name.data(), name.size(), value.data(), value.size(), type);
    }
    /// The value of a name, or "-" when there is none.
    std::string get(const std::string& name, TableType type = TABLE_GENERAL_SETTING) {
        std::string buffer(64, '#');
        const bool found = settings.Get(name.data(), name.size(), buffer.data(), buffer.size(), nullptr, type);
        return found ? buffer.substr(0, buffer.find('#')) : "-";
    }
    /// Whether @p type has a row that a Get finds. Types from 0 to 2.
    bool getsARow(TableType type) { return get(rowOf(type), type) != "-"; }
    static std::string rowOf(TableType type) {
        const std::string names[]{std::string("Enabled\0", 8), "Adult", "good.example"};
        return names[type];
    }

    using RowList = std::vector<std::pair<std::string, int>>;
    /// The rows of a table; a failure is a row of its own.
    RowList rows(TableType type, bool ascending = true) {
        CVXDBSettings::Rows found{{"left over", 9}};
        if (!settings.GetAllRows(type, found, ascending)) {
            found.emplace("failed", 0);
        }
        return {found.begin(), found.end()};
    }

    SettingsFile file;
    CVXDBSettings settings;
};
