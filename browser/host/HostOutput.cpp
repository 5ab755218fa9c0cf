#include "browser/host/HostOutput.h"

#include "browser/host/Framing.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

namespace Sentrel::host {
namespace {

[[noreturn]] void failOutput() {
    throw std::system_error(errno, std::system_category(), "cannot write to the browser");
}

std::size_t countPieces(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t begin = 0; begin < text.size(); begin += pieceLength(text, begin)) {
        ++count;
    }
    return count;
}

} // namespace

HostOutput::HostOutput(int fd) : m_fd(fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        failOutput();
    }
}

void HostOutput::put(std::string message) {
    m_waiting += message.size();
    (message.size() > kMaxWholeBytes ? m_long : m_short).push_back(std::move(message));
}

/// Makes the next frame. @return false when nothing is left.
bool HostOutput::nextFrame() {
    m_written = 0;
    m_frame.clear();
    if (!m_short.empty()) {
        m_frame = framed(m_short.front());
        m_waiting -= m_short.front().size();
        m_short.pop_front();
        return true;
    }
    if (m_long.empty()) {
        return false;
    }
    const std::string& text = m_long.front();
    if (m_begin == 0) {
        m_count = countPieces(text);
    }
    const std::size_t length = pieceLength(text, m_begin);
    const nlohmann::json piece{{"type", "piece"},
                               {"of", m_number},
                               {"index", m_index},
                               {"count", m_count},
                               {"text", text.substr(m_begin, length)}};
    m_frame = framed(piece.dump());
    m_begin += length;
    ++m_index;
    m_waiting -= length;
    if (m_begin == text.size()) {
        m_long.pop_front();
        ++m_number;
        m_begin = m_index = 0;
    }
    return true;
}

void HostOutput::write() {
    while (m_written < m_frame.size() || nextFrame()) {
        const ssize_t written = ::write(m_fd, m_frame.data() + m_written, m_frame.size() - m_written);
        if (written >= 0) {
            m_written += static_cast<std::size_t>(written);
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            failOutput();
        }
    }
}

} // namespace Sentrel::host
