// One browser's conversation: which message may come when, and what answers it.
#pragma once

#include "browser/host/AccessMessages.h"
#include "browser/host/HeldSettings.h"
#include "browser/host/HostMessages.h"
#include "browser/ratings/RatingProvider.h"
#include "events/STEventData.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::host {

/// Threads: one at a time. Owner: the loop; what it was given outlives it.
class HostSession {
public:
    struct Users {
        /// Gets each answer.
        std::function<void(std::string message)> send;
        /// Takes a record to be sent to the daemon. @return how many were dropped until now for want of room.
        std::function<std::uint64_t(const STEventData& record)> report;
        /// Takes a question to the hub; its answer goes to tell. @return false when too many wait.
        std::function<bool(AccessQuestion question)> ask;
    };

    /// @param rater who rates sites; null: nobody does.
    HostSession(std::string release, ratings::RatingProvider* rater, Users users);

    /// Deals with one message of the browser. @throws FramingError when it is no JSON object.
    void take(std::string_view message);

    /// From now on these decide.
    void hold(HeldSettings held);
    /// Passes on what the hub said.
    void tell(const AccessAnswer& answer);
    /// Requests have changed: the browser may look again at those that it shows. Before its hello it shows none.
    void tellRequestsChanged();
    /// Has who rates sites look whether there is something newer.
    void refreshRatings();

    /// The settings, once, when the browser is to be told of them; none when it knows them. Settings that were
    /// overtaken by others before anybody asked are never told.
    std::optional<std::string> owedSettings();
    /// The same of all that is known of sites, when the browser asked for that.
    std::optional<std::string> owedRatings();

private:
    void greet(const Hello& hello);
    void decide(const DecideRequest& request);
    void report(const ReportRequest& request);
    void askForAccess(const AccessMessage& message);
    ratings::SiteRating ratingOf(const std::string& url) const;
    ratings::RatingStatus ratingStatus() const;

    const std::string m_release;
    ratings::RatingProvider* const m_rater;
    const Users m_users;
    HeldSettings m_held;
    std::optional<Hello> m_hello;
    bool m_owesSettings = false;
    bool m_owesRatings = false;
    std::uint64_t m_generation = 0;
    std::uint64_t m_lost = 0;
};

} // namespace Sentrel::host
