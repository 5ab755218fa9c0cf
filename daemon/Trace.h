// The trace facility. Every part of the daemon writes to one log through one macro.
#pragma once

#include "base/PrintableText.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

// One level variable a flow: a line of a flow is written when its level is not above the flow's. The flows of the
// hub's library (cmdHelperFlow, regHelperFlow, hvInitFlow, hvCommFlow) have theirs in that library.
// Threads: plain values by design, read without a lock by every thread; VXLoadTraceValues writes them.
extern std::int32_t stDaemonFlowvalue;
extern std::int32_t configFlowvalue;
extern std::int32_t loggerFlowvalue;
extern std::int32_t stCmdFlowvalue;
extern std::int32_t hcFlowvalue;
extern std::int32_t mgsFlowvalue;
extern std::int32_t safariPluginFlowvalue;
extern std::int32_t ipcFlowvalue;

/// Non-zero while the log may be written.
extern std::int32_t traceInited;
/// The log's stream. After the log is closed it keeps its old value; closeTraceLog is the only one to close it.
extern std::FILE* logFilePtr;

/// The settings database's own names for the same things. Nothing ever assigns them, so its lines stay silent.
namespace dbSettingsLog {
extern std::int32_t traceInited;
extern std::FILE* logFilePtr;
extern std::int32_t safariPluginFlowvalue;
} // namespace dbSettingsLog

namespace Sentrel::trace {

/// Opens the log at @p path for appending, gives it mode 0744 and lets lines through. Failures are ignored: without a
/// stream every line stays silent. Requires that the log is not open.
void openTraceLog(const std::string& path);

/// Stops tracing and closes the stream, once: a second call does nothing, and so does one before the log was opened.
/// Waits for lines that other threads are in the middle of. Requires that the calling thread is not inside a line,
/// which for a signal handler means that its thread held signals back around lines (SignalGate.h).
void closeTraceLog();

/// For text from outside: a line thus stays one line and is never cut by the stream's conversion.
using text::printable;

namespace detail {

/// Whether a conversion of a format takes an argument of type T.
template <class T>
constexpr bool takes(wchar_t conversion, bool isLong) {
    using Plain = std::decay_t<T>;
    switch (conversion) {
    case L's':
        return isLong ? std::is_convertible_v<Plain, const wchar_t*> : std::is_convertible_v<Plain, const char*>;
    case L'd':
        return !isLong && std::is_integral_v<Plain> && std::is_signed_v<Plain> && sizeof(Plain) == sizeof(int);
    case L'u':
        return std::is_integral_v<Plain> && std::is_unsigned_v<Plain> &&
               sizeof(Plain) == (isLong ? sizeof(long) : sizeof(int));
    case L'p':
        return std::is_pointer_v<Plain>;
    default:
        return false;
    }
}

void formatDoesNotFitTheArguments(); // not constexpr, never defined: calling it ends the compilation

/// A trace format that was held against its arguments when it was compiled.
template <class... Args>
struct Format {
    consteval Format(const wchar_t* format) : text(format) {
        using Check = bool (*)(wchar_t, bool);
        constexpr std::array<Check, sizeof...(Args) + 1> checks{&takes<Args>..., nullptr};
        std::size_t argument = 0;
        for (const wchar_t* at = format; *at != L'\0'; ++at) {
            if (*at != L'%') {
                continue;
            }
            ++at;
            const bool isLong = *at == L'l';
            at += isLong ? 1 : 0;
            if (argument == sizeof...(Args) || !checks[argument](*at, isLong)) {
                formatDoesNotFitTheArguments();
            }
            ++argument;
        }
        if (argument != sizeof...(Args)) {
            formatDoesNotFitTheArguments();
        }
    }

    const wchar_t* text;
};

/// Writes stamp and message in two calls and flushes. Tests @p inited and @p stream once more, in a way that
/// closeTraceLog on another thread can rely on.
void writeLine(const std::int32_t& inited, std::FILE* const& stream, const wchar_t* format, ...);

template <class... Args>
void line(const std::int32_t& inited, std::FILE* const& stream, Format<std::type_identity_t<Args>...> format,
          Args... args) {
    writeLine(inited, stream, format.text, args...);
}

} // namespace detail
} // namespace Sentrel::trace

/// Writes a line of @p flow when the flow's level is at least @p level and the log is open. Otherwise it costs one
/// comparison and evaluates none of the arguments. The format is a wide string and ends in its own newline; %s takes
/// a narrow string and %ls a wide one. Takes no lock: the stamp of one thread and the message of another may meet.
#define ST_TRACE(flow, level, format, ...)                                                                             \
    do {                                                                                                               \
        if (flow##value >= (level) && traceInited != 0 && logFilePtr != nullptr) {                                     \
            ::Sentrel::trace::detail::line(traceInited, logFilePtr, format __VA_OPT__(, ) __VA_ARGS__);                \
        }                                                                                                              \
    } while (false)
