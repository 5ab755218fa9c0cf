// The broker on a real bus: commands, events, log records, names.
#include "tests/integration/BrokerFixture.h"

#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/support/AsUser.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FakeHub.h"

#include <future>
#include <latch>
#include <map>
#include <thread>

namespace broker_tests {
namespace {

using testing_support::await;
using testing_support::eventually;
using testing_support::FakeHub;
using testing_support::HubBus;

class ABrokerOnABus : public ABroker {
protected:
    /// The code of what sending throws; 0 when it is sent.
    int codeOfSending(HVB::EventData& event) {
        try {
            broker().sendEventNotification(event);
            return 0;
        } catch (const HVB::HVBException& error) {
            return error.code();
        }
    }

    HubBus m_bus{m_root};
};

TEST_F(ABrokerOnABus, CarriesEveryWideCharacterThereAndBack) {
    std::wstring text;
    for (std::uint32_t c = 0; c < 0x250; ++c) {
        text += static_cast<wchar_t>(c);
    }
    for (const std::uint32_t c : {0xD800U, 0xFFFEU, 0x10FFFFU, 0x110000U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFC3U}) {
        text += static_cast<wchar_t>(c);
    }
    m_module.onCommand = echo;
    const Life life = startModule7();
    EXPECT_EQ(roundTrip(1003, text), text);
}

/// The archive library's own reader stops at a character that equals WEOF, so this looks at the stream.
TEST_F(ABrokerOnABus, CarriesTheCharacterThatEqualsTheEndOfAStream) {
    const std::wstring text{L'a', static_cast<wchar_t>(0xFFFFFFFF), L'b'};
    std::promise<std::wstring> arrived;
    m_module.onCommand = [&](HVB::CommandData& command) {
        arrived.set_value(command.m_pInStream->str());
        HVB::CommandResult result;
        result.m_commandData = command;
        broker().sendCommandResponse(result);
        return true;
    };
    const Life life = startModule7();
    HVB::CommandData command(1003, 7, true);
    command.writePayload(0);
    const std::wstring archive = command.m_pOutStream->str() + text;
    command.m_pOutStream->str(archive);
    broker().sendCommand(command, nullptr, true, 30);
    EXPECT_EQ(await(arrived.get_future(), "the archive at the module"), archive);
}

TEST_F(ABrokerOnABus, CarriesALargePayload) {
    m_module.onCommand = echo;
    const Life life = startModule7();
    for (const wchar_t character : {L'x', L'\x20AC'}) {
        const std::wstring text(1'500'000, character);
        EXPECT_TRUE(roundTrip(100000, text) == text); // without printing them
    }
}

TEST_F(ABrokerOnABus, DeliversACommandWithoutPayloadWithoutAnArchive) {
    std::promise<bool> hadInput;
    m_module.onCommand = [&](HVB::CommandData& command) {
        hadInput.set_value(command.m_pInArchive != nullptr || command.m_pInStream != nullptr);
        return echo(command);
    };
    const Life life = startModule7();
    HVB::CommandData command(1004, 7, true);
    HVB::CommandResult result;
    broker().sendCommand(command, &result, true, 30);
    EXPECT_FALSE(await(hadInput.get_future(), "the command at the module"));
    EXPECT_EQ(result.m_pInArchive, nullptr);
}

TEST_F(ABrokerOnABus, DeliversAnEmptyTextAsAPayload) {
    m_module.onCommand = echo;
    const Life life = startModule7();
    HVB::CommandData command(1004, 7, true);
    command.writePayload(std::wstring());
    HVB::CommandResult result;
    broker().sendCommand(command, &result, true, 30);
    EXPECT_NE(result.m_pInArchive, nullptr);
}

TEST_F(ABrokerOnABus, GivesTheReplyTheHeaderOfItsCommandAndBothFlags) {
    m_module.onCommand = [&](HVB::CommandData& command) {
        EXPECT_EQ(command.m_commandId, 1021);
        EXPECT_EQ(command.m_targetId, 7);
        EXPECT_EQ(command.m_sourceId, 7);
        EXPECT_TRUE(command.m_bFlag);
        HVB::CommandResult result;
        result.m_commandData = command;
        result.m_bSucceeded = false;
        broker().sendCommandResponse(result);
        return true;
    };
    const Life life = startModule7();
    HVB::CommandData command(1021, 7, true);
    HVB::CommandResult result;
    broker().sendCommand(command, &result, true, 30);
    EXPECT_FALSE(result.m_bSucceeded);
    EXPECT_TRUE(result.m_bValid);
    EXPECT_EQ(result.m_commandData.m_commandId, 1021);
    EXPECT_EQ(result.m_commandData.m_targetId, 7);
}

TEST_F(ABrokerOnABus, DeliversACommandWhoseNumberNobodyKnows) {
    std::promise<int> id;
    m_module.onCommand = [&](HVB::CommandData& command) {
        id.set_value(command.m_commandId);
        return echo(command);
    };
    const Life life = startModule7();
    EXPECT_EQ(roundTrip(424242, L"text"), L"text");
    EXPECT_EQ(await(id.get_future(), "the command at the module"), 424242);
}

TEST_F(ABrokerOnABus, GivesEachCommandATokenOfItsOwnWhateverItsSenderClaims) {
    std::latch both(2);
    std::mutex mutex;
    std::map<std::uint64_t, std::wstring> texts;
    m_module.onCommand = [&](HVB::CommandData& command) {
        {
            std::wstring text;
            command.readPayload(text);
            const std::lock_guard lock(mutex);
            texts[command.m_token] = text;
        }
        both.count_down();
        await(both, "the other command at its handler"); // two calls with one claimed token are being handled now
        HVB::CommandResult result;
        result.m_commandData = command;
        const std::lock_guard lock(mutex);
        result.writePayload(texts[command.m_token]);
        broker().sendCommandResponse(result);
        return true;
    };
    const Life life = startModule7();
    const auto send = [&](const std::wstring& text) {
        RawClient client(m_bus.socketPath());
        HVB::EventData carrier(0);
        carrier.writePayload(text);
        const auto reply = client.call(*client.command(1003, 4711, carrier.m_pOutStream->str()));
        HVB::bus::check(sd_bus_message_skip(reply.get(), "bbb"), "skip");
        return HVB::bus::readText(*reply);
    };
    auto first = std::async(std::launch::async, send, L"first");
    auto second = std::async(std::launch::async, send, L"second");
    EXPECT_NE(await(first, "the first reply").find(L"first"), std::wstring::npos);
    EXPECT_NE(await(second, "the second reply").find(L"second"), std::wstring::npos);
    EXPECT_EQ(texts.size(), 2U);
    EXPECT_FALSE(texts.contains(4711));
}

TEST_F(ABrokerOnABus, KeepsTheRepliesOfConcurrentSendersApart) {
    m_module.onCommand = echo;
    const Life life = startModule7();
    std::vector<std::thread> senders;
    senders.reserve(4);
    std::atomic<int> mixed{0};
    for (int sender = 0; sender < 4; ++sender) {
        senders.emplace_back([&, sender] {
            for (int i = 0; i < 100; ++i) {
                const std::wstring text = std::to_wstring(sender) + L"/" + std::to_wstring(i);
                mixed += roundTrip(1003, text) == text ? 0 : 1;
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(mixed, 0);
}

TEST_F(ABrokerOnABus, HoldsUpNobodyWhileOneSenderWaits) {
    std::latch othersDone(1);
    m_module.onCommand = [&](HVB::CommandData& command) {
        if (command.m_commandId == 1) {
            await(othersDone, "the other senders");
        }
        return echo(command);
    };
    const FakeHub hub(m_bus.socketPath());
    const Life life = startModule7();
    auto waiting = std::async(std::launch::async, [&] { return roundTrip(1, L"waited"); });
    EXPECT_EQ(roundTrip(2, L"at once"), L"at once");
    sendLog(L"text");
    HVB::EventData event(1002);
    broker().sendEventNotification(event);
    othersDone.count_down();
    EXPECT_EQ(await(waiting, "the reply to who waited"), L"waited");
}

TEST_F(ABrokerOnABus, GivesTheReplyOfACommandThatIsNotWaitedForToTheModule) {
    std::promise<std::pair<int, std::wstring>> answered;
    m_module.onCommand = echo;
    m_module.onResponse = [&](HVB::CommandResult& result) {
        std::wstring text;
        result.readPayload(text);
        answered.set_value({result.m_commandData.m_commandId, text});
    };
    const Life life = startModule7();
    HVB::CommandData command(1003, 7, true);
    command.writePayload(std::wstring(L"later"));
    broker().sendCommand(command, nullptr, false, 30);
    EXPECT_EQ(await(answered.get_future(), "the reply at the module"), std::pair(1003, std::wstring(L"later")));
}

TEST_F(ABrokerOnABus, GivesAFailedResultToTheModuleWhenTheCommandWasRefused) {
    std::promise<bool> failed;
    m_module.onResponse = [&](HVB::CommandResult& result) {
        failed.set_value(!result.m_bSucceeded && !result.m_bValid);
    };
    const Life life = startModule7();
    HVB::CommandData command(1003, 7, true);
    broker().sendCommand(command, nullptr, false, 30);
    EXPECT_TRUE(await(failed.get_future(), "the failed result at the module"));
}

TEST_F(ABrokerOnABus, AnswersAHealthCheckWithWhatTheModuleSays) {
    std::atomic<bool> well{true};
    m_module.onHealthCheck = [&] { return well.load(); };
    const Life life = startModule7();
    RawClient client(m_bus.socketPath());
    for (const bool expected : {true, false}) {
        well = expected;
        const auto request = HVB::bus::newCall(client.bus(), HVB::bus::moduleName(7), HVB::bus::modulePath(7),
                                               HVB::bus::kModuleInterface, HVB::bus::kHealthCheckMember);
        int answer = -1;
        sd_bus_message_read(client.call(*request).get(), "b", &answer);
        EXPECT_EQ(answer, expected ? 1 : 0);
    }
}

TEST_F(ABrokerOnABus, DeliversEventsWithTheirPayloadInTheOrderOfTheirSending) {
    std::mutex mutex;
    std::vector<int> seen;
    m_module.onEvent = [&](HVB::EventData& event) {
        HVB::EventData copy(event);
        int number = -1;
        copy.readPayload(number);
        const std::lock_guard lock(mutex);
        seen.push_back(number);
        return true;
    };
    subscribe(1005); // before the start
    const Life life = startModule7();
    std::vector<int> expected;
    for (int i = 0; i < 100; ++i) {
        HVB::EventData event(1005);
        event.writePayload(i);
        broker().sendEventNotification(event);
        expected.push_back(i);
    }
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard lock(mutex);
        return seen.size() == expected.size();
    }));
    EXPECT_EQ(seen, expected);
}

TEST_F(ABrokerOnABus, PublishesToEverySubscriberAndToNobodyElse) {
    std::promise<void> ours;
    std::atomic<int> strangers{0};
    m_module.onEvent = [&](HVB::EventData& event) {
        strangers += event.m_eventId == 1007 ? 0 : 1;
        if (event.m_eventId == 1007) {
            ours.set_value();
        }
        return true;
    };
    const Life life = startModule7();
    subscribe(1007); // after the start
    subscribe(1007); // and once more: it still comes once
    RawClient first(m_bus.socketPath());
    RawClient second(m_bus.socketPath());
    first.subscribe(1007);
    second.subscribe(1007);
    HVB::EventData other(1002);
    broker().sendEventNotification(other);
    HVB::EventData event(1007);
    broker().sendEventNotification(event);
    EXPECT_TRUE(first.waitForEvents(1));
    EXPECT_TRUE(second.waitForEvents(1));
    await(ours.get_future(), "the event at the module");
    EXPECT_EQ(strangers, 0);
}

TEST_F(ABrokerOnABus, PublishesBeforeItHasStarted) {
    RawClient subscriber(m_bus.socketPath());
    subscriber.subscribe(1002);
    HVB::EventData event(1002);
    broker().sendEventNotification(event);
    EXPECT_TRUE(subscriber.waitForEvents(1));
}

TEST_F(ABrokerOnABus, HandsLogRecordsAndLinesToTheHub) {
    FakeHub hub(m_bus.socketPath());
    sendLog(L"caf\x00E9");
    ASSERT_EQ(hub.records().size(), 1U);
    EXPECT_EQ(hub.records()[0].source, 7);
    EXPECT_EQ(hub.records()[0].type, HVB::LOG_TYPE_BROWSER_EVENT);
    EXPECT_EQ(hub.records()[0].text, L"caf\x00E9");
    EXPECT_EQ(hub.records()[0].detail, L"detail");
    EXPECT_EQ(hub.records()[0].count, 1);

    HVB_LOG_MSG(7, L"Sentrel", HVB::LOG_TYPE_HISTORY_EVENT, HVB::LOG_LEVEL_WARNING, L"%s is %d, %ls", "one", 1, L"two");
    ASSERT_EQ(hub.lines().size(), 1U);
    EXPECT_EQ(hub.lines()[0].module, 7);
    EXPECT_EQ(hub.lines()[0].moduleName, L"Sentrel");
    EXPECT_EQ(hub.lines()[0].level, HVB::LOG_LEVEL_WARNING);
    EXPECT_EQ(hub.lines()[0].line, L"one is 1, two");
}

TEST_F(ABrokerOnABus, RefusesALogLineThatCannotBeFormatted) {
    (void)broker();
    EXPECT_THROW(HVB_LOG_MSG(7, L"Sentrel", HVB::LOG_TYPE_HISTORY_EVENT, HVB::LOG_LEVEL_ERROR, L"%s", "\xC3("),
                 HVB::HVBException);
}

TEST_F(ABrokerOnABus, TakesTheNameOverWhenAnotherProcessOfTheModuleEnds) {
    m_module.onCommand = echo;
    auto other = std::make_unique<RawClient>(m_bus.socketPath());
    ASSERT_GE(sd_bus_request_name(&other->bus(), "com.orvanta.hvb1.Module7", 0), 0);
    const Life life = startModule7();
    other.reset();
    EXPECT_TRUE(eventually([&] {
        try {
            return roundTrip(1003, L"mine") == L"mine";
        } catch (const HVB::HVBException&) {
            return false;
        }
    }));
}

TEST_F(ABrokerOnABus, DeliversAgainAfterItWasReleased) {
    m_module.onCommand = echo;
    HVB::HVBCommBroker* const pointer = &broker();
    for (int i = 0; i < 3; ++i) {
        const Life life = startModule7();
        EXPECT_EQ(&broker(), pointer);
        EXPECT_TRUE(eventually([&] {
            try {
                return roundTrip(1003, L"text") == L"text";
            } catch (const HVB::HVBException&) {
                return false; // the bus has not noticed the end of the life before
            }
        }));
    }
}

TEST_F(ABrokerOnABus, ReceivesNoCommandBeforeItSaysWhichModuleItIs) {
    std::promise<void> event;
    const Life life;
    broker().setEventInterface(&m_module);
    m_module.onEvent = [&](HVB::EventData&) {
        event.set_value();
        return true;
    };
    broker().start(true);
    subscribe(1002);
    RawClient client(m_bus.socketPath());
    client.emit(1002, 1);
    await(event.get_future(), "the event at the module");
    EXPECT_EQ(client.errorOf(*client.command(1003)), SD_BUS_ERROR_SERVICE_UNKNOWN);
}

std::string busctl(const testing_support::PrivateRoot& root, const HubBus& bus, std::vector<std::string> arguments,
                   std::optional<uid_t> uid = {}) {
    arguments.insert(arguments.begin(), {"--address=" + bus.address(), "--no-pager"});
    testing_support::ChildProcess process("busctl", {.arguments = std::move(arguments),
                                                     .environment = {},
                                                     .outputFile = root.file("busctl.out"),
                                                     .uid = uid,
                                                     .gid = {}});
    EXPECT_EQ(process.waitUntil(testing_support::patience()), 0) << process.output();
    return process.output();
}

TEST_F(ABrokerOnABus, ShowsItsCommandsToBusctl) {
    const Life life = startModule7();
    const std::string text =
        busctl(m_root, m_bus, {"introspect", "com.orvanta.hvb1.Module7", "/com/orvanta/hvb1/Module7"});
    for (const char* member : {".Command1003 ", ".Command100004 ", ".HealthCheck "}) {
        EXPECT_NE(text.find(member), std::string::npos) << text;
    }
    EXPECT_EQ(text.find("Command1023"), std::string::npos) << "that one is the hub's";
}

TEST_F(ABrokerOnABus, ShowsItsCommandsToAnyUser) {
    if (!testing_support::canActAsOthers()) {
        GTEST_SKIP() << "needs root, to run busctl as a second user";
    }
    const Life life = startModule7();
    const std::string text =
        busctl(m_root, m_bus, {"introspect", "com.orvanta.hvb1.Module7", "/com/orvanta/hvb1/Module7"},
               testing_support::kNobody);
    EXPECT_NE(text.find(".Command100001 "), std::string::npos) << text;
    EXPECT_NE(busctl(m_root, m_bus, {"list"}, testing_support::kNobody).find("com.orvanta.hvb1.Module7"),
              std::string::npos);
}

/// Takes module 7's name as a newer process of it does.
void takeOver(RawClient& client) {
    const auto request =
        HVB::bus::newCall(client.bus(), HVB::bus::kDriver, HVB::bus::kDriverPath, HVB::bus::kDriver, "RequestName");
    constexpr std::uint32_t replaceExisting = 2;
    HVB::bus::check(sd_bus_message_append(request.get(), "su", HVB::bus::moduleName(7).c_str(), replaceExisting),
                    "append");
    client.call(*request);
}

TEST_F(ABrokerOnABus, AnswersWhatItHasTakenWhenAnotherProcessTakesItsNameOver) {
    std::latch begun(1);
    std::latch goOn(1);
    m_module.onCommand = [&](HVB::CommandData& command) {
        begun.count_down();
        await(goOn, "the takeover");
        return echo(command);
    };
    const Life life = startModule7();
    auto answer = std::async(std::launch::async, [this] {
        RawClient client(m_bus.socketPath());
        return client.errorOf(*client.command(100001));
    });
    await(begun, "the command");
    RawClient newer(m_bus.socketPath());
    takeOver(newer);
    goOn.count_down();
    EXPECT_EQ(await(answer, "the answer"), "");
    EXPECT_TRUE(eventually([this] {
        HVB::EventData event(1002);
        return codeOfSending(event) == -ENOTCONN;
    })) << "and then it is not on the bus any more";
}

} // namespace
} // namespace broker_tests
