// Where the broker keeps one of the module's receivers.
#pragma once

#include "base/Mutex.h"

namespace HVB::detail {

/// One receiver of callbacks, and how many run in it, so that it can be taken away for good.
/// Threads: thread-safe. Owner: the broker; the receiver is the module's.
template <class Interface>
class ReceiverSlot {
public:
    /// The receiver for the length of one callback. It is not taken away before this ends.
    /// Threads: the callback's. Owner: a local of it.
    class Use {
    public:
        explicit Use(ReceiverSlot& slot) : m_slot(slot), m_receiver(slot.enter()) {}
        ~Use() {
            if (m_receiver != nullptr) {
                m_slot.leave();
            }
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        /// Null when there is none.
        Interface* get() const { return m_receiver; }

    private:
        ReceiverSlot& m_slot;
        Interface* const m_receiver;
    };

    /// Returns when no callback runs in the receiver before. Requires that no callback is the caller.
    void set(Interface* receiver) {
        const Sentrel::MutexLock lock(m_mutex);
        m_receiver = nullptr;
        while (m_running > 0) {
            m_left.wait(m_mutex);
        }
        m_receiver = receiver;
    }

private:
    Interface* enter() {
        const Sentrel::MutexLock lock(m_mutex);
        m_running += m_receiver != nullptr ? 1 : 0;
        return m_receiver;
    }
    void leave() {
        const Sentrel::MutexLock lock(m_mutex);
        --m_running;
        m_left.notifyAll();
    }

    Sentrel::Mutex m_mutex;
    Sentrel::ConditionVariable m_left; ///< a callback has ended

    Interface* m_receiver SENTREL_GUARDED_BY(m_mutex) = nullptr;
    int m_running SENTREL_GUARDED_BY(m_mutex) = 0;
};

} // namespace HVB::detail
