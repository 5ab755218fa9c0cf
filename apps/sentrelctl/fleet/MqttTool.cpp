// A visit to the broker that must end: connect, ask or say something, leave, all before one deadline.
//
// It is the agent's own MqttSession. This adds the waiting, and turns what fails into a Failure with an exit code and
// the next step. The broker chooses the client id, so that two administrators at a time do not disconnect each other.
//
// What must stay so:
// - MQTT does not say when the last retained message was sent. collect() therefore sends a second subscription behind
//   the first: its answer comes when the first has been served. A cluster may answer out of order, so collect() also
//   waits until nothing has come for a moment.
// - What the broker sends is bounded in bytes. Beyond that, message() throws, which ends the session; m_isOutOfMemory
//   remembers the cause, so that the user is told to ask for less and not that the connection was lost.
// - A request is known by its number, and m_answers keeps every answer. An answer may come before anybody waits for it.
// - The name service alone has no deadline.
#include "apps/sentrelctl/fleet/MqttTool.h"

#include <algorithm>
#include <fmt/format.h>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kTick{1000}; // how often a standing connection is looked at
constexpr milliseconds kQuiet{200}; // brokers in a cluster may answer a subscription out of order
constexpr std::size_t kMaxHeldBytes = std::size_t{256} << 20U; // documents of thousands of machines
constexpr int kNoWakeUp = -1;

} // namespace

MqttTool::MqttTool(const BrokerAddress& address, TimePoint deadline) : m_address(address), m_deadline(deadline) {
    guarded([this] { connect(); });
}

MqttTool::~MqttTool() {
    m_session->disconnect();
}

void MqttTool::connect() {
    try {
        m_session =
            std::make_unique<agent::MqttSession>(agent::MqttSettings{.host = m_address.host,
                                                                     .port = m_address.port,
                                                                     .tls = m_address.tls,
                                                                     .credentialsFile = m_address.credentialsFile,
                                                                     .clientId = {},
                                                                     .will = {},
                                                                     .asksWhy = true},
                                                 static_cast<agent::MqttReceiver&>(*this));
    } catch (const agent::MqttFailure&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw failure(ExitCode::Failed, error.what(), "");
    }
    m_session->connect();
    await([this] { return m_session->isConnected(); }, "it does not answer");
}

template <class Operation>
auto MqttTool::guarded(const Operation& operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (const agent::MqttFailure& error) {
        throw failureOf(error);
    }
}

Failure MqttTool::failureOf(const agent::MqttFailure& error) const {
    using Kind = agent::MqttFailure::Kind;
    if (m_isOutOfMemory) {
        return failure(ExitCode::Failed, "it sends more than this program holds", "Ask for one machine with --machine");
    }
    switch (error.kind()) {
    case Kind::UnknownHost:
        return failure(ExitCode::NotRunning, error.what(), "Check its spelling");
    case Kind::Unreachable:
        return failure(ExitCode::NotRunning, error.what(), "Start it, or name another with --host and --port");
    case Kind::Refused:
    case Kind::RefusedAccess:
        return failure(error.kind() == Kind::Refused ? ExitCode::Failed : ExitCode::NoAccess, error.what(),
                       "Name a file with a user and a password it knows with --credentials");
    case Kind::Files:
        return failure(ExitCode::Failed, error.what(), "It must be there, in PEM, and readable by this user");
    default:
        break;
    }
    const bool inTls = m_address.tls && !(m_session != nullptr && m_session->isConnected());
    return failure(ExitCode::Failed, error.what(),
                   inTls ? "The broker must speak TLS there, with a certificate of the authority in --ca for this host"
                         : "Its log says more");
}

void MqttTool::step(TimePoint until) {
    const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now());
    m_session->step(kNoWakeUp, std::clamp(left, milliseconds(0), kTick));
}

template <class Condition>
void MqttTool::await(const Condition& condition, const char* what) {
    while (!condition()) {
        if (steady_clock::now() >= m_deadline) {
            throw failure(ExitCode::TimedOut, what, "Give it longer with --timeout");
        }
        step(m_deadline);
    }
}

int MqttTool::awaitAnswer(int number, const char* what) {
    await([this, number] { return m_answers.count(number) != 0; }, what);
    return m_answers.at(number);
}

Failure MqttTool::failure(ExitCode code, std::string why, std::string nextStep) const {
    return {code, "the broker", m_address.text(), std::move(why), std::move(nextStep)};
}

void MqttTool::message(std::string_view topic, std::string_view payload, bool retained) {
    m_bytes += payload.size();
    if (m_bytes > kMaxHeldBytes) {
        m_isOutOfMemory = true;
        throw std::bad_alloc();
    }
    m_messages.push_back({std::string(topic), std::string(payload), retained});
}

void MqttTool::subscribe(const std::string& filter) {
    const int reason = guarded(
        [&] { return awaitAnswer(m_session->subscribe(filter, 0), "the broker does not answer a subscription"); });
    if (reason >= agent::kFirstRefusal) {
        throw failure(agent::isAccessRefusal(reason) ? ExitCode::NoAccess : ExitCode::Failed,
                      fmt::format("the broker does not let this user hear {}", filter),
                      "Its access rules must allow it, see docs/fleet.md");
    }
}

void MqttTool::publishRetained(const std::string& topic, const std::string& payload) {
    const int reason = guarded([&] {
        return awaitAnswer(m_session->publish({topic, payload}), "the broker does not acknowledge the message");
    });
    if (reason >= agent::kFirstRefusal) {
        throw failure(agent::isAccessRefusal(reason) ? ExitCode::NoAccess : ExitCode::Failed,
                      fmt::format("the broker does not take a message for {}: {}", topic, agent::reasonText(reason)),
                      "Its access rules must allow it, see docs/fleet.md");
    }
}

std::optional<MqttMessage> MqttTool::next(TimePoint until) {
    while (m_messages.empty()) {
        if (steady_clock::now() >= until) {
            return std::nullopt;
        }
        guarded([&] { step(until); });
    }
    MqttMessage message = std::move(m_messages.front());
    m_messages.pop_front();
    m_bytes -= message.payload.size();
    return message;
}

std::deque<MqttMessage> MqttTool::collect(const std::string& filter) {
    subscribe(filter);
    // Nobody publishes there: only its place behind the first subscription counts, and a refusal will do as well.
    static_cast<void>(guarded([&] {
        return awaitAnswer(m_session->subscribe(filter + "/end", 0), "the broker does not answer a subscription");
    }));
    std::deque<MqttMessage> collected;
    while (auto message = next(std::min(m_deadline, steady_clock::now() + kQuiet))) {
        collected.push_back(std::move(*message));
    }
    return collected;
}

} // namespace Sentrel::ctl
