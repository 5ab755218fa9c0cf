// Whose calls the broker takes first, and whose it refuses, with clients of several users on a real bus.
#include "tests/integration/BrokerFixture.h"

#include "platform/hvbhelpers/HubLimits.h"
#include "platform/hvbhelpers/MemoryFile.h"
#include "tests/support/AsUser.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <latch>
#include <memory>

namespace broker_tests {
namespace {

using namespace HVB::bus;
using testing_support::await;
using testing_support::awaitUntil;
using testing_support::eventually;
using testing_support::HubBus;
using testing_support::kNobody;

constexpr uid_t kNeighbour = 5; // "games" on Debian
constexpr auto kWaitingCalls = HVB::detail::kUsersLane.bounds.jobsOfUser;

/// A module whose command 1003 waits for the test. Its other commands answer at once.
class ABrokerWithSeveralUsers : public ABroker {
protected:
    void SetUp() override {
        if (!testing_support::canActAsOthers()) {
            GTEST_SKIP() << "needs root, to act as other users";
        }
        m_module.onCommand = [this](HVB::CommandData& command) {
            if (command.m_commandId == 1003) {
                ++m_held;
                await(m_released, "the test to let the handler go on");
            }
            return echo(command);
        };
    }
    void TearDown() override {
        if (!m_released.try_wait()) {
            m_released.count_down();
        }
    }

    std::unique_ptr<RawClient> clientOf(uid_t user) {
        const testing_support::ConnectingAs connecting(user);
        return std::make_unique<RawClient>(m_bus.socketPath());
    }

    /// Nobody's connections, each with calls whose replies nobody reads. Returns when the module has taken or refused
    /// all.
    std::vector<std::unique_ptr<RawClient>> crowd() {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (int connection = 0; connection < 12; ++connection) {
            RawClient& client = *clients.emplace_back(clientOf(kNobody));
            for (int call = 0; call < 8; ++call) {
                std::uint64_t cookie = 0; // without one sd-bus would ask for no reply
                check(sd_bus_send(&client.bus(), client.command(1003).get(), &cookie), "send");
            }
            client.settle();
        }
        awaitUntil("the first of the crowd's calls", [this] { return m_held == 1; });
        awaitUntil("the last of the crowd's calls", [this] { return errorOf(kNobody, 1004) == kErrorBusy; });
        return clients;
    }

    /// The error that answers a command of this user; empty for a reply.
    std::string errorOf(uid_t user, int command) {
        const auto client = clientOf(user);
        return client->errorOf(*client->command(command));
    }

