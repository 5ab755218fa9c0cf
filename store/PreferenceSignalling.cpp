// Which changes of a preference are announced to the hub, and how.
#include "base/Paths.h"
#include "daemon/Trace.h"
#include "hub/HVBCommBroker.h"
#include "store/STPreferenceController.h"

namespace Sentrel {
namespace {

void publish(EventId id) {
    HVB::EventData event(id); // without a payload: a listener reads the new state by a command
    HVB::HVBCommBroker::getInstance(paths::hubSocket())->sendEventNotification(event);
}

/// The types whose change is announced by the preferences event alone. A change of types 5 and 6 is not announced, and
/// one of the enabling switch only to the dashboard: clients rely on that.
bool isPreferencesAlone(STPrefType type) {
    constexpr unsigned preferencesAlone = 0x39E;
    return type >= ST_ENABLE && type < ST_ALL_PREFERENCES &&
           ((preferencesAlone >> static_cast<unsigned>(type)) & 1U) != 0;
}

} // namespace

void STPreferenceController::signalPrefChange(STPrefType type) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::signalPrefChange entered\n");
    if (type == ST_ALL_PREFERENCES) {
        ST_TRACE(configFlow, 3, L"Sending EVT_PREFERENCES_CHANGE & EVT_DASHBOARD_STATUS_CHANGE event\n");
        publish(EVT_PREFERENCES_CHANGE);
        publish(EVT_DASHBOARD_STATUS_CHANGE);
    } else if (type == ST_ENABLE) {
        ST_TRACE(configFlow, 3, L"Sending EVT_DASHBOARD_STATUS_CHANGE event\n");
        publish(EVT_DASHBOARD_STATUS_CHANGE);
    } else if (isPreferencesAlone(type)) {
        ST_TRACE(configFlow, 3, L"Sending EVT_PREFERENCES_CHANGE event\n");
        publish(EVT_PREFERENCES_CHANGE);
    }
    ST_TRACE(configFlow, 5, L"STPreferenceController::signalPrefChange completed\n");
}

} // namespace Sentrel
