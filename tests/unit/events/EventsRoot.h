// The install root of this test program: a directory of its own, removed when the tests have run.
#pragma once

#include <string>

namespace testing_support {

/// The root that every fixed path of this process stands behind. Requires that the tests have begun to run.
const std::string& privateRoot();

} // namespace testing_support
