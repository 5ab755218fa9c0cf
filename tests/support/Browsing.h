// Browsers that send events while things go wrong, and the account afterwards: what the daemon took and what the hub
// stored.
#pragma once

#include "base/WakeUp.h"
#include "tests/support/Machine.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace testing_support {

/// Sends events at an even pace on a thread of its own, each with a URL of its own number, until this object ends. A
/// daemon that is away is tried again with the next event.
/// Threads: the test's. Owner: the test; the machine outlives it.
class Browsing {
public:
    /// @param name is part of each URL: "http://<name>.example/<number>".
    Browsing(Machine& machine, std::string name, int eventsPerSecond);
    ~Browsing();
    Browsing(const Browsing&) = delete;
    Browsing& operator=(const Browsing&) = delete;

    /// Ends the sending; the last event has been dealt with when this returns.
    void stop();
    /// How many events a daemon has dealt with.
    std::size_t sent() const { return m_sent; }
    /// The longest time that one event took, connecting included, since the last call.
    std::chrono::microseconds slowest() { return std::chrono::microseconds(m_slowest.exchange(0)); }

private:
    void run(std::chrono::microseconds pause);

    Machine& m_machine;
    const std::string m_name;
    Sentrel::WakeUp m_stop;
    std::atomic<std::size_t> m_sent{0};
    std::atomic<std::int64_t> m_slowest{0};
    std::thread m_thread;
};

/// What became of the events. Taken is one that the trace log says so of; stored one whose record the hub gives.
struct Account {
    std::size_t taken = 0;
    std::size_t stored = 0;
    std::size_t lost = 0;       ///< taken and not stored
    std::size_t twice = 0;      ///< stored more than once
    std::size_t outOfOrder = 0; ///< stored behind one that was taken later

    bool isRight() const { return lost == 0 && twice == 0 && outOfOrder == 0; }
};
std::ostream& operator<<(std::ostream& out, const Account& account);

/// The URLs of the events that the daemon took, in order, by its trace log. Requires level 3 or more of every flow.
std::vector<std::string> takenUrls(const Machine& machine);

/// The URLs of the stored records, in order. Requires a running hub.
std::vector<std::string> storedUrls(Machine& machine);

Account accountOf(const std::vector<std::string>& taken, const std::vector<std::string>& stored);

/// Waits until the hub has all that was taken. @return the account, whether or not it came to that.
Account settledAccount(Machine& machine);

} // namespace testing_support
