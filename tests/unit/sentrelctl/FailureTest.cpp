// The error line and the exit codes behind it.
#include "apps/sentrelctl/terminal/Failure.h"

#include "tests/support/AsUser.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

TEST(AFailure, SaysWhatWhereWhyAndTheNextStep) {
    EXPECT_EQ(Failure(ExitCode::Failed, "what", "where", "why", "Next").line(), "sentrelctl: what: where: why. Next.");
}

TEST(AFailure, LeavesOutEmptyPartsAndDoublesNoFullStop) {
    EXPECT_EQ(Failure(ExitCode::Failed, "what", "", "why.", "").line(), "sentrelctl: what: why.");
}

TEST(AFailure, CannotDriveTheTerminal) {
    EXPECT_EQ(Failure(ExitCode::Failed, "what", "\x1b[2J", "a\nb", "\xFF").line(),
              "sentrelctl: what: \\x1b[2J: a\\x0ab. \\xff.");
}

TEST(AHubFailure, HasTheExitCodeOfItsKind) {
    for (const int gone : {ENOENT, ECONNREFUSED, EHOSTUNREACH, ECONNRESET, ENOTCONN, EPIPE}) {
        EXPECT_EQ(exitCodeOfHub(-gone), ExitCode::NotRunning) << gone;
    }
    EXPECT_EQ(exitCodeOfHub(-ETIMEDOUT), ExitCode::TimedOut);
    EXPECT_EQ(exitCodeOfHub(-EACCES), ExitCode::NoAccess);
    EXPECT_EQ(exitCodeOfHub(-EBADMSG), ExitCode::Failed);
    EXPECT_EQ(exitCodeOfHub(-1), ExitCode::Failed) << "-1 stands for a failure without an errno";
}

TEST(AHubFailure, SaysTheLibrarysTextAndTheNextStepOfItsKind) {
    EXPECT_EQ(hubFailure(HVB::HVBException(-ENOENT, "no hub at /a/b"), "cannot read").line(),
              "sentrelctl: cannot read: no hub at /a/b. Start the hub (its dbus-daemon and hvbd), then try again.");
    EXPECT_EQ(hubFailure(HVB::HVBException(-EACCES, "refused"), "cannot read").line(),
              "sentrelctl: cannot read: only root and members of the group sentrel-admin may. The hub says: refused.");
}

TEST(AHubFailure, OfAUserWithoutAnEntryIsOneOfAccess) {
    if (!testing_support::canActAsOthers()) {
        GTEST_SKIP() << "needs root, to act as a second user";
    }
    constexpr uid_t unknown = 4123456789;
    const auto line = [] {
        const HVB::HVBException reset(-ECONNRESET, "connection reset");
        return std::to_string(static_cast<int>(hubFailure(reset, "cannot read").code())) + " " +
               hubFailure(reset, "cannot read").line();
    };
    EXPECT_EQ(testing_support::asUser(unknown, testing_support::kNogroup, {}, line),
              "4 sentrelctl: cannot read: the user id 4123456789 has no entry in the user database, and the bus lets "
              "nobody in without one. Add the user, or run it as another.");
    EXPECT_EQ(testing_support::asNobody(line),
              "8 sentrelctl: cannot read: connection reset. Start the hub (its dbus-daemon and hvbd), then try again.");
}

TEST(ASocketFailure, HasTheExitCodeOfItsKind) {
    EXPECT_EQ(exitCodeOfErrno(ENOENT), ExitCode::NotRunning);
    EXPECT_EQ(exitCodeOfErrno(ECONNREFUSED), ExitCode::NotRunning);
    EXPECT_EQ(exitCodeOfErrno(EACCES), ExitCode::NoAccess);
    EXPECT_EQ(exitCodeOfErrno(ETIMEDOUT), ExitCode::TimedOut);
    EXPECT_EQ(exitCodeOfErrno(EPIPE), ExitCode::Failed);
}

} // namespace
} // namespace Sentrel::ctl
