#include "tests/support/FreshStart.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace testing_support {
namespace {

struct Registered {
    std::mutex mutex;
    std::vector<std::function<void()>> all;
};

Registered& registered() {
    static Registered instance;
    return instance;
}

} // namespace

void startEachTestWith(std::function<void()> makeFresh) {
    const std::lock_guard lock(registered().mutex);
    registered().all.push_back(std::move(makeFresh));
}

void makeEverythingFresh() {
    std::vector<std::function<void()>> all;
    {
        const std::lock_guard lock(registered().mutex);
        all = registered().all;
    }
    std::for_each(all.rbegin(), all.rend(), [](const std::function<void()>& makeFresh) { makeFresh(); });
}

} // namespace testing_support
