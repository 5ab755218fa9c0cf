// The process's broker. An operation takes its own share of it before it begins, so that releaseBroker on one thread
// never frees what another is in the middle of using.
#include "platform/hvbhelpers/Broker.h"

#include <cerrno>
#include <utility>

namespace HVB::detail {
namespace {

struct State {
    std::mutex releaseMutex; ///< a second release returns only when the first is done

    std::mutex mutex;
    // guarded by mutex
    std::string socketPath;
    std::shared_ptr<Broker> broker;
};

/// Never freed: threads that the process leaves running at its exit may still come here.
State& state() {
    static State* const theState = new State;
    return *theState;
}

} // namespace

void makeBroker(std::string socketPath) {
    const std::lock_guard lock(state().mutex);
    if (state().broker == nullptr) {
        state().broker = std::make_shared<Broker>(socketPath);
        state().socketPath = std::move(socketPath);
    }
}

std::shared_ptr<Broker> currentBroker() {
    const std::lock_guard lock(state().mutex);
    if (state().broker == nullptr) {
        if (state().socketPath.empty()) {
            throw HVBException(-ENOTCONN, "the hub's socket is not known yet");
        }
        state().broker = std::make_shared<Broker>(state().socketPath);
    }
    return state().broker;
}

void releaseBroker() {
    const std::lock_guard release(state().releaseMutex);
    std::shared_ptr<Broker> broker;
    {
        const std::lock_guard lock(state().mutex);
        broker = state().broker;
    }
    if (broker == nullptr) {
        return;
    }
    // It stays the process's broker until it has ended: a callback that still runs finds it, and sends its reply.
    broker->end();
    const std::lock_guard lock(state().mutex);
    state().broker.reset();
}

} // namespace HVB::detail
