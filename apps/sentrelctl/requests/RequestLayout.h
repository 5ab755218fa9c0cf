// Requests for access and grants, in words and for programs.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"
#include "platform/hvbhelpers/AccessCalls.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Sentrel::ctl {

using HVB::bus::AccessGrant;
using HVB::bus::AccessRequest;

/// "open", "granted", "denied"; "over" for a grant whose time has passed. Times are microseconds since the epoch.
const char* requestStateWord(const AccessRequest& request, std::int64_t now);

/// A line each, with a head; empty for none. Times are in the local time zone.
std::string requestsText(const std::vector<AccessRequest>& requests, std::int64_t now, const Palette& palette);
std::string grantsText(const std::vector<AccessGrant>& grants, const Palette& palette);

/// All of a request, a row for each part.
std::string requestText(const AccessRequest& request, std::int64_t now, const Palette& palette);

Json requestJson(const AccessRequest& request, std::int64_t now);
Json grantJson(const AccessGrant& grant);

/// "until 2026-01-31 08:30:00 +0000", or "for good".
std::string untilText(std::int64_t until);

} // namespace Sentrel::ctl
