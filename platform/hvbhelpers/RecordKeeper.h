// Sees to it that a log record reaches the hub's store once and in order, also when the hub is away meanwhile.
#pragma once

#include "base/Mutex.h"
#include "base/WakeUp.h"
#include "hub/HVBMessages.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/ConnectionPool.h"
#include "platform/hvbhelpers/SpoolFile.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace HVB::detail {

/// A log record with the number under which the hub stores it once.
struct NumberedRecord {
    std::uint64_t instance = 0;
    std::uint64_t number = 0;
    std::int32_t source = 0;
    std::int32_t type = 0;
    std::int32_t count = 0;
    std::string text;   ///< the bytes that travel
    std::string detail; ///< the same
};

/// A record as it stands in the spool, and back. @return nothing when @p bytes are no record.
std::string packRecord(const NumberedRecord& record);
std::optional<NumberedRecord> unpackRecord(std::string_view bytes);

/// Hands records to the hub, and keeps those that it does not take in a spool until it does. Its long story is at the
/// top of RecordKeeper.cpp.
/// Threads: thread-safe, except that begin is called by one thread at a time, and not while end is. A thread that works
/// here has the signals blocked whose handlers may call the broker. Owner: the process-wide state of the broker.
class RecordKeeper {
public:
    /// Writes a line to the system log.
    using Tell = std::function<void(const std::string&)>;

    /// @throws HVBException when the spool cannot be made or opened, as SpoolFile does.
    RecordKeeper(std::string socketPath, const std::string& spoolPath, Tell tell,
                 std::size_t spoolBytes = kSpoolFileBytes);
    RecordKeeper(const RecordKeeper&) = delete;
    RecordKeeper& operator=(const RecordKeeper&) = delete;
    ~RecordKeeper() { end(); }

    const std::string& socketPath() const { return m_socketPath; }

    /// Starts delivering what waits. A second call does nothing. @throws HVBException when there can be no thread.
    void begin();
    /// Ends delivering; promptly, also while the hub does not answer. What waits stays in the spool. hand goes on.
    void end();

    /// Returns when the hub has stored the record, or when it is in the spool.
    /// @throws HVBException when neither came about: -EMSGSIZE when it is too large for the hub, -ENOSPC when the spool
    ///         is full, a CallError when the hub will never store it, and what SpoolFile throws.
    void hand(const LogRequest& request);

    SpoolCounts counts();

private:
    enum class Answer { Stored, Refused, None };

    bool isSpoolEmpty();
    bool sendDirectly(const NumberedRecord& record);
    void keep(const NumberedRecord& record);
    void sayOnce(std::atomic<bool>& said, const std::string& line);

    void run();
    bool deliverFirst();
    std::optional<NumberedRecord> awaitFirst();
    std::optional<NumberedRecord> takeFirst() SENTREL_REQUIRES(m_mutex);
    Answer send(const NumberedRecord& record);
    void remove(SpoolFile::End how);
    void connect();
    void disconnect();
    void awaitHub(std::chrono::milliseconds pause) noexcept;

    // constant after construction
    const std::string m_socketPath;
    const Tell m_tell;
    const std::uint64_t m_instance;

    // own locking
    ConnectionPool m_pool; ///< of the direct tries
    Sentrel::WakeUp m_wake;
    std::atomic<bool> m_ending{false};
    std::atomic<bool> m_saidFull{false};    ///< since the spool was empty
    std::atomic<bool> m_saidRefused{false}; ///< since the hub stored one
    Sentrel::Mutex m_endMutex;              ///< held by the one who waits for m_thread; the next finds it gone
    std::thread m_thread;

    /// Held while a record is handed over, so that records keep their order. Only hand takes it.
    Sentrel::Mutex m_turn;
    std::uint64_t m_lastNumber SENTREL_GUARDED_BY(m_turn) = 0;

    /// Held for what is done to the file, a sync at the longest, and never while the hub is waited for.
    Sentrel::Mutex m_mutex;
    Sentrel::ConditionVariable m_changed; ///< a record was added, or the end has come
    SpoolFile m_file SENTREL_GUARDED_BY(m_mutex);
    int m_socket SENTREL_GUARDED_BY(m_mutex) = -1; ///< of m_bus while the thread waits on it; -1 otherwise

    bus::BusPtr m_bus; ///< the thread's alone
};

} // namespace HVB::detail
