#include "apps/sentrelctl/requests/RequestLayout.h"

#include "apps/sentrelctl/terminal/Times.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <pwd.h>

namespace Sentrel::ctl {
namespace {

using HVB::bus::RequestState;
using text::printable;
using text::validUtf8;

std::string nameOfUser(std::uint32_t user) {
    const passwd* const entry = ::getpwuid(user);
    return entry != nullptr ? entry->pw_name : "";
}

std::string userText(std::uint32_t user) {
    const std::string name = nameOfUser(user);
    return name.empty() ? std::to_string(user) : fmt::format("{} ({})", printable(name), user);
}

template <std::size_t columns>
using TableRows = std::vector<std::array<std::string, columns>>;

/// Rows below each other; the first one is the head. The last column is not padded.
template <std::size_t columns>
std::string tableText(const TableRows<columns>& rows, const Palette& palette) {
    std::array<std::size_t, columns> widths{};
    for (const auto& row : rows) {
        std::transform(row.begin(), row.end(), widths.begin(), widths.begin(),
                       [](const std::string& cell, std::size_t width) { return std::max(cell.size(), width); });
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t at = 0; at + 1 < columns; ++at) {
            line += fmt::format("{:<{}}  ", row[at], widths[at]);
        }
        line += row.back();
        text += &row == &rows.front() ? fmt::format("{}{}{}\n", palette.strong, line, palette.plain) : line + "\n";
    }
    return text;
}

Json timeOrNull(std::int64_t time) {
    return time == 0 ? Json(nullptr) : Json(utcTime(time));
}

std::string partText(const char* name, const std::string& value) {
    return fmt::format("  {:<9} {}\n", name, value);
}

} // namespace

const char* requestStateWord(const AccessRequest& request, std::int64_t now) {
    const bool isOver = request.state == RequestState::Granted && request.until != 0 && request.until <= now;
    return isOver ? "over" : HVB::bus::stateWord(request.state);
}

std::string requestsText(const std::vector<AccessRequest>& requests, std::int64_t now, const Palette& palette) {
    TableRows<5> rows{{"ID", "ASKED", "USER", "STATE", "URL"}};
    for (const AccessRequest& request : requests) {
        rows.push_back({std::to_string(request.id), localTableTime(request.askedAt), userText(request.user),
                        requestStateWord(request, now), printable(request.url)});
    }
    return requests.empty() ? "" : tableText(rows, palette);
}

std::string grantsText(const std::vector<AccessGrant>& grants, const Palette& palette) {
    TableRows<5> rows{{"ID", "REQUEST", "USER", "UNTIL", "ENTRY"}};
    for (const AccessGrant& grant : grants) {
        const std::string until = grant.until == 0 ? "for good" : localTableTime(grant.until);
        rows.push_back({std::to_string(grant.id), std::to_string(grant.request), userText(grant.user),
                        grant.isEnding ? "being taken out" : until, printable(grant.entry)});
    }
    return grants.empty() ? "" : tableText(rows, palette);
}

std::string requestText(const AccessRequest& request, std::int64_t now, const Palette& palette) {
    std::string text =
        fmt::format("{}request {}, {}{}\n", palette.strong, request.id, requestStateWord(request, now), palette.plain);
    text += partText("url", printable(request.url));
    text += partText("user", userText(request.user));
    text += partText("asked", localTime(request.askedAt));
    text += partText("reason", request.reason.empty() ? "none given" : printable(request.reason));
    if (request.state != RequestState::Open) {
        text += partText("answered", localTime(request.answeredAt));
    }
    if (request.state == RequestState::Granted) {
        text += partText("entry", printable(request.answer));
        text += partText("lasts", untilText(request.until));
    } else if (request.state == RequestState::Denied) {
        text += partText("because", request.answer.empty() ? "no reason given" : printable(request.answer));
    }
    return text;
}

Json requestJson(const AccessRequest& request, std::int64_t now) {
    const bool isGranted = request.state == RequestState::Granted;
    const bool isDenied = request.state == RequestState::Denied;
    return Json{{"id", request.id},
                {"user", request.user},
                {"user_name", validUtf8(nameOfUser(request.user))},
                {"asked_at", utcTime(request.askedAt)},
                {"url", request.url},
                {"reason", request.reason},
                {"state", requestStateWord(request, now)},
                {"answered_at", timeOrNull(request.answeredAt)},
                {"entry", isGranted ? Json(request.answer) : Json(nullptr)},
                {"until", timeOrNull(request.until)},
                {"denied_because", isDenied ? Json(request.answer) : Json(nullptr)}};
}

Json grantJson(const AccessGrant& grant) {
    return Json{{"id", grant.id},
                {"request", grant.request},
                {"user", grant.user},
                {"user_name", validUtf8(nameOfUser(grant.user))},
                {"entry", grant.entry},
                {"granted_at", utcTime(grant.grantedAt)},
                {"until", timeOrNull(grant.until)},
                {"ending", grant.isEnding}};
}

std::string untilText(std::int64_t until) {
    return until == 0 ? "for good" : "until " + localTime(until);
}

} // namespace Sentrel::ctl
