// A daemon that runs as a user of its own, and what other users and administrators get from it. Daemon, bus and users
// are real.
#pragma once

#include "tests/support/AsUser.h"
#include "tests/support/Machine.h"
#include "tests/support/Preferences.h"

#include <gtest/gtest.h>

#include <grp.h>

#include <functional>
#include <optional>
#include <string>

namespace testing_support {

class AccessFixture : public testing::Test {
protected:
    // Accounts that every Debian has and that nothing here runs as.
    static constexpr const char* kDaemonUser = "games";
    static constexpr const char* kAdminGroup = "staff";

    /// Makes a machine on which nothing runs yet but the bus. Skips without root.
    void SetUp() override {
        if (!canActAsOthers()) {
            GTEST_SKIP() << "needs root, to act as other users";
        }
        machine.emplace(kDaemonUser, kAdminGroup);
        machine->initSettings();
    }

    static std::string asAdministrator(const std::function<std::string()>& work) {
        return asUser(kNobody, kNogroup, {::getgrnam(kAdminGroup)->gr_gid}, work);
    }
    /// The name of the error that a command meets; empty when it is answered.
    std::string errorOf(int id, const std::optional<std::wstring>& payload = {}) {
        return WireClient(machine->bus().socketPath()).command(id, payload).error;
    }

    std::optional<Machine> machine;
};

} // namespace testing_support
