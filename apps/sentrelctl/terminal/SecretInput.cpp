#include "apps/sentrelctl/terminal/SecretInput.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Input.h"
#include "base/WipeAtEnd.h"
#include "platform/hvbagent/SiteKeys.h"

#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;

/// While it lives, a terminal does not show what is typed.
class NoEcho {
public:
    explicit NoEcho(int fd) : m_fd(fd), m_isTerminal(::tcgetattr(fd, &m_before) == 0) {
        if (m_isTerminal) {
            termios silent = m_before;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            static_cast<void>(::tcsetattr(m_fd, TCSAFLUSH, &silent));
        }
    }
    ~NoEcho() {
        if (m_isTerminal) {
            static_cast<void>(::tcsetattr(m_fd, TCSAFLUSH, &m_before));
        }
    }
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;

    bool isTerminal() const { return m_isTerminal; }

private:
    int m_fd;
    termios m_before{};
    bool m_isTerminal;
};

/// While it lives, a process of root's has the file access of @p path's owner: the key belongs to the daemon's user,
/// and everybody else is refused.
/// Threads: while there is one. Owner: a local.
class AsOwner {
public:
    explicit AsOwner(const std::string& path) {
        struct stat facts {};
        m_isOther =
            ::geteuid() == 0 && ::stat(path.c_str(), &facts) == 0 && facts.st_uid != 0 && ::seteuid(facts.st_uid) == 0;
    }
    ~AsOwner() {
        if (m_isOther && ::seteuid(0) != 0) {
            std::abort(); // root is still the real user: this is granted
        }
    }
    AsOwner(const AsOwner&) = delete;
    AsOwner& operator=(const AsOwner&) = delete;

private:
    bool m_isOther;
};

agent::SecretKey keyIn(const std::string& file) {
    const AsOwner owner(file);
    return agent::SecretKey::load(file);
}

} // namespace

std::string secretFromInput(Session& session, std::string_view prompt, std::size_t limit) {
    const NoEcho noEcho(session.inputFd);
    std::string text;
    if (!noEcho.isTerminal()) {
        text = contentOf("-", session.inputFd, limit + 1);
        if (text.ends_with('\n')) {
            text.pop_back();
        }
        return text;
    }
    session.err.write(prompt);
    text.reserve(limit + 1); // a text that grows leaves copies behind
    for (char c = 0; text.size() <= limit && ::read(session.inputFd, &c, 1) == 1 && c != '\n';) {
        text += c;
    }
    session.err.write("\n");
    return text;
}

std::string encryptedWith(const std::string& keyFile, std::string& clear) {
    const WipeAtEnd wiped(clear);
    const agent::SecretKey key = keyIn(keyFile);
    return agent::encrypted(key, clear);
}

} // namespace Sentrel::ctl
