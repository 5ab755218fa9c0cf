// What the process's own doubles and singletons do so that no test meets what another one left in them.
#pragma once

#include <functional>
#include <optional>

namespace testing_support {

/// Has @p makeFresh called before each test and after it, when its fixture is gone. Afterwards it frees what the test
/// gave, beforehand it forgets what the freeing recorded.
/// Threads: any. Owner: the process; @p makeFresh lives as long as that.
void startEachTestWith(std::function<void()> makeFresh);

/// Calls what was registered, the last first. The listener of the unit programs does so (UnitProgram.cpp).
void makeEverythingFresh();

/// An object of the process, one a type, which each test finds newly made at the same address.
/// Requires that no thread of a finished test still uses it.
template <class Double>
Double& freshForEachTest() {
    static std::optional<Double> object(std::in_place);
    [[maybe_unused]] static const bool registered = (startEachTestWith([] { object.emplace(); }), true);
    return *object;
}

} // namespace testing_support
