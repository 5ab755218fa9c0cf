// A machine whose hub, settings keeper and daemon run, and browsers on it.
#pragma once

#include "tests/integration/SentrelctlRun.h"
#include "tests/support/BrowserPeer.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace testing_support {

/// The page that the tests block, and what blocks it.
inline const std::string kBlockedPage = "https://blocked.example/page";
inline const std::vector<std::string> kBlockIt{"list", "block", "blocked.example"};

class ABrowserHost : public testing::Test {
protected:
    ABrowserHost() {
        m_machine.initSettings();
        m_machine.startHub();
        m_machine.startKeeper();
        EXPECT_TRUE(m_machine.startDaemon());
    }

    /// What sentrelctl says; it must succeed.
    std::string does(const std::vector<std::string>& arguments) {
        const CtlResult result = ctl(m_machine.root(), arguments);
        EXPECT_EQ(result.code, 0) << result.err;
        return result.out;
    }

    void kill9Hub() {
        m_machine.hub().kill(SIGKILL);
        ASSERT_EQ(m_machine.hub().waitUntil(patience()), -SIGKILL);
    }

    std::string cacheFile() { return m_machine.root().file("cache/sentrel/settings"); }

    Machine m_machine;
};

} // namespace testing_support
