// Where the three signals may land. Real: signals, masks, threads.
#include "daemon/SignalGate.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

using Sentrel::SignalHold;
using Sentrel::SignalLanding;

using testing_support::eventually;

namespace {

std::atomic<int> handled{0};
std::atomic<pthread_t> handledOn{};
std::atomic<bool> mayLeave{true};
std::atomic<bool> forbidden{false};
std::atomic<int> handledWhileForbidden{0};

void handler(int /*signal*/) {
    handledOn = pthread_self();
    if (forbidden) {
        ++handledWhileForbidden;
    }
    ++handled;
    const auto deadline = testing_support::patience();
    while (!mayLeave && std::chrono::steady_clock::now() < deadline) {
    }
}

bool isHeld(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

constexpr int kSignals[] = {SIGTERM, SIGHUP, SIGUSR2};

struct ASignalHold : testing::Test {
    ASignalHold() {
        handled = 0;
        handledWhileForbidden = 0;
        mayLeave = true;
        forbidden = false;
        for (const int signal : kSignals) {
            std::signal(signal, handler);
        }
    }
};

TEST_F(ASignalHold, HoldsTheThreeSignalsAndNoOther) {
    const SignalHold hold;
    for (int signal = 1; signal < 32; ++signal) {
        EXPECT_EQ(isHeld(signal), signal == SIGTERM || signal == SIGHUP || signal == SIGUSR2) << signal;
    }
}

TEST_F(ASignalHold, RestoresAtItsEndWhatWasBefore) {
    {
        const SignalHold outer;
        { const SignalHold inner; }
        EXPECT_TRUE(isHeld(SIGTERM));
        EXPECT_TRUE(isHeld(SIGHUP));
        EXPECT_TRUE(isHeld(SIGUSR2));
    }
    EXPECT_FALSE(isHeld(SIGTERM));
    EXPECT_FALSE(isHeld(SIGHUP));
    EXPECT_FALSE(isHeld(SIGUSR2));
}

TEST_F(ASignalHold, KeepsASignalUntilItsEnd) {
    {
        const SignalHold hold;
        raise(SIGHUP);
        EXPECT_EQ(handled, 0);
    }
    EXPECT_EQ(handled, 1);
}

TEST_F(ASignalHold, LetsInWhatHasArrivedBeforeLetInReturnsAndHoldsAgain) {
    const SignalHold hold;
    for (const int signal : kSignals) {
        raise(signal);
    }
    EXPECT_EQ(handled, 0);
    hold.letIn();
    EXPECT_EQ(handled, 3);
    raise(SIGTERM);
    EXPECT_EQ(handled, 3);
    hold.letIn();
    EXPECT_EQ(handled, 4);
}

TEST_F(ASignalHold, LetsInAlsoBelowAnOuterHold) {
    const SignalHold outer;
    const SignalHold inner;
    raise(SIGTERM);
    inner.letIn();
    EXPECT_EQ(handled, 1);
    EXPECT_TRUE(isHeld(SIGTERM));
}

TEST_F(ASignalHold, LetsNoSignalInDuringWorkThatMustNotBeInterrupted) {
    const SignalHold hold;
    std::atomic<bool> stop{false};
    const pthread_t target = pthread_self();
    std::thread sender([&] {
        while (!stop) {
            pthread_kill(target, SIGUSR2);
        }
    });
    for (int pass = 0; pass < 2000; ++pass) {
        forbidden = true;
        const std::string memory(100, 'x');
        EXPECT_EQ(memory.size(), 100u);
        forbidden = false;
        hold.letIn();
    }
    EXPECT_TRUE(eventually([&hold] {
        hold.letIn();
        return handled > 0;
    }));
    stop = true;
    sender.join();
    EXPECT_EQ(handledWhileForbidden, 0);
}

TEST_F(ASignalHold, ForGoodIsInheritedAndOutlivesEveryOtherHold) {
    Sentrel::holdSignalsForGood();
    { const SignalHold hold; }
    raise(SIGTERM);
    bool inherited = false;
    std::thread([&inherited] { inherited = isHeld(SIGTERM) && isHeld(SIGHUP) && isHeld(SIGUSR2); }).join();
    EXPECT_TRUE(inherited);
    EXPECT_EQ(handled, 0);
    SignalHold().letIn();
    EXPECT_EQ(handled, 1);
    EXPECT_TRUE(isHeld(SIGTERM));
}

using ASignalLanding = ASignalHold;

TEST_F(ASignalLanding, TakesASignalWhileTheMainThreadHoldsIt) {
    const SignalHold hold;
    const SignalLanding landing;
    for (const int signal : kSignals) {
        const int before = handled;
        kill(getpid(), signal);
        EXPECT_TRUE(eventually([before] { return handled == before + 1; })) << signal;
        EXPECT_FALSE(pthread_equal(handledOn, pthread_self()));
    }
}

TEST_F(ASignalLanding, TakesWhatArrivedBeforeItsTime) {
    const SignalHold hold;
    kill(getpid(), SIGTERM);
    const SignalLanding landing;
    EXPECT_TRUE(eventually([] { return handled == 1; }));
}

TEST_F(ASignalLanding, WaitsAtItsEndForAHandlerThatRunsOnIt) {
    const SignalHold hold;
    mayLeave = false;
    std::atomic<bool> ended{false};
    auto landing = std::make_unique<SignalLanding>();
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(eventually([] { return handled == 1; }));
    std::thread ending([&] {
        landing.reset();
        ended = true;
    });
    EXPECT_FALSE(ended);
    mayLeave = true;
    ending.join();
    EXPECT_TRUE(ended);
}

TEST_F(ASignalLanding, LeavesSignalsHeldWhenItIsGone) {
    const SignalHold hold;
    { const SignalLanding landing; }
    kill(getpid(), SIGTERM);
    EXPECT_EQ(handled, 0);
    hold.letIn();
    EXPECT_EQ(handled, 1);
    EXPECT_TRUE(pthread_equal(handledOn, pthread_self()));
}

TEST_F(ASignalLanding, ComesAndGoesAThousandTimesUnderSignalsWithoutAHang) {
    const SignalHold hold;
    std::atomic<bool> stop{false};
    std::thread sender([&stop] {
        while (!stop) {
            kill(getpid(), SIGHUP);
        }
    });
    for (int pass = 0; pass < 1000; ++pass) {
        const SignalLanding landing;
        hold.letIn();
    }
    stop = true;
    sender.join();
    EXPECT_GT(handled, 0);
}

} // namespace
