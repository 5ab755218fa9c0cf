#include "browser/host/HostOutput.h"
#include "browser/host/Framing.h"

#include "base/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <system_error>
#include <vector>

namespace Sentrel::host {
namespace {

using nlohmann::json;

/// An output and the browser's end of it, both on a pipe.
class AHostOutput : public testing::Test {
protected:
    AHostOutput() : m_output(ends()[1].get()) {
        if (::fcntl(ends()[0].get(), F_SETFL, O_NONBLOCK) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
    }

    std::array<UniqueFd, 2>& ends() {
        if (!m_ends[0].isOpen() && !m_isMade) {
            std::array<int, 2> fds{};
            if (::pipe2(fds.data(), O_CLOEXEC) != 0) {
                throw std::system_error(errno, std::generic_category());
            }
            m_ends = {UniqueFd(fds[0]), UniqueFd(fds[1])};
            m_isMade = true;
        }
        return m_ends;
    }

    /// Reads what has arrived.
    void read() {
        std::array<char, 65536> bytes{};
        ssize_t got = 0;
        while ((got = ::read(m_ends[0].get(), bytes.data(), bytes.size())) > 0) {
            m_reader.add({bytes.data(), static_cast<std::size_t>(got)});
        }
        while (const auto message = m_reader.next()) {
            m_heard.push_back(json::parse(*message));
        }
    }

    void exchangeAll() {
        while (!m_output.isDone()) {
            m_output.write();
            read();
        }
        read();
    }

    std::array<UniqueFd, 2> m_ends;
    bool m_isMade = false;
    HostOutput m_output;
    FrameReader m_reader;
    std::vector<json> m_heard;
};

json longMessage(std::size_t texts) {
    json message{{"type", "long"}, {"texts", json::array()}};
    for (std::size_t place = 0; place < texts; ++place) {
        message["texts"].push_back("\xE2\x82\xAC \"\\\" " + std::to_string(place));
    }
    return message;
}

TEST_F(AHostOutput, WritesAShortMessageWhole) {
    m_output.put(R"({"type":"a"})");
    EXPECT_FALSE(m_output.isDone());
    exchangeAll();
    ASSERT_EQ(m_heard.size(), 1U);
    EXPECT_EQ(m_heard[0].at("type"), "a");
    EXPECT_EQ(m_output.waiting(), 0U);
}

TEST_F(AHostOutput, WritesALongMessageInPiecesThatAreTheMessage) {
    const json message = longMessage(100'000);
    m_output.put(message.dump());
    exchangeAll();
    ASSERT_GT(m_heard.size(), 3U);
    std::string text;
    for (std::size_t index = 0; index < m_heard.size(); ++index) {
        EXPECT_EQ(m_heard[index].at("type"), "piece");
        EXPECT_EQ(m_heard[index].at("of"), 1);
        EXPECT_EQ(m_heard[index].at("index"), index);
        EXPECT_EQ(m_heard[index].at("count"), m_heard.size());
        EXPECT_LE(m_heard[index].dump().size(), kMaxFrameBytes);
        text += m_heard[index].at("text").get<std::string>();
    }
    EXPECT_EQ(json::parse(text), message);
    EXPECT_EQ(m_output.waiting(), 0U);
    EXPECT_FALSE(m_output.hasLong());
}

TEST_F(AHostOutput, LetsAShortMessageOvertakeALongOne) {
    m_output.put(longMessage(100'000).dump());
    m_output.write();
    m_output.put(R"({"type":"a"})");
    exchangeAll();
    const auto isShort = [](const json& message) { return message.at("type") == "a"; };
    const auto found = std::find_if(m_heard.begin(), m_heard.end(), isShort);
    EXPECT_LE(found - m_heard.begin(), 2) << "behind the piece that was leaving";
}

TEST_F(AHostOutput, WritesLongMessagesOneAfterTheOther) {
    m_output.put(longMessage(100'000).dump());
    m_output.put(longMessage(100'001).dump());
    exchangeAll();
    int of = 1;
    for (const json& piece : m_heard) {
        EXPECT_GE(piece.at("of"), of);
        of = piece.at("of");
    }
    EXPECT_EQ(of, 2);
}

TEST_F(AHostOutput, DoesNotWaitForABrowserThatDoesNotRead) {
    m_output.put(longMessage(100'000).dump());
    m_output.write();
    EXPECT_FALSE(m_output.isDone());
    EXPECT_TRUE(m_output.hasLong());
}

TEST_F(AHostOutput, SaysWhenNobodyReadsAnyMore) {
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    m_ends[0].reset();
    m_output.put("{}");
    EXPECT_THROW(m_output.write(), std::system_error);
    std::signal(SIGPIPE, before);
}

} // namespace
} // namespace Sentrel::host
