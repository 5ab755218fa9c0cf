#include "tests/support/RecordingBroker.h"

#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/support/FreshStart.h"

#include <cstdarg>
#include <cwchar>

std::int32_t cmdHelperFlowvalue = 0;
std::int32_t regHelperFlowvalue = 0;
std::int32_t hvInitFlowvalue = 0;
std::int32_t hvCommFlowvalue = 0;

namespace testing_support {

Recording& Recording::instance() {
    return freshForEachTest<Recording>();
}

std::vector<std::string> Recording::calls() {
    const std::lock_guard lock(m_mutex);
    return m_calls;
}

void Recording::forget() {
    const std::lock_guard lock(m_mutex);
    m_calls.clear();
    replies.clear();
    events.clear();
    commands.clear();
    logs.clear();
    lines.clear();
}

void Recording::add(const std::string& call) {
    {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
    }
    if (before) {
        before(call.substr(0, call.find(' ')));
    }
}

} // namespace testing_support

using testing_support::Recording;

namespace HVB {

// The base is named because gcc asks for that in a copy constructor.
// NOLINTNEXTLINE(readability-redundant-member-init)
EventData::EventData(const EventData& other) : BasicEventData(other), SerializedData() {
    openOutputIfPossible();
    ++Recording::instance().copiedEvents;
    if (other.m_pInStream != nullptr) {
        m_pInStream = makeInStream(other.m_pInStream->str()).release();
        m_pInArchive = makeDeliveredArchive(*m_pInStream).release();
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface has it so
HVBCommBroker* HVBCommBroker::getInstance(std::string socketPath) {
    static HVBCommBroker broker;
    Recording::instance().add("getInstance " + socketPath);
    return &broker;
}

void HVBCommBroker::releaseInstance() {
    Recording::instance().add("releaseInstance");
}

void HVBCommBroker::setHVId(int moduleId) {
    Recording::instance().add("setHVId " + std::to_string(moduleId));
}

void HVBCommBroker::setCommandInterface(CommandInterface* receiver) {
    Recording::instance().commandInterface = receiver;
    Recording::instance().add("setCommandInterface");
}

void HVBCommBroker::setHealthCheckInterface(HealthCheckInterface* receiver) {
    Recording::instance().healthCheckInterface = receiver;
    Recording::instance().add("setHealthCheckInterface");
}

void HVBCommBroker::setEventInterface(EventInterface* receiver) {
    Recording::instance().eventInterface = receiver;
    Recording::instance().add("setEventInterface");
}

void HVBCommBroker::start(boost::logic::tribool waitForHub) {
    Recording::instance().add(waitForHub ? "start true" : "start");
}

void HVBCommBroker::stop() {
    Recording::instance().add("stop");
}

void HVBCommBroker::subscribeForEvent(EventData& event) {
    Recording::instance().add("subscribeForEvent " + std::to_string(event.m_eventId));
}

void HVBCommBroker::sendEventNotification(EventData& event) {
    Recording::instance().add("sendEventNotification " + std::to_string(event.m_eventId));
    Recording::instance().events.push_back({event.m_eventId, event.m_bHasPayload});
}

void HVBCommBroker::sendCommand(CommandData& data, CommandResult* result, bool wait, int timeoutSeconds) {
    Recording& recording = Recording::instance();
    recording.add("sendCommand " + std::to_string(data.m_commandId) + (wait ? " wait " : " ") +
                  std::to_string(timeoutSeconds));
    recording.commands.push_back({data.m_commandId, data.m_targetId, data.m_bFlag, data.m_pOutStream->str()});
    if (recording.answer && result != nullptr) {
        recording.answer(*result);
    }
}

void HVBCommBroker::sendCommandResponse(CommandResult& result) {
    Recording::instance().add("sendCommandResponse " + std::to_string(result.m_commandData.m_commandId));
    Recording::instance().replies.push_back(
        {result.m_commandData, result.m_bSucceeded, result.m_bValid, result.m_bHasPayload, result.m_pOutStream->str()});
}

void HVBCommBroker::sendLog(LogRequest& request) {
    Recording::instance().add("sendLog");
    Recording::instance().logs.push_back(
        {request.m_sourceId, request.m_logType, request.m_text, request.m_detailText, request.m_count});
}

} // namespace HVB

void HVB_LOG_MSG(int moduleId, const wchar_t* moduleName, HVB::typeOfLog_enum type, HVB::hv_logLevel_enum level,
                 const wchar_t* format, ...) {
    wchar_t line[4096] = L"";
    std::va_list args;
    va_start(args, format);
    static_cast<void>(std::vswprintf(line, std::size(line), format, args));
    va_end(args);
    const std::wstring name(moduleName);
    Recording::instance().lines.emplace_back(line);
    Recording::instance().add("HVB_LOG_MSG " + std::to_string(moduleId) + " " + std::string(name.begin(), name.end()) +
                              " " + std::to_string(type) + " " + std::to_string(level));
}
