// How the log is closed under writers that take no lock.
//
// A line tests three plain values and then writes. Between the test and the write a signal handler on another thread
// may close the stream (SIGHUP). Freeing a stream that somebody writes to would be fatal, so a writer first counts
// itself in and tests again, and the closer clears traceInited first and then waits until nobody is counted. Either
// the writer sees the cleared flag or the closer sees the writer. A writer never waits.
#include "daemon/Trace.h"

#include <sched.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdarg>
#include <ctime>
#include <cwchar>

namespace Sentrel::trace {
namespace {

std::atomic<int> linesInFlight{0};
std::atomic<bool> logIsOpen{false};

class CountedIn {
public:
    CountedIn() { linesInFlight.fetch_add(1); }
    ~CountedIn() { linesInFlight.fetch_sub(1); }
    CountedIn(const CountedIn&) = delete;
    CountedIn& operator=(const CountedIn&) = delete;
};

} // namespace

void openTraceLog(const std::string& path) {
    constexpr mode_t mode = 0744;
    // Readers of the log rely on appending: it is kept over restarts.
    logFilePtr = std::fopen(path.c_str(), "a+e");
    logIsOpen = logFilePtr != nullptr;
    static_cast<void>(chmod(path.c_str(), mode)); // a log with another mode is still a log
    std::atomic_ref(traceInited).store(1);
}

void closeTraceLog() {
    std::atomic_ref(traceInited).store(0);
    if (!logIsOpen.exchange(false)) {
        return;
    }
    while (linesInFlight.load() != 0) {
        sched_yield();
    }
    static_cast<void>(std::fclose(logFilePtr)); // every line was flushed; what could not be written is lost
}

namespace detail {

void writeLine(const std::int32_t& inited, std::FILE* const& stream, const wchar_t* format, ...) {
    const CountedIn counted;
    if (std::atomic_ref(const_cast<std::int32_t&>(inited)).load() == 0) {
        return;
    }
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    wchar_t stamp[80] = L"";
    static_cast<void>(std::wcsftime(stamp, std::size(stamp), L"%B %d, %Y %T", &local));
    static_cast<void>(std::fwprintf(stream, L"%ls ", stamp));
    std::va_list args;
    va_start(args, format);
    static_cast<void>(std::vfwprintf(stream, format, args));
    va_end(args);
    static_cast<void>(std::fflush(stream));
}

} // namespace detail
} // namespace Sentrel::trace
