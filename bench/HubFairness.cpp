// Does one user's flood reach the others? And what does the bus hold for it?
//
// An unprivileged user floods the daemon over twelve connections, in one form after the other. Meanwhile root changes a
// switch, another ordinary user reads a preference and the whole snapshot, and hvbd asks for the health each second.
// Each is compared with itself on the quiet machine, a moment before, in the same run. The 99th percentiles are
// compared, since a flood shows in the worst waits.
//
// Usage: hub_fairness [--brief]      SENTRELD_ROOTED and HVBD_ROOTED name the programs. Requires root.
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Preferences.h"
#include "tests/support/ProcessMemory.h"

#include <fmt/format.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;
using namespace Sentrel;
using Clock = std::chrono::steady_clock;

struct Sizes {
    std::size_t connections; // of the user who floods
    int listRows;            // of the list that a get of all carries
    int calls;               // of the short kinds that are measured
    int listCalls;           // that carry the list
    bool isUnbounded;        // whether a flood is tried that takes all that the bus has
};
constexpr Sizes kFull{12, 10'000, 1000, 100, true};
constexpr Sizes kBrief{2, 100, 2, 2, false};
// Each connection sends 600 calls a second.
constexpr std::chrono::milliseconds kTick{10};
constexpr int kCallsOfTick = 6;
/// Calls of a connection that wait for replies which it reads.
constexpr int kPipelined = 32;
constexpr double kLimit = 5;
constexpr int kCannotRunHere = 77;
constexpr uid_t kNeighbour = 5; // "games" on Debian; the bus wants a user that the system knows

// What floods.

enum class Flood { WithoutReply, UnreadReplies, PipelinedLists };

HVB::bus::MessagePtr newGet(sd_bus& bus) {
    HVB::bus::MessagePtr request =
        HVB::bus::newCall(bus, HVB::bus::moduleName(HVB::MODULE_SENTREL), HVB::bus::modulePath(HVB::MODULE_SENTREL),
                          HVB::bus::kModuleInterface, HVB::bus::commandMember(ST_GET_PREFS));
    HVB::bus::check(sd_bus_message_append(request.get(), "tiibibay", std::uint64_t{1}, -1, HVB::MODULE_SENTREL, 1, -1,
                                          0, std::size_t{0}),
                    "cannot fill a command");
    return request;
}

int countDown(sd_bus_message* /*reply*/, void* outstanding, sd_bus_error*) {
    --*static_cast<int*>(outstanding);
    return 1;
}

/// A connection that floods.
struct Flooder {
    HVB::bus::BusPtr bus;
    int outstanding = 0; ///< calls whose replies are read
};

void sendOne(Flooder& flooder, Flood form) {
    const HVB::bus::MessagePtr request = newGet(*flooder.bus);
    std::uint64_t cookie = 0; // without one sd-bus would ask for no reply
    if (form == Flood::PipelinedLists) {
        HVB::bus::check(
            sd_bus_call_async(flooder.bus.get(), nullptr, request.get(), &countDown, &flooder.outstanding, 0), "call");
        ++flooder.outstanding;
    } else {
        HVB::bus::check(sd_bus_send(flooder.bus.get(), request.get(), form == Flood::WithoutReply ? nullptr : &cookie),
                        "send");
    }
}

bool hasUnsent(sd_bus& bus) {
    std::uint64_t queued = 0;
    return sd_bus_get_n_queued_write(&bus, &queued) >= 0 && queued > 0;
}

/// What a connection of the flood sends and reads at each tick.
void floodOnce(Flooder& flooder, Flood form, int burst) {
    for (int i = 0; i < burst && !hasUnsent(*flooder.bus) && flooder.outstanding < kPipelined; ++i) {
        sendOne(flooder, form);
    }
    pollfd room{sd_bus_get_fd(flooder.bus.get()), POLLOUT, 0};
    if (form == Flood::PipelinedLists) {
        while (sd_bus_process(flooder.bus.get(), nullptr) > 0) {
        }
    } else if (hasUnsent(*flooder.bus) && ::poll(&room, 1, 0) > 0) {
        static_cast<void>(sd_bus_flush(flooder.bus.get()));
    }
}

/// The bus may still have the connections of the flood before.
bool tryConnect(Flooder& flooder, const std::string& socketPath) {
    try {
        flooder.bus = HVB::bus::openBus(socketPath, patience());
        return true;
    } catch (const HVB::HVBException&) {
        return false;
    }
}

void flood(const std::string& socketPath, std::size_t connections, Flood form, bool isUnbounded,
           const std::function<void()>& ready) {
    std::vector<Flooder> flooders(connections);
    for (Flooder& flooder : flooders) {
        if (!eventually([&] { return tryConnect(flooder, socketPath); })) {
            throw std::runtime_error("the flood gets no connection");
        }
    }
    ready();
    for (Clock::time_point next = Clock::now();; next += kTick) {
        for (Flooder& flooder : flooders) {
            floodOnce(flooder, form, isUnbounded ? kPipelined : kCallsOfTick);
        }
        if (!isUnbounded) {
            std::this_thread::sleep_until(next);
        }
    }
}

// What is measured.

/// The 99th percentile of the milliseconds that @p count runs take; the worst one when they are few.
double p99(int count, const std::function<void(int)>& work) {
    std::vector<double> times;
    for (int run = 0; run < count; ++run) {
        const Clock::time_point begin = Clock::now();
        work(run);
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    std::sort(times.begin(), times.end());
    constexpr double share = 0.99;
    return times[static_cast<std::size_t>(std::ceil(share * static_cast<double>(times.size()))) - 1];
}

struct Waits {
    double set;
    double get;
    double getAll;
};

double rootsSet(const std::string& socketPath, int calls) {
    const std::array payloads{payloadOf(withSwitch(ST_ENABLE, false)), payloadOf(withSwitch(ST_ENABLE, true))};
    WireClient client(socketPath);
    return p99(calls, [&](int run) {
        if (client.code(ST_SET_PREFS_INDIVIDUAL, payloads[static_cast<std::size_t>(run % 2)]) != ST_ERROR_NONE) {
            throw std::runtime_error("root's set fails");
        }
    });
}

/// As an ordinary user who is not the one that floods.
double neighboursGet(const std::string& socketPath, int calls, int command,
                     std::optional<std::wstring_view> question = {}) {
    const std::string told = asUser(kNeighbour, kNogroup, {}, [&] {
        WireClient client(socketPath);
        return fmt::format("{}", p99(calls, [&](int) { client.snapshot(command, question); }));
    });
    double milliseconds = 0;
    if (std::from_chars(told.data(), told.data() + told.size(), milliseconds).ec != std::errc()) {
        throw std::runtime_error("the other user: " + told);
    }
    return milliseconds;
}

Waits measure(const std::string& socketPath, const Sizes& sizes) {
    return {rootsSet(socketPath, sizes.calls),
            neighboursGet(socketPath, sizes.calls, ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(ST_ENABLE)),
            neighboursGet(socketPath, sizes.listCalls, ST_GET_PREFS)};
}

/// The state of module 7 and since when it has it, as hvbd tells them.
std::string health(const std::string& socketPath) {
    const HVB::bus::BusPtr bus = HVB::bus::openBus(socketPath, patience());
    const auto request = HVB::bus::newCall(*bus, HVB::bus::kHubName, HVB::bus::kHubPath, HVB::bus::kHubInterface,
                                           HVB::bus::kStatusMember);
    const auto reply = HVB::bus::call(*bus, *request, patience());
    HVB::bus::check(sd_bus_message_enter_container(reply.get(), 'a', nullptr), "read");
    if (sd_bus_message_enter_container(reply.get(), 'r', nullptr) <= 0) {
        return {};
    }
    std::int32_t id = 0;
    const char* state = nullptr;
    const char* since = nullptr;
    HVB::bus::check(sd_bus_message_read(reply.get(), "iss", &id, &state, &since), "read");
    return fmt::format("{} since {}", state, since);
}

struct Form {
    std::string_view name;
    Flood flood;
    bool isUnbounded; ///< as fast as the bus takes it; then the bus itself is what all wait for
};
constexpr std::array<Form, 4> kForms{{
    {"calls without a reply", Flood::WithoutReply, false},
    {"replies left unread", Flood::UnreadReplies, false},
    {"pipelined gets of the list", Flood::PipelinedLists, false},
    {"calls without a reply, unbounded", Flood::WithoutReply, true},
}};

class Report {
public:
    explicit Report(Waits quiet) : m_quiet(quiet) {
        fmt::print("| flood | figure | quiet p99 | p99 | ratio | limit |\n|---|---|---|---|---|---|\n");
    }

    void rows(const Form& form, const Waits& waits) {
        row(form, "root sets a switch", m_quiet.set, waits.set);
        row(form, "another user gets one preference", m_quiet.get, waits.get);
        row(form, "another user gets all", m_quiet.getAll, waits.getAll);
    }

private:
    static void row(const Form& form, std::string_view figure, double quiet, double now) {
        fmt::print("| {} | {} | {:.2f} ms | {:.2f} ms | {:.2f} | {} |\n", form.name, figure, quiet, now, now / quiet,
                   form.isUnbounded ? "-" : fmt::format("below {}", kLimit));
        std::fflush(stdout);
    }

    Waits m_quiet;
};

int run(const Sizes& sizes) {
    Machine machine;
    machine.setTraceLevels(0);
    machine.initSettings();
    machine.sql(fmt::format("with recursive n(i) as (select 0 union all select i+1 from n where i < {}) insert into "
                            "allowblocksettings select 'http://host' || i || '.example/path', i % 2 from n",
                            sizes.listRows - 1));
    machine.startHub({"--health-interval=1"});
    if (!machine.startDaemon()) {
        throw std::runtime_error("the daemon does not start");
    }
    const std::string socketPath = machine.bus().socketPath();
    if (!eventually([&] { return health(socketPath).starts_with("well"); })) {
        throw std::runtime_error("the module is not well");
    }
    const std::string healthBefore = health(socketPath);
    Report report(measure(socketPath, sizes));
    std::string memory = fmt::format("quiet {:.1f}", processMebibytes(machine.bus().pid()));
    std::string healthAfter;
    for (const Form& form : kForms) {
        if (form.isUnbounded && !sizes.isUnbounded) {
            continue;
        }
        const OtherProcess user(kNobody, kNogroup, {}, [&](const auto& ready) {
            flood(socketPath, sizes.connections, form.flood, form.isUnbounded, ready);
        });
        report.rows(form, measure(socketPath, sizes));
        healthAfter = form.isUnbounded ? healthAfter : health(socketPath);
        memory += fmt::format(", {} {:.1f}", form.name, processMebibytes(machine.bus().pid()));
    }
    fmt::print(
        "\nMemory of the bus in MiB: {}; of the daemon {:.1f}.\nHealth before: {}; after the bounded floods: {}.\n",
        memory, processMebibytes(machine.daemon().pid()), healthBefore, healthAfter);
    return machine.stopDaemon();
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::string_view(argv[1]) == "--brief";
    if (argc > 1 && !brief) {
        std::fputs("usage: hub_fairness [--brief]\n", stderr);
        return 2;
    }
    if (!canActAsOthers()) {
        std::fputs("hub_fairness: needs root, to act as two other users\n", stderr);
        return kCannotRunHere;
    }
    try {
        return run(brief ? kBrief : kFull);
    } catch (const HVB::HVBException& exception) {
        fmt::print(stderr, "hub_fairness: {}\n", exception.message());
    } catch (const std::exception& exception) {
        fmt::print(stderr, "hub_fairness: {}\n", exception.what());
    }
    return 1;
}
