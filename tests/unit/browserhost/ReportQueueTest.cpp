// The queue against a socket that the test serves as the daemon does: one connection at a time, one reading.
#include "browser/host/ReportQueue.h"

#include "base/UniqueFd.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

namespace Sentrel::host {
namespace {

using testing_support::awaitUntil;
using testing_support::eventually;

/// The daemon's end of the event socket.
class Listener {
public:
    explicit Listener(const std::string& path)
        : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::copy(path.begin(), path.end(), address.sun_path);
        ::unlink(path.c_str());
        constexpr int backlog = 5;
        if (::bind(m_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(m_fd.get(), backlog) != 0) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }

    UniqueFd accept() const { return UniqueFd(::accept4(m_fd.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

private:
    UniqueFd m_fd;
};

STEventData recordOf(int number) {
    STEventData record{};
    record.count = number;
    return record;
}

class AReportQueue : public testing::Test {
protected:
    /// Lets the queue work, and takes what it sends as the daemon does, until @p count records have come.
    void receive(const Listener& listener, std::size_t count) {
        awaitUntil("the records", [&] {
            m_queue.proceed();
            const UniqueFd connection = listener.accept();
            STEventData record{};
            if (connection.isOpen() && ::recv(connection.get(), &record, sizeof record, 0) == sizeof record) {
                m_received.push_back(record.count);
            }
            return m_received.size() >= count;
        });
        awaitUntil("the queue to see it", [&] {
            m_queue.proceed();
            return m_queue.isEmpty();
        });
    }

    void add(int first, int last) {
        for (int number = first; number <= last; ++number) {
            m_queue.add(recordOf(number));
        }
    }

    testing_support::TemporaryDirectory m_directory;
    std::string m_path = m_directory.file("socket");
    std::vector<std::string> m_told;
    ReportQueue m_queue{m_path, [this](const std::string& line) { m_told.push_back(line); }};
    std::vector<int> m_received;
};

TEST_F(AReportQueue, SendsRecordsInOrder) {
    const Listener listener(m_path);
    add(1, 5);
    receive(listener, 5);
    EXPECT_EQ(m_received, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(m_queue.until(), ReportQueue::Time::max());
    EXPECT_TRUE(m_told.empty());
}

TEST_F(AReportQueue, KeepsRecordsUntilSomebodyListens) {
    add(1, 3);
    m_queue.proceed();
    EXPECT_LT(m_queue.until(), ReportQueue::Time::max());
    EXPECT_GT(m_queue.until(), std::chrono::steady_clock::now()) << "there is a pause";
    EXPECT_EQ(m_told.size(), 1U) << "it is told once";
    const Listener listener(m_path);
    receive(listener, 3);
    EXPECT_EQ(m_received, (std::vector<int>{1, 2, 3}));
}

TEST_F(AReportQueue, DropsTheOldestWhenItIsFull) {
    add(1, 260);
    EXPECT_EQ(m_queue.lost(), 4U);
    EXPECT_EQ(m_told.size(), 1U);
    const Listener listener(m_path);
    receive(listener, kMaxQueuedReports);
    EXPECT_EQ(m_received.front(), 5);
    EXPECT_EQ(m_received.back(), 260);
}

TEST_F(AReportQueue, KeepsTheRecordThatIsUnderWay) {
    {
        const Listener listener(m_path);
        add(1, 1);
        m_queue.proceed();
        add(2, 300);
    }
    const Listener listener(m_path);
    receive(listener, kMaxQueuedReports);
    EXPECT_EQ(m_received.front(), 1) << "it might have been read, and was not";
    EXPECT_EQ(m_received[1], 46);
}

TEST_F(AReportQueue, WritesARecordOnceHoweverLongItIsNotRead) {
    const Listener listener(m_path);
    add(1, 2);
    for (int time = 0; time < 100; ++time) {
        m_queue.proceed();
    }
    EXPECT_TRUE(listener.accept().isOpen());
    EXPECT_FALSE(listener.accept().isOpen()) << "one connection at a time";
}

TEST_F(AReportQueue, SendsARecordAgainThatWasNotRead) {
    {
        const Listener listener(m_path);
        add(1, 2);
        m_queue.proceed();
    }
    const Listener listener(m_path);
    receive(listener, 2);
    EXPECT_EQ(m_received, (std::vector<int>{1, 2}));
}

TEST_F(AReportQueue, DoesNotWaitAtAListenerThatIsBusy) {
    const Listener listener(m_path);
    std::vector<UniqueFd> others;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(m_path.begin(), m_path.end(), address.sun_path);
    do {
        others.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    } while (::connect(others.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    EXPECT_EQ(errno, EAGAIN);
    add(1, 1);
    m_queue.proceed();
    EXPECT_FALSE(m_queue.isEmpty());
    EXPECT_TRUE(m_told.empty()) << "it happens every day";
    others.clear();
    receive(listener, 1);
    EXPECT_EQ(m_received, std::vector<int>{1});
}

} // namespace
} // namespace Sentrel::host
