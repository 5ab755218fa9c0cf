// A browser in the place of one: starts the host and speaks native messaging with it, by its own code.
#pragma once

#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateRoot.h"

#include <nlohmann/json_fwd.hpp>

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace testing_support {

/// A running sentrel-browser-host and both ends of it. Its user's cache directory is "cache" in the root.
/// Threads: plain, single access. Owner: the test; the root outlives it.
class BrowserPeer {
public:
    /// @param uid the user it runs as; another than the test's own requires root.
    explicit BrowserPeer(const PrivateRoot& root, std::optional<uid_t> uid = {});
    ~BrowserPeer();
    BrowserPeer(const BrowserPeer&) = delete;
    BrowserPeer& operator=(const BrowserPeer&) = delete;

    void say(const nlohmann::json& message);
    void sendFrame(std::string_view message);
    /// Sends bytes as they are. @throws std::runtime_error when the host takes no more within the test's patience.
    void sendBytes(std::string_view bytes);
    void closeInput();
    void closeOutput();

    /// The next message, put together when it comes in pieces. @throws std::runtime_error when none comes in time.
    nlohmann::json hear();
    /// The next message of this type; others are dropped.
    nlohmann::json hear(const std::string& type);
    /// The next settings that @p isMeant; others are dropped.
    nlohmann::json settingsWhen(const std::function<bool(const nlohmann::json&)>& isMeant);
    nlohmann::json settingsOfState(const std::string& state);

    /// Says hello and waits for the answer.
    void greet(bool rules = false);
    nlohmann::json decide(const std::string& url);
    nlohmann::json report(const std::string& url, const std::string& answer = "none");
    /// Asks for access to a page.
    nlohmann::json request(const std::string& url, const std::string& reason = "");
    /// What came of asking.
    nlohmann::json requests(const std::string& url);

    /// Frames that have arrived since the start, and the longest of them.
    std::size_t frames() const { return m_frames; }
    std::size_t longestFrame() const { return m_longestFrame; }

    ChildProcess& process() { return *m_process; }
    /// What it said to people.
    std::string errors() const;
    /// How it ended; it must.
    ExitStatus end();

private:
    void waitFor(int fd, short events) const;
    std::string receive(std::size_t size);
    nlohmann::json hearFrame();

    std::string m_errorFile;
    std::optional<ChildProcess> m_process;
    int m_input = -1;
    int m_output = -1;
    std::uint64_t m_nextId = 1;
    std::size_t m_frames = 0;
    std::size_t m_longestFrame = 0;
    std::string m_pieces;
};

} // namespace testing_support
