#include "apps/hvbd/ListWorker.h"

#include "apps/hvbd/CallbackGuard.h"
#include "base/StartThread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <exception>
#include <utility>

namespace HVB::hub {

ListWorker::ListWorker(sd_event& event, std::string socketPath, const SystemLog& log)
    : m_socketPath(std::move(socketPath)), m_log(log), m_ended(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    bus::check(m_ended.isOpen() ? 0 : -errno, "cannot make a descriptor");
    sd_event_source* source = nullptr;
    bus::check(sd_event_add_io(&event, &source, m_ended.get(), EPOLLIN, onEnd, this), "cannot wait for a thread");
    m_source.reset(source);
}

ListWorker::~ListWorker() {
    m_breaker.trip();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void ListWorker::start(Work work, Done done) {
    m_done = std::move(done);
    m_thread = Sentrel::startThread("list", [this, work = std::move(work)] {
        m_outcome = outcomeOf(work);
        // The loop reads the counter before the next work adds to it.
        static_cast<void>(eventfd_write(m_ended.get(), 1));
    });
}

/// An outcome without a reason says no less than that it is not done.
ListOutcome ListWorker::outcomeOf(const Work& work) noexcept {
    ListOutcome outcome;
    try {
        try {
            DaemonList list(m_socketPath, m_breaker);
            outcome.standing = work(list);
            outcome.isDone = true;
        } catch (const ListError& error) {
            outcome.isRefused = error.kind() == ListError::Kind::Refused;
            outcome.trouble = error.what();
        } catch (const HVBException& error) {
            outcome.trouble = error.message();
        } catch (const std::exception& error) {
            outcome.trouble = error.what();
        }
    } catch (...) {
        outcome.isDone = false;
    }
    return outcome;
}

int ListWorker::onEnd(sd_event_source* /*source*/, int fd, std::uint32_t /*events*/, void* self) {
    auto& worker = *static_cast<ListWorker*>(self);
    eventfd_t ended = 0;
    static_cast<void>(eventfd_read(fd, &ended));
    worker.m_thread.join();
    return logAndIgnore(worker.m_log, "changing the list", [&] {
        const ListOutcome outcome = std::exchange(worker.m_outcome, {});
        std::exchange(worker.m_done, nullptr)(outcome);
    });
}

} // namespace HVB::hub
