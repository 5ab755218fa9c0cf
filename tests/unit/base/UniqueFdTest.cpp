// The one owner of a descriptor.
#include "base/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

namespace Sentrel {
namespace {

bool isOpenInProcess(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}

int openNull() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

TEST(UniqueFd, ClosesItsDescriptorAtItsEnd) {
    int number = -1;
    {
        const UniqueFd fd(openNull());
        number = fd.get();
        ASSERT_TRUE(fd.isOpen());
        ASSERT_TRUE(isOpenInProcess(number));
    }
    EXPECT_FALSE(isOpenInProcess(number));
}

TEST(UniqueFd, OwnsNothingWhenOpeningFailed) {
    EXPECT_FALSE(UniqueFd(-1).isOpen());
    EXPECT_FALSE(UniqueFd().isOpen());
}

TEST(UniqueFd, GivesItsDescriptorToTheOneItIsMovedTo) {
    UniqueFd from(openNull());
    const int number = from.get();
    const UniqueFd to(std::move(from));
    EXPECT_FALSE(from.isOpen()); // NOLINT(bugprone-use-after-move): what is left is the subject
    EXPECT_EQ(to.get(), number);
    EXPECT_TRUE(isOpenInProcess(number));
}

TEST(UniqueFd, ClosesWhatItHadWhenAnotherIsMovedIn) {
    UniqueFd held(openNull());
    const int number = held.get();
    UniqueFd other(openNull());
    const int kept = other.get();
    held = std::move(other);
    EXPECT_FALSE(isOpenInProcess(number));
    EXPECT_EQ(held.get(), kept);
}

TEST(UniqueFd, LeavesAReleasedDescriptorOpen) {
    int number = -1;
    {
        UniqueFd fd(openNull());
        number = fd.release();
    }
    EXPECT_TRUE(isOpenInProcess(number));
    const UniqueFd again(number);
}

TEST(UniqueFd, KeepsErrnoWhenItCloses) {
    {
        const int file = openNull();
        const UniqueFd first(file);
        UniqueFd closedAlready(::dup(file));
        ::close(closedAlready.get()); // the owner's close fails with EBADF
        errno = ENOSPC;
        closedAlready.reset();
    }
    EXPECT_EQ(errno, ENOSPC);
}

TEST(UniqueFd, TellsOfACloseThatFailed) {
    UniqueFd fd(openNull());
    EXPECT_TRUE(fd.close());
    EXPECT_FALSE(fd.isOpen());
    UniqueFd lost(openNull());
    ::close(lost.get());
    EXPECT_FALSE(lost.close());
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(lost.isOpen());
}

} // namespace
} // namespace Sentrel
