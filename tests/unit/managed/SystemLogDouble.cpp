#include "tests/support/FreshStart.h"
#include "tests/unit/managed/PolicyFixture.h"

#include <cstdarg>
#include <cstdio>

namespace testing_support {

Lines& systemLog() {
    return freshForEachTest<Lines>();
}

} // namespace testing_support

void LogMsg(int level, const char* format, ...) {
    char line[1024] = "";
    std::va_list args;
    va_start(args, format);
    static_cast<void>(std::vsnprintf(line, sizeof line, format, args));
    va_end(args);
    testing_support::systemLog().push_back(std::to_string(level) + " " + line);
}
