// What hvbd does with the settings that it is handed. Bus and hvbd are real; the keeper is a connection of the test's
// that answers when the test says so.
#include "HvbdFixture.h"
#include "platform/hvbhelpers/SnapshotText.h"

#include <gmock/gmock.h>

#include <deque>
#include <memory>

namespace {

using namespace testing_support;
using HVB::bus::SnapshotText;
using ::testing::HasSubstr;

/// What Settings gave.
struct Served {
    std::uint64_t generation = 0;
    std::string text;
};

Served servedIn(sd_bus_message& reply) {
    Served served;
    HVB::bus::check(sd_bus_message_read(&reply, "t", &served.generation), "read");
    served.text = SnapshotText::arrived(reply).text();
    return served;
}

/// A client of the hub's settings, and one who hands them in.
/// Threads: one at a time. Owner: the test.
class SettingsClient : public HubClient {
public:
    using HubClient::HubClient;

    Served settings(bool fresh = false) {
        const auto request = newCall(HVB::bus::kSettingsMember);
        HVB::bus::check(sd_bus_message_append(request.get(), "b", fresh ? 1 : 0), "append");
        return servedIn(*call(*request));
    }
    Served lastWhole() { return servedIn(*call(*newCall(HVB::bus::kLastWholeSettingsMember))); }

    std::uint64_t handIn(const std::string& text, const char* state = "whole") {
        const auto request = newCall(HVB::bus::kHandInSettingsMember);
        HVB::bus::check(sd_bus_message_append(request.get(), "s", state), "append");
        SnapshotText::of(text).appendTo(*request);
        std::uint64_t generation = 0;
        const auto reply = call(*request);
        HVB::bus::check(sd_bus_message_read(reply.get(), "t", &generation), "read");
        return generation;
    }

    /// Asks for fresh settings and goes on.
    void ask() {
        const auto request = newCall(HVB::bus::kSettingsMember);
        HVB::bus::check(sd_bus_message_append(request.get(), "b", 1), "append");
        HVB::bus::check(sd_bus_call_async(&bus(), nullptr, request.get(), onAnswer, this, 0), "call");
        HVB::bus::check(sd_bus_flush(&bus()), "flush");
    }
    /// The next answer to ask: the text, or the name of the error.
    std::string answer() {
        awaitUntil("an answer to a fresh reading", [this] {
            while (sd_bus_process(&bus(), nullptr) > 0) {
            }
            return !m_answers.empty();
        });
        const std::string first = m_answers.front();
        m_answers.pop_front();
        return first;
    }
    bool isUnanswered() {
        while (sd_bus_process(&bus(), nullptr) > 0) {
        }
        return m_answers.empty();
    }

private:
    static int onAnswer(sd_bus_message* reply, void* self, sd_bus_error* /*error*/) {
        const sd_bus_error* error = sd_bus_message_get_error(reply);
        static_cast<SettingsClient*>(self)->m_answers.push_back(error != nullptr ? error->name : servedIn(*reply).text);
        return 1;
    }

    std::deque<std::string> m_answers;
};

/// The keeper's name, and what it is asked.
/// Threads: one at a time. Owner: the test.
class Keeper : public SettingsClient {
public:
    explicit Keeper(const std::string& socketPath) : SettingsClient(socketPath) {
        HVB::bus::check(sd_bus_add_object(&bus(), nullptr, HVB::bus::kKeeperPath, onCall, this), "add object");
        HVB::bus::check(sd_bus_request_name(&bus(), HVB::bus::kKeeperName, 0), "name");
    }
    void awaitQuestion() {
        awaitUntil("a question to the keeper", [this] { return isAsked(); });
    }
    bool isAsked() {
        while (sd_bus_process(&bus(), nullptr) > 0) {
        }
        return !m_questions.empty();
    }
    void answer() {
        HVB::bus::check(sd_bus_reply_method_return(m_questions.front().get(), ""), "reply");
        m_questions.pop_front();
        HVB::bus::check(sd_bus_flush(&bus()), "flush");
    }
    void refuse() {
        HVB::bus::check(sd_bus_reply_method_errorf(m_questions.front().get(), HVB::bus::kErrorFailed, "no disk"),
                        "reply");
        m_questions.pop_front();
        HVB::bus::check(sd_bus_flush(&bus()), "flush");
    }

private:
    static int onCall(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
        if (sd_bus_message_is_method_call(message, HVB::bus::kKeeperInterface, HVB::bus::kReadNowMember) <= 0) {
            return 0;
        }
        static_cast<Keeper*>(self)->m_questions.emplace_back(sd_bus_message_ref(message));
        return 1;
    }

