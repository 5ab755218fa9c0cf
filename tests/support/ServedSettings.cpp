#include "tests/support/ServedSettings.h"

#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/SnapshotText.h"
#include "tests/support/Eventually.h"

#include <algorithm>
#include <optional>

namespace testing_support {

ServedSettings servedSettings(const std::string& socketPath, bool fresh) {
    const HVB::bus::BusPtr bus = HVB::bus::openBus(socketPath, patience());
    const auto request = HVB::bus::newCall(*bus, HVB::bus::kHubName, HVB::bus::kHubPath, HVB::bus::kHubInterface,
                                           HVB::bus::kSettingsMember);
    HVB::bus::check(sd_bus_message_append(request.get(), HVB::bus::kSettingsSignature, fresh ? 1 : 0), "append");
    const auto reply = HVB::bus::call(*bus, *request, patience());
    ServedSettings served;
    HVB::bus::check(sd_bus_message_read(reply.get(), "t", &served.generation), "read");
    served.snapshot = Sentrel::settings::snapshotOf(HVB::bus::SnapshotText::arrived(*reply).text());
    return served;
}

ServedSettings awaitSettings(const std::string& socketPath) {
    std::optional<ServedSettings> served;
    awaitUntil("settings at hvbd", [&] {
        try {
            served = servedSettings(socketPath);
        } catch (const HVB::bus::CallError&) {
            return false; // hvbd, or what it serves, is not there yet
        }
        return true;
    });
    return *served;
}

bool haveSameUrls(const Sentrel::settings::SettingsSnapshot& one, const Sentrel::settings::SettingsSnapshot& other) {
    auto first = one.allowBlock;
    auto second = other.allowBlock;
    std::sort(first.begin(), first.end());
    std::sort(second.begin(), second.end());
    return first == second;
}

} // namespace testing_support
