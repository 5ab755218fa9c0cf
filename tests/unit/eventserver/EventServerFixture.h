// The event socket and its one thread. Real: sockets, clients, files, threads, the reporter behind. Not real: the hub
// (a recording broker) and the agent (a recording library). A client that reads to the end of its connection has been
// served, so no test waits for time to pass.
#pragma once

#include "daemon/Trace.h"
#include "events/STEventData.h"
#include "events/STEventServer.h"
#include "tests/support/Eventually.h"
#include "tests/support/Lines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/support/TraceLog.h"
#include "tests/support/UnixSocket.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/daemon/RecordingAgent.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace testing_support {

/// A browser component's connection.
class Client {
public:
    explicit Client(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        m_connected = connectSocket(m_fd, path);
    }
    ~Client() { hangUp(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool connected() const { return m_connected; }
    bool send(const std::string& message) const {
        return ::send(m_fd, message.data(), message.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
    }
    /// All that comes until the server has closed the connection, which is when it has done with the message.
    std::string readToTheEnd() const {
        std::string all;
        std::array<char, 4096> some{};
        for (ssize_t got = 0; (got = read(m_fd, some.data(), some.size())) > 0;) {
            all.append(some.data(), static_cast<std::size_t>(got));
        }
        return all;
    }
    void hangUp() {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = -1;
    }

private:
    int m_fd;
    bool m_connected = false;
};

inline STEventData record(const std::string& eventId, const std::string& url, const std::string& process) {
    STEventData event{};
    eventId.copy(event.eventId, sizeof event.eventId);
    url.copy(event.url, sizeof event.url);
    process.copy(event.browserProcessName, sizeof event.browserProcessName);
    event.urlRating = -100;
    event.action = 3;
    event.inAllowBlockList = 1;
    event.blockedInAllowBlockList = 2;
    event.blockedInCategory = 4;
    event.blockedCategoryId = 105;
    event.isPhishing = 6;
    event.isRpxReachable = 7;
    event.count = 8;
    event.userAction = 9;
    return event;
}

inline std::string bytesOf(const STEventData& event) {
    return {reinterpret_cast<const char*>(&event), sizeof event};
}

inline STEventData recordOf(std::string bytes) {
    bytes.resize(sizeof(STEventData), '\0');
    STEventData event{};
    std::memcpy(&event, bytes.data(), sizeof event);
    return event;
}

template <std::size_t Size>
std::string textOf(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

inline Lines fieldLines(const STEventData& event) {
    const std::string prefix = "STEventServer::processSocketEvent - ";
    return {prefix + "Event ID - " + textOf(event.eventId) + " ",
            prefix + "URL - " + textOf(event.url) + " ",
            prefix + "BrowserProcess Name - " + textOf(event.browserProcessName) + " ",
            prefix + "URL rating - " + std::to_string(event.urlRating) + " ",
            prefix + "URL In AllowBlock List - " + std::to_string(event.inAllowBlockList) + " ",
            prefix + "Blocked In AllowBlock List - " + std::to_string(event.blockedInAllowBlockList) + " ",
            prefix + "Blocked In Category - " + std::to_string(event.blockedInCategory) + " ",
            prefix + "Blocked In CategoryID - " + std::to_string(event.blockedCategoryId) + " ",
            prefix + "Is Phishing URL - " + std::to_string(event.isPhishing) + " ",
            prefix + "Is RPX Reachable - " + std::to_string(event.isRpxReachable) + " "};
}

inline const std::string kHeader = "------------------ EVENT SERVER RECIEVED DATA ------------------";
inline const std::string kEnd = "------------------ END ------------------";

inline Lines recordLines(const STEventData& event) {
    Lines lines = fieldLines(event);
    lines.insert(lines.begin(), kHeader);
    lines.push_back(kEnd);
    return lines;
}

/// A URL that the reporter drops, so that a test sees the server alone.
constexpr const char* kDropped = "nowhere";

struct AnEventServer : testing::Test {
    DaemonRoot root;
    TraceLog log;
    Recording& hub = Recording::instance();
    RecordingAgent& agent = RecordingAgent::instance();

    AnEventServer() {
        agent.decrypt = [](const std::string& text) { return "clear " + text; };
        mgsFlowvalue = 0;
    }
    ~AnEventServer() override { Sentrel::STEventServer::releaseInstance(); }

    Sentrel::STEventServer& start() const {
        Sentrel::STEventServer::getInstance()->start();
        return *Sentrel::STEventServer::getInstance();
    }
    std::string exchange(const std::string& message) const {
        const Client client(root.eventSocket());
        EXPECT_TRUE(client.connected());
        EXPECT_TRUE(client.send(message));
        return client.readToTheEnd();
    }
    /// Proves that the server still serves.
    void expectService() const {
        const std::string reply = exchange(std::string("Decrypt still\0", 14));
        EXPECT_EQ(reply.substr(0, 11), "clear still");
        EXPECT_EQ(reply.size(), 1024u);
    }
    std::size_t count(const std::string& start) const {
        const Lines lines = log.lines();
        return static_cast<std::size_t>(std::count_if(
            lines.begin(), lines.end(), [&start](const std::string& line) { return line.rfind(start, 0) == 0; }));
    }
    bool eventuallyTraced(const std::string& start, std::size_t times = 1) const {
        return eventually([&] { return count(start) >= times; });
    }
    bool waitsInSelect(std::size_t times = 1) const {
        return eventuallyTraced("STEventServer::monitorFd - Inside while blocking on Select for fd ", times);
    }
    /// Only the lines of records, in their order.
    Lines tracedRecords() const {
        Lines records;
        bool inside = false;
        for (const std::string& line : log.lines()) {
            inside = inside || line == kHeader;
            if (inside) {
                records.push_back(line);
            }
            inside = inside && line != kEnd;
        }
        return records;
    }
};

} // namespace testing_support
