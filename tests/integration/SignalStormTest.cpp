// Signals at random instants after the handlers are installed: the daemon neither hangs nor crashes, and ends with 0.
// SENTREL_STORM_STARTS says how many starts each test makes; the default is small, for every run of the tests.
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/Sanitizers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace testing_support {
namespace {

int starts() {
    constexpr int few = kIsThreadSanitized ? 15 : 40;
    const char* value = std::getenv("SENTREL_STORM_STARTS");
    return value != nullptr ? std::atoi(value) : few;
}

/// Whether the process has a handler for @p signal (the SigCgt mask of proc(5)).
bool catches(pid_t pid, int signal) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigCgt:")) {
            return ((std::stoull(line.substr(7), nullptr, 16) >> (signal - 1)) & 1U) != 0;
        }
    }
    return false;
}

class ASignalStorm : public ::testing::Test {
protected:
    void SetUp() override {
        machine.setTraceLevels(5);
        machine.startHub();
    }

    /// Starts the daemon and returns when the last handler is installed.
    void launch() {
        std::filesystem::remove(traceLog());
        machine.launchDaemon();
        ASSERT_TRUE(eventually([this] { return catches(machine.daemon().pid(), SIGUSR2); }));
    }

    /// Waits for an instant that has nothing to do with where the daemon is: the one reason to sleep in a test.
    void waitAtRandom() {
        constexpr int longest = 25'000; // microseconds: about twice a start
        std::this_thread::sleep_for(std::chrono::microseconds(random() % longest));
    }

    /// Ends the daemon with SIGTERM at a random instant and checks what it leaves.
    void endAndCheck(bool traceMayHaveEnded) {
        waitAtRandom();
        machine.daemon().kill(SIGTERM);
        const auto status = machine.daemon().waitUntil(patience());
        ASSERT_TRUE(status.has_value()) << "hangs; trace so far:\n" << trace();
        ASSERT_EQ(*status, 0) << machine.daemon().output() << trace();
        ASSERT_FALSE(std::filesystem::exists(machine.root().varDirectory() + "/.STPid"));
        if (!traceMayHaveEnded) {
            ASSERT_TRUE(trace().ends_with("VXController::main() - Exiting\n")) << trace();
            ASSERT_EQ(machine.traced("VXController::main - Stopping Sentrel"), 1U);
        }
    }

    std::string traceLog() { return machine.root().varDirectory() + "/STTrace.log"; }
    std::string trace() {
        std::string all;
        for (const std::string& line : machine.traceLines()) {
            all += line + "\n";
        }
        return all;
    }

    Machine machine;
    std::mt19937 random{std::random_device{}()};
};

TEST_F(ASignalStorm, OfSigtermEndsEachStartWithZero) {
    for (int start = 0; start < starts(); ++start) {
        ASSERT_NO_FATAL_FAILURE(launch());
        ASSERT_NO_FATAL_FAILURE(endAndCheck(false)) << "start " << start;
    }
}

TEST_F(ASignalStorm, OfSighupThenSigtermEndsEachStartWithZero) {
    for (int start = 0; start < starts(); ++start) {
        ASSERT_NO_FATAL_FAILURE(launch());
        waitAtRandom();
        machine.daemon().kill(SIGHUP);
        ASSERT_NO_FATAL_FAILURE(endAndCheck(true)) << "start " << start;
    }
}

TEST_F(ASignalStorm, OfSigusr2ThenSigtermEndsEachStartWithZero) {
    for (int start = 0; start < starts(); ++start) {
        ASSERT_NO_FATAL_FAILURE(launch());
        waitAtRandom();
        machine.daemon().kill(SIGUSR2);
        ASSERT_NO_FATAL_FAILURE(endAndCheck(false)) << "start " << start;
    }
}

TEST_F(ASignalStorm, OfAllThreeInARowEndsEachStartWithZero) {
    for (int start = 0; start < starts(); ++start) {
        ASSERT_NO_FATAL_FAILURE(launch());
        for (const int signal : {SIGUSR2, SIGHUP, SIGUSR2, SIGHUP, SIGHUP}) {
            machine.daemon().kill(signal);
        }
        ASSERT_NO_FATAL_FAILURE(endAndCheck(true)) << "start " << start;
    }
}

} // namespace
} // namespace testing_support
