// A hub service in the test's own process, for tests of the client library alone.
#pragma once

#include "platform/hvbhelpers/BusConnection.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testing_support {

/// Owns the hub's name on a real bus and answers Log, LogNumbered and LogMessage. What is real: bus, messages, policy.
/// What is not: it stores in memory, each number as often as it comes, and it can be told to refuse or to keep its
/// answers to itself. Threads: thread-safe. Owner: the test; it goes before the bus.
class FakeHub {
public:
    struct Record {
        std::uint64_t instance = 0; ///< 0 of a record without a number
        std::uint64_t number = 0;
        std::int32_t source = 0;
        std::int32_t type = 0;
        std::wstring text;
        std::wstring detail;
        std::int32_t count = 0;
    };
    struct Line {
        std::int32_t module = 0;
        std::wstring moduleName;
        std::int32_t type = 0;
        std::int32_t level = 0;
        std::wstring line;
    };

    /// Returns when the name is taken. @throws HVBException when the bus refuses that.
    /// @param error as refuse takes it.
    explicit FakeHub(const std::string& socketPath, std::string error = "");
    FakeHub(const FakeHub&) = delete;
    FakeHub& operator=(const FakeHub&) = delete;
    ~FakeHub();

    /// From now on records are answered with this D-Bus error and not stored; empty: they are stored.
    void refuse(std::string error);

    /// From now on calls arrive and are not answered.
    void fallSilent() { m_silent = true; }
    /// How many calls were not answered.
    int silentCalls() const { return m_silentCalls; }

    std::vector<Record> records();
    std::vector<Line> lines();

private:
    void run();
    static int onCall(sd_bus_message* message, void* self, sd_bus_error* error);
    int take(sd_bus_message& message);

    HVB::bus::BusPtr m_bus;
    std::atomic<bool> m_silent{false};
    std::atomic<int> m_silentCalls{0};
    std::atomic<bool> m_ending{false};
    int m_wake = -1;

    std::mutex m_mutex;
    std::string m_error;
    std::vector<Record> m_records;
    std::vector<Line> m_lines;

    std::thread m_thread;
};

} // namespace testing_support
