// sentrelctl on a machine whose hub, settings keeper and daemon run.
#pragma once

#include "tests/integration/ClientAlone.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace testing_support {

/// The same with hub and daemon, and tables in the settings file.
class APreferenceClient : public AClientAlone {
protected:
    APreferenceClient() {
        m_machine.initSettings();
        startAll();
    }

    void startAll() {
        m_machine.startHub();
        m_machine.startKeeper();
        EXPECT_TRUE(m_machine.startDaemon());
    }

    /// Puts rows into the file that the daemon is to find when it starts.
    void startAgainWith(const std::string& sql) {
        m_machine.stopDaemon();
        m_machine.sql(sql);
        EXPECT_TRUE(m_machine.startDaemon());
    }

    std::string fileOf(const std::string& lines) {
        std::string path = m_machine.root().file("list.txt");
        std::ofstream(path, std::ios::binary) << lines;
        return path;
    }
};

} // namespace testing_support
