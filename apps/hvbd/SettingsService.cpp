// The hub cannot read the settings file: it belongs to the daemon's user. The settings keeper reads it as that user and
// hands its snapshots in; here they lie until the next one. Nothing here reads their text, so a snapshot of any size
// costs the loop nothing.
//
// Everybody may ask for a fresh one, so asking is made cheap: at most one call to the keeper is under way, and its
// answer counts for all who asked before it was sent. A call that arrives while it is under way waits for the next
// one, since the file may have been read already. How many wait is bounded, for a connection and together. Who wants no
// answer gets no reading.
#include "apps/hvbd/SettingsService.h"

#include "apps/hvbd/CallbackGuard.h"
#include "apps/hvbd/HvbdLimits.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

namespace HVB::hub {
namespace {

constexpr std::array<std::string_view, 3> kStates{bus::kStateWhole, "short", "none"};

std::uint64_t firstGeneration() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

bool isFrom(const bus::MessagePtr& call, sd_bus_message& other) {
    return std::strcmp(sd_bus_message_get_sender(call.get()), sd_bus_message_get_sender(&other)) == 0;
}

/// What a caller reads when the keeper gave no ordinary answer.
std::string explain(const sd_bus_error& error) {
    if (sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0 ||
        sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0) {
        return "the settings keeper is not running, so nobody can read the settings file for the hub: start "
               "sentrel-settings-keeper, or ask for what it read last";
    }
    if (sd_bus_error_has_name(&error, SD_BUS_ERROR_NO_REPLY) > 0 ||
        sd_bus_error_has_name(&error, SD_BUS_ERROR_TIMEOUT) > 0) {
        return "the settings keeper did not answer in time: try again, or ask for what it read last";
    }
    return fmt::format("the settings keeper cannot read now: {}",
                       error.message != nullptr ? error.message : "no reason given");
}

} // namespace

SettingsService::SettingsService(const SystemLog& log) : m_log(log), m_generation(firstGeneration()) {}

SettingsService::~SettingsService() = default;

void SettingsService::lost() noexcept {
    m_reading.reset();
    m_asked.clear();
    m_waiting.clear();
    m_bus = nullptr;
}

void SettingsService::handIn(sd_bus_message& call) {
    const char* state = nullptr;
    bus::check(sd_bus_message_read(&call, "s", &state), "cannot read the message");
    if (std::find(kStates.begin(), kStates.end(), state) == kStates.end()) {
        throw BadMessage("the state of the settings is neither whole nor short nor none");
    }
    m_last = Held{m_generation + 1, bus::SnapshotText::arrived(call)};
    ++m_generation;
    if (std::string_view(state) == bus::kStateWhole) {
        m_lastWhole = m_last;
    }
    bus::check(sd_bus_reply_method_return(&call, bus::kHandInSettingsReplySignature, m_generation),
               "cannot send the reply");
    // Who cannot be told reads the generation with the next call.
    static_cast<void>(sd_bus_emit_signal(m_bus, bus::kHubPath, bus::kHubInterface, bus::kSettingsChangedMember,
                                         bus::kSettingsChangedSignature, m_generation));
}

void SettingsService::serve(sd_bus_message& call) {
    int fresh = 0;
    bus::check(sd_bus_message_read(&call, bus::kSettingsSignature, &fresh), "cannot read the message");
    if (fresh != 0) {
        waitForReading(call);
    } else {
        reply(call, m_last, "nothing was handed in since hvbd started: start sentrel-settings-keeper");
    }
}

void SettingsService::serveLastWhole(sd_bus_message& call) {
    reply(call, m_lastWhole, "no whole settings were handed in since hvbd started");
}

void SettingsService::reply(sd_bus_message& call, const std::optional<Held>& held, const char* whatIsMissing) const {
    if (!held) {
        bus::check(sd_bus_reply_method_errorf(&call, bus::kErrorNoSettings, "%s", whatIsMissing),
                   "cannot send the reply");
        return;
    }
    sd_bus_message* made = nullptr;
    bus::check(sd_bus_message_new_method_return(&call, &made), "cannot make a reply");
    const bus::MessagePtr message(made);
    bus::check(sd_bus_message_append(made, "t", held->generation), "cannot make a reply");
    held->text.appendTo(*made);
    bus::check(sd_bus_send(nullptr, made, nullptr), "cannot send the reply");
}

void SettingsService::waitForReading(sd_bus_message& call) {
    if (sd_bus_message_get_expect_reply(&call) == 0) {
        return;
    }
    const auto ofTheSame = [&call](const bus::MessagePtr& other) { return isFrom(other, call); };
    const auto own = std::count_if(m_asked.begin(), m_asked.end(), ofTheSame) +
                     std::count_if(m_waiting.begin(), m_waiting.end(), ofTheSame);
    if (own >= kMaxFreshCallsOfConnection || m_asked.size() + m_waiting.size() >= kMaxFreshCalls) {
        bus::check(sd_bus_reply_method_errorf(&call, bus::kErrorBusy,
                                              "too many calls wait for fresh settings; try again later"),
                   "cannot send the reply");
        return;
    }
    m_waiting.emplace_back(sd_bus_message_ref(&call));
    if (m_reading == nullptr) {
        startReading();
    }
}

/// Whom a call that cannot be sent would have served learns it at once: nothing else would end their wait.
void SettingsService::startReading() {
    m_asked = std::exchange(m_waiting, {});
    try {
        askKeeper();
    } catch (const HVBException& failed) {
        const std::string& why = failed.message();
        const sd_bus_error error{bus::kErrorKeeper, why.c_str(), 0};
        logAndIgnore(m_log, "asking the settings keeper", [&] { answer(std::exchange(m_asked, {}), &error); });
    }
}

void SettingsService::askKeeper() {
    const bus::MessagePtr request =
        bus::newCall(*m_bus, bus::kKeeperName, bus::kKeeperPath, bus::kKeeperInterface, bus::kReadNowMember);
    sd_bus_slot* slot = nullptr;
    const auto deadline = static_cast<std::uint64_t>(std::chrono::microseconds(kFreshDeadline).count());
    bus::check(sd_bus_call_async(m_bus, &slot, request.get(), onRead, this, deadline), "cannot send the call");
    m_reading.reset(slot);
}

int SettingsService::onRead(sd_bus_message* reply, void* self, sd_bus_error* /*error*/) {
    auto& service = *static_cast<SettingsService*>(self);
    return logAndIgnore(service.m_log, "serving fresh settings",
                        [&] { service.endReading(sd_bus_message_get_error(reply)); });
}

void SettingsService::endReading(const sd_bus_error* error) {
    m_reading.reset();
    answer(std::exchange(m_asked, {}), error);
    if (!m_waiting.empty()) {
        startReading();
    }
}

void SettingsService::answer(const Calls& calls, const sd_bus_error* error) const {
    const std::string why = error != nullptr ? explain(*error) : std::string();
    for (const bus::MessagePtr& call : calls) {
        if (error != nullptr) {
            // A sender that cannot be answered has gone.
            static_cast<void>(sd_bus_reply_method_errorf(call.get(), bus::kErrorKeeper, "%s", why.c_str()));
        } else {
            logAndIgnore(m_log, "answering with fresh settings",
                         [&] { reply(*call, m_last, "the settings keeper has handed nothing in"); });
        }
    }
}

} // namespace HVB::hub
