// How every singleton of the daemon comes and goes: one mechanism, so that all of them behave alike.
#pragma once

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>

namespace Sentrel {

/// Gives the instance behind @p self, creating it with @p create on the first call. The pointer is tested without the
/// lock first. An exception of @p create passes on and leaves the pointer null.
template <class T, class Create>
T* instanceOf(T*& self, boost::mutex& instanceMutex, Create create) {
    std::atomic_ref<T*> shared(self);
    if (T* existing = shared.load(std::memory_order_acquire); existing != nullptr) {
        return existing;
    }
    const boost::lock_guard<boost::mutex> lock(instanceMutex);
    if (self == nullptr) {
        shared.store(create(), std::memory_order_release);
    }
    return self;
}

/// Deletes the instance behind @p self under the lock and clears the pointer. Does nothing when there is none.
template <class T>
void releaseInstanceOf(T*& self, boost::mutex& instanceMutex) {
    const boost::lock_guard<boost::mutex> lock(instanceMutex);
    delete self;
    std::atomic_ref<T*>(self).store(nullptr, std::memory_order_release);
}

} // namespace Sentrel
