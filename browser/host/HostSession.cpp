// A message comes in, and what answers it goes out, at once for all but one: access is asked for at the hub, and its
// answer comes by tell when there is one.
//
// What must stay so:
// - What a message says of a page counts for nothing: it is decided here, anew, before it is reported or asked for.
// - Nothing in here waits.
#include "browser/host/HostSession.h"

#include "browser/host/HostAnswers.h"
#include "events/NPlgHelper.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Sentrel::host {
namespace {

using browsing::PageAction;
using browsing::PageDecision;
using browsing::Reporting;
using browsing::Stage;
using browsing::UserAction;

template <std::size_t size>
void fillField(char (&field)[size], std::string_view text) {
    std::copy_n(text.begin(), std::min(text.size(), size - 1), field);
}

/// The record to send, when @p answer is what the decision waits for.
std::optional<STEventData> recordOf(const PageDecision& decision, WarningAnswer answer, const std::string& browser) {
    const Reporting due = answer == WarningAnswer::None ? Reporting::AtOnce : Reporting::WhenAnswered;
    if (decision.reporting != due) {
        return std::nullopt;
    }
    STEventData record = decision.record;
    fillField(record.eventId, "browser-host");
    fillField(record.browserProcessName, browser);
    const UserAction action = answer == WarningAnswer::WentOn       ? UserAction::WentOn
                              : answer == WarningAnswer::TurnedBack ? UserAction::TurnedBack
                                                                    : UserAction::None;
    record.userAction = static_cast<std::int32_t>(action);
    return record;
}

std::optional<std::uint64_t> requestId(const HostRequest& request) {
    if (const auto* const decide = std::get_if<DecideRequest>(&request)) {
        return decide->id;
    }
    if (const auto* const access = std::get_if<AccessMessage>(&request)) {
        return access->id;
    }
    const auto* const report = std::get_if<ReportRequest>(&request);
    return report != nullptr ? std::optional(report->id) : std::nullopt;
}

/// Most bytes of an address that is asked for as it is: they leave room for a reason.
constexpr std::size_t kMaxAskedUrl = 200;
constexpr std::size_t kMaxAskedBytes = HVB::bus::kMaxRequestBytes;

/// The address that is asked for: the page's own, or without its query, or that of its site when it is too long.
std::string askedUrl(browsing::WebUrl page) {
    if (page.text().size() > kMaxAskedUrl) {
        page.target.resize(browsing::pathLength(page.target));
    }
    if (page.text().size() > kMaxAskedUrl) {
        page.target = "/";
    }
    return page.text();
}

} // namespace

HostSession::HostSession(std::string release, ratings::RatingProvider* rater, Users users)
    : m_release(std::move(release)), m_rater(rater), m_users(std::move(users)) {}

void HostSession::take(std::string_view message) {
    try {
        const HostRequest request = readRequest(message);
        const auto* const hello = std::get_if<Hello>(&request);
        if ((hello != nullptr) == m_hello.has_value()) {
            throw RequestError("order", m_hello ? "'hello' comes once" : "'hello' comes first", requestId(request));
        }
        if (hello != nullptr) {
            greet(*hello);
        } else if (const auto* const decideRequest = std::get_if<DecideRequest>(&request)) {
            decide(*decideRequest);
        } else if (const auto* const access = std::get_if<AccessMessage>(&request)) {
            askForAccess(*access);
        } else {
            report(std::get<ReportRequest>(request));
        }
    } catch (const RequestError& error) {
        m_users.send(errorText(error));
    }
}

void HostSession::hold(HeldSettings held) {
    if (held == m_held) {
        return;
    }
    m_held = std::move(held);
    m_owesSettings = m_hello.has_value();
}

void HostSession::refreshRatings() {
    if (m_rater != nullptr && m_rater->refresh() && m_hello) {
        m_owesSettings = true;
        m_owesRatings = m_hello->wantsRatings;
    }
}

std::optional<std::string> HostSession::owedSettings() {
    if (!std::exchange(m_owesSettings, false)) {
        return std::nullopt;
    }
    return settingsText(m_held, ratingStatus(), ++m_generation, m_hello->wantsRules);
}

