// A machine's statement says what is in force, and beside it what failed, what was refused and what was passed over.
//
// Whoever pushed a policy asks for its hash, which can stand in each of these places. A machine of before wrote one
// result a policy instead, with "enforced" or "refused" and the hash beside each other: a fleet is not upgraded in a
// day.
//
// As with all that machines write, each member may be missing or of another type; then it says nothing.
#include "apps/sentrelctl/fleet/StatementText.h"

#include <array>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Sentrel::ctl {
namespace {

const nlohmann::json& objectAt(const nlohmann::json& content, const char* name) {
    static const nlohmann::json nothing = nlohmann::json::object();
    const auto found = content.find(name);
    return found != content.end() && found->is_object() ? *found : nothing;
}

bool isTrue(const nlohmann::json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && *found == true;
}

bool isFalse(const nlohmann::json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && *found == false;
}

bool hasHash(const nlohmann::json& object, std::string_view sha256) {
    const auto found = object.find("sha256");
    return found != object.end() && *found == std::string(sha256);
}

bool isStatement(const nlohmann::json& content) {
    return content.contains("in_force");
}

bool isPositive(const nlohmann::json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_number_unsigned() && *found > 0;
}

/// Why the policy in force is not so as a whole; empty when it is, or when nobody can tell.
std::string whyNotWhole(const nlohmann::json& inForce, const nlohmann::json& failed) {
    if (isFalse(inForce, "enforced")) {
        const std::string why = cellOf(failed, "why");
        return why != "-" ? why : "the machine could not put all of it into force: its trace log says where";
    }
    if (isPositive(inForce, "rows_missing")) {
        return cellOf(inForce, "rows_missing") + " rows not stored";
    }
    const nlohmann::json& leftOut = objectAt(inForce, "left_out");
    return isPositive(leftOut, "count") ? cellOf(leftOut, "count") + " entries left out" : "";
}

std::optional<PolicyWord> declinedWord(const nlohmann::json& content, std::string_view sha256) {
    if (const nlohmann::json& refused = objectAt(content, "refused"); hasHash(refused, sha256)) {
        return PolicyWord{false, "it is refused: " + cellOf(refused, "why")};
    }
    const auto passedOver = content.find("passed_over");
    if (passedOver == content.end() || !passedOver->is_array()) {
        return std::nullopt;
    }
    for (const nlohmann::json& each : *passedOver) {
        if (each.is_object() && hasHash(each, sha256)) {
            return PolicyWord{false, "it is passed over: " + cellOf(each, "why")};
        }
    }
    return std::nullopt;
}

/// The result of a machine of before.
std::optional<PolicyWord> oldWord(const nlohmann::json& content, std::string_view sha256) {
    if (!hasHash(content, sha256)) {
        return std::nullopt;
    }
    if (isTrue(content, "enforced")) {
        return PolicyWord{true, ""};
    }
    const std::string refused = cellOf(content, "refused");
    return PolicyWord{false, refused != "-" ? refused : whyNotWhole({{"enforced", false}}, nlohmann::json::object())};
}

TableRow oldRow(const nlohmann::json& content) {
    const std::string refused = cellOf(content, "refused");
    const bool isRefused = refused != "-";
    return {isRefused ? "-" : cellOf(content, "version"),
            isTrue(content, "enforced")    ? "?"
            : isFalse(content, "enforced") ? "no"
                                           : "-",
            "-", cellOf(content, "time"), isRefused ? "refused " + cellOf(content, "version") + ": " + refused : "-"};
}

/// "7", and the epoch in front where it is not the first: "2/1".
std::string ageCell(const nlohmann::json& policy) {
    const std::string version = cellOf(policy, "version");
    const auto epoch = policy.find("epoch");
    return epoch == policy.end() || epoch->is_null() || *epoch == 1 ? version : cellOf(policy, "epoch") + "/" + version;
}

std::string wholeCell(const nlohmann::json& inForce, const nlohmann::json& failed) {
    if (isTrue(inForce, "whole")) {
        return "yes";
    }
    const std::string why = whyNotWhole(inForce, failed);
    return !why.empty() ? "no: " + why : inForce.empty() ? "-" : "?";
}

TableRow statementRow(const nlohmann::json& content) {
    const nlohmann::json& inForce = objectAt(content, "in_force");
    const nlohmann::json& refused = objectAt(content, "refused");
    return {ageCell(inForce), wholeCell(inForce, objectAt(content, "failed")), cellOf(inForce, "topic"),
            cellOf(inForce, "since"),
            refused.empty() ? "-" : fmt::format("refused {}: {}", ageCell(refused), cellOf(refused, "why"))};
}

} // namespace

std::optional<PolicyWord> wordOn(const MachineDocument& document, std::string_view sha256) {
    const nlohmann::json& content = *document.content;
    if (!isStatement(content)) {
        return oldWord(content, sha256);
    }
    const nlohmann::json& inForce = objectAt(content, "in_force");
    if (!hasHash(inForce, sha256)) {
        return declinedWord(content, sha256);
    }
    if (!isTrue(inForce, "enforced") && !isFalse(inForce, "enforced")) {
        return std::nullopt;
    }
    std::string why = whyNotWhole(inForce, objectAt(content, "failed"));
    const bool isWhole = why.empty();
    return PolicyWord{isWhole, std::move(why)};
}

std::string resultsText(const std::vector<MachineDocument>& documents) {
    return documentTable(
        documents, {"MACHINE", "IN FORCE", "WHOLE", "TOPIC", "SINCE", "LAST REFUSED"},
        [](const nlohmann::json& content) { return isStatement(content) ? statementRow(content) : oldRow(content); });
}

} // namespace Sentrel::ctl
