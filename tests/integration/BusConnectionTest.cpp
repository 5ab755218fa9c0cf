// One connection to a real bus, and what it says when there is none, or one that does not answer.
#include "platform/hvbhelpers/BusConnection.h"
#include "base/UniqueFd.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeHub.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/UnixSocket.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>

namespace {

using namespace HVB::bus;
using testing_support::bindSocket;
using testing_support::connectSocket;
using testing_support::FakeHub;
using testing_support::HubBus;
using testing_support::patience;
using testing_support::PrivateRoot;

Deadline soon() {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
}

/// The code of the exception that @p work throws; 0 when it throws none.
template <class Work>
int codeOf(Work&& work) {
    try {
        work();
        return 0;
    } catch (const HVB::HVBException& exception) {
        return exception.code();
    }
}

MessagePtr logMessageCall(sd_bus& bus) {
    MessagePtr request = newCall(bus, kHubName, kHubPath, kHubInterface, kLogMessageMember);
    check(sd_bus_message_append(request.get(), "i", 7), "append");
    appendText(*request, L"name");
    check(sd_bus_message_append(request.get(), "ii", 1, 2), "append");
    appendText(*request, L"line");
    return request;
}

TEST(AConnection, IsRefusedAtOnceWhenThereIsNoSocket) {
    const PrivateRoot root;
    EXPECT_EQ(codeOf([&] { openBus(root.hubSocket(), patience()); }), -ENOENT);
}

TEST(AConnection, IsRefusedAtOnceWhenNobodyListensAtTheSocket) {
    const PrivateRoot root;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_TRUE(bindSocket(fd, root.hubSocket()));
    ::close(fd);
    EXPECT_EQ(codeOf([&] { openBus(root.hubSocket(), patience()); }), -ECONNREFUSED);
}

TEST(AConnection, NamesThePathThatItCannotReach) {
    const PrivateRoot root;
    try {
        openBus(root.hubSocket(), patience());
        FAIL() << "connected to nothing";
    } catch (const HVB::HVBException& exception) {
        EXPECT_NE(exception.message().find(root.hubSocket()), std::string::npos) << exception.message();
    }
}

TEST(AConnection, ReachesABusWhosePathHasAMeaningInAnAddress) {
    const PrivateRoot root;
    const HubBus bus(root);
    const std::string odd = root.file("a,b;c=d e%");
    std::filesystem::create_symlink(root.hubSocket(), odd);
    EXPECT_NE(openBus(odd, patience()), nullptr);
}

class AConnectionToABus : public ::testing::Test {
protected:
    PrivateRoot m_root;
    HubBus m_bus{m_root};
};

TEST_F(AConnectionToABus, IsGivenUpAtTheDeadlineWhenTheBusIsHeldUp) {
    m_bus.stop();
    EXPECT_EQ(codeOf([&] { openBus(m_bus.socketPath(), soon()); }), -ETIMEDOUT);
    m_bus.cont();
}

TEST_F(AConnectionToABus, IsGivenUpAtTheDeadlineWhenTheListenQueueIsFull) {
    m_bus.stop();
    std::vector<int> knocking;
    int error = 0;
    rlimit files{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
    files.rlim_cur = files.rlim_max; // the queue is as long as the system's somaxconn
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &files), 0);
    constexpr std::size_t longest = 10'000;
    while (error == 0 && knocking.size() < longest) {
        knocking.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        error = connectSocket(knocking.back(), m_bus.socketPath()) ? 0 : errno;
    }
    ASSERT_EQ(error, EAGAIN) << "after " << knocking.size() << " connections";
    EXPECT_EQ(codeOf([&] { openBus(m_bus.socketPath(), soon()); }), -ETIMEDOUT);
    m_bus.cont();
    EXPECT_NE(openBus(m_bus.socketPath(), patience()), nullptr);
    for (const int fd : knocking) {
        ::close(fd);
    }
}

