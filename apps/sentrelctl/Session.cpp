// One run: the one place where an error becomes an exit code.
#include "apps/sentrelctl/Session.h"

#include "apps/sentrelctl/CommandLine.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <exception>

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
