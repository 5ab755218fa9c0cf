// The settings service when its connection can carry no call to the keeper any more. Bus and messages are real, the
// service's loop is the test's.
#include "apps/hvbd/SettingsService.h"

#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using namespace HVB;

/// The service on one connection, and a client on another that asks it for fresh settings.
class ASettingsService : public testing::Test {
protected:
    void SetUp() override {
        bus::check(sd_bus_add_object(m_served.get(), nullptr, bus::kHubPath, onCall, this), "serve");
        m_service.connected(*m_served);
    }

    /// Has the client ask; its answer comes in @p answer: the name of the error, or "settings".
    void ask(std::string& answer) {
        const char* name = nullptr;
        bus::check(sd_bus_get_unique_name(m_served.get(), &name), "name");
        const auto request = bus::newCall(*m_client, name, bus::kHubPath, bus::kHubInterface, bus::kSettingsMember);
        bus::check(sd_bus_message_append(request.get(), "b", 1), "append");
        bus::check(sd_bus_call_async(m_client.get(), nullptr, request.get(), onAnswer, &answer, 0), "call");
    }

    /// Runs both connections until @p done. @return whether it came to that.
    template <class Done>
    bool runUntil(Done&& done) {
        return testing_support::eventually([&] {
            while (sd_bus_process(m_served.get(), nullptr) > 0 || sd_bus_process(m_client.get(), nullptr) > 0) {
            }
            return done();
        });
    }

    /// A connection that was closed: every call on it fails.
    bus::BusPtr closedBus() const {
        bus::BusPtr bus = bus::openBus(m_root.hubSocket(), testing_support::patience());
        sd_bus_close(bus.get());
        return bus;
    }

    testing_support::PrivateRoot m_root;
    testing_support::HubBus m_bus{m_root};
    hub::SystemLog m_log{hub::SystemLog::Echo::None};
    bus::BusPtr m_served = bus::openBus(m_root.hubSocket(), testing_support::patience());
    bus::BusPtr m_client = bus::openBus(m_root.hubSocket(), testing_support::patience());
    bus::BusPtr m_closed = closedBus();
    hub::SettingsService m_service{m_log};
    int m_arrived = 0;
    bool m_losesTheBus = false; ///< after the second call has arrived

private:
    static int onCall(sd_bus_message* call, void* self, sd_bus_error* /*error*/) {
        auto& test = *static_cast<ASettingsService*>(self);
        test.m_service.serve(*call);
        if (++test.m_arrived == 2 && test.m_losesTheBus) {
            test.m_service.connected(*test.m_closed);
        }
        return 1;
    }
    static int onAnswer(sd_bus_message* reply, void* answer, sd_bus_error* /*error*/) {
        const sd_bus_error* error = sd_bus_message_get_error(reply);
        *static_cast<std::string*>(answer) = error != nullptr ? error->name : "settings";
        return 1;
    }
};

/// The second one waits for the reading after the one that was under way when it asked.
TEST_F(ASettingsService, TellsThoseWhoWaitAtOnceWhenTheKeeperCannotBeAsked) {
    m_losesTheBus = true;
    std::array<std::string, 2> answers;
    ask(answers[0]);
    ask(answers[1]);
    EXPECT_TRUE(runUntil([&] { return !answers[0].empty() && !answers[1].empty(); }))
        << answers[0] << ", " << answers[1];
    EXPECT_EQ(answers[0], bus::kErrorKeeper);
    EXPECT_EQ(answers[1], bus::kErrorKeeper);
}

TEST_F(ASettingsService, TellsTheOneWhoAsksWhenTheKeeperCannotBeAsked) {
    m_service.connected(*m_closed);
    std::string answer;
    ask(answer);
    EXPECT_TRUE(runUntil([&] { return !answer.empty(); }));
    EXPECT_EQ(answer, bus::kErrorKeeper);
}

} // namespace
