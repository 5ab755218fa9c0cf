// Which directories are synced, and what is in them then.
#pragma once

#include <functional>
#include <string>

namespace testing_support {

/// Told the path of each directory that is synced while it is set. Threads: one. Owner: the test, which unsets it.
extern std::function<void(const std::string& directory)> g_onDirectorySync;

} // namespace testing_support
