// The thread that keeps the machine connected.
#pragma once

#include "base/Mutex.h"
#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/AgentLog.h"
#include "platform/hvbagent/AgentWorker.h"
#include "platform/hvbagent/MqttSession.h"
#include "platform/hvbagent/Outbox.h"
#include "platform/hvbagent/Topics.h"

#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>

namespace HVBEnterprise::agent {

/// Connects, connects again whenever the connection ends, publishes what is in the outbox, and hands on what comes.
/// Threads: one of its own, which does everything but begin and end. Owner: the client and that thread, together: a
/// thread that the name service holds up is not waited for, and ends when the name service returns.
class AgentConnection : private MqttReceiver {
public:
    AgentConnection(AgentConfiguration configuration, std::shared_ptr<Outbox> outbox,
                    std::shared_ptr<AgentWorker> worker, std::shared_ptr<AgentLog> log);
    AgentConnection(const AgentConnection&) = delete;
    AgentConnection& operator=(const AgentConnection&) = delete;

    /// Starts the thread of @p connection. @throws std::system_error.
    static void begin(const std::shared_ptr<AgentConnection>& connection);

    /// Says "offline" when the broker takes that in kFarewellPatience, and ends the thread, which calls nobody any
    /// more. Requires begin.
    void end();

private:
    using Clock = std::chrono::steady_clock;

    void run() noexcept;
    void attempt();
    void makeSession();
    void stayConnected(Clock::time_point deadline);
    void publishWaiting();
    void sayFarewell();
    void ended(const char* reason) noexcept;
    void tellEnd(const std::string& reason);
    void pause();
    bool isEnding();

    void connected() override;
    void message(std::string_view topic, std::string_view payload, bool retained) override;
    void acknowledged(int number, int reason) override;
    void subscribed(int number, int reason) override;

    void policyCame(std::string_view topic, std::string_view payload);
    void collectCame(std::string_view payload, bool retained);

    // constant after construction
    const AgentConfiguration m_configuration;
    const Topics m_topics;
    const std::shared_ptr<Outbox> m_outbox;      // own locking
    const std::shared_ptr<AgentWorker> m_worker; // own locking
    const std::shared_ptr<AgentLog> m_log;       // own locking

    // the thread's alone
    std::unique_ptr<MqttSession> m_session;
    std::map<int, Publication> m_inFlight;
    std::string m_saidOnline; ///< the state that this connection published
    std::string m_lastReason; ///< why there is no connection; empty while there is one
    Clock::time_point m_connectedAt;
    bool m_wasConnected = false; ///< in this attempt
    std::chrono::milliseconds m_pause;
    std::minstd_rand m_random;

    Sentrel::Mutex m_mutex;
    Sentrel::ConditionVariable m_changed;
    bool m_ending SENTREL_GUARDED_BY(m_mutex) = false;
    bool m_finished SENTREL_GUARDED_BY(m_mutex) = false;
    std::thread m_thread SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVBEnterprise::agent
