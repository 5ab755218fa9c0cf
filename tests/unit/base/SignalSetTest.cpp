// Which signals a thread takes. Real: masks, signals, threads.
#include "base/SignalSet.h"
#include "base/StartThread.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <future>

namespace Sentrel {
namespace {

volatile std::sig_atomic_t handled = 0;

void countSignal(int /*signal*/) {
    handled = handled + 1;
}

TEST(SignalSet, HoldsWhatItWasMadeOf) {
    const SignalSet set{SIGTERM, SIGUSR1};
    EXPECT_TRUE(set.contains(SIGTERM));
    EXPECT_TRUE(set.contains(SIGUSR1));
    EXPECT_FALSE(set.contains(SIGUSR2));
}

TEST(SignalSet, LosesTheMembersOfTheSetThatIsRemoved) {
    SignalSet set{SIGTERM, SIGUSR1};
    set.remove({SIGUSR1, SIGHUP});
    EXPECT_TRUE(set.contains(SIGTERM));
    EXPECT_FALSE(set.contains(SIGUSR1));
}

TEST(SignalSet, IsHeldBackFromBlockToUnblock) {
    handled = 0;
    std::signal(SIGUSR1, countSignal);
    const SignalSet set{SIGUSR1};
    ASSERT_TRUE(set.block());
    EXPECT_TRUE(SignalSet::blockedNow().contains(SIGUSR1));
    std::raise(SIGUSR1);
    EXPECT_EQ(handled, 0);
    set.unblock();
    EXPECT_EQ(handled, 1);
    EXPECT_FALSE(SignalSet::blockedNow().contains(SIGUSR1));
}

TEST(SignalsBlocked, RestoresWhatWasBefore) {
    ASSERT_TRUE(SignalSet{SIGUSR1}.block());
    {
        const SignalsBlocked blocked({SIGUSR1, SIGUSR2});
        EXPECT_TRUE(blocked.areBlocked());
        EXPECT_TRUE(SignalSet::blockedNow().contains(SIGUSR2));
    }
    EXPECT_TRUE(SignalSet::blockedNow().contains(SIGUSR1)) << "it was blocked before";
    EXPECT_FALSE(SignalSet::blockedNow().contains(SIGUSR2));
    SignalSet{SIGUSR1}.unblock();
}

TEST(AStartedThread, HasEverySignalBlockedAndItsName) {
    std::promise<SignalSet> mask;
    std::promise<void> mayEnd;
    std::thread thread = startThread("a-quiet-thread", [&] {
        mask.set_value(SignalSet::blockedNow());
        testing_support::await(mayEnd.get_future(), "the test to let the thread end");
    });
    const SignalSet blocked = testing_support::await(mask.get_future(), "the thread's mask");
    std::array<char, 16> shown{};
    EXPECT_EQ(::pthread_getname_np(thread.native_handle(), shown.data(), shown.size()), 0);
    mayEnd.set_value();
    thread.join();
    EXPECT_STREQ(shown.data(), "a-quiet-thread");
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE}) {
        EXPECT_TRUE(blocked.contains(signal)) << signal;
    }
    EXPECT_FALSE(SignalSet::blockedNow().contains(SIGTERM)) << "the maker's own mask is as before";
}

} // namespace
} // namespace Sentrel
