#include "browser/ratings/LineSource.h"

#include "base/FileFailure.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace Sentrel::ratings {

bool LineSource::fill() {
    constexpr std::size_t step = std::size_t{256} << 10U;
    m_buffer.erase(0, m_at);
    m_at = 0;
    const std::size_t had = m_buffer.size();
    m_buffer.resize(had + step);
    ssize_t got = 0;
    do {
        got = ::read(m_fd, m_buffer.data() + had, step);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        failFile(errno, m_name, "cannot be read");
    }
    m_buffer.resize(had + static_cast<std::size_t>(got));
    m_isAtEnd = got == 0;
    return got > 0;
}

std::string_view LineSource::takeLine() {
    const std::size_t end = std::min(m_buffer.find('\n', m_at), m_buffer.size());
    std::string_view line = std::string_view(m_buffer).substr(m_at, end - m_at);
    m_at = std::min(end + 1, m_buffer.size());
    line.remove_suffix(line.ends_with('\r') ? 1 : 0);
    return line;
}

std::optional<LineSource::Line> LineSource::next() {
    bool isTooLong = false;
    while (m_buffer.find('\n', m_at) == std::string::npos) {
        if (m_buffer.size() - m_at > kMaxLineBytes) {
            isTooLong = true;
            m_at = m_buffer.size();
        }
        if (m_isAtEnd || !fill()) {
            break;
        }
    }
    if (m_at == m_buffer.size() && !isTooLong) {
        return std::nullopt;
    }
    Line line{++m_number, takeLine(), nullptr};
    if (isTooLong || line.text.size() > kMaxLineBytes) {
        line.fault = "is longer than 64 KiB";
    } else if (line.text.find('\0') != std::string_view::npos) {
        line.fault = "has a byte of value 0";
    }
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    line.text.remove_prefix(line.number == 1 && line.text.starts_with(mark) ? mark.size() : 0);
    line.text = line.fault == nullptr ? line.text : std::string_view();
    return line;
}

} // namespace Sentrel::ratings
