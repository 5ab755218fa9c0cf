// What machines publish about themselves, as it is read and shown.
#pragma once

#include "apps/sentrelctl/fleet/MqttTool.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <deque>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::ctl {

/// A retained document of one machine.
struct MachineDocument {
    std::string machine;
    std::shared_ptr<const nlohmann::json> content; ///< an object, never null; empty with an error
    std::string error;                             ///< why it could not be read
};

/// Reads a document. Whatever is in it, this returns.
MachineDocument machineDocument(std::string machine, std::string_view payload);

/// The newest document of each machine, in the order of the machines. A topic is @p site, the machine and more; others
/// are passed over.
std::vector<MachineDocument> newestOfEach(const std::deque<MqttMessage>& messages, std::string_view site);

/// Whether the result of a policy is about the document with this hash.
bool isAbout(const MachineDocument& document, std::string_view sha256);
/// Whether the result says that the policy is in force as a whole.
bool isInForce(const MachineDocument& document);

/// A table of the results of policies; its last column is the policy's id, or why it was refused.
std::string resultsText(const std::vector<MachineDocument>& documents);
/// Why a policy is not in force as a whole. Requires that it is not.
std::string resultReason(const MachineDocument& document);
/// A table of the most important properties.
std::string propertiesTable(const std::vector<MachineDocument>& documents);
/// Every property of one machine.
std::string propertiesText(const MachineDocument& document, const Palette& palette);
std::string statesText(const std::vector<MachineDocument>& documents);

/// The document with "machine" in front and "error" behind.
Json documentJson(const MachineDocument& document);

/// Connects. @throws Failure, also for credentials that cannot be read.
std::unique_ptr<MqttTool> connected(const BrokerAddress& address, MqttTool::TimePoint deadline);

} // namespace Sentrel::ctl