std::optional<std::string> HostSession::owedRatings() {
    if (!std::exchange(m_owesRatings, false)) {
        return std::nullopt;
    }
    ratings::RatingTable nothing;
    nothing.classes.emplace_back(); // a site of which nothing is known
    const std::optional<ratings::RatingTable> table = m_rater != nullptr ? m_rater->table() : std::nullopt;
    return ratingsText(table ? *table : nothing, ratingStatus().isReachable);
}

void HostSession::greet(const Hello& hello) {
    m_hello = hello;
    m_owesSettings = true;
    m_owesRatings = hello.wantsRatings;
    m_users.send(welcomeText(m_release));
}

void HostSession::decide(const DecideRequest& request) {
    if (m_held.whole == nullptr) {
        m_users.send(waitText(request));
        return;
    }
    const ratings::SiteRating rating = ratingOf(request.url);
    const PageDecision decision = m_held.whole->rules.decide(request.url, rating.standing);
    // Stages in front of these leave what is known of the site out.
    const bool isRated = decision.decidedBy() == Stage::List || decision.decidedBy() > Stage::PrivateRange;
    m_users.send(decisionText(request.id, *m_held.whole, decision, isRated ? rating.ratedBy : ""));
}

void HostSession::report(const ReportRequest& request) {
    const char* outcome = "dropped";
    if (m_held.whole != nullptr) {
        const PageDecision decision = m_held.whole->rules.decide(request.url, ratingOf(request.url).standing);
        const std::optional<STEventData> record = recordOf(decision, request.answer, m_hello->browser);
        outcome = record ? "queued" : "not needed";
        m_lost = record ? m_users.report(*record) : m_lost;
    }
    m_users.send(reportedText(request.id, outcome, m_lost));
}

/// Asks only for what is blocked: any other page needs no administrator.
void HostSession::askForAccess(const AccessMessage& message) {
    const auto refuse = [&](AccessOutcome outcome, const std::string& because) {
        tell({message.id, outcome, "", 0, because, {}});
    };
    const auto reading = browsing::parseWebUrl(message.url);
    const auto* const page = std::get_if<browsing::WebUrl>(&reading);
    if (m_held.whole == nullptr) {
        refuse(AccessOutcome::Away, "there are no settings yet");
    } else if (page == nullptr ||
               m_held.whole->rules.decide(message.url, ratingOf(message.url).standing).action() != PageAction::Block) {
        refuse(AccessOutcome::Refused, "this page is not blocked");
    } else if (std::string url = askedUrl(*page); url.size() + message.reason.size() > kMaxAskedBytes) {
        refuse(AccessOutcome::Refused,
               fmt::format("the reason has {} bytes, and there is room for {}: shorten it", message.reason.size(),
                           kMaxAskedBytes - std::min(url.size(), kMaxAskedBytes)));
    } else if (!m_users.ask({message.id, std::move(url), message.reason, message.isAsking})) {
        refuse(AccessOutcome::Refused, "too many requests of this browser wait: try again later");
    }
}

void HostSession::tell(const AccessAnswer& answer) {
    m_users.send(requestedText(answer));
}

void HostSession::tellRequestsChanged() {
    if (m_hello) {
        m_users.send(requestsChangedText());
    }
}

/// What is known of a page's site. Nobody knows anything of what is no address.
ratings::SiteRating HostSession::ratingOf(const std::string& url) const {
    const auto reading = browsing::parseWebUrl(url);
    const auto* const page = std::get_if<browsing::WebUrl>(&reading);
    ratings::SiteRating rating;
    if (m_rater != nullptr && page != nullptr) {
        rating = m_rater->rate(*page);
    } else if (m_rater != nullptr) {
        rating.standing.isReachable = m_rater->status().isReachable;
    }
    return rating;
}

ratings::RatingStatus HostSession::ratingStatus() const {
    return m_rater != nullptr ? m_rater->status()
                              : ratings::RatingStatus{.isReachable = true, .because = "nobody rates sites here"};
}

} // namespace Sentrel::host
