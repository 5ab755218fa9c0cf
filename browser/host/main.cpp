// sentrel-browser-host: stands between a browser's extension and this machine. A browser starts it for its user.
#include "base/Paths.h"
#include "base/ProcessStart.h"
#include "base/SignalSet.h"
#include "base/UniqueFd.h"
#include "browser/host/HostLoop.h"
#include "browser/ratings/RatingLists.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <system_error>

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;

/// A descriptor that is readable when the process is to end.
Sentrel::UniqueFd stopDescriptor() {
    const Sentrel::SignalSet stops{SIGTERM, SIGINT};
    std::signal(SIGPIPE, SIG_IGN); // a browser that has gone is an error code
    Sentrel::UniqueFd stop(stops.block() ? ::signalfd(-1, &stops.get(), SFD_CLOEXEC | SFD_NONBLOCK) : -1);
    if (!stop.isOpen()) {
        throw std::system_error(errno, std::system_category(), "cannot receive SIGTERM");
    }
    return stop;
}

int serve() {
    const Sentrel::UniqueFd stop = stopDescriptor();
    Sentrel::ratings::RatingLists lists(Sentrel::paths::ratingDatabase());
    const bool isWell = Sentrel::host::serveBrowser({.input = STDIN_FILENO,
                                                     .output = STDOUT_FILENO,
                                                     .stopFd = stop.get(),
                                                     .release = SENTREL_VERSION,
                                                     .hubSocket = Sentrel::paths::hubSocket(),
                                                     .eventSocket = Sentrel::paths::eventSocket(),
                                                     .cacheFile = Sentrel::host::settingsCachePath()},
                                                    &lists);
    return isWell ? kDone : kFailed;
}

} // namespace

int main(int argc, char** argv) {
    Sentrel::beginProcess();
    std::setlocale(LC_CTYPE, "C.UTF-8");
    // A browser adds what it likes: its extension's name, the path of a manifest.
    const std::string_view option = argc == 2 ? argv[1] : "";
    if (option == "--version") {
        std::puts("sentrel-browser-host " SENTREL_VERSION);
        return kDone;
    }
    if (option == "--help" || option == "-h") {
        std::puts("Serves a browser's extension over its standard input and output. A browser starts it.");
        return kDone;
    }
    try {
        return serve();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sentrel-browser-host: %s.\n", error.what());
    }
    return kFailed;
}
