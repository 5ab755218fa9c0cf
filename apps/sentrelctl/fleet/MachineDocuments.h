// What machines publish about themselves, as it is read and shown.
#pragma once

#include "apps/sentrelctl/fleet/MqttTool.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <deque>
#include <functional>
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

/// A table of the most important properties.
std::string propertiesTable(const std::vector<MachineDocument>& documents);
/// Every property of one machine.
std::string propertiesText(const MachineDocument& document, const Palette& palette);
std::string statesText(const std::vector<MachineDocument>& documents);

/// The document with "machine" in front and "error" behind.
Json documentJson(const MachineDocument& document);

using TableRow = std::vector<std::string>;

/// The cell for a member of @p object, whatever it is: printable and bounded, a dash for nothing.
std::string cellOf(const nlohmann::json& object, const char* name);

/// A row for each document, below @p head, whose first column is the machine; a line when there is none. A document
/// that cannot be read has the reason in its last column.
std::string documentTable(const std::vector<MachineDocument>& documents, TableRow head,
                          const std::function<TableRow(const nlohmann::json&)>& makeRow);

/// Connects. @throws Failure, also for credentials that cannot be read.
std::unique_ptr<MqttTool> connected(const BrokerAddress& address, MqttTool::TimePoint deadline);

} // namespace Sentrel::ctl
