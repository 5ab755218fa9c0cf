// What every unit program has linked in. Its tests share one process in any order, so each starts as if it were the
// first: the process is put back and the doubles are made fresh when a test's fixture is gone.
#include "tests/support/FreshStart.h"
#include "tests/support/ProcessState.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

namespace testing_support {
namespace {

class FreshStartForEachTest : public testing::EmptyTestEventListener {
    // The runtime of ThreadSanitizer starts a thread of its own with the first one, which bears the name of who asked.
    // Here that is nobody's; a worker's name would be looked for by the tests.
    void OnTestProgramStart(const testing::UnitTest& /*program*/) override {
        std::thread([] {}).join();
    }
    void OnTestStart(const testing::TestInfo& /*test*/) override {
        makeEverythingFresh();
        m_before.emplace();
    }
    void OnTestEnd(const testing::TestInfo& /*test*/) override {
        m_before->restore();
        makeEverythingFresh();
    }

    std::optional<ProcessState> m_before;
};

[[maybe_unused]] const bool listens = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshStartForEachTest); // gtest deletes it
    return true;
}();

} // namespace
} // namespace testing_support
