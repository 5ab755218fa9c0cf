// The question who sits at the console, answered as a test says. It takes the place of platform/consoleuser.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace testing_support {

/// Threads: the test's. Owner: one a process, fresh for each test.
struct ConsoleUserDouble {
    static ConsoleUserDouble& instance();

    std::optional<std::string> user;       ///< none: nobody sits there
    std::function<void()> before;          ///< runs at the start of the question; what it throws leaves it
    std::function<void()> beforeConverted; ///< the same for the conversion of the name

    // What the caller passed at last.
    bool gaveStore = false;
    bool gavePlacesForIds = false;
    long bufferSize = 0;
    unsigned encoding = 0;
    int namesHeld = 0; ///< given and not released yet
};

} // namespace testing_support
