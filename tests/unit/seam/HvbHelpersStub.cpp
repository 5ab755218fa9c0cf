// The hub's client library as its neighbour, the daemon, may ask for it: declared here a second time, from what is
// promised between the two, and not from the headers that the daemon includes. It links; it does nothing.
#include <boost/logic/tribool.hpp>

#include <cstdint>
#include <string>

std::int32_t cmdHelperFlowvalue = 0;
std::int32_t regHelperFlowvalue = 0;
std::int32_t hvInitFlowvalue = 0;
std::int32_t hvCommFlowvalue = 0;

namespace HVB {

class CommandInterface;
class HealthCheckInterface;
class EventInterface;
class CommandData;
class CommandResult;
class LogRequest;
enum typeOfLog_enum : std::int32_t;
enum hv_logLevel_enum : std::int32_t;

class EventData {
public:
    EventData(const EventData& other);
};

class HVBCommBroker {
public:
    static HVBCommBroker* getInstance(std::string socketPath);
    static void releaseInstance();
    void setHVId(int moduleId);
    void setCommandInterface(CommandInterface* receiver);
    void setHealthCheckInterface(HealthCheckInterface* receiver);
    void setEventInterface(EventInterface* receiver);
    void start(boost::logic::tribool wait);
    void stop();
    void subscribeForEvent(EventData& event);
    void sendEventNotification(EventData& event);
    void sendCommand(CommandData& data, CommandResult* result, bool wait, int timeout);
    void sendCommandResponse(CommandResult& result);
    void sendLog(LogRequest& request);
};

EventData::EventData(const EventData& /*other*/) = default;
// The forms are what was agreed.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
HVBCommBroker* HVBCommBroker::getInstance(std::string /*socketPath*/) {
    return nullptr;
}
void HVBCommBroker::releaseInstance() {}
void HVBCommBroker::setHVId(int /*moduleId*/) {}
void HVBCommBroker::setCommandInterface(CommandInterface* /*receiver*/) {}
void HVBCommBroker::setHealthCheckInterface(HealthCheckInterface* /*receiver*/) {}
void HVBCommBroker::setEventInterface(EventInterface* /*receiver*/) {}
void HVBCommBroker::start(boost::logic::tribool /*wait*/) {}
void HVBCommBroker::stop() {}
void HVBCommBroker::subscribeForEvent(EventData& /*event*/) {}
void HVBCommBroker::sendEventNotification(EventData& /*event*/) {}
void HVBCommBroker::sendCommand(CommandData& /*data*/, CommandResult* /*result*/, bool /*wait*/, int /*timeout*/) {}
void HVBCommBroker::sendCommandResponse(CommandResult& /*result*/) {}
void HVBCommBroker::sendLog(LogRequest& /*request*/) {}

} // namespace HVB

void HVB_LOG_MSG(int moduleId, const wchar_t* moduleName, HVB::typeOfLog_enum type, HVB::hv_logLevel_enum level,
                 const wchar_t* format, ...);
void HVB_LOG_MSG(int /*moduleId*/, const wchar_t* /*moduleName*/, HVB::typeOfLog_enum /*type*/,
                 HVB::hv_logLevel_enum /*level*/, const wchar_t* /*format*/, ...) {}
