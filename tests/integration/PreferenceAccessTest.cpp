// Who may read and who may change the preferences of a real daemon that runs as a user of its own: the bus decides,
// before the daemon hears of it.
#include "tests/integration/AccessFixture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <optional>

namespace testing_support {
namespace {

using namespace Sentrel;

class TheAccessToPreferences : public AccessFixture {
protected:
    void SetUp() override {
        AccessFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(machine->startDaemon()) << machine->daemon().output();
        WireClient root(machine->bus().socketPath());
        STPreferences first;
        first.m_redSiteAction = 1;
        first.m_bSafeSearch = true;
        ASSERT_EQ(root.code(ST_SET_PREFS, payloadOf(first)), ST_ERROR_NONE);
        before = rows();
        ASSERT_NE(before, "");
    }

    std::string rows() { return machine->sql("select hex(name), hex(value) from vxsetting order by 1"); }

    std::string codeOf(int id, const std::optional<std::wstring>& payload = {}) {
        return std::to_string(WireClient(machine->bus().socketPath()).code(id, payload));
    }

    /// What the bus says to one who may not.
    const std::string refused = SD_BUS_ERROR_ACCESS_DENIED;
    const std::string done = std::to_string(ST_ERROR_NONE);

    std::string before;
};

TEST_F(TheAccessToPreferences, LetsAnyUserReadThem) {
    const std::string all = asNobody([this] {
        const STPreferences answer = WireClient(machine->bus().socketPath()).snapshot(ST_GET_PREFS);
        return std::to_string(answer.m_redSiteAction) + (answer.m_bSafeSearch ? " safe" : " unsafe");
    });
    EXPECT_EQ(all, "1 safe");
    const std::string one = asNobody([this] {
        const STPreferences answer =
            WireClient(machine->bus().socketPath()).snapshot(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(2));
        return std::to_string(answer.m_redSiteAction) + " of type " + std::to_string(answer.m_prefType);
    });
    EXPECT_EQ(one, "1 of type 2");
    EXPECT_EQ(rows(), before);
}

TEST_F(TheAccessToPreferences, RefusesAnyUserEveryChange) {
    EXPECT_EQ(asNobody([this] { return errorOf(ST_SET_PREFS, payloadOf(STPreferences())); }), refused);
    EXPECT_EQ(asNobody([this] { return errorOf(ST_SET_PREFS_INDIVIDUAL, payloadOf(withSwitch(ST_ENABLE, false))); }),
              refused);
    EXPECT_EQ(asNobody([this] { return errorOf(ST_RESET_PREFS); }), refused);
    EXPECT_EQ(rows(), before);
    const STPreferences now = WireClient(machine->bus().socketPath()).snapshot(ST_GET_PREFS);
    EXPECT_TRUE(now.m_bEnable);
    EXPECT_EQ(now.m_redSiteAction, 1);
}

TEST_F(TheAccessToPreferences, LetsAdministratorsChangeThem) {
    EXPECT_EQ(
        asAdministrator([this] { return codeOf(ST_SET_PREFS_INDIVIDUAL, payloadOf(withSwitch(ST_ENABLE, false))); }),
        done);
    EXPECT_FALSE(WireClient(machine->bus().socketPath()).snapshot(ST_GET_PREFS).m_bEnable);
    EXPECT_NE(rows(), before);
    EXPECT_EQ(asAdministrator([this] { return codeOf(ST_RESET_PREFS); }), done);
    EXPECT_TRUE(WireClient(machine->bus().socketPath()).snapshot(ST_GET_PREFS).m_bEnable);
    STPreferences whole;
    whole.m_redSiteAction = 2;
    EXPECT_EQ(asAdministrator([this, &whole] { return codeOf(ST_SET_PREFS, payloadOf(whole)); }), done);
    EXPECT_EQ(WireClient(machine->bus().socketPath()).snapshot(ST_GET_PREFS).m_redSiteAction, 2);
}

TEST_F(TheAccessToPreferences, IsDeniedByTheBusAndNotByTheDaemon) {
    machine->daemon().hold();
    EXPECT_EQ(asNobody([this] { return errorOf(ST_RESET_PREFS); }), refused) << "the daemon could not answer";
    machine->daemon().kill(SIGCONT);
    EXPECT_EQ(errorOf(ST_GET_PREFS), "");
    EXPECT_EQ(rows(), before);
}

} // namespace
} // namespace testing_support
