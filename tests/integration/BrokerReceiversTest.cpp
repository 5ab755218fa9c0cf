// Receivers that are taken away from a broker that lives on, as when the daemon's start fails after it connected; and
// what the end of callbacks' calls leaves alone.
#include "platform/hvbhelpers/CallbackWorkers.h"
#include "platform/hvbhelpers/ConnectionPool.h"
#include "tests/integration/BrokerFixture.h"

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <future>
#include <latch>
#include <thread>
#include <unistd.h>

namespace broker_tests {
namespace {

using namespace HVB::bus;
using testing_support::await;
using testing_support::HubBus;

class AConnectionPool : public ::testing::Test {
protected:
    testing_support::PrivateRoot m_root;
    HubBus m_bus{m_root};
};

class ABrokerWhoseReceiverIsTakenAway : public ABroker {
protected:
    /// Sends a command from a thread of its own. @return the name of the error that answers it; empty for a reply.
    std::future<std::string> send(int id) {
        return std::async(std::launch::async, [this, id] {
            RawClient client(m_bus.socketPath());
            return client.errorOf(*client.command(id));
        });
    }

    /// Takes the receiver of commands away, on a thread of its own.
    std::future<void> takeAway() {
        return std::async(std::launch::async, [this] { broker().setCommandInterface(nullptr); });
    }

    static bool isDone(const std::future<void>& future) {
        return future.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready;
    }

    HubBus m_bus{m_root};
};

TEST_F(ABrokerWhoseReceiverIsTakenAway, WaitsForTheCallbackThatRunsInIt) {
    std::latch running(1);
    std::latch mayEnd(1);
    std::atomic<bool> hasEnded{false};
    m_module.onCommand = [&](HVB::CommandData& command) {
        running.count_down();
        await(mayEnd, "the test to let the callback end");
        const bool known = echo(command);
        hasEnded = true;
        return known;
    };
    const Life life = startModule7();
    std::future<std::string> answer = send(1003);
    await(running, "the callback");
    broker().stop();
    std::future<void> taken = takeAway();
    EXPECT_FALSE(isDone(taken)) << "while the callback runs";
    mayEnd.count_down();
    await(taken, "the end of the callback");
    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(await(answer, "the answer"), "") << "what ran could still answer";
}

TEST_F(ABrokerWhoseReceiverIsTakenAway, CallsNothingInItAfterwards) {
    std::atomic<int> calls{0};
    m_module.onCommand = [&](HVB::CommandData& command) {
        ++calls;
        return echo(command);
    };
    const Life life = startModule7();
    EXPECT_EQ(await(send(1003), "an answer"), "");
    await(takeAway(), "the broker");
    EXPECT_EQ(await(send(1003), "an answer"), kErrorUnknownCommand);
    EXPECT_EQ(calls, 1);
}

TEST_F(ABrokerWhoseReceiverIsTakenAway, EndsTheCallThatItsCallbackWaitsIn) {
    std::latch running(1);
    m_module.onCommand = [&](HVB::CommandData&) {
        running.count_down();
        HVB::CommandData question(1023, 1, true); // to a hub that answers nothing
        HVB::CommandResult result;
        constexpr int longerThanTheTestWaits = 300;
        broker().sendCommand(question, &result, true, longerThanTheTestWaits);
        return true;
    };
    RawClient silent(m_bus.socketPath());
    check(sd_bus_request_name(&silent.bus(), moduleName(1).c_str(), 0), "take a name");
    const Life life = startModule7();
    std::future<std::string> answer = send(1003);
    await(running, "the callback");
    broker().stop();
    await(takeAway(), "the end of the call");
    EXPECT_EQ(await(answer, "the answer"), kErrorFailed);
}

/// The list of those to be shut down has numbers of descriptors, and a number is given again when it is free.
TEST_F(AConnectionPool, ShutsNoSocketOfOthersDownWhenTheConnectionOfACallbacksCallWasClosed) {
    HVB::detail::ConnectionPool pool(m_bus.socketPath());
    HVB::detail::CallbackWorkers workers;
    workers.begin();
    std::latch ended(1);
    const auto callback = [&](bool) {
        try {
            const auto close = [](sd_bus& bus) -> MessagePtr {
                sd_bus_close(&bus);
                throw HVB::HVBException(-ECONNRESET, "closed");
            };
            pool.call(
                close, [](sd_bus_message&) {}, testing_support::patience(), testing_support::patience());
        } catch (const HVB::HVBException&) {
            ended.count_down();
        }
    };
    ASSERT_TRUE(workers.post(HVB::detail::CallbackWorkers::Lane::Event, {}, 0, callback));
    await(ended, "the end of the call");
    // These get the numbers that are free now, that of the connection among them.
    std::array<std::array<int, 2>, 4> sockets{};
    for (auto& pair : sockets) {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    }
    pool.endCallsOfCallbacks();
    for (const auto& pair : sockets) {
        EXPECT_EQ(::send(pair[0], "x", 1, MSG_NOSIGNAL), 1);
        EXPECT_EQ(::send(pair[1], "x", 1, MSG_NOSIGNAL), 1);
        ::close(pair[0]);
        ::close(pair[1]);
    }
}

} // namespace
} // namespace broker_tests
