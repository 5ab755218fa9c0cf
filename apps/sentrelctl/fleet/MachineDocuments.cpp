// What machines publish about themselves, laid out for people and for programs.
//
// A document is whatever some machine, or anybody the broker lets publish, has put on a topic. Only its size, its
// nesting and that it is an object are known. So every member is looked up as if it were missing or of another type; a
// dash stands for what is not there.
//
// What must stay so:
// - A document that cannot be read keeps its row, with the reason. One broken machine must not hide the others.
// - Every text is made printable and cut before it gets into a table, and made valid UTF-8 before it gets into JSON.
// - The machine's name comes from the topic, which the broker's access rules guard. A "machine" inside the document
//   does not replace it.
// - The header knows the JSON library by a forward declaration alone, so that the verbs do not compile the library.
#include "apps/sentrelctl/fleet/MachineDocuments.h"

#include "apps/sentrelctl/fleet/FleetOptions.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::shortened;
using Sentrel::text::validUtf8;
namespace {

namespace agent = HVBEnterprise::agent;

constexpr std::size_t kMaxCell = 200; // bytes

using Row = TableRow;

/// A text of the document, or its value as JSON has it; a dash for nothing.
std::string cell(const nlohmann::json& value) {
    if (value.is_null()) {
        return "-";
    }
    const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    return text.empty() ? "-" : shortened(printable(text), kMaxCell);
}

/// @p rows below each other; the last column is not padded.
std::string tableText(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const Row& row : rows) {
        for (std::size_t at = 0; at < row.size(); ++at) {
            widths[at] = std::max(widths[at], row[at].size());
        }
    }
    std::string text;
    for (const Row& row : rows) {
        for (std::size_t at = 0; at + 1 < row.size(); ++at) {
            text += fmt::format("{:<{}}  ", row[at], widths[at]);
        }
        text += row.back() + "\n";
    }
    return text;
}

std::string yesOrNo(const nlohmann::json& properties, const char* section, const char* key) {
    const std::string value =
        properties.is_object() && properties.contains(section) ? cellOf(properties[section], key) : std::string("-");
    return value == "1" ? "yes" : value == "0" ? "no" : value;
}

/// The version has a blank in front of it.
std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "-" : text.substr(first);
}

nlohmann::json sectionsOf(const nlohmann::json& content) {
    return content.contains("sections") && content["sections"].is_object() ? content["sections"]
                                                                           : nlohmann::json::object();
}

} // namespace

std::string cellOf(const nlohmann::json& object, const char* name) {
    return object.is_object() && object.contains(name) ? cell(object[name]) : "-";
}

std::string documentTable(const std::vector<MachineDocument>& documents, TableRow head,
                          const std::function<TableRow(const nlohmann::json&)>& makeRow) {
    if (documents.empty()) {
        return "The broker has nothing from any machine.\n";
    }
    std::vector<Row> rows{std::move(head)};
    for (const MachineDocument& document : documents) {
        Row row = makeRow(*document.content);
        row.insert(row.begin(), printable(document.machine));
        if (!document.error.empty()) {
            row.back() = "cannot be read: " + shortened(printable(document.error), kMaxCell);
        }
        rows.push_back(std::move(row));
    }
    return tableText(rows);
}

MachineDocument machineDocument(std::string machine, std::string_view payload) {
    MachineDocument document{std::move(machine), std::make_shared<const nlohmann::json>(nlohmann::json::object()), {}};
    try {
        document.content = std::make_shared<const nlohmann::json>(agent::readMachineDocument(payload));
    } catch (const agent::DocumentError& error) {
        document.error = error.what();
    }
    return document;
}

std::vector<MachineDocument> newestOfEach(const std::deque<MqttMessage>& messages, std::string_view site) {
    std::map<std::string_view, const MqttMessage*> newest;
    for (const MqttMessage& message : messages) {
        const std::string_view topic = message.topic;
        if (topic.starts_with(site)) {
            const std::string_view rest = topic.substr(site.size());
            newest[rest.substr(0, rest.find('/'))] = &message;
        }
    }
    std::vector<MachineDocument> documents;
    documents.reserve(newest.size());
    for (const auto& [machine, message] : newest) {
        documents.push_back(machineDocument(std::string(machine), message->payload));
    }
    return documents;
}

std::string statesText(const std::vector<MachineDocument>& documents) {
    return documentTable(documents, {"MACHINE", "STATE", "SINCE"}, [](const nlohmann::json& content) {
        return Row{cellOf(content, "state"), cellOf(content, "time")};
    });
}

std::string propertiesTable(const std::vector<MachineDocument>& documents) {
    return documentTable(documents, {"MACHINE", "VERSION", "PROTECTION", "COMPLIANT", "PATCH", "TIME"},
                         [](const nlohmann::json& content) {
                             const nlohmann::json sections = sectionsOf(content);
                             const nlohmann::json general = sections.value("General", nlohmann::json::object());
                             const std::string protection = yesOrNo(sections, "Options", "bSTEnabled");
                             return Row{trimmed(cellOf(general, "szProductVer")),
                                        protection == "yes"  ? "on"
                                        : protection == "no" ? "off"
                                                             : protection,
                                        yesOrNo(sections, "CustomProps", "bComplianceStatus"), cellOf(general, "Patch"),
                                        cellOf(content, "time")};
                         });
}

std::string propertiesText(const MachineDocument& document, const Palette& palette) {
    std::string text = fmt::format("{}{}{}  collected {}\n", palette.strong, printable(document.machine), palette.plain,
                                   cellOf(*document.content, "time"));
    std::vector<Row> rows;
    const nlohmann::json sections = sectionsOf(*document.content);
    for (const auto& [section, keys] : sections.items()) {
        if (!keys.is_object()) {
            continue;
        }
        for (const auto& [key, value] : keys.items()) {
            rows.push_back(
                {"    " + shortened(printable(section), kMaxCell), shortened(printable(key), kMaxCell), cell(value)});
        }
    }
    if (!document.error.empty()) {
        return text + "    cannot be read: " + shortened(printable(document.error), kMaxCell) + "\n";
    }
    return text + (rows.empty() ? "" : tableText(rows));
}

Json documentJson(const MachineDocument& document) {
    Json json{{"machine", validUtf8(document.machine)}};
    for (const auto& [name, value] : document.content->items()) {
        if (name != "machine") {
            json[name] = parsedJson(value.dump());
        }
    }
    json["error"] = document.error.empty() ? Json(nullptr) : Json(validUtf8(document.error));
    return json;
}

std::unique_ptr<MqttTool> connected(const BrokerAddress& address, MqttTool::TimePoint deadline) {
    return std::make_unique<MqttTool>(address, deadline);
}

} // namespace Sentrel::ctl
