#include "apps/sentrelctl/terminal/Output.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "base/FileWriting.h"

#include <cerrno>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace Sentrel::ctl {

bool Output::isTerminal() const {
    return ::isatty(m_fd) == 1;
}

std::size_t Output::columns() const {
    winsize size{};
    return isTerminal() && ::ioctl(m_fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

void Output::write(std::string_view text) {
    try {
        writeAll(m_fd, text, "output");
    } catch (const std::system_error& error) {
        if (error.code().value() == EPIPE) {
            throw OutputClosed();
        }
        throw Failure(ExitCode::Failed, "cannot write the answer", "output", errnoText(error.code().value()), "");
    }
}

Palette Palette::of(bool colored) {
    return colored ? Palette{"\x1b[1m", "\x1b[1;31m", "\x1b[33m", "\x1b[2m", "\x1b[0m"} : Palette{};
}

} // namespace Sentrel::ctl
