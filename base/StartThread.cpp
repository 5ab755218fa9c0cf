#include "base/StartThread.h"

#include "base/SignalSet.h"

#include <pthread.h>

#include <utility>

namespace Sentrel {

std::thread startThread(const char* name, std::function<void()> body) {
    const SignalsBlocked blocked(SignalSet::all()); // a thread inherits the mask of the one that makes it
    std::thread thread(std::move(body));
    ::pthread_setname_np(thread.native_handle(), name);
    return thread;
}

} // namespace Sentrel
