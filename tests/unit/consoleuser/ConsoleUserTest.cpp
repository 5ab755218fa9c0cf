// Who sits at the console, as logind and utmp tell it. Real: the two readers, on files in a private view of the
// machine.
#include "platform/consoleuser/ConsoleUser.h"

#include "tests/unit/consoleuser/PrivateMachine.h"

#include <gtest/gtest.h>
#include <utmpx.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <system_error>

namespace {

constexpr uid_t kNoId = 9999;

/// The answer to the question, with the ids that came along.
struct Answer {
    uid_t uid = kNoId;
    gid_t gid = kNoId;
    std::string name = "(nobody)";

    Answer() {
        if (const CFStringRef given = SCDynamicStoreCopyConsoleUser(nullptr, &uid, &gid)) {
            std::array<char, 2048> buffer{};
            EXPECT_TRUE(CFStringGetCString(given, buffer.data(), buffer.size(), kCFStringEncodingUTF8));
            name = buffer.data();
            CFRelease(given);
        }
    }
};

/// A machine with the accounts mara and nils.
class AConsole : public testing::Test {
protected:
    void SetUp() override {
        try {
            machine.emplace();
        } catch (const std::system_error& error) {
            // EINVAL in a bare chroot, the others for a user who may not make namespaces. Anything else is a failure.
            if (error.code().value() != EINVAL && error.code().value() != EPERM && error.code().value() != ENOSPC) {
                throw;
            }
            GTEST_SKIP() << error.what() << "; the console user was not tested";
        }
        machine->account("mara", 4711, 4712);
        machine->account("nils", 4811, 4812);
    }

    std::optional<testing_support::PrivateMachine> machine;
};

TEST_F(AConsole, HasNobodyAtItWithoutASeatAndALogin) {
    const Answer answer;
    EXPECT_EQ(answer.name, "(nobody)");
    EXPECT_EQ(answer.uid, kNoId) << "the ids are left as they are";
    EXPECT_EQ(answer.gid, kNoId);
}

TEST_F(AConsole, HasTheUserOfTheActiveSession) {
    machine->activeSession("3", 4711, "user");
    const Answer answer;
    EXPECT_EQ(answer.name, "mara");
    EXPECT_EQ(answer.uid, 4711U);
    EXPECT_EQ(answer.gid, 4712U);
}

TEST_F(AConsole, PrefersTheActiveSessionToALogin) {
    machine->login("nils", "tty1", 100, USER_PROCESS);
    machine->activeSession("3", 4711, "user");
    EXPECT_EQ(Answer().name, "mara");
}

TEST_F(AConsole, DoesNotTakeALoginManagersScreenForAUser) {
    machine->activeSession("c1", 4711, "greeter");
    EXPECT_EQ(Answer().name, "(nobody)");
}

TEST_F(AConsole, TakesASessionThatNothingIsKnownAboutForAUsers) {
    machine->activeSessionWithoutState("3", 4711);
    EXPECT_EQ(Answer().name, "mara");
}

TEST_F(AConsole, AsksUtmpWhenNobodyIsAtTheSeatOrTheUserHasNoAccount) {
    machine->login("nils", "tty1", 100, USER_PROCESS);
    machine->emptySeat();
    EXPECT_EQ(Answer().name, "nils");
    machine->activeSession("3", 5000, "user");
    EXPECT_EQ(Answer().name, "nils");
}

TEST_F(AConsole, HasTheUserOfALoginAtAVirtualTerminalOrALocalDisplay) {
    machine->login("mara", "tty1", 100, USER_PROCESS);
    Answer answer;
    EXPECT_EQ(answer.name, "mara");
    EXPECT_EQ(answer.uid, 4711U);
    EXPECT_EQ(answer.gid, 4712U);
    machine->login("nils", ":0", 200, USER_PROCESS);
    EXPECT_EQ(Answer().name, "nils");
}

TEST_F(AConsole, HasTheNewestOfSeveralLogins) {
    machine->login("nils", "tty2", 300, USER_PROCESS);
    machine->login("mara", "tty1", 200, USER_PROCESS);
    EXPECT_EQ(Answer().name, "nils");
}

TEST_F(AConsole, LeavesOutRemoteLoginsAndWhatIsNoLogin) {
    machine->login("mara", "pts/0", 100, USER_PROCESS);
    machine->login("mara", "tty1", 200, DEAD_PROCESS);
    machine->login("mara", "tty2", 300, LOGIN_PROCESS);
    machine->login("mara", "~", 400, BOOT_TIME);
    EXPECT_EQ(Answer().name, "(nobody)");
}

TEST_F(AConsole, HasNobodyAtItWhenTheLoginsNameHasNoAccount) {
    machine->login("ghost", "tty1", 100, USER_PROCESS);
    EXPECT_EQ(Answer().name, "(nobody)");
}

TEST_F(AConsole, ReadsANameThatFillsItsFieldWithoutATerminator) {
    const std::string longest(sizeof utmpx{}.ut_user, 'm');
    machine->account(longest, 4911, 4912);
    machine->login(longest, "tty1", 100, USER_PROCESS);
    EXPECT_EQ(Answer().name, longest);
}

TEST_F(AConsole, FindsAnAccountThatNeedsALargeBuffer) {
    machine->account("lena", 4611, 4612, std::string(20000, 'l'));
    machine->activeSession("3", 4611, "user");
    EXPECT_EQ(Answer().name, "lena");
}

TEST_F(AConsole, TellsTheNameWithoutPlacesForTheIds) {
    machine->activeSession("3", 4711, "user");
    const CFStringRef name = SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr);
    ASSERT_NE(name, nullptr);
    CFRelease(name);
}

TEST_F(AConsole, CopiesANameOnlyWhereItFitsWithItsTerminatorAndAsUtf8) {
    machine->activeSession("3", 4711, "user");
    const CFStringRef name = SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr);
    ASSERT_NE(name, nullptr);
    std::array<char, 8> buffer{};
    buffer.fill('x');
    for (const long size : {-1L, 0L, 1L, 4L}) {
        EXPECT_FALSE(CFStringGetCString(name, buffer.data(), size, kCFStringEncodingUTF8)) << size;
    }
    EXPECT_FALSE(CFStringGetCString(name, buffer.data(), 8, 0)) << "another encoding";
    EXPECT_EQ(std::string(buffer.data(), buffer.size()), "xxxxxxxx") << "nothing was written";
    EXPECT_TRUE(CFStringGetCString(name, buffer.data(), 5, kCFStringEncodingUTF8));
    EXPECT_EQ(std::string(buffer.data(), buffer.size()), std::string("mara\0xxx", 8));
    CFRelease(name);
}

} // namespace