    HubBus m_bus{m_root};
    std::atomic<int> m_held{0};
    std::latch m_released{1};
};

TEST_F(ABrokerWithSeveralUsers, AnswersTheOthersWhileOneUsersCallsAreSlowAndMany) {
    const Life life = startModule7();
    const auto slow = crowd();
    EXPECT_EQ(errorOf(kNeighbour, 1004), "");
    RawClient root(m_bus.socketPath());
    for (const int command : {1004, 100000}) {
        EXPECT_EQ(root.errorOf(*root.command(command)), "") << command;
    }
    const auto health = newCall(root.bus(), moduleName(7), modulePath(7), kModuleInterface, kHealthCheckMember);
    EXPECT_EQ(root.errorOf(*health), "");
    EXPECT_EQ(m_held, 1) << "one user has one callback at a time";
    m_released.count_down();
}

TEST_F(ABrokerWithSeveralUsers, TakesAUsersCallsAgainWhenThoseThatWaitedAreDone) {
    const Life life = startModule7();
    const auto slow = crowd();
    m_released.count_down();
    EXPECT_TRUE(eventually([&] { return m_held == static_cast<int>(kWaitingCalls + 1); })) << m_held;
    EXPECT_EQ(errorOf(kNobody, 1004), "");
    EXPECT_EQ(m_held, static_cast<int>(kWaitingCalls + 1)) << "what was refused never ran";
}

TEST_F(ABrokerWithSeveralUsers, DropsACallThatReadsAndWantsNoReply) {
    const Life life = startModule7();
    const auto client = clientOf(kNobody);
    for (int i = 0; i < 1000; ++i) {
        const auto request = client->command(1003);
        check(sd_bus_message_set_expect_reply(request.get(), 0), "set");
        check(sd_bus_send(&client->bus(), request.get(), nullptr), "send");
    }
    EXPECT_EQ(client->errorOf(*client->command(1004)), "");
    EXPECT_EQ(m_held, 0);
}

TEST_F(ABrokerWithSeveralUsers, RunsACommandThatChangesSomethingAlsoWhenNobodyWantsItsReply) {
    std::atomic<int> changes{0};
    m_module.onCommand = [&](HVB::CommandData& command) {
        changes += command.m_commandId == 100000 ? 1 : 0;
        return true;
    };
    const Life life = startModule7();
    RawClient root(m_bus.socketPath());
    const auto request = root.command(100000);
    check(sd_bus_message_set_expect_reply(request.get(), 0), "set");
    check(sd_bus_send(&root.bus(), request.get(), nullptr), "send");
    EXPECT_TRUE(eventually([&] {
        root.settle();
        return changes == 1;
    }));
}

TEST_F(ABrokerWithSeveralUsers, RunsTheChangesOfThePreferencesOneAfterTheOther) {
    constexpr int rounds = 50;
    std::atomic<int> begun{0};
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    m_module.onCommand = [&](HVB::CommandData& command) {
        if (command.m_commandId != 1021) {
            ++begun;
            overlaps += ++running > 1 ? 1 : 0;
            await(m_released, "the test to let the handler go on");
            --running;
        }
        return echo(command);
    };
    const Life life = startModule7();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (const int command : {100000, 100002, 100004}) {
        RawClient& client = *clients.emplace_back(clientOf(0));
        for (int round = 0; round < rounds; ++round) {
            std::uint64_t cookie = 0; // without one sd-bus would ask for no reply
            check(sd_bus_send(&client.bus(), client.command(command).get(), &cookie), "send");
        }
        client.settle();
    }
    EXPECT_EQ(errorOf(0, 1021), "") << "another command does not wait for them";
    EXPECT_EQ(begun, 1);
    m_released.count_down();
    EXPECT_TRUE(eventually([&] { return begun == 3 * rounds; })) << begun;
    EXPECT_EQ(overlaps, 0);
}

/// A command whose payload is a file, as any client would make it.
MessagePtr commandWithFile(RawClient& client, int id, std::wstring_view archive) {
    const auto file = HVB::detail::MemoryFile::of(archive, kMaxPayloadBytes);
    MessagePtr request = newCall(client.bus(), moduleName(7), modulePath(7), kModuleInterface, commandMember(id));
    check(sd_bus_message_append(request.get(), "tiibibhy", std::uint64_t{0}, 99, 7, 1, 5, 1, file->fd(), file->width()),
          "append");
    return request;
}

TEST_F(ABrokerWithSeveralUsers, TakesAFileFromWhoMayChangeSomethingAndFromNobodyElse) {
    const Life life = startModule7();
    HVB::CommandData carrier(100000, 7, true);
    carrier.writePayload(std::wstring(L"short, and yet in a file"));
    const std::wstring archive = carrier.m_pOutStream->str();
    const auto nobody = clientOf(kNobody);
    EXPECT_EQ(nobody->errorOf(*commandWithFile(*nobody, 1004, archive)), SD_BUS_ERROR_ACCESS_DENIED);
    EXPECT_EQ(nobody->errorOf(*commandWithFile(*nobody, 100000, archive)), SD_BUS_ERROR_ACCESS_DENIED);
    RawClient root(m_bus.socketPath());
    EXPECT_EQ(root.errorOf(*commandWithFile(root, 1004, archive)), kErrorBadMessage) << "a command that only reads";
    EXPECT_EQ(root.errorOf(*commandWithFile(root, 100000, archive)), "");
}

TEST_F(ABrokerWithSeveralUsers, RefusesAFileThatItsSenderCouldStillChange) {
    const Life life = startModule7();
    RawClient root(m_bus.socketPath());
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
    const Sentrel::UniqueFd reading(pipe[0]);
    const Sentrel::UniqueFd writing(pipe[1]);
    const auto request = newCall(root.bus(), moduleName(7), modulePath(7), kModuleInterface, commandMember(100000));
    check(sd_bus_message_append(request.get(), "tiibibhy", std::uint64_t{0}, 99, 7, 1, 5, 1, reading.get(), 1),
          "append");
    std::string text;
    EXPECT_EQ(root.errorOf(*request, &text), kErrorBadMessage);
    EXPECT_EQ(text, "a payload's file is no memory file that is sealed against change");
}

} // namespace
} // namespace broker_tests
