// What the broker does when something fails: handlers, clients, the hub, the bus. The bus is real; it is killed with
// SIGKILL and held up with SIGSTOP.
#include "tests/integration/BrokerFixture.h"

#include "platform/hvbhelpers/HubLimits.h"

#include "tests/support/FakeHub.h"

#include <cerrno>
#include <csignal>
#include <future>
#include <latch>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>

namespace broker_tests {
namespace {

using namespace HVB::bus;
using testing_support::await;
using testing_support::eventually;
using testing_support::FakeHub;
using testing_support::HubBus;

class ABrokerOnAFailingBus : public ABroker {
protected:
    /// The code of the exception that @p work throws; 0 when it throws none.
    template <class Work>
    static int codeOf(Work&& work) {
        try {
            work();
            return 0;
        } catch (const HVB::HVBException& exception) {
            return exception.code();
        }
    }

    bool answers() {
        try {
            return roundTrip(1003, L"there") == L"there";
        } catch (const HVB::HVBException&) {
            return false;
        }
    }

    HubBus m_bus{m_root};
};

/// Bounds the size of the files that this process writes, for as long as it lives.
/// Threads: the test's. Owner: a local of it.
class SmallFiles {
public:
    explicit SmallFiles(std::size_t bytes) : m_handler(::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit small{bytes, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &small);
    }
    ~SmallFiles() {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        static_cast<void>(::signal(SIGXFSZ, m_handler)); // as it was, which cannot fail
    }
    SmallFiles(const SmallFiles&) = delete;
    SmallFiles& operator=(const SmallFiles&) = delete;

private:
    void (*m_handler)(int);
    rlimit m_before{};
};

using ABrokerWithAFailingHandler = ABrokerOnAFailingBus;

TEST_F(ABrokerWithAFailingHandler, AnswersAnErrorOfItsOwnForEachFailureAtOnce) {
    m_module.onCommand = [&](HVB::CommandData& command) -> bool {
        switch (command.m_commandId) {
        case 1:
            throw HVB::HVBException(-1, "from the hub");
        case 2:
            throw Sentrel::VXException(-1, "from the daemon");
        case 3:
            throw std::runtime_error("from a library");
        case 4:
            throw 4;
        case 5:
            return true;
        default:
            return false;
        }
    };
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    const std::vector<std::pair<std::string, std::string>> expected{
        {kErrorFailed, "from the hub"},
        {kErrorFailed, "from the daemon"},
        {kErrorFailed, "from a library"},
        {kErrorFailed, "an exception of unknown type"},
        {kErrorNoReply, "the module did not answer"},
        {kErrorUnknownCommand, "the module does not know this command"},
    };
    for (int id = 1; id <= 6; ++id) {
        std::string text;
        EXPECT_EQ(client.errorOf(*client.command(id), &text), expected[static_cast<std::size_t>(id - 1)].first);
        EXPECT_EQ(text, expected[static_cast<std::size_t>(id - 1)].second);
    }
}

TEST_F(ABrokerWithAFailingHandler, GivesTheSenderTheTextOfTheError) {
    m_module.onCommand = [](HVB::CommandData&) -> bool { throw std::runtime_error("disk full"); };
    const Life life = startModule7();
    try {
        roundTrip(1003, L"text");
        FAIL() << "no exception";
    } catch (const HVB::HVBException& exception) {
        EXPECT_EQ(exception.message(), "disk full");
    }
}

TEST_F(ABrokerWithAFailingHandler, GivesTheSenderTheCodeOfAnExceptionThatHasOne) {
    m_module.onCommand = [](HVB::CommandData& command) -> bool {
        if (command.m_commandId == 1003) {
            throw HVB::HVBException(3, "the file cannot be read");
        }
        throw std::runtime_error("without a code");
    };
    const Life life = startModule7();
    const auto handlerCodeOf = [&](int commandId) {
        try {
            roundTrip(commandId, L"text");
        } catch (const CallError& error) {
            EXPECT_EQ(error.name(), kErrorFailed);
            return error.handlerCode();
        }
        ADD_FAILURE() << "no exception";
        return -1;
    };
    EXPECT_EQ(handlerCodeOf(1003), 3);
    EXPECT_EQ(handlerCodeOf(1004), 0);
}

TEST_F(ABrokerWithAFailingHandler, KeepsTheReplyThatWasSentBeforeTheFailure) {
    m_module.onCommand = [](HVB::CommandData& command) -> bool {
        echo(command);
        throw std::runtime_error("too late");
    };
    const Life life = startModule7();
    EXPECT_EQ(roundTrip(1003, L"sent"), L"sent");
}

TEST_F(ABrokerWithAFailingHandler, TakesOneReplyForEachCommand) {
    std::promise<int> second;
    m_module.onCommand = [&](HVB::CommandData& command) {
        echo(command);
        HVB::CommandResult again;
        again.m_commandData = command;
        second.set_value(codeOf([&] { broker().sendCommandResponse(again); }));
        return true;
    };
    const Life life = startModule7();
    roundTrip(1003, L"text");
    EXPECT_EQ(await(second.get_future(), "the second reply"), -ENOENT);
}

TEST_F(ABrokerWithAFailingHandler, LetsTheHandlerAnswerAgainWhenItsReplyCouldNotBeSent) {
    std::promise<int> first;
    const SmallFiles smallFiles(kMaxTextBytes); // also those in memory
    m_module.onCommand = [&](HVB::CommandData& command) {
        HVB::CommandResult large;
        large.m_commandData = command;
        large.writePayload(std::wstring(kMaxTextBytes, L'x'));
        first.set_value(codeOf([&] { broker().sendCommandResponse(large); }));
        return echo(command);
    };
    const Life life = startModule7();
    EXPECT_EQ(roundTrip(1003, L"small"), L"small");
    EXPECT_EQ(await(first.get_future(), "the first reply"), -EFBIG);
}

TEST_F(ABrokerWithAFailingHandler, RefusesAMessageThatIsNotLikeACommand) {
    std::atomic<int> delivered{0};
    m_module.onCommand = [&](HVB::CommandData&) {
        ++delivered;
        return false;
    };
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    const auto request = [&](const char* member) {
        return newCall(client.bus(), moduleName(7), modulePath(7), kModuleInterface, member);
    };
    EXPECT_EQ(client.errorOf(*request("Command1003")), kErrorBadMessage);

    const auto odd = request("Command1003");
    check(sd_bus_message_append(odd.get(), "tiibibay", std::uint64_t{0}, 1, 7, 1, 0, 1, 3, 1, 2, 3), "append");
    EXPECT_EQ(client.errorOf(*odd), kErrorBadMessage);

    const auto checkUp = request("HealthCheck");
    check(sd_bus_message_append(checkUp.get(), "i", 1), "append");
    EXPECT_EQ(client.errorOf(*checkUp), kErrorBadMessage);

    EXPECT_EQ(client.errorOf(*request("Command12x")), SD_BUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(client.errorOf(*request("Other")), SD_BUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(delivered, 0);
}

TEST_F(ABrokerWithAFailingHandler, HandsOnAPayloadThatIsNoArchiveAndRefusesItWhenItIsRead) {
    m_module.onCommand = echo;
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    std::string text;
    EXPECT_EQ(client.errorOf(*client.command(1003, 0, L"22 serialization::orchive 19"), &text), kErrorFailed);
    EXPECT_EQ(text, "invalid signature");
    EXPECT_EQ(client.errorOf(*client.command(1003, 0, L"22 serialization::archive 9999"), &text), kErrorFailed);
    EXPECT_EQ(text, "unsupported version");
    EXPECT_EQ(client.errorOf(*client.command(1003, 0, std::wstring(3, static_cast<wchar_t>(0xFFFFFFFF)))),
              kErrorFailed);
    m_module.onCommand = [](HVB::CommandData& command) {
        HVB::CommandResult result;
        result.m_commandData = command;
        HVB::HVBCommBroker::getInstance("")->sendCommandResponse(result);
        return true;
    };
    EXPECT_EQ(client.errorOf(*client.command(1003, 0, L"noise")), "") << "nobody reads it";
}

TEST_F(ABrokerWithAFailingHandler, KnowsNoCommandWithoutAReceiver) {
    broker().setHVId(7);
    broker().start(true);
    RawClient client(m_bus.socketPath());
    EXPECT_EQ(client.errorOf(*client.command(1003)), kErrorUnknownCommand);
    const auto request = newCall(client.bus(), moduleName(7), modulePath(7), kModuleInterface, kHealthCheckMember);
    EXPECT_EQ(client.errorOf(*request), kErrorUnknownCommand);
}

TEST_F(ABrokerWithAFailingHandler, SaysThatItIsBusyWhenTooManyCommandsWait) {
    constexpr auto lane = HVB::detail::kChangesLane;
    constexpr auto workers = static_cast<int>(lane.threads);
    std::latch occupied(workers);
    std::latch released(1);
    m_module.onCommand = [&](HVB::CommandData&) {
        if (!occupied.try_wait()) {
            occupied.count_down();
        }
        await(released, "the test to let the handler go on");
        return false;
    };
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    const auto sendWithoutReply = [&](int count) {
        for (int i = 0; i < count; ++i) {
            const auto request = client.command(100000);
            check(sd_bus_message_set_expect_reply(request.get(), 0), "set");
            check(sd_bus_send(&client.bus(), request.get(), nullptr), "send");
        }
    };
    sendWithoutReply(workers);
    await(occupied, "every worker to be at a command");
    sendWithoutReply(static_cast<int>(lane.bounds.jobsOfUser));
    EXPECT_EQ(client.errorOf(*client.command(100000)), kErrorBusy);
    released.count_down();
    EXPECT_TRUE(eventually([&] { return client.errorOf(*client.command(100000)) == kErrorUnknownCommand; }));
}

TEST_F(ABrokerWithAFailingHandler, GoesOnDeliveringEventsAfterOneFailed) {
    std::promise<void> second;
    m_module.onEvent = [&, count = 0](HVB::EventData&) mutable -> bool {
        if (++count == 1) {
            throw std::runtime_error("the first");
        }
        second.set_value();
        return true;
    };
    const Life life = startModule7();
    subscribe(1005);
    RawClient client(m_bus.socketPath());
    check(sd_bus_emit_signal(&client.bus(), kEventsPath, kEventsInterface, "Event1005", "s", "malformed"), "emit");
    client.emit(1005, 1);
    client.emit(1005, 2);
    await(second.get_future(), "the second event");
}

using ABrokerWithoutAHub = ABroker;

TEST_F(ABrokerWithoutAHub, SaysSoAtOnceAndNamesThePath) {
    const auto saysSo = [&](const std::function<void()>& work) {
        try {
            work();
            ADD_FAILURE() << "no exception";
        } catch (const HVB::HVBException& exception) {
            EXPECT_EQ(exception.code(), -ENOENT);
            EXPECT_NE(exception.message().find(m_root.hubSocket()), std::string::npos) << exception.message();
        }
    };
    saysSo([&] { broker().start(true); });
    saysSo([&] { sendLog(L"text"); });
    saysSo([&] { roundTrip(1003, L"text"); });
    saysSo([&] {
        HVB::EventData event(1002);
        broker().sendEventNotification(event);
    });
}

TEST_F(ABrokerWithoutAHub, TakesSubscriptionsAndDeliversThemWhenTheHubComes) {
    std::promise<void> delivered;
    m_module.onEvent = [&](HVB::EventData&) {
        delivered.set_value();
        return true;
    };
    const Life life;
    setUpModule7();
    m_module.onCommand = echo;
    broker().start(boost::logic::indeterminate);
    subscribe(1005);
    HVB::EventData event(1005);
    EXPECT_THROW(broker().sendEventNotification(event), HVB::HVBException);

    const HubBus bus(m_root);
    EXPECT_TRUE(eventually([&] {
        try {
            return roundTrip(1003, L"there") == L"there";
        } catch (const HVB::HVBException&) {
            return false;
        }
    }));
    RawClient(bus.socketPath()).emit(1005, 1);
    await(delivered.get_future(), "the event of the hub that came");
}

TEST_F(ABrokerWithoutAHub, StartsWhenItIsAskedAgain) {
    const Life life;
    setUpModule7();
    m_module.onCommand = echo;
    EXPECT_THROW(broker().start(true), HVB::HVBException);
    const HubBus bus(m_root);
    broker().start(true);
    EXPECT_EQ(roundTrip(1003, L"text"), L"text");
}

TEST_F(ABrokerOnAFailingBus, ThrowsWhenTheHubServiceIsNotThere) {
    EXPECT_EQ(codeOf([&] { sendLog(L"text"); }), -EHOSTUNREACH);
    EXPECT_EQ(codeOf([&] { roundTrip(1003, L"text"); }), -EHOSTUNREACH);
}

TEST_F(ABrokerOnAFailingBus, ThrowsWhenTheHubDoesNotAnswer) {
    FakeHub hub(m_bus.socketPath());
    hub.fallSilent();
    EXPECT_EQ(codeOf([&] { sendLog(L"text"); }), -ETIMEDOUT);
    EXPECT_EQ(hub.silentCalls(), 1) << "a record that may have arrived is not sent again";
}

TEST_F(ABrokerOnAFailingBus, ThrowsWhenTheBusIsHeldUp) {
    FakeHub hub(m_bus.socketPath());
    m_module.onCommand = echo;
    const Life life = startModule7();
    sendLog(L"makes a connection that is used again");
    m_bus.stop();
    EXPECT_EQ(codeOf([&] { sendLog(L"on the old connection"); }), -ETIMEDOUT);
    EXPECT_EQ(codeOf([&] { sendLog(L"on a new connection"); }), -ETIMEDOUT);
    HVB::CommandData command(1003, 7, true);
    EXPECT_EQ(codeOf([&] { broker().sendCommand(command, nullptr, true, 1); }), -ETIMEDOUT);
    EXPECT_EQ(codeOf([&] { subscribe(1007); }), -ETIMEDOUT);
    HVB::EventData event(1002);
    event.writePayload(std::wstring(60'000, L'x')); // 240 kB: the socket takes some megabytes
    int code = 0;
    for (int i = 0; i < 200 && code == 0; ++i) {
        code = codeOf([&] { broker().sendEventNotification(event); });
    }
    EXPECT_EQ(code, -ETIMEDOUT);
    m_bus.cont();
    EXPECT_TRUE(eventually([&] { return answers(); }));
}

TEST_F(ABrokerOnAFailingBus, RefusesACommandWithoutATimeLimit) {
    HVB::CommandData command(1003, 7, true);
    EXPECT_EQ(codeOf([&] { broker().sendCommand(command, nullptr, true, 0); }), -EINVAL);
    EXPECT_EQ(codeOf([&] { broker().sendCommand(command, nullptr, false, 10); }), -ENOTCONN);
}

TEST_F(ABrokerOnAFailingBus, TakesItsNameAndItsSubscriptionsAgainWhenTheBusComesBack) {
    std::atomic<int> events{0};
    m_module.onCommand = echo;
    m_module.onEvent = [&](HVB::EventData&) {
        ++events;
        return true;
    };
    const Life life = startModule7();
    subscribe(1005);
    EXPECT_TRUE(answers());
    for (int restart = 1; restart <= 2; ++restart) {
        m_bus.kill9();
        EXPECT_EQ(codeOf([&] { sendLog(L"text"); }), -ECONNREFUSED);
        HVB::EventData event(1002);
        EXPECT_TRUE(eventually([&] { return codeOf([&] { broker().sendEventNotification(event); }) != 0; }));
        m_bus.restart();
        EXPECT_TRUE(eventually([&] { return answers(); }));
        RawClient(m_bus.socketPath()).emit(1005, restart);
        EXPECT_TRUE(eventually([&] { return events == restart; }));
    }
}

TEST_F(ABrokerOnAFailingBus, LosesNoRecordToAConnectionThatDiedWhileItLayIdle) {
    {
        const FakeHub hub(m_bus.socketPath());
        sendLog(L"first");
    }
    m_bus.kill9();
    m_bus.restart();
    FakeHub hub(m_bus.socketPath());
    sendLog(L"second");
    ASSERT_EQ(hub.records().size(), 1U);
    EXPECT_EQ(hub.records()[0].text, L"second");
}

TEST_F(ABrokerOnAFailingBus, GivesUpReplyingWhenTheBusDiedMeanwhile) {
    std::promise<int> code;
    std::latch killed(1);
    std::latch handling(1);
    m_module.onCommand = [&](HVB::CommandData& command) {
        handling.count_down();
        await(killed, "the end of the bus");
        EXPECT_TRUE(eventually([&] {
            HVB::EventData event(1002);
            return codeOf([&] { broker().sendEventNotification(event); }) != 0;
        }));
        code.set_value(codeOf([&] { echo(command); }));
        return true;
    };
    const Life life = startModule7();
    auto sender = std::async(std::launch::async, [&] { return codeOf([&] { roundTrip(1003, L"text"); }); });
    await(handling, "the command at its handler");
    m_bus.kill9();
    EXPECT_EQ(await(sender, "the sender's answer"), -ECONNRESET);
    killed.count_down();
    // Whether the reader has noticed by now decides between "not connected" and "no such command".
    const int answer = await(code.get_future(), "the handler's reply");
    EXPECT_TRUE(answer == -ENOTCONN || answer == -ENOENT) << answer;
}

TEST_F(ABrokerOnAFailingBus, AnswersThatItIsStoppedOnceItIs) {
    std::latch handling(1);
    std::latch released(1);
    std::atomic<int> delivered{0};
    m_module.onCommand = [&](HVB::CommandData& command) {
        ++delivered;
        handling.count_down();
        await(released, "the test to let the handler go on");
        return echo(command);
    };
    const Life life = startModule7();
    auto running = std::async(std::launch::async, [&] { return roundTrip(1003, L"running"); });
    await(handling, "the command at its handler");
    broker().stop(); // does not wait for the one that runs
    RawClient client(m_bus.socketPath());
    EXPECT_EQ(client.errorOf(*client.command(1003)), kErrorStopped);
    released.count_down();
    EXPECT_EQ(await(running, "the sender's answer"), L"running");
    EXPECT_EQ(delivered, 1);
}

TEST_F(ABrokerOnAFailingBus, StartsAndSubscribesAfterAStopButDeliversNothing) {
    std::atomic<int> delivered{0};
    m_module.onCommand = [&](HVB::CommandData&) { return ++delivered > 0; };
    m_module.onEvent = [&](HVB::EventData&) { return ++delivered > 0; };
    const Life life;
    setUpModule7();
    broker().stop();
    broker().start(true);
    subscribe(1005);
    RawClient client(m_bus.socketPath());
    client.emit(1005, 1);
    EXPECT_EQ(client.errorOf(*client.command(1003)), kErrorStopped);
    EXPECT_EQ(delivered, 0);
}

HVB::HVBCommBroker* stoppedByTheSignal = nullptr;

TEST_F(ABrokerOnAFailingBus, IsStoppedBySignalHandlers) {
    m_module.onCommand = echo;
    const Life life = startModule7();
    EXPECT_TRUE(answers());
    stoppedByTheSignal = &broker();
    auto* const before = std::signal(SIGTERM, [](int) { stoppedByTheSignal->stop(); });
    std::raise(SIGTERM);
    std::signal(SIGTERM, before);
    RawClient client(m_bus.socketPath());
    EXPECT_EQ(client.errorOf(*client.command(1003)), kErrorStopped);
}

TEST_F(ABrokerOnAFailingBus, IsReleasedWhileOtherThreadsSend) {
    FakeHub hub(m_bus.socketPath());
    m_module.onCommand = echo;
    std::atomic<bool> over{false};
    std::atomic<int> sent{0};
    std::vector<std::thread> senders;
    senders.reserve(3);
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            while (!over) {
                (void)codeOf([&] { sendLog(L"text"); });
                (void)codeOf([&] { roundTrip(1003, L"text"); });
                HVB::EventData event(1002);
                (void)codeOf([&] { broker().sendEventNotification(event); });
                ++sent;
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        const Life life;
        setUpModule7();
        (void)codeOf([&] { broker().start(true); });
        const int before = sent;
        EXPECT_TRUE(eventually([&] { return sent > before; }));
    }
    over = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_FALSE(hub.records().empty());
}

TEST_F(ABrokerOnAFailingBus, RunsNoCallbackAfterItsRelease) {
    std::atomic<bool> released{false};
    std::atomic<int> late{0};
    std::atomic<int> handled{0};
    m_module.onCommand = [&](HVB::CommandData& command) {
        late += released ? 1 : 0;
        ++handled;
        return echo(command);
    };
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    for (int i = 0; i < 200; ++i) {
        const auto request = client.command(100000);
        check(sd_bus_message_set_expect_reply(request.get(), 0), "set");
        check(sd_bus_send(&client.bus(), request.get(), nullptr), "send");
    }
    EXPECT_TRUE(eventually([&] { return handled > 0; }));
    HVB::HVBCommBroker::releaseInstance();
    released = true;
    client.settle();
    EXPECT_EQ(late, 0);
}

TEST_F(ABrokerOnAFailingBus, LetsACallbackThatRunsReplyWhileItIsReleased) {
    std::latch handling(1);
    std::latch released(1);
    m_module.onCommand = [&](HVB::CommandData& command) {
        if (command.m_commandId != 1003) {
            return false;
        }
        handling.count_down();
        await(released, "the test to let the handler go on");
        return echo(command);
    };
    const Life life = startModule7();
    auto sender = std::async(std::launch::async, [&] { return roundTrip(1003, L"text"); });
    await(handling, "the command at its handler");
    auto release = std::async(std::launch::async, [] { HVB::HVBCommBroker::releaseInstance(); });
    RawClient client(m_bus.socketPath());
    testing_support::awaitUntil("the refusal of a broker that is stopped",
                                [&] { return client.errorOf(*client.command(1004)) == kErrorStopped; });
    released.count_down();
    EXPECT_EQ(await(sender, "the sender's answer"), L"text");
}

TEST_F(ABrokerOnAFailingBus, EndsTheCallOfACallbackWhenItIsReleased) {
    FakeHub hub(m_bus.socketPath());
    std::promise<int> code;
    RawClient silent(m_bus.socketPath());
    ASSERT_GE(sd_bus_request_name(&silent.bus(), "com.orvanta.hvb1.Module1", 0), 0);
    std::latch handling(1);
    m_module.onCommand = [&](HVB::CommandData&) {
        HVB::CommandData command(1023, 1, true);
        handling.count_down();
        code.set_value(codeOf([&] { broker().sendCommand(command, nullptr, true, 600); }));
        return false;
    };
    const Life life = startModule7();
    auto sender = std::async(std::launch::async, [&] { return codeOf([&] { roundTrip(1003, L"text"); }); });
    await(handling, "the command at its handler");
    // Returns long before the 600 s are over, and before the test's own limit.
    HVB::HVBCommBroker::releaseInstance();
    const int result = await(code.get_future(), "the end of the callback's own call");
    EXPECT_TRUE(result == -ECONNRESET || result == -ECANCELED) << result;
    EXPECT_NE(await(sender, "the sender's answer"), 0);
}

} // namespace
} // namespace broker_tests
