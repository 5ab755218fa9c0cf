// sentrelctl on a machine of the test's own, and what a test expects of its runs.
#pragma once

#include "tests/integration/SentrelctlRun.h"
#include "tests/support/Machine.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace testing_support {

/// sentrelctl on a machine on which nothing runs but the bus.
/// Threads: the test's. Owner: gtest.
class AClientAlone : public testing::Test {
protected:
    CtlResult use(const std::vector<std::string>& arguments, const std::string& input = "",
                  std::optional<uid_t> uid = {}) {
        return ctl(m_machine.root(), arguments, input, uid);
    }

    /// Uses it for something that works. @return its output.
    std::string does(const std::vector<std::string>& arguments, const std::string& input = "") {
        const CtlResult result = use(arguments, input);
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return result.out;
    }

    void expectFailure(const CtlResult& result, int code, const std::string& error) {
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "sentrelctl: " + error + ".\n");
    }

    Machine m_machine;
};

} // namespace testing_support
