// The named connection by itself: subscriptions that are made while it connects, and deadlines that have passed. The
// bus is real.
#include "platform/hvbhelpers/DeliveryLink.h"
#include "tests/integration/BrokerFixture.h"

#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <thread>

namespace broker_tests {
namespace {

using namespace HVB::bus;
using HVB::detail::DeliveryLink;
using testing_support::eventually;
using testing_support::HubBus;
using testing_support::patience;

class ADeliveryLink : public ::testing::Test {
protected:
    /// A receiver that notes which events came.
    HVB::detail::LinkReceiver receiver() {
        HVB::detail::LinkReceiver receiver;
        receiver.command = [](HVB::detail::CommandMessage&&, HVB::detail::CallbackWorkers::Lane,
                              const HVB::detail::Sender&) { return kErrorStopped; };
        receiver.healthCheck = [](std::uint64_t) { return kErrorStopped; };
        receiver.event = [this](HVB::detail::EventMessage&& event) {
            const std::lock_guard lock(m_mutex);
            m_arrived.insert(event.id);
        };
        return receiver;
    }

    bool hasArrived(int eventId) {
        const std::lock_guard lock(m_mutex);
        return m_arrived.contains(eventId);
    }

    /// The first event up to @p last that is sent to the link and does not arrive; 0 when all do.
    int firstLost(int last) {
        const int end = 1'000'000; // one that was subscribed to before the connection, and is sent last
        for (int id = 1; id <= last; ++id) {
            m_publisher.emit(id, id);
        }
        m_publisher.emit(end, end);
        testing_support::awaitUntil("the last event", [&] { return hasArrived(end); });
        for (int id = 1; id <= last; ++id) {
            if (!hasArrived(id)) {
                return id;
            }
        }
        return 0;
    }

    testing_support::PrivateRoot m_root;
    HubBus m_bus{m_root};
    RawClient m_publisher{m_bus.socketPath()};
    std::mutex m_mutex;
    std::set<int> m_arrived; ///< guarded by m_mutex
};

/// One that was made after the link saw nothing more to subscribe to, and before it was there to subscribe with, never
/// reached the bus. The moment is short, so there are many.
TEST_F(ADeliveryLink, GetsEachEventThatWasSubscribedToWhileItConnected) {
    constexpr int rounds = 100;
    for (int round = 0; round < rounds; ++round) {
        m_arrived.clear();
        DeliveryLink link(m_bus.socketPath(), receiver());
        link.configure(-1);
        link.subscribe(1'000'000, patience());
        std::atomic<bool> connected{false};
        std::atomic<int> last{0};
        const auto subscribe = [&] {
            constexpr int most = 60; // the bus takes 64 of a connection
            for (auto next = std::chrono::steady_clock::now(); !connected && last < most;) {
                if (std::chrono::steady_clock::now() >= next) {
                    link.subscribe(++last, patience());
                    next = std::chrono::steady_clock::now() + std::chrono::microseconds(50 + round);
                }
            }
        };
        std::jthread first(subscribe);
        std::jthread second(subscribe);
        link.connectNow(patience());
        connected = true;
        link.begin();
        first.join();
        second.join();
        ASSERT_EQ(firstLost(last), 0) << "in round " << round << " of " << last << " subscriptions";
    }
}

TEST_F(ADeliveryLink, RefusesASubscriptionForWhichNoTimeIsLeft) {
    DeliveryLink link(m_bus.socketPath(), receiver());
    link.configure(-1);
    link.connectNow(patience());
    link.begin();
    m_bus.stop(); // would answer nothing, so only the deadline ends the call
    const auto codeAt = [&](Deadline deadline) {
        try {
            link.subscribe(1005, deadline);
            return 0;
        } catch (const HVB::HVBException& error) {
            return error.code();
        }
    };
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(codeAt(begin), -ETIMEDOUT);
    EXPECT_EQ(codeAt(begin - std::chrono::hours(1)), -ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    m_bus.cont();
    EXPECT_NO_THROW(link.subscribe(1005, patience())) << "it was not added before";
    m_arrived.clear();
    m_publisher.emit(1005, 1);
    EXPECT_TRUE(eventually([&] { return hasArrived(1005); }));
}

} // namespace
} // namespace broker_tests
