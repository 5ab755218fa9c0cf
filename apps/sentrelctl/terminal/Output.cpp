#include "apps/sentrelctl/terminal/Output.h"

#include "apps/sentrelctl/terminal/Failure.h"

#include <cerrno>
#include <unistd.h>

namespace Sentrel::ctl {

bool Output::isTerminal() const {
    return ::isatty(m_fd) == 1;
}

void Output::write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(m_fd, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EPIPE) {
            throw OutputClosed();
        } else if (errno != EINTR) {
            throw Failure(ExitCode::Failed, "cannot write the answer", "output", errnoText(errno), "");
        }
    }
}

Palette Palette::of(bool colored) {
    return colored ? Palette{"\x1b[1m", "\x1b[1;31m", "\x1b[33m", "\x1b[2m", "\x1b[0m"} : Palette{};
}

} // namespace Sentrel::ctl
