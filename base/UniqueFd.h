// The one owner of a descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Sentrel {

/// Owns a descriptor and closes it. Made from what open(2) and its like return: below 0 it owns nothing. Closing keeps
/// errno, so that a failure can be reported after its descriptors are closed.
/// Threads: one at a time; get alone may be called by several while nobody changes it. Owner: whoever holds it.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    /// The number, or below 0.
    int get() const noexcept { return m_fd; }
    bool isOpen() const noexcept { return m_fd >= 0; }

    /// Gives the descriptor up. @return the number, which the caller closes from now on.
    [[nodiscard]] int release() noexcept { return std::exchange(m_fd, -1); }

    /// Closes what it owns, then owns @p fd.
    void reset(int fd = -1) noexcept {
        const int old = std::exchange(m_fd, fd);
        if (old >= 0) {
            const int saved = errno;
            ::close(old);
            errno = saved;
        }
    }

    /// Closes what it owns and reports the result. Writers need that: some file systems report a lost write only here.
    /// @return whether the close succeeded; otherwise errno says why it did not. Either way nothing is owned any more.
    [[nodiscard]] bool close() noexcept { return ::close(release()) == 0; }

private:
    int m_fd = -1;
};

} // namespace Sentrel
