// Lines for the machine's system log. The socket is real and this test's own.
#include "platform/stlogger/STLogger.h"
#include "tests/integration/HvbdSystemLog.h"
#include "tests/support/Lines.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <optional>

using testing_support::Lines;

namespace {

/// Requires root, to have a system log of its own.
class ASystemLog : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can have a system log of its own; what reaches it was not tested";
        }
        m_socket.emplace(m_root.file("dev"));
    }

    Lines lines() { return m_socket->lines(); }

private:
    testing_support::PrivateRoot m_root;
    std::optional<testing_support::SystemLogSocket> m_socket;
};

TEST_F(ASystemLog, GetsEachLineWithItsLevelInTheDaemonsFacility) {
    for (int level = LOG_EMERG; level <= LOG_DEBUG; ++level) {
        LogMsg(level, "%s %d", "level", level);
        EXPECT_EQ(lines(), Lines{std::to_string(LOG_DAEMON + level) + " level " + std::to_string(level)});
    }
}

TEST_F(ASystemLog, TakesAFacilityInTheLevelForTheLevelAlone) {
    LogMsg(LOG_AUTH | LOG_WARNING, "x");
    EXPECT_EQ(lines(), Lines{std::to_string(LOG_DAEMON + LOG_WARNING) + " x"});
}

TEST_F(ASystemLog, GetsTheNextLineAfterOneThatIsTooLongForIt) {
    LogMsg(LOG_INFO, "%s", std::string(1U << 20U, 'x').c_str());
    EXPECT_EQ(lines(), Lines{});
    LogMsg(LOG_INFO, "next");
    EXPECT_EQ(lines(), Lines{"30 next"});
}

} // namespace
