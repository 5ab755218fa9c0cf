// The comparator that turns a multimap into an ordered list.
#pragma once

#include <string>

namespace NPlgHelper {

/// Orders nothing: every key is equivalent to every other. A multimap with it keeps the order of insertion and all
/// duplicates, which makes the allow/block list an ordered list with a map's interface.
/// Threads: any. Owner: none.
struct classcomp {
    bool operator()(const std::string& /*left*/, const std::string& /*right*/) const { return false; }
};

} // namespace NPlgHelper
