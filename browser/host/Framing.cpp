#include "browser/host/Framing.h"

#include <fmt/format.h>

#include <cstdint>
#include <cstring>

namespace Sentrel::host {
namespace {

using FrameLength = std::uint32_t;

bool isInsideCharacter(char byte) {
    constexpr unsigned marks = 0xC0;
    constexpr unsigned continuation = 0x80;
    return (static_cast<unsigned char>(byte) & marks) == continuation;
}

} // namespace

void FrameReader::add(std::string_view bytes) {
    m_bytes.erase(0, m_begin);
    m_begin = 0;
    m_bytes += bytes;
}

std::optional<std::string> FrameReader::next() {
    FrameLength length = 0;
    if (m_bytes.size() - m_begin < sizeof length) {
        return std::nullopt;
    }
    std::memcpy(&length, m_bytes.data() + m_begin, sizeof length);
    if (length > kMaxFrameBytes) {
        throw FramingError(fmt::format("a message is said to have {} bytes; {} are the most", length, kMaxFrameBytes));
    }
    if (m_bytes.size() - m_begin - sizeof length < length) {
        return std::nullopt;
    }
    std::string message = m_bytes.substr(m_begin + sizeof length, length);
    m_begin += sizeof length + length;
    return message;
}

std::string framed(std::string_view message) {
    const auto length = static_cast<FrameLength>(message.size());
    std::string frame(sizeof length, '\0');
    std::memcpy(frame.data(), &length, sizeof length);
    frame += message;
    return frame;
}

std::size_t pieceLength(std::string_view text, std::size_t begin) {
    if (text.size() - begin <= kPieceBytes) {
        return text.size() - begin;
    }
    std::size_t end = begin + kPieceBytes;
    while (end > begin + 1 && isInsideCharacter(text[end])) {
        --end;
    }
    return end - begin;
}

} // namespace Sentrel::host