    std::deque<HVB::bus::MessagePtr> m_questions;
};

class AHubWithSettings : public AHub {
protected:
    void SetUp() override { start(); }

    SettingsClient settingsClient() const { return SettingsClient(root.hubSocket()); }
};

TEST_F(AHubWithSettings, SaysThatNothingWasHandedIn) {
    SettingsClient client = settingsClient();
    EXPECT_EQ(refusalOf([&] { client.settings(); }),
              (Refusal{HVB::bus::kErrorNoSettings,
                       "nothing was handed in since hvbd started: start sentrel-settings-keeper"}));
    EXPECT_EQ(refusalOf([&] { client.lastWhole(); }).name, HVB::bus::kErrorNoSettings);
}

TEST_F(AHubWithSettings, ServesWhatWasHandedInLast) {
    SettingsClient client = settingsClient();
    const std::uint64_t first = client.handIn("one");
    const std::uint64_t second = client.handIn("two");
    EXPECT_GT(second, first);
    const Served served = client.settings();
    EXPECT_EQ(served.text, "two");
    EXPECT_EQ(served.generation, second);
}

TEST_F(AHubWithSettings, KeepsTheLastWholeOnesBesideOthers) {
    SettingsClient client = settingsClient();
    const std::uint64_t whole = client.handIn("whole");
    client.handIn("short", "short");
    client.handIn("none", "none");
    EXPECT_EQ(client.settings().text, "none");
    EXPECT_EQ(client.lastWhole().text, "whole");
    EXPECT_EQ(client.lastWhole().generation, whole);
}

TEST_F(AHubWithSettings, CarriesALongTextInAFile) {
    SettingsClient client = settingsClient();
    for (const std::size_t size :
         {HVB::bus::kMaxInlineSettingsBytes, HVB::bus::kMaxInlineSettingsBytes + 1, std::size_t{8} << 20U}) {
        const std::string text(size, 'x');
        client.handIn(text);
        EXPECT_EQ(client.settings().text, text);
        EXPECT_EQ(client.settings().text, text) << "again, from the same file";
    }
}

TEST_F(AHubWithSettings, RefusesWhatIsNoSettings) {
    SettingsClient client = settingsClient();
    EXPECT_EQ(refusalOf([&] { client.handIn("text", "fine"); }),
              (Refusal{HVB::bus::kErrorBadMessage, "the state of the settings is neither whole nor short nor none"}));
    const auto request = client.newCall(HVB::bus::kHandInSettingsMember);
    HVB::bus::check(sd_bus_message_append(request.get(), "sv", "whole", "i", 7), "append");
    EXPECT_EQ(refusalOf([&] { client.call(*request); }),
              (Refusal{HVB::bus::kErrorBadMessage, "the message holds no text of settings"}));
    const auto file = client.newCall(HVB::bus::kHandInSettingsMember);
    HVB::bus::check(sd_bus_message_append(file.get(), "sv", "whole", "h", STDOUT_FILENO), "append");
    EXPECT_EQ(refusalOf([&] { client.call(*file); }).name, HVB::bus::kErrorBadMessage);
    EXPECT_EQ(refusalOf([&] { client.settings(); }).name, HVB::bus::kErrorNoSettings) << "nothing of it stays";
}

TEST_F(AHubWithSettings, SignalsEachGeneration) {
    HubClient listener = client();
    std::vector<std::uint64_t> heard;
    const auto note = [](sd_bus_message* signal, void* list, sd_bus_error*) {
        std::uint64_t generation = 0;
        sd_bus_message_read(signal, "t", &generation);
        static_cast<std::vector<std::uint64_t>*>(list)->push_back(generation);
        return 0;
    };
    HVB::bus::check(sd_bus_match_signal(&listener.bus(), nullptr, HVB::bus::kHubName, HVB::bus::kHubPath,
                                        HVB::bus::kHubInterface, HVB::bus::kSettingsChangedMember, note, &heard),
                    "match");
    SettingsClient client = settingsClient();
    const std::vector<std::uint64_t> given{client.handIn("one"), client.handIn("two")};
    ASSERT_TRUE(eventually([&] {
        while (sd_bus_process(&listener.bus(), nullptr) > 0) {
        }
        return heard.size() == 2;
    }));
    EXPECT_EQ(heard, given);
}

TEST_F(AHubWithSettings, SaysThatTheKeeperIsAway) {
    SettingsClient client = settingsClient();
    client.handIn("old");
    const Refusal refusal = refusalOf([&] { client.settings(true); });
    EXPECT_EQ(refusal.name, HVB::bus::kErrorKeeper);
    EXPECT_THAT(refusal.text, HasSubstr("start sentrel-settings-keeper"));
    EXPECT_EQ(client.settings().text, "old") << "the last ones are still served";
}

TEST_F(AHubWithSettings, AnswersAFreshCallAfterTheReading) {
    Keeper keeper(root.hubSocket());
    SettingsClient client = settingsClient();
    keeper.handIn("before");
    client.ask();
    keeper.awaitQuestion();
    keeper.handIn("after");
    EXPECT_TRUE(client.isUnanswered());
    keeper.answer();
    EXPECT_EQ(client.answer(), "after");
    client.ask();
    keeper.awaitQuestion();
    keeper.refuse();
    EXPECT_EQ(client.answer(), HVB::bus::kErrorKeeper);
}

TEST_F(AHubWithSettings, AnswersAllWhoWaitByOneReadingThatBeganAfterTheyAsked) {
    Keeper keeper(root.hubSocket());
    keeper.handIn("before");
    SettingsClient first = settingsClient();
    first.ask();
    keeper.awaitQuestion();
    std::vector<std::unique_ptr<SettingsClient>> later;
    for (int i = 0; i < 5; ++i) {
        later.push_back(std::make_unique<SettingsClient>(root.hubSocket()));
        later.back()->ask();
        later.back()->settings(); // when this is answered, hvbd has met the question before it
    }
    keeper.handIn("the first reading");
    keeper.answer();
    EXPECT_EQ(first.answer(), "the first reading");
    keeper.awaitQuestion();
    keeper.handIn("the second reading");
    keeper.answer();
    for (const auto& client : later) {
        EXPECT_EQ(client->answer(), "the second reading");
    }
    EXPECT_FALSE(keeper.isAsked());
}

TEST_F(AHubWithSettings, BoundsTheCallsOfAConnectionThatWait) {
    Keeper keeper(root.hubSocket());
    SettingsClient greedy = settingsClient();
    for (int i = 0; i < 5; ++i) {
        greedy.ask();
    }
    EXPECT_EQ(greedy.answer(), HVB::bus::kErrorBusy) << "the fifth";
    SettingsClient other = settingsClient();
    other.ask();
    keeper.awaitQuestion();
    keeper.handIn("one");
    keeper.answer();
    keeper.awaitQuestion();
    keeper.answer();
    EXPECT_EQ(other.answer(), "one");
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(greedy.answer(), "one");
    }
}

TEST_F(AHubWithSettings, GivesAnotherGenerationAfterItsRestart) {
    SettingsClient client = settingsClient();
    const std::uint64_t before = client.handIn("one");
    kill9();
    start();
    EXPECT_EQ(refusalOf([&] { client.settings(); }).name, HVB::bus::kErrorNoSettings);
    EXPECT_GT(client.handIn("one"), before);
}

} // namespace
