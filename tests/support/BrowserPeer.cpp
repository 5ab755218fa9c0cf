#include "tests/support/BrowserPeer.h"

#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace testing_support {
namespace {

using nlohmann::json;

void makePipe(const std::string& path) {
    constexpr mode_t forAll = 0666;
    if (::mkfifo(path.c_str(), forAll) != 0 || ::chmod(path.c_str(), forAll) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

/// Waits for the other side to open it.
int openPipe(const std::string& path, int flags) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return fd;
}

} // namespace

BrowserPeer::BrowserPeer(const PrivateRoot& root, std::optional<uid_t> uid) {
    static std::atomic<int> peers{0};
    std::signal(SIGPIPE, SIG_IGN); // a host that has ended is an error code
    const std::string prefix = root.file("browser" + std::to_string(peers++));
    m_errorFile = prefix + ".err";
    makePipe(prefix + ".in");
    makePipe(prefix + ".out");
    const std::string cache = root.file("cache");
    std::filesystem::create_directory(cache);
    if (uid) {
        PrivateRoot::giveTo(cache, *uid, static_cast<gid_t>(-1));
    }
    m_process.emplace(
        "sh", ChildOptions{.arguments = {"-c", "exec \"$0\" <\"$1.in\" >\"$1.out\" extension@test",
                                         programUnderTest("SENTREL_BROWSER_HOST_ROOTED"), prefix},
                           .environment = {"SENTREL_INSTALL_ROOT=" + root.path().string(), "XDG_CACHE_HOME=" + cache},
                           .outputFile = m_errorFile,
                           .uid = uid,
                           .gid = {}});
    m_input = openPipe(prefix + ".in", O_WRONLY);
    m_output = openPipe(prefix + ".out", O_RDONLY);
}

BrowserPeer::~BrowserPeer() {
    closeInput();
    closeOutput();
}

void BrowserPeer::closeInput() {
    if (m_input >= 0) {
        ::close(std::exchange(m_input, -1));
    }
}

void BrowserPeer::closeOutput() {
    if (m_output >= 0) {
        ::close(std::exchange(m_output, -1));
    }
}

void BrowserPeer::waitFor(int fd, short events) const {
    pollfd waiting{fd, events, 0};
    const auto patience = static_cast<int>(std::chrono::milliseconds(kPatience).count());
    if (::poll(&waiting, 1, patience) <= 0) {
        throw std::runtime_error("the host neither says nor takes anything: " + errors());
    }
}

void BrowserPeer::sendBytes(std::string_view bytes) {
    while (!bytes.empty()) {
        waitFor(m_input, POLLOUT);
        const ssize_t sent = ::write(m_input, bytes.data(), bytes.size());
        if (sent < 0 && errno != EAGAIN) {
            throw std::system_error(errno, std::generic_category(), "the host takes nothing more: " + errors());
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
    }
}

void BrowserPeer::sendFrame(std::string_view message) {
    const auto length = static_cast<std::uint32_t>(message.size());
    std::string frame(sizeof length, '\0');
    std::memcpy(frame.data(), &length, sizeof length);
    sendBytes(frame.append(message));
}

void BrowserPeer::say(const json& message) {
    sendFrame(message.dump());
}

std::string BrowserPeer::receive(std::size_t size) {
    std::string received(size, '\0');
    for (std::size_t have = 0; have < size;) {
        waitFor(m_output, POLLIN);
        const ssize_t got = ::read(m_output, received.data() + have, size - have);
        if (got == 0 || (got < 0 && errno != EAGAIN)) {
            throw std::runtime_error("the host says nothing more: " + errors());
        }
        have += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }
    return received;
}

json BrowserPeer::hearFrame() {
    std::uint32_t length = 0;
    std::memcpy(&length, receive(sizeof length).data(), sizeof length);
    ++m_frames;
    m_longestFrame = std::max<std::size_t>(m_longestFrame, length);
    return json::parse(receive(length));
}

json BrowserPeer::hear() {
    for (;;) {
        json message = hearFrame();
        if (message.at("type") != "piece") {
            return message;
        }
        m_pieces += message.at("text").get<std::string>();
        if (message.at("index").get<int>() + 1 == message.at("count").get<int>()) {
            return json::parse(std::exchange(m_pieces, {}));
        }
    }
}

json BrowserPeer::hear(const std::string& type) {
    for (;;) {
        json message = hear();
        if (message.at("type") == type) {
            return message;
        }
    }
}

json BrowserPeer::settingsWhen(const std::function<bool(const json&)>& isMeant) {
    for (;;) {
        json settings = hear("settings");
        if (isMeant(settings)) {
            return settings;
        }
    }
}

json BrowserPeer::settingsOfState(const std::string& state) {
    return settingsWhen([&](const json& settings) { return settings.at("state") == state; });
}

void BrowserPeer::greet(bool rules) {
    say({{"type", "hello"}, {"version", 1}, {"browser", "firefox"}, {"rules", rules}, {"ratings", false}});
    static_cast<void>(hear("welcome"));
}

json BrowserPeer::decide(const std::string& url) {
    const std::uint64_t id = m_nextId++;
    say({{"type", "decide"}, {"id", id}, {"url", url}, {"frame", "main"}});
    json decision = hear("decision");
    if (decision.at("id") != id) {
        throw std::runtime_error("the decision is another's: " + decision.dump());
    }
    return decision;
}

json BrowserPeer::report(const std::string& url, const std::string& answer) {
    say({{"type", "report"}, {"id", m_nextId++}, {"url", url}, {"answer", answer}});
    return hear("reported");
}

json BrowserPeer::request(const std::string& url, const std::string& reason) {
    say({{"type", "request"}, {"id", m_nextId++}, {"url", url}, {"reason", reason}});
    return hear("requested");
}

json BrowserPeer::requests(const std::string& url) {
    say({{"type", "requests"}, {"id", m_nextId++}, {"url", url}});
    return hear("requested");
}

std::string BrowserPeer::errors() const {
    return readFile(m_errorFile);
}

ExitStatus BrowserPeer::end() {
    const std::optional<ExitStatus> status = m_process->waitUntil(patience());
    if (!status) {
        throw std::runtime_error("the host does not end: " + errors());
    }
    return *status;
}

} // namespace testing_support
