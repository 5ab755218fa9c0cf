// Is every event that the daemon took in the hub's store, once and in order, whatever goes wrong meanwhile? And what
// does an event cost while the hub is away?
//
// Browsers send events at an even pace while hvbd, bus and daemon are killed, stopped and kept from their disk. Taken
// is what the trace log says so of. The cost is that of the whole event, from the browser's connection to its end,
// beside an event that the daemon drops, one that meets a hub that is there, and a bare synced write, in the same run;
// its limit is 2 ms.
//
// Usage: nothing_lost [--brief | --away SECONDS --frozen SECONDS --kills COUNT]
//        SENTRELD_ROOTED and HVBD_ROOTED name the programs. The full disk requires root.
#include "base/UniqueFd.h"
#include "platform/hvbhelpers/SpoolHead.h"
#include "tests/support/Browsing.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/OwnDisk.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace testing_support;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

struct Sizes {
    int restarts = 20;
    seconds away{600};
    seconds frozen{60};
    int kills = 500;
    int costEvents = 500;
};
constexpr Sizes kBrief{1, seconds(0), seconds(0), 2, 5};
constexpr int kPace = 50;
constexpr int kLongPace = 20; // events a second while the hub is away for long: what the spool holds of ten minutes
constexpr double kLimitMilliseconds = 2;

std::unique_ptr<Machine> newMachine() {
    auto machine = std::make_unique<Machine>();
    machine->setTraceLevels(3);
    machine->startHub({"--log-limit-mib", "2048"});
    if (!machine->startDaemon()) {
        throw std::runtime_error("the daemon does not start");
    }
    return machine;
}

HVB::detail::SpoolCounts spool(Machine& machine) {
    return HVB::detail::spoolCounts(machine.root().varDirectory() + "/reports.spool")
        .value_or(HVB::detail::SpoolCounts());
}

void awaitEvents(const Browsing& browsing, std::size_t count) {
    const std::size_t goal = browsing.sent() + count;
    awaitUntil("events", [&] { return browsing.sent() >= goal; });
}

void pass(seconds time) {
    static_cast<void>(eventually([] { return false; }, Clock::now() + time));
}

bool settle(const char* scenario, Machine& machine) {
    const auto begin = Clock::now();
    const std::uint64_t waited = spool(machine).waiting;
    static_cast<void>(eventually([&] { return spool(machine).waiting == 0; }, begin + seconds(300)));
    const double drained = std::chrono::duration<double>(Clock::now() - begin).count();
    const Account account = settledAccount(machine);
    fmt::print("{:42} {:>7} {:>7} {:>5} {:>6} {:>13} {:>8}   {:.1f} s for {} that waited\n", scenario, account.taken,
               account.stored, account.lost, account.twice, account.outOfOrder, spool(machine).refusedFull, drained,
               waited);
    std::fflush(stdout);
    return account.isRight() && account.taken > 0;
}

bool restartHub(const Sizes& sizes) {
    const auto machine = newMachine();
    Browsing browsing(*machine, "hub", kPace);
    for (int restart = 0; restart < sizes.restarts; ++restart) {
        awaitEvents(browsing, 10);
        machine->hub().kill(restart % 2 == 0 ? SIGKILL : SIGTERM);
        awaitEvents(browsing, 10);
        machine->startHub({"--log-limit-mib", "2048"});
    }
    browsing.stop();
    return settle("hvbd restarted", *machine);
}

bool restartBus(const Sizes& sizes) {
    const auto machine = newMachine();
    Browsing browsing(*machine, "bus", kPace);
    for (int restart = 0; restart < sizes.restarts; ++restart) {
        awaitEvents(browsing, 10);
        machine->bus().kill9();
        awaitEvents(browsing, 10);
        machine->bus().restart();
    }
    browsing.stop();
    return settle("bus restarted", *machine);
}

bool stayAway(const Sizes& sizes) {
    const auto machine = newMachine();
    Browsing browsing(*machine, "away", kLongPace);
    awaitEvents(browsing, 2);
    machine->hub().kill(SIGKILL);
    awaitEvents(browsing, 2);
    pass(sizes.away);
    machine->startHub({"--log-limit-mib", "2048"});
    awaitEvents(browsing, 2);
    browsing.stop();
    return settle("hvbd away", *machine);
}

bool freeze(const Sizes& sizes) {
    const auto machine = newMachine();
    Browsing browsing(*machine, "frozen", kPace);
    awaitEvents(browsing, 2);
    machine->hub().hold();
    awaitEvents(browsing, 2);
    pass(sizes.frozen);
    machine->hub().kill(SIGCONT);
    awaitEvents(browsing, 2);
    browsing.stop();
    return settle("hvbd frozen", *machine);
}

