// sentrelctl: the command line client.
#include "apps/sentrelctl/Session.h"
#include "base/ProcessStart.h"

#include <clocale>
#include <csignal>
#include <unistd.h>

int main(int argc, char** argv) {
    Sentrel::beginProcess();
    std::setlocale(LC_CTYPE, "C.UTF-8");
    // A reader that went away is an error of a write, not the end of the process.
    std::signal(SIGPIPE, SIG_IGN); // NOLINT(cert-err33-c): cannot fail for this signal
    Sentrel::ctl::Output out(STDOUT_FILENO);
    Sentrel::ctl::Output err(STDERR_FILENO);
    return Sentrel::ctl::run({argv + (argc > 0 ? 1 : 0), argv + argc}, out, err, STDIN_FILENO);
}