/// Connections to the bus that never say a word.
class SilentClients {
public:
    SilentClients(const std::string& socketPath, std::size_t count) {
        rlimit files{};
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
        files.rlim_cur = files.rlim_max;
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &files), 0);
        while (m_clients.size() < count) {
            Sentrel::UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            if (!connectSocket(client.get(), socketPath)) {
                throw std::runtime_error("cannot connect: " + std::string(std::strerror(errno)));
            }
            m_clients.push_back(std::move(client));
        }
    }

private:
    std::vector<Sentrel::UniqueFd> m_clients;
};

TEST_F(AConnectionToABus, IsMadeWithinASecondBesideThreeThousandSilentOnes) {
    const SilentClients clients(m_bus.socketPath(), 3000);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(openBus(m_bus.socketPath(), patience()), nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(AConnectionToABus, IsGivenUpAtOnceWhenItIsCancelled) {
    m_bus.stop();
    const int cancel = ::eventfd(1, EFD_CLOEXEC);
    EXPECT_EQ(codeOf([&] { openBus(m_bus.socketPath(), patience(), cancel); }), -ECANCELED);
    ::close(cancel);
    m_bus.cont();
}

TEST_F(AConnectionToABus, SaysWhenTheDestinationIsNotThere) {
    const BusPtr bus = openBus(m_bus.socketPath(), patience());
    EXPECT_EQ(codeOf([&] { call(*bus, *logMessageCall(*bus), patience()); }), -EHOSTUNREACH);
    const FakeHub hub(m_bus.socketPath());
    EXPECT_EQ(codeOf([&] { call(*bus, *logMessageCall(*bus), patience()); }), 0);
}

TEST_F(AConnectionToABus, GivesACallUpAtItsDeadline) {
    FakeHub hub(m_bus.socketPath());
    hub.fallSilent();
    const BusPtr bus = openBus(m_bus.socketPath(), patience());
    EXPECT_EQ(codeOf([&] { call(*bus, *logMessageCall(*bus), soon()); }), -ETIMEDOUT);
}

TEST_F(AConnectionToABus, SaysAtOnceWhenTheBusDiesDuringACall) {
    FakeHub hub(m_bus.socketPath());
    hub.fallSilent();
    const BusPtr bus = openBus(m_bus.socketPath(), patience());
    std::thread killer([&] {
        (void)testing_support::eventually([&] { return hub.silentCalls() > 0; });
        m_bus.kill9();
    });
    EXPECT_EQ(codeOf([&] { call(*bus, *logMessageCall(*bus), patience()); }), -ECONNRESET);
    killer.join();
}

TEST_F(AConnectionToABus, FinishesItsCallsWhileSignalsInterruptThem) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0); // no SA_RESTART: every wait is interrupted
    FakeHub hub(m_bus.socketPath());
    const BusPtr bus = openBus(m_bus.socketPath(), patience());
    itimerval every{};
    every.it_interval.tv_usec = 200;
    every.it_value.tv_usec = 200;
    ASSERT_EQ(::setitimer(ITIMER_REAL, &every, nullptr), 0);
    constexpr int count = 300;
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(codeOf([&] { call(*bus, *logMessageCall(*bus), patience()); }), 0);
        EXPECT_EQ(codeOf([&] { callAlone(*bus, *logMessageCall(*bus), patience()); }), 0);
        EXPECT_EQ(codeOf([&] { openBus(m_bus.socketPath(), patience()); }), 0);
    }
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(hub.lines().size(), static_cast<std::size_t>(2 * count));
}

TEST_F(AConnectionToABus, RefusesATextBeyondTheLimitBeforeItIsSent) {
    const BusPtr bus = openBus(m_bus.socketPath(), patience());
    const MessagePtr request = newCall(*bus, kHubName, kHubPath, kHubInterface, kLogMember);
    const std::wstring text(kMaxTextBytes / sizeof(wchar_t), L'x');
    EXPECT_EQ(codeOf([&] { appendText(*request, text); }), 0);
    EXPECT_EQ(codeOf([&] { appendText(*request, text + L'x'); }), -EMSGSIZE);
}

} // namespace
