// How the machine stays connected to its broker.
//
// One thread repeats the same three steps until it is told to end: attempt, which returns only at the end and throws
// when the connection is lost; ended, which takes back what was on its way; pause. Each attempt has a session of its
// own, so nothing of an earlier connection can confuse a later one. All callbacks run inside MqttSession::step, on this
// thread.
//
// A publication leaves the outbox when it is sent, and stays in m_inFlight until the broker acknowledges it. When the
// connection is lost it goes back into the outbox. It may thus be sent twice, which does no harm: every message is
// retained, and only the last one on a topic counts.
//
// What must stay so:
// - The pause doubles, is drawn at random, and starts again from its first length only after a connection that lasted.
//   A broker that accepts and drops its clients is otherwise asked several times a second by a whole fleet.
// - A reason is logged when it changes, not at each attempt.
// - The machine's own state is subscribed to behind the policies, and published behind that: it comes back when what
// the
//   broker retains of those has come.
// - An empty policy message clears the topic and not the policy in force.
// - A retained request to collect is ignored, since it would come again at each connection.
// - Without an acknowledged "offline" the session takes no leave, and the broker publishes the last will instead.
// - When another process has taken over, this one ends by itself: the broker gives a machine's one session to whoever
//   connected last, so two would take it from each other for ever.
// - The name service can hold the thread up for longer than anybody waits. The thread is then detached, and shares the
//   ownership of everything it uses.
#include "platform/hvbagent/AgentConnection.h"

#include "base/StartThread.h"
#include "base/Takeover.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/PropertyDocument.h"
#include "platform/hvbagent/StrictJson.h"
#include "platform/stlogger/STLogger.h"

#include <syslog.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace HVBEnterprise::agent {
namespace {

constexpr int kQos = 1;

} // namespace

AgentConnection::AgentConnection(AgentConfiguration configuration, std::shared_ptr<Outbox> outbox,
                                 std::shared_ptr<AgentWorker> worker, std::shared_ptr<AgentLog> log)
    : m_configuration(std::move(configuration)), m_topics(m_configuration.site, m_configuration.machine),
      m_outbox(std::move(outbox)), m_worker(std::move(worker)), m_log(std::move(log)), m_pause(kFirstRetryPause),
      m_random(std::random_device{}()) {}

void AgentConnection::begin(const std::shared_ptr<AgentConnection>& connection) {
    const Sentrel::MutexLock lock(connection->m_mutex);
    connection->m_thread = Sentrel::startThread("agent-network", [connection] { connection->run(); });
}

void AgentConnection::end() {
    const auto deadline = Clock::now() + kEndPatience;
    Sentrel::MutexLock lock(m_mutex);
    m_ending = true;
    m_changed.notifyAll();
    m_outbox->wake();
    while (!m_finished && m_changed.waitUntil(m_mutex, deadline)) {
    }
    const bool finished = m_finished;
    std::thread thread = std::move(m_thread);
    lock.unlock();
    if (finished) {
        thread.join();
    } else {
        thread.detach(); // it owns what it uses, and the worker and the log do not listen to it any more
    }
}

bool AgentConnection::isEnding() {
    const Sentrel::MutexLock lock(m_mutex);
    return m_ending || Sentrel::isTakenOver();
}

void AgentConnection::run() noexcept {
    while (!isEnding()) {
        try {
            attempt();
        } catch (const std::exception& error) {
            ended(error.what());
        } catch (...) {
            ended("an unknown failure");
        }
        m_session.reset();
        pause();
    }
    const Sentrel::MutexLock lock(m_mutex);
    m_finished = true;
    m_changed.notifyAll();
}

void AgentConnection::makeSession() {
    m_session = std::make_unique<MqttSession>(
        MqttSettings{.host = m_configuration.host,
                     .port = m_configuration.port,
                     .tls = m_configuration.tls,
                     .credentialsFile = m_configuration.credentialsFile,
                     .keepalive = m_configuration.keepalive,
                     .clientId = clientIdOf(m_configuration.site, m_configuration.machine),
                     .will = Publication{m_topics.state(), stateDocument(false, timeText())}},
        static_cast<MqttReceiver&>(*this));
}

void AgentConnection::attempt() {
    m_wasConnected = false;
    makeSession();
    m_session->connect();
    const auto deadline = Clock::now() + kConnectPatience;
    while (!isEnding()) {
        stayConnected(deadline);
    }
    if (m_session->isConnected()) {
        sayFarewell();
    }
}

void AgentConnection::stayConnected(Clock::time_point deadline) {
    if (m_session->isConnected()) {
        publishWaiting();
        for (const PolicyTopic& topic : m_worker->takeWanted()) {
            m_session->subscribe(m_topics.policyOf(topic), kQos); // the broker sends what it retains there once more
        }
    } else if (Clock::now() >= deadline) {
        throw MqttFailure("the broker does not answer");
    }
    m_session->step(m_outbox->wakeFd(), kLoopTick);
    m_outbox->takeWake();
}

void AgentConnection::publishWaiting() {
    while (m_inFlight.size() < kMaxInFlight) {
        std::optional<Publication> next = m_outbox->take();
        if (!next) {
            return;
        }
        try {
            const int number = m_session->publish(*next);
            m_inFlight.emplace(number, std::move(*next));
        } catch (const MqttFailure&) {
            m_outbox->putBack(std::move(*next));
            throw;
        }
    }
}

