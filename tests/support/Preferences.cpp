#include "tests/support/Preferences.h"

#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/MemoryFile.h"
#include "tests/support/Eventually.h"

#include <stdexcept>
#include <utility>

namespace testing_support {
namespace {

/// An event that no module sends: when it is back, all that were sent before it are.
constexpr int kMark = 424242;

[[noreturn]] void failed(int commandId, const std::string& why) {
    throw std::runtime_error("command " + std::to_string(commandId) + ": " + why);
}

WireClient::Answer readAnswer(sd_bus_message& reply) {
    WireClient::Answer answer;
    int succeeded = 0;
    int valid = 0;
    int hasPayload = 0;
    HVB::bus::check(sd_bus_message_read(&reply, "bbb", &succeeded, &valid, &hasPayload), "cannot read a reply");
    answer.succeeded = succeeded != 0;
    answer.valid = valid != 0;
    answer.hasPayload = hasPayload != 0;
    if (sd_bus_message_has_signature(&reply, HVB::bus::kLargeCommandReplySignature) > 0) {
        int fd = -1;
        std::uint8_t width = 0;
        HVB::bus::check(sd_bus_message_read(&reply, "hy", &fd, &width), "cannot read a reply");
        answer.payload = HVB::detail::MemoryFile::arrived(fd, width, HVB::bus::kMaxReplyPayloadBytes)->text();
    } else {
        answer.payload = HVB::bus::readText(reply);
    }
    return answer;
}

void appendPayload(sd_bus_message& request, std::wstring_view payload) {
    if (HVB::bus::asBytes(payload).size() <= HVB::bus::kMaxTextBytes) {
        HVB::bus::appendText(request, payload);
        return;
    }
    const auto file = HVB::detail::MemoryFile::of(payload, HVB::bus::kMaxPayloadBytes);
    HVB::bus::check(sd_bus_message_append(&request, "hy", file->fd(), file->width()), "cannot fill a command");
}

template <class Value>
Value valueOf(const WireClient::Answer& answer, int commandId) {
    if (!answer.error.empty()) {
        failed(commandId, answer.error);
    }
    if (!answer.succeeded || !answer.valid || !answer.hasPayload) {
        failed(commandId, "the reply says failed or has no payload");
    }
    return valueIn<Value>(answer.payload);
}

} // namespace

Sentrel::STPreferences individual(Sentrel::STPrefType type) {
    Sentrel::STPreferences preferences;
    preferences.m_bIndividual = true;
    preferences.m_prefType = type;
    return preferences;
}

Urls urlsOf(const Sentrel::STPreferences& preferences) {
    const Sentrel::AllowBlockDetails details = preferences.getAllowBlockDetails();
    return {details.begin(), details.end()};
}

Sentrel::STPreferences withUrls(const Urls& urls) {
    Sentrel::STPreferences preferences = individual(Sentrel::ST_ALLOW_BLOCK_LIST);
    preferences.setAllowBlockDetails(Sentrel::AllowBlockDetails(urls.begin(), urls.end()));
    return preferences;
}

Sentrel::STPreferences withCategories(const Sentrel::CategoryBlockDetails& categories) {
    Sentrel::STPreferences preferences = individual(Sentrel::ST_CATEGORY_BLOCK_LIST);
    preferences.m_categoryBlockDetails = categories;
    return preferences;
}

Sentrel::STPreferences withSwitch(Sentrel::STPrefType type, bool value) {
    Sentrel::STPreferences preferences = individual(type);
    preferences.m_bEnable = value;
    preferences.m_bSafeSearch = value;
    preferences.m_bCategoryBlocking = value;
    return preferences;
}

Sentrel::STPreferences withAction(Sentrel::STPrefType type, int value) {
    Sentrel::STPreferences preferences = individual(type);
    preferences.m_redSiteAction = value;
    preferences.m_yellowSiteAction = value;
    preferences.m_unratedSiteAction = value;
    preferences.m_unverifiedAction = value;
    return preferences;
}

PreferenceClient::PreferenceClient(std::string socketPath) : m_socketPath(std::move(socketPath)) {}

PreferenceClient::~PreferenceClient() {
    HVB::HVBCommBroker::releaseInstance();
}

void PreferenceClient::send(HVB::CommandData& command, HVB::CommandResult& result) {
    try {
        broker().sendCommand(command, &result, true, static_cast<int>(kPatience.count()));
    } catch (const HVB::HVBException& exception) {
        failed(command.m_commandId, exception.message());
    }
}

template <class Value>
Value PreferenceClient::ask(HVB::CommandData& command) {
    HVB::CommandResult result;
    send(command, result);
    if (!result.m_bSucceeded || !result.m_bValid || result.m_pInArchive == nullptr) {
        failed(command.m_commandId, "the reply says failed or has no payload");
    }
    Value value{};
    result.readPayload(value);
    return value;
}

Sentrel::STPreferences PreferenceClient::getAll() {
    HVB::CommandData command(Sentrel::ST_GET_PREFS, HVB::MODULE_SENTREL, true);
    return ask<Sentrel::STPreferences>(command);
}

int PreferenceClient::setAll(const Sentrel::STPreferences& preferences) {
    HVB::CommandData command(Sentrel::ST_SET_PREFS, HVB::MODULE_SENTREL, true);
    command.writePayload(preferences);
    return ask<int>(command);
}

int PreferenceClient::reset() {
    return sendEmpty(Sentrel::ST_RESET_PREFS);
}

Sentrel::STPreferences PreferenceClient::getOne(Sentrel::STPrefType type) {
    HVB::CommandData command(Sentrel::ST_GET_PREFS_INDIVIDUAL, HVB::MODULE_SENTREL, true);
    command.writePayload(static_cast<int>(type));
    return ask<Sentrel::STPreferences>(command);
}

int PreferenceClient::setOne(const Sentrel::STPreferences& preferences) {
    HVB::CommandData command(Sentrel::ST_SET_PREFS_INDIVIDUAL, HVB::MODULE_SENTREL, true);
    command.writePayload(preferences);
    return ask<int>(command);
}

int PreferenceClient::sendEmpty(int commandId) {
    HVB::CommandData command(commandId, HVB::MODULE_SENTREL, true);
    return ask<int>(command);
}

bool PreferenceClient::Events::handleEventNotification(HVB::EventData& event) {
    const std::lock_guard lock(mutex);
    if (event.m_eventId == kMark) {
        ++marks;
    } else {
        received.push_back({event.m_eventId, event.m_pInArchive != nullptr});
    }
    changed.notify_all();
    return true;
}

void PreferenceClient::listen() {
    m_events = std::make_unique<Events>();
    broker().setEventInterface(m_events.get());
    broker().start(true);
    for (const int id : {static_cast<int>(Sentrel::EVT_DASHBOARD_STATUS_CHANGE),
                         static_cast<int>(Sentrel::EVT_PREFERENCES_CHANGE), kMark}) {
        HVB::EventData event(id);
        broker().subscribeForEvent(event);
    }
}

std::vector<ReceivedEvent> PreferenceClient::waitForEvents(std::size_t count) {
    std::unique_lock lock(m_events->mutex);
    m_events->changed.wait_until(lock, patience(), [&] { return m_events->received.size() >= count; });
    return m_events->received;
}

std::vector<ReceivedEvent> PreferenceClient::eventsUntilNow() {
    std::unique_lock lock(m_events->mutex);
    const int mark = m_events->marks + 1;
    lock.unlock();
    HVB::EventData event(kMark);
    broker().sendEventNotification(event);
    lock.lock();
    if (!m_events->changed.wait_until(lock, patience(), [&] { return m_events->marks >= mark; })) {
        throw std::runtime_error("events do not arrive any more");
    }
    return m_events->received;
}

WireClient::WireClient(const std::string& socketPath) : m_bus(HVB::bus::openBus(socketPath, patience())) {}

WireClient::Answer WireClient::command(int id, std::optional<std::wstring_view> payload) {
    const HVB::bus::MessagePtr request =
        HVB::bus::newCall(*m_bus, HVB::bus::moduleName(HVB::MODULE_SENTREL), HVB::bus::modulePath(HVB::MODULE_SENTREL),
                          HVB::bus::kModuleInterface, HVB::bus::commandMember(id));
    HVB::bus::check(sd_bus_message_append(request.get(), "tiibib", std::uint64_t{1}, -1, HVB::MODULE_SENTREL, 1, -1,
                                          payload ? 1 : 0),
                    "cannot fill a command");
    appendPayload(*request, payload.value_or(std::wstring_view()));
    try {
        return readAnswer(*HVB::bus::call(*m_bus, *request, patience()));
    } catch (const HVB::bus::CallError& error) {
        Answer answer;
        answer.error = error.name();
        return answer;
    }
}

void WireClient::emit(int id, std::optional<std::wstring_view> payload) {
    sd_bus_message* raw = nullptr;
    HVB::bus::check(sd_bus_message_new_signal(m_bus.get(), &raw, HVB::bus::kEventsPath, HVB::bus::kEventsInterface,
                                              HVB::bus::eventMember(id).c_str()),
                    "cannot make an event");
    const HVB::bus::MessagePtr event(raw);
    HVB::bus::check(sd_bus_message_append(raw, "ib", 1, payload ? 1 : 0), "cannot fill an event");
    HVB::bus::appendText(*raw, payload.value_or(std::wstring_view()));
    HVB::bus::check(sd_bus_send(m_bus.get(), raw, nullptr), "cannot send an event");
    const HVB::bus::MessagePtr barrier =
        HVB::bus::newCall(*m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId");
    HVB::bus::call(*m_bus, *barrier, patience());
}

int WireClient::code(int id, std::optional<std::wstring_view> payload) {
    return valueOf<int>(command(id, payload), id);
}

Sentrel::STPreferences WireClient::snapshot(int id, std::optional<std::wstring_view> payload) {
    return valueOf<Sentrel::STPreferences>(command(id, payload), id);
}

} // namespace testing_support
