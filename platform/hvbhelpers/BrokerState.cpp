// The process's broker. An operation takes its own share of it before it begins, so that releaseBroker on one thread
// never frees what another is in the middle of using.
#include "platform/hvbhelpers/Broker.h"

#include "base/Mutex.h"
#include "base/Paths.h"
#include "base/SignalSet.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubLimits.h"
#include "platform/hvbhelpers/RecordKeeper.h"

#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

namespace HVB::detail {
namespace {

struct State {
    Sentrel::Mutex releaseMutex; ///< a second release returns only when the first is done

    Sentrel::Mutex mutex;
    std::string socketPath SENTREL_GUARDED_BY(mutex);
    std::shared_ptr<Broker> broker SENTREL_GUARDED_BY(mutex);
    /// Stays when the broker is released: what is logged afterwards keeps its place behind what waits.
    std::shared_ptr<RecordKeeper> keeper SENTREL_GUARDED_BY(mutex);
};

/// Never freed: threads that the process leaves running at its exit may still come here.
State& state() {
    static State* const theState = new State;
    return *theState;
}

void writeToSystemLog(const std::string& line) {
    syslog(LOG_WARNING, "hub client: %s", line.c_str());
}

/// The process from which this one has just taken the module's name gives the spool up then, and needs a moment for it.
std::shared_ptr<RecordKeeper> newKeeper(const std::string& socketPath) {
    const auto deadline = std::chrono::steady_clock::now() + kSpoolPatience;
    for (;;) {
        try {
            return std::make_shared<RecordKeeper>(socketPath, Sentrel::paths::reportSpool(), &writeToSystemLog);
        } catch (const HVBException& error) {
            const auto again = std::chrono::steady_clock::now() + kSpoolPause;
            if (error.code() != -EBUSY || again > deadline) {
                throw;
            }
            (void)bus::sleepUntilReady({{-1, 0, 0}, again}, again, -1);
        }
    }
}

} // namespace

void makeBroker(std::string socketPath) {
    State& process = state();
    const Sentrel::MutexLock lock(process.mutex);
    if (process.broker == nullptr) {
        process.broker = std::make_shared<Broker>(socketPath);
        process.socketPath = std::move(socketPath);
    }
}

std::shared_ptr<Broker> currentBroker() {
    State& process = state();
    const Sentrel::MutexLock lock(process.mutex);
    if (process.broker == nullptr) {
        if (process.socketPath.empty()) {
            throw HVBException(-ENOTCONN, "the hub's socket is not known yet");
        }
        process.broker = std::make_shared<Broker>(process.socketPath);
    }
    return process.broker;
}

void keepRecords(const std::string& socketPath) {
    if (socketPath != Sentrel::paths::hubSocket()) {
        return;
    }
    const Sentrel::SignalsBlocked held({SIGTERM, SIGHUP, SIGUSR2});
    State& process = state();
    const Sentrel::MutexLock lock(process.mutex);
    try {
        if (process.keeper == nullptr) {
            process.keeper = newKeeper(socketPath);
        }
        process.keeper->begin();
    } catch (const HVBException& error) {
        process.keeper.reset();
        writeToSystemLog("reports are lost while the hub is away, there is no spool: " + error.message());
    }
}

void giveRecordsUp() noexcept {
    const Sentrel::SignalsBlocked held({SIGTERM, SIGHUP, SIGUSR2});
    State& process = state();
    std::shared_ptr<RecordKeeper> keeper;
    {
        const Sentrel::MutexLock lock(process.mutex);
        keeper.swap(process.keeper);
    }
    if (keeper != nullptr) {
        keeper->end(); // the file is free when the last operation has given its share back
    }
}

std::shared_ptr<RecordKeeper> currentKeeper() {
    State& process = state();
    const Sentrel::MutexLock lock(process.mutex);
    return process.keeper;
}

void releaseBroker() {
    State& process = state();
    const Sentrel::MutexLock release(process.releaseMutex);
    std::shared_ptr<Broker> broker;
    std::shared_ptr<RecordKeeper> keeper;
    {
        const Sentrel::MutexLock lock(process.mutex);
        broker = process.broker;
        keeper = process.keeper;
    }
    if (keeper != nullptr) {
        keeper->end();
    }
    if (broker == nullptr) {
        return;
    }
    // It stays the process's broker until it has ended: a callback that still runs finds it, and sends its reply.
    broker->end();
    const Sentrel::MutexLock lock(process.mutex);
    process.broker.reset();
}

} // namespace HVB::detail
