// Secrets that must not stay in memory.
#pragma once

#include <cstring>
#include <string>

namespace Sentrel {

/// Wipes a text at its own end, whichever way that comes: all the room that the text has, also beyond its size. What a
/// text that had to grow left behind it cannot reach, so a secret's text gets its room before its content.
/// Threads: as the text. Owner: a local behind the text, which must outlive it.
class WipeAtEnd {
public:
    explicit WipeAtEnd(std::string& text) noexcept : m_text(text) {}
    ~WipeAtEnd() {
        m_text.resize(m_text.capacity()); // needs no memory
        explicit_bzero(m_text.data(), m_text.size());
        m_text.clear();
    }
    WipeAtEnd(const WipeAtEnd&) = delete;
    WipeAtEnd& operator=(const WipeAtEnd&) = delete;

private:
    std::string& m_text;
};

} // namespace Sentrel
