#include "browser/host/AccessDesk.h"

#include "base/PrintableText.h"
#include "base/StartThread.h"
#include "platform/hvbhelpers/AccessCalls.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <chrono>
#include <exception>
#include <utility>

namespace Sentrel::host {
namespace {

namespace bus = HVB::bus;

constexpr std::chrono::seconds kAccessDeadline{5};

/// The last one for this page; they come in the order in which they were made.
LastRequest lastFor(const std::string& url, const std::vector<bus::AccessRequest>& requests) {
    LastRequest last;
    for (const bus::AccessRequest& each : requests) {
        if (each.url == url) {
            last = {each.id, bus::stateWord(each.state), each.askedAt, each.answeredAt, each.answer, each.until};
        }
    }
    return last;
}

AccessAnswer answerBecause(const AccessQuestion& question, AccessOutcome outcome, const std::string& because) {
    return {question.id, outcome, "", 0, because, {}};
}

AccessAnswer answerOf(const AccessQuestion& question, const bus::CallError& error) {
    if (error.name() == bus::kErrorRequestRefused || error.name() == bus::kErrorBadMessage) {
        return answerBecause(question, AccessOutcome::Refused, text::printable(error.message()));
    }
    const bool isGone = error.name() == SD_BUS_ERROR_SERVICE_UNKNOWN || error.name() == SD_BUS_ERROR_NAME_HAS_NO_OWNER;
    return answerBecause(question, AccessOutcome::Away,
                         isGone ? "the hub does not run"
                                : "the hub gives no answer: " + text::printable(error.message()));
}

} // namespace

AccessDesk::AccessDesk(std::string hubSocket)
    : m_hubSocket(std::move(hubSocket)), m_thread(startThread("access", [this] { run(); })) {}

AccessDesk::~AccessDesk() {
    {
        const MutexLock lock(m_mutex);
        m_isEnding = true;
    }
    m_changed.notifyAll();
    m_stop.wake();
    m_thread.join();
}

bool AccessDesk::add(AccessQuestion question) {
    {
        const MutexLock lock(m_mutex);
        if (m_waiting.size() >= kMaxWaiting) {
            return false;
        }
        m_waiting.push_back({std::move(question), std::chrono::steady_clock::now() + kAccessDeadline});
    }
    m_changed.notifyAll();
    return true;
}

std::vector<AccessAnswer> AccessDesk::take() {
    const MutexLock lock(m_mutex);
    static_cast<void>(m_news.take());
    return std::exchange(m_answers, {});
}

void AccessDesk::run() {
    MutexLock lock(m_mutex);
    for (;;) {
        while (m_waiting.empty() && !m_isEnding) {
            m_changed.wait(m_mutex);
        }
        if (m_isEnding) {
            return;
        }
        const Waiting waiting = m_waiting.front();
        lock.unlock();
        AccessAnswer made = answer(waiting);
        lock.lock();
        m_waiting.pop_front();
        m_answers.push_back(std::move(made));
        m_news.wake();
    }
}

AccessAnswer AccessDesk::answer(const Waiting& waiting) const {
    try {
        return askHub(waiting);
    } catch (const bus::CallError& error) {
        return answerOf(waiting.question, error);
    } catch (const HVB::HVBException& error) {
        return answerBecause(waiting.question, AccessOutcome::Away,
                             "the hub cannot be reached: " + text::printable(error.message()));
    } catch (const std::exception& error) {
        return answerBecause(waiting.question, AccessOutcome::Away,
                             std::string("the hub cannot be asked: ") + text::printable(error.what()));
    }
}

AccessAnswer AccessDesk::askHub(const Waiting& waiting) const {
    const AccessQuestion& question = waiting.question;
    const bus::BusPtr connection = bus::openBus(m_hubSocket, waiting.until, m_stop.fd());
    AccessAnswer made{question.id, AccessOutcome::Told, question.url, 0, "", {}};
    made.last = lastFor(question.url, bus::readOwnRequests(*connection, waiting.until));
    made.number = made.last.state == bus::stateWord(bus::RequestState::Open) ? made.last.number : 0;
    if (question.isAsking) {
        made.number = bus::askForAccess(*connection, question.url, question.reason, waiting.until);
        made.outcome = made.number == made.last.number ? AccessOutcome::Known : AccessOutcome::Asked;
    }
    return made;
}

} // namespace Sentrel::host
