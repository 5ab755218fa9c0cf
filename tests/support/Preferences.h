// Clients of the five preference commands of a real daemon: one through the hub's client library, as a user interface
// is, and one that puts the bytes on the bus itself.
#pragma once

#include "hub/HVBCommBroker.h"
#include "hub/STPreferences.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "tests/support/ArchiveValue.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace testing_support {

/// URLs with their actions, in the order of a list.
using Urls = std::vector<std::pair<std::string, int>>;

/// The list of URLs in a snapshot, as plain text.
Urls urlsOf(const Sentrel::STPreferences& preferences);

/// A default snapshot that is marked to hold the one preference of @p type.
Sentrel::STPreferences individual(Sentrel::STPrefType type);
/// One marked to hold a list of URLs, given as plain text.
Sentrel::STPreferences withUrls(const Urls& urls);
/// One marked to hold a list of categories.
Sentrel::STPreferences withCategories(const Sentrel::CategoryBlockDetails& categories);
/// One marked to hold a switch, which is one of types 0, 1 and 6.
Sentrel::STPreferences withSwitch(Sentrel::STPrefType type, bool value);
/// One marked to hold an action, which is one of types 2 to 5.
Sentrel::STPreferences withAction(Sentrel::STPrefType type, int value);

/// The text that carries @p value as the payload of a message.
template <class Value>
std::wstring payloadOf(const Value& value) {
    HVB::CommandData carrier(0, HVB::MODULE_SENTREL, true);
    carrier.writePayload(value);
    return carrier.m_pOutStream->str();
}

/// An event as a subscriber got it.
struct ReceivedEvent {
    std::int32_t id;
    bool hasPayload;
    bool operator==(const ReceivedEvent&) const = default;
    friend void PrintTo(const ReceivedEvent& event, std::ostream* out) {
        *out << event.id << (event.hasPayload ? " with a payload" : "");
    }
};

/// This process's broker as a client. One at a time.
/// Threads: the commands from any; the rest plain. Owner: the test; it goes before the bus.
class PreferenceClient {
public:
    explicit PreferenceClient(std::string socketPath);
    PreferenceClient(const PreferenceClient&) = delete;
    PreferenceClient& operator=(const PreferenceClient&) = delete;
    /// Releases the broker.
    ~PreferenceClient();

    // The commands. Each throws std::runtime_error when the reply says failed or none comes.
    Sentrel::STPreferences getAll();
    int setAll(const Sentrel::STPreferences& preferences);
    int reset();
    Sentrel::STPreferences getOne(Sentrel::STPrefType type);
    int setOne(const Sentrel::STPreferences& preferences);
    /// A command without a payload whose reply is a code.
    int sendEmpty(int commandId);

    /// Sends any command. @throws std::runtime_error with the broker's text when no reply comes.
    void send(HVB::CommandData& command, HVB::CommandResult& result);

    /// Subscribes to the events that tell of changes.
    void listen();
    /// Waits until so many events have come. @return all that have.
    std::vector<ReceivedEvent> waitForEvents(std::size_t count);
    /// All events that were on the bus before this call.
    std::vector<ReceivedEvent> eventsUntilNow();

private:
    class Events : public HVB::EventInterface {
    public:
        bool handleEventNotification(HVB::EventData& event) override;

        std::mutex mutex;
        std::condition_variable changed;
        std::vector<ReceivedEvent> received; ///< guarded by mutex
        int marks = 0;                       ///< guarded by mutex
    };

    template <class Value>
    Value ask(HVB::CommandData& command);
    HVB::HVBCommBroker& broker() { return *HVB::HVBCommBroker::getInstance(m_socketPath); }

    std::string m_socketPath;
    std::unique_ptr<Events> m_events;
};

/// A client with a connection of its own that says what it likes.
class WireClient {
public:
    /// What came back.
    struct Answer {
        std::string error; ///< name of the error; empty for a reply
        bool succeeded = false;
        bool valid = false;
        bool hasPayload = false;
        std::wstring payload;
    };

    explicit WireClient(const std::string& socketPath);

    sd_bus& bus() { return *m_bus; }

    /// Sends a command with this payload, or with none, and waits for what comes back.
    Answer command(int id, std::optional<std::wstring_view> payload = {});

    /// Emits an event to everyone and returns when the bus has dealt with it, be it that it refused it.
    void emit(int id, std::optional<std::wstring_view> payload = {});

    /// The code in the reply to a command. @throws std::runtime_error when there is no reply with one.
    int code(int id, std::optional<std::wstring_view> payload = {});
    /// The snapshot in the reply to a command. @throws std::runtime_error when there is no reply with one.
    Sentrel::STPreferences snapshot(int id, std::optional<std::wstring_view> payload = {});

private:
    HVB::bus::BusPtr m_bus;
};

} // namespace testing_support
