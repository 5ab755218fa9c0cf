// What the host says: its messages, written as JSON. docs/browser-host.md has them.
#pragma once

#include "browser/decision/PageDecision.h"
#include "browser/host/AccessMessages.h"
#include "browser/host/HeldSettings.h"
#include "browser/host/HostMessages.h"
#include "browser/ratings/RatingProvider.h"

#include <cstdint>
#include <string>

/// Free functions without state. Threads: any. Owner: none. What they return is valid UTF-8.
namespace Sentrel::host {

std::string welcomeText(const std::string& release);
std::string errorText(const RequestError& error);

/// @param rules whether what decides is told, too.
std::string settingsText(const HeldSettings& held, const ratings::RatingStatus& status, std::uint64_t generation,
                         bool rules);

/// All that is known of sites, for who looks them up in memory.
std::string ratingsText(const ratings::RatingTable& table, bool isReachable);

/// @param whole those that decided. @param ratedBy name of the list that rated the site, or empty.
std::string decisionText(std::uint64_t id, const WholeSettings& whole, const browsing::PageDecision& decision,
                         const std::string& ratedBy);
/// The answer while there are no settings.
std::string waitText(const DecideRequest& request);

/// @param lost how many reports were dropped until now, because the queue was full.
std::string reportedText(std::uint64_t id, const char* outcome, std::uint64_t lost);

std::string requestedText(const AccessAnswer& answer);
/// That some request, of whomever, is another.
std::string requestsChangedText();

} // namespace Sentrel::host
