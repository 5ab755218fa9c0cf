// The error line and the exit codes behind it.
#include "apps/sentrelctl/terminal/Failure.h"

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
              "sentrelctl: cannot read: refused. Run it as root or as a member of the group sentrel-admin.");
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
