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
        const std::lock_guard lock(m_mutex);
        m_isDone = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void Progress::run() {
    std::string shown;
    try {
        std::unique_lock lock(m_mutex);
        for (int seconds = 1; !m_changed.wait_for(lock, std::chrono::seconds(1), [this] { return m_isDone; });
             ++seconds) {
            shown = fmt::format("\r{} … {} s", m_what, seconds);
            m_err.write(shown);
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
