// Passes every operation on to the broker that the process has at that moment.
#include "hub/HVBCommBroker.h"

#include "platform/hvbhelpers/Broker.h"

#include <utility>

namespace HVB {

HVBCommBroker* HVBCommBroker::getInstance(std::string socketPath) {
    // It has no state and is never freed, so that the pointer outlives every release.
    static HVBCommBroker* const instance = new HVBCommBroker;
    detail::makeBroker(std::move(socketPath));
    return instance;
}

void HVBCommBroker::releaseInstance() {
    detail::releaseBroker();
}

void HVBCommBroker::setHVId(int moduleId) {
    detail::currentBroker()->setModuleId(moduleId);
}

void HVBCommBroker::setCommandInterface(CommandInterface* receiver) {
    detail::currentBroker()->setCommandInterface(receiver);
}

void HVBCommBroker::setHealthCheckInterface(HealthCheckInterface* receiver) {
    detail::currentBroker()->setHealthCheckInterface(receiver);
}

void HVBCommBroker::setEventInterface(EventInterface* receiver) {
    detail::currentBroker()->setEventInterface(receiver);
}

void HVBCommBroker::start(boost::logic::tribool waitForHub) {
    detail::currentBroker()->start(waitForHub);
}

void HVBCommBroker::stop() {
    detail::currentBroker()->stop();
}

void HVBCommBroker::subscribeForEvent(EventData& event) {
    detail::currentBroker()->subscribe(event.m_eventId);
}

void HVBCommBroker::sendEventNotification(EventData& event) {
    detail::currentBroker()->sendEvent(event);
}

void HVBCommBroker::sendCommand(CommandData& data, CommandResult* result, bool wait, int timeoutSeconds) {
    detail::currentBroker()->sendCommand(data, result, wait, timeoutSeconds);
}

void HVBCommBroker::sendCommandResponse(CommandResult& result) {
    detail::currentBroker()->sendResponse(result);
}

void HVBCommBroker::sendLog(LogRequest& request) {
    detail::currentBroker()->sendLog(request);
}

} // namespace HVB