void AgentConnection::sayFarewell() {
    m_outbox->setConnected(false);
    const auto deadline = Clock::now() + kFarewellPatience;
    publishWaiting();
    Publication offline{m_topics.state(), stateDocument(false, timeText())};
    const int number = m_session->publish(offline);
    m_inFlight.emplace(number, std::move(offline));
    while (!m_inFlight.empty() && Clock::now() < deadline) {
        m_outbox->takeWake(); // a wake-up that stays would keep the step from waiting
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        m_session->step(m_outbox->wakeFd(), std::max(left, std::chrono::milliseconds(0)));
    }
    if (m_inFlight.empty()) {
        m_session->disconnect();
    } // otherwise the broker publishes the last will
}

/// What cannot be put back for want of memory is lost; the next connection tells the machine's state and properties.
void AgentConnection::ended(const char* reason) noexcept {
    m_outbox->setConnected(false);
    try {
        while (!m_inFlight.empty()) {
            auto last = std::prev(m_inFlight.end()); // backwards: each is put in front of the others
            m_outbox->putBack(std::move(last->second));
            m_inFlight.erase(last);
        }
        tellEnd(reason);
    } catch (...) {
        m_inFlight.clear(); // the next session has the same numbers
        LogMsg(LOG_WARNING, "agent: no connection to the broker, and no memory to say why");
    }
}

void AgentConnection::tellEnd(const std::string& reason) {
    if (reason != m_lastReason && !isEnding()) {
        const std::string broker = m_configuration.host + ":" + std::to_string(m_configuration.port);
        const std::string why = reason.substr(0, reason.find_last_not_of('.') + 1); // some libraries end theirs so
        m_log->warning("no connection to the broker " + shortPrintable(broker) + ": " + shortPrintable(why) +
                       "; trying again");
        m_lastReason = reason;
    }
}

void AgentConnection::pause() {
    if (m_wasConnected && Clock::now() - m_connectedAt >= kSettledAfter) {
        m_pause = kFirstRetryPause;
    }
    std::uniform_int_distribution<std::int64_t> drawn(m_pause.count() / 2, m_pause.count());
    const std::chrono::milliseconds wait(drawn(m_random));
    m_pause = std::min(m_pause * 2, kLastRetryPause);
    const auto deadline = Clock::now() + wait;
    const Sentrel::MutexLock lock(m_mutex);
    while (!m_ending && m_changed.waitUntil(m_mutex, deadline)) {
    }
}

void AgentConnection::connected() {
    m_wasConnected = true;
    m_connectedAt = Clock::now();
    m_lastReason.clear();
    m_session->subscribe(m_topics.groupPolicy(kEveryMachine), kQos);
    for (const std::string& group : m_configuration.groups) {
        m_session->subscribe(m_topics.groupPolicy(group), kQos);
    }
    m_session->subscribe(m_topics.policy(), kQos);
    m_session->subscribe(m_topics.collect(), kQos);
    // Last: when this comes back, what the broker retains has come before it.
    m_session->subscribe(m_topics.state(), kQos);
    m_outbox->setConnected(true);
    m_saidOnline = stateDocument(true, timeText());
    m_outbox->post({m_topics.state(), m_saidOnline});
    m_log->information("connected to the broker " + shortPrintable(m_configuration.host) + " as machine " +
                       m_configuration.machine + " of site " + m_configuration.site);
    m_worker->connected();
}

void AgentConnection::acknowledged(int number, int /*reason*/) {
    m_inFlight.erase(number);
}

void AgentConnection::subscribed(int /*number*/, int reason) {
    if (reason >= kFirstRefusal) {
        m_log->warning("the broker does not let this machine subscribe to one of its topics");
    }
}

void AgentConnection::message(std::string_view topic, std::string_view payload, bool retained) {
    if (topic == m_topics.collect()) {
        collectCame(payload, retained);
    } else if (topic == m_topics.state()) {
        if (payload == m_saidOnline) {
            m_worker->policiesAreThere();
        }
    } else {
        policyCame(topic, payload); // nothing else was subscribed to
    }
}

void AgentConnection::policyCame(std::string_view topic, std::string_view payload) {
    const PolicyTopic from = m_topics.policyTopicOf(topic);
    if (payload.empty()) {
        m_log->information("the policy on " + shortPrintable(topic) + " was cleared; what is in force stays");
        m_worker->policyArrived(from, ClearedPolicy{});
    } else if (payload.size() > kMaxPolicyMessageBytes) {
        m_worker->policyArrived(from, OversizedPolicy{sha256Of(payload), payload.size()});
    } else {
        m_worker->policyArrived(from, std::string(payload));
    }
}

void AgentConnection::collectCame(std::string_view payload, bool retained) {
    if (retained) {
        m_log->warning("a retained request to collect is ignored: it would come again at each connection");
        return;
    }
    try {
        m_worker->collect(readCollectRequest(payload));
    } catch (const DocumentError& error) {
        m_log->warning(std::string("a request to collect is ignored: ") + error.what());
    }
}

} // namespace HVBEnterprise::agent