bool killAtRandom(const Sizes& sizes) {
    std::mt19937 random(std::random_device{}());
    const auto machine = newMachine();
    Browsing browsing(*machine, "kills", kPace);
    for (int kill = 0; kill < sizes.kills; ++kill) {
        awaitEvents(browsing, random() % 6);
        pass(seconds(0));
        static_cast<void>(
            eventually([] { return false; }, Clock::now() + std::chrono::microseconds(random() % 20'000)));
        const bool killsHub = random() % 2 == 0;
        if (killsHub) {
            machine->hub().kill(SIGKILL);
            awaitEvents(browsing, random() % 4);
        }
        if (!killsHub || random() % 3 == 0) {
            machine->kill9Daemon();
        }
        if (killsHub) {
            machine->startHub({"--log-limit-mib", "2048"});
        }
        if (!machine->daemon().isRunning() && !machine->startDaemon()) {
            throw std::runtime_error("the daemon does not start again");
        }
    }
    browsing.stop();
    return settle("daemon and hvbd killed at random", *machine);
}

/// Last: from here on this process has mounts of its own.
bool fillTheDisk(const Sizes& sizes) {
    auto machine = std::make_unique<Machine>();
    machine->setTraceLevels(3);
    machine->bus().kill9();
    OwnDisk disk;
    const std::string trouble = disk.mount(machine->root().hubVarDirectory(), "size=64m");
    if (!trouble.empty()) {
        fmt::print("not tried: {}\n", trouble);
        return true;
    }
    machine->bus().restart();
    machine->startHub();
    if (!machine->startDaemon()) {
        throw std::runtime_error("the daemon does not start");
    }
    Browsing browsing(*machine, "full", kPace);
    awaitEvents(browsing, 2);
    disk.fill();
    awaitUntil("a full disk", [&] { return spool(*machine).waiting > 0; });
    pass(std::min(sizes.frozen, seconds(10)));
    disk.free();
    awaitEvents(browsing, 2);
    browsing.stop();
    const bool isRight = settle("hvbd's disk full", *machine);
    machine->kill9Daemon();
    machine->hub().kill(SIGKILL);
    machine->bus().kill9();
    return isRight;
}

/// Milliseconds for each of @p count events, sorted.
std::vector<double> costs(Machine& machine, const STEventData& event, int count) {
    std::vector<double> found;
    for (int i = 0; i < count; ++i) {
        const auto begin = Clock::now();
        machine.deliver(event);
        found.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    std::sort(found.begin(), found.end());
    return found;
}

/// Milliseconds for each of @p count writes of as many bytes as a report has in the spool, each synced: what the disk
/// alone takes.
std::vector<double> costsOfSyncedWrites(Machine& machine, int count) {
    constexpr std::size_t bytes = 600;
    const std::string path = machine.root().file("synced");
    const Sentrel::UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file.isOpen() || ::posix_fallocate(file.get(), 0, static_cast<off_t>(bytes) * count) != 0) {
        throw std::runtime_error("cannot make " + path);
    }
    const std::string record(bytes, 'x');
    std::vector<double> found;
    for (int i = 0; i < count; ++i) {
        const auto begin = Clock::now();
        if (::pwrite(file.get(), record.data(), bytes, static_cast<off_t>(bytes) * i) < 0 ||
            ::fdatasync(file.get()) != 0) {
            throw std::runtime_error("cannot write " + path);
        }
        found.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    std::sort(found.begin(), found.end());
    return found;
}

void showCost(const char* what, const std::vector<double>& sorted) {
    const auto at = [&](double part) { return sorted[static_cast<std::size_t>(part * double(sorted.size() - 1))]; };
    fmt::print("{:42} {:>7.3f} {:>7.3f} {:>7.3f}   {:.2f} of the limit, by the 99th percentile\n", what, at(0.5),
               at(0.99), sorted.back(), at(0.99) / kLimitMilliseconds);
}

void measureCosts(const Sizes& sizes) {
    const auto machine = newMachine();
    fmt::print("\n{:42} {:>7} {:>7} {:>7}   limit {} ms\n", "milliseconds for an event", "median", "p99", "worst",
               kLimitMilliseconds);
    showCost("a synced write of 600 bytes (baseline)", costsOfSyncedWrites(*machine, sizes.costEvents));
    showCost("dropped by the daemon (baseline)", costs(*machine, sampleEvent("http"), sizes.costEvents));
    showCost("hub there", costs(*machine, sampleEvent(), sizes.costEvents));
    machine->hub().kill(SIGKILL);
    static_cast<void>(costs(*machine, sampleEvent(), 1));
    showCost("hub dead, from the second event on", costs(*machine, sampleEvent(), sizes.costEvents));
    machine->startHub();
    awaitUntil("the spool", [&] { return spool(*machine).waiting == 0; });
    machine->hub().hold();
    showCost("hub frozen, the first event", costs(*machine, sampleEvent(), 1));
    showCost("hub frozen, from the second event on", costs(*machine, sampleEvent(), sizes.costEvents));
    machine->hub().kill(SIGCONT);
}

Sizes sizesOf(int argc, char** argv) {
    Sizes sizes;
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--brief") {
            return kBrief;
        }
        const int value = i + 1 < argc ? std::atoi(argv[++i]) : 0;
        if (name == "--away") {
            sizes.away = seconds(value);
        } else if (name == "--frozen") {
            sizes.frozen = seconds(value);
        } else if (name == "--kills") {
            sizes.kills = value;
        } else {
            throw std::runtime_error("no option " + std::string(name));
        }
    }
    return sizes;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const Sizes sizes = sizesOf(argc, argv);
        fmt::print("{:42} {:>7} {:>7} {:>5} {:>6} {:>13} {:>8}   delivered afterwards\n", "scenario", "taken", "stored",
                   "lost", "twice", "out of order", "refused");
        bool isRight = true;
        for (const auto& scenario : {restartHub, restartBus, stayAway, freeze, killAtRandom}) {
            isRight = scenario(sizes) && isRight;
        }
        measureCosts(sizes);
        fmt::print("\n");
        isRight = fillTheDisk(sizes) && isRight;
        return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        fmt::print(stderr, "nothing_lost: {}\n", error.what());
    } catch (const HVB::HVBException& error) {
        fmt::print(stderr, "nothing_lost: {}\n", error.message());
    }
    return EXIT_FAILURE;
}
