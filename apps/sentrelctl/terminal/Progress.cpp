#include "apps/sentrelctl/terminal/Progress.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <utility>

namespace Sentrel::ctl {

Progress::Progress(Output& err, std::string what, std::function<std::string()> more)
    : m_err(err), m_what(std::move(what)), m_more(std::move(more)) {
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

bool Progress::isDoneBy(std::chrono::steady_clock::time_point time) {
    const MutexLock lock(m_mutex);
    while (!m_isDone && m_changed.waitUntil(m_mutex, time)) {
    }
    return m_isDone;
}

void Progress::run() {
    std::string blanks;
    try {
        const auto begin = std::chrono::steady_clock::now();
        for (int seconds = 1; !isDoneBy(begin + std::chrono::seconds(seconds)); ++seconds) {
            const std::string more = m_more ? m_more() : "";
            const std::string shown = fmt::format("{} … {} s{}", m_what, seconds, more);
            m_err.write("\r" + shown +
                        std::string(blanks.size() > shown.size() ? blanks.size() - shown.size() : 0, ' '));
            blanks.assign(std::max(blanks.size(), shown.size()), ' ');
        }
        if (!blanks.empty()) {
            m_err.write("\r" + blanks + "\r");
        }
    } catch (...) {
        // A sign of life that cannot be written is no reason to fail.
        return;
    }
}

} // namespace Sentrel::ctl
