#include "platform/hvbhelpers/BrokerThread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace HVB::detail {
namespace {

/// Blocks every signal for its lifetime. A thread inherits the mask of the one that makes it.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before{};
};

} // namespace

std::thread startThread(const char* name, std::function<void()> body) {
    const AllSignalsBlocked blocked;
    std::thread thread(std::move(body));
    pthread_setname_np(thread.native_handle(), name);
    return thread;
}

} // namespace HVB::detail
