// One run: the one place where an error becomes an exit code.
#include "apps/sentrelctl/Session.h"

#include "apps/sentrelctl/CommandLine.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

ExitCode report(const Failure& failure, Output& err) {
    try {
        err.write(failure.line() + "\n");
    } catch (...) {
        // The exit code still tells; there is no other place to complain.
        return failure.code();
    }
    return failure.code();
}

} // namespace

std::chrono::steady_clock::time_point deadlineAfter(double seconds) {
    using Seconds = std::chrono::duration<double>;
    return std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::microseconds>(Seconds(seconds));
}

std::string readAll(int fd, const std::string& name, std::size_t limit) {
    constexpr std::size_t chunk = 65536;
    std::string content;
    for (;;) {
        const std::size_t before = content.size();
        content.resize(before + chunk);
        const ssize_t got = ::read(fd, content.data() + before, chunk);
        content.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got == 0) {
            return content;
        }
        if (got < 0 && errno != EINTR) {
            throw Failure(ExitCode::Failed, "cannot read", name, errnoText(errno), "");
        }
        if (content.size() > limit) {
            throw Failure(ExitCode::BadUsage, "too much input", name, "at most " + std::to_string(limit) + " bytes",
                          "");
        }
    }
}

int run(const std::vector<std::string>& arguments, Output& out, Output& err, int inputFd) {
    Session session{out, err, inputFd, JsonMode::Off, Palette()};
    ExitCode code = ExitCode::Done;
    try {
        parseAndWork(arguments, session);
    } catch (const OutputClosed&) {
        code = ExitCode::Done;
    } catch (const Failure& failure) {
        code = report(failure, err);
    } catch (const std::exception& error) {
        code = report(Failure(ExitCode::Failed, "unexpected error", "", error.what(), ""), err);
    }
    return static_cast<int>(code);
}

} // namespace Sentrel::ctl
