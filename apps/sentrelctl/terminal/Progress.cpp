#include "apps/sentrelctl/terminal/Progress.h"

#include <chrono>
#include <fmt/format.h>
#include <utility>

namespace Sentrel::ctl {

Progress::Progress(Output& err, std::string what) : m_err(err), m_what(std::move(what)) {
    if (m_err.isTerminal()) {
        m_thread = std::thread([this] { run(); });
    }
}

Progress::~Progress() {
    {
        const MutexLock lock(m_mutex);
        m_isDone = true;
    }
    m_changed.notifyAll();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void Progress::run() {
    std::string shown;
    try {
        const MutexLock lock(m_mutex);
        const auto begin = std::chrono::steady_clock::now();
        for (int seconds = 1; !m_isDone;) {
            if (m_changed.waitUntil(m_mutex, begin + std::chrono::seconds(seconds)) || m_isDone) {
                continue;
            }
            shown = fmt::format("\r{} … {} s", m_what, seconds);
            m_err.write(shown);
            ++seconds;
        }
        if (!shown.empty()) {
            m_err.write("\r" + std::string(shown.size(), ' ') + "\r");
        }
    } catch (...) {
        // A sign of life that cannot be written is no reason to fail.
        return;
    }
}

} // namespace Sentrel::ctl
