// How fast is the way of an event, from a browser's connection to hvbd's store, and what does the daemon weigh?
//
// Baselines, in the same run: the same connection without a daemon behind it (connect, write, accept, recv, close), and
// bare Log calls with texts of the same size, which is what the daemon cannot do without. Each round of the three is
// measured one after the other, three times; the medians are compared. Sizes and counts are real: an event of an
// ordinary URL, its report as the reporter builds it, stored and committed by hvbd.
//
// Usage: event_path [--brief]      SENTRELD_ROOTED and HVBD_ROOTED name the programs.
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/ProcessMemory.h"
#include "tests/support/UnixSocket.h"

#include <fmt/format.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testing_support;
using Clock = std::chrono::steady_clock;

struct Sizes {
    int ofARound; // events, calls or connections
    int early;    // events before the first look at memory
    int late;     // events before the second
    int storms;   // rounds of 20 clients at once
};
constexpr Sizes kFull{5000, 10'000, 200'000, 50};
constexpr Sizes kBrief{50, 50, 100, 2};
constexpr int kStormClients = 20;

double perSecond(int count, const std::function<void()>& work) {
    const Clock::time_point begin = Clock::now();
    work();
    return count / std::chrono::duration<double>(Clock::now() - begin).count();
}

double median(std::array<double, 3> values) {
    std::sort(values.begin(), values.end());
    return values[1];
}

std::string_view bytesOf(const STEventData& event) {
    return {reinterpret_cast<const char*>(&event), sizeof event};
}

/// A listener that takes records and does nothing with them.
class BareListener {
public:
    explicit BareListener(std::string path) : m_path(std::move(path)), m_fd(socket(AF_UNIX, SOCK_STREAM, 0)) {
        constexpr int backlog = 5; // the daemon's own
        if (!bindSocket(m_fd, m_path) || listen(m_fd, backlog) != 0) {
            throw std::runtime_error("cannot listen at " + m_path);
        }
    }
    ~BareListener() {
        close(m_fd);
        unlink(m_path.c_str());
    }
    BareListener(const BareListener&) = delete;
    BareListener& operator=(const BareListener&) = delete;

    void serve(int connections) const {
        char buffer[1024];
        for (int served = 0; served < connections; ++served) {
            const int client = accept(m_fd, nullptr, nullptr);
            if (recv(client, buffer, sizeof buffer, 0) <= 0) {
                throw std::runtime_error("a record did not arrive");
            }
            close(client);
        }
    }

private:
    std::string m_path;
    int m_fd;
};

void sendRecords(const std::string& socketPath, int count) {
    const STEventData event = sampleEvent("http://host.example/path/page.html");
    for (int sent = 1; sent < count; ++sent) {
        EventClient(socketPath).send(bytesOf(event));
    }
    EventClient last(socketPath);
    last.send(bytesOf(event));
    static_cast<void>(last.readAll()); // the one before it is done when this one is
}

double bareConnections(Machine& machine, int count) {
    const std::string path = machine.root().file("bare");
    const BareListener listener(path);
    return perSecond(count, [&] {
        std::thread server([&] { listener.serve(count); });
        sendRecords(path, count);
        server.join();
    });
}

double bareLogCalls(Machine& machine, const Machine::Stored& like, int count) {
    const HVB::bus::BusPtr bus = HVB::bus::openBus(machine.bus().socketPath(), patience());
    return perSecond(count, [&] {
        for (int call = 0; call < count; ++call) {
            const auto request = HVB::bus::newCall(*bus, HVB::bus::kHubName, HVB::bus::kHubPath,
                                                   HVB::bus::kHubInterface, HVB::bus::kLogMember);
            HVB::bus::check(sd_bus_message_append(request.get(), "ii", like.source, like.type), "Log");
            HVB::bus::appendText(*request, like.text);
            HVB::bus::appendText(*request, like.detail);
            HVB::bus::check(sd_bus_message_append(request.get(), "i", like.count), "Log");
            HVB::bus::call(*bus, *request, patience());
        }
    });
}

/// The id of the newest record. Ids count up by one, whatever the store has dropped meanwhile.
std::uint64_t newestId(Machine& machine) {
    const HVB::bus::BusPtr bus = HVB::bus::openBus(machine.bus().socketPath(), patience());
    const auto request = HVB::bus::newCall(*bus, HVB::bus::kHubName, HVB::bus::kHubPath, HVB::bus::kHubInterface,
                                           HVB::bus::kReadLogMember);
    HVB::bus::check(sd_bus_message_append(request.get(), "tub", std::uint64_t{0}, std::uint32_t{1}, 1), "ReadLog");
    const auto reply = HVB::bus::call(*bus, *request, patience());
    std::uint64_t id = 0;
    HVB::bus::check(sd_bus_message_enter_container(reply.get(), 'a', "(txiiayayi)"), "ReadLog");
    if (sd_bus_message_enter_container(reply.get(), 'r', "txiiayayi") > 0) {
        HVB::bus::check(sd_bus_message_read(reply.get(), "t", &id), "ReadLog");
    }
    return id;
}

void row(const std::string& figure, const std::string& measured, const std::string& limit, double ratio) {
    fmt::print("| {} | {} | {} | {:.2f} |\n", figure, measured, limit, ratio);
    std::fflush(stdout);
}

void measureStart(Machine& machine) {
    const Clock::time_point asked = Clock::now();
    HVB::bus::openBus(machine.bus().socketPath(), patience());
    const std::chrono::duration<double, std::milli> hub = Clock::now() - asked;
    const Clock::time_point launched = Clock::now();
    machine.launchDaemon();
    if (!eventually([&] { return machine.listens(); })) {
        throw std::runtime_error("the daemon does not listen");
    }
    const std::chrono::duration<double, std::milli> start = Clock::now() - launched;
    constexpr double allowed = 20;
    row("start to listening, looked at every 2 ms", fmt::format("{:.1f} ms", start.count()),
        fmt::format("hub's answer {:.1f} ms + {} ms", hub.count(), allowed), start.count() / (hub.count() + allowed));
    constexpr double mostIdle = 12 * 1024;
    const auto idle = static_cast<double>(processKilobytes(machine.daemon().pid()));
    row("idle resident memory", fmt::format("{:.1f} MiB", idle / 1024), "12 MiB", idle / mostIdle);
}

void measureRates(Machine& machine, const Sizes& sizes) {
    machine.deliver(sampleEvent("http://host.example/path/page.html"));
    const Machine::Stored like = machine.stored().front();
    std::array<double, 3> connections{};
    std::array<double, 3> calls{};
    std::array<double, 3> events{};
    for (std::size_t round = 0; round < events.size(); ++round) {
        connections[round] = bareConnections(machine, sizes.ofARound);
        calls[round] = bareLogCalls(machine, like, sizes.ofARound);
        events[round] = perSecond(sizes.ofARound, [&] { sendRecords(machine.eventSocket(), sizes.ofARound); });
    }
    const double bareCalls = median(calls);
    const double whole = median(events);
    row("bare connections", fmt::format("{:.0f}/s", median(connections)), "-", median(connections) / bareCalls);
    row(fmt::format("bare Log calls, {} + {} bytes", like.text.size() * 4, like.detail.size() * 4),
        fmt::format("{:.0f}/s", bareCalls), "-", 1);
    row("whole way of an event", fmt::format("{:.0f}/s", whole), "at least 0.5 of bare Log calls", whole / bareCalls);
}

void measureStorm(Machine& machine, int rounds) {
    const std::uint64_t before = newestId(machine);
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::thread> clients;
        clients.reserve(kStormClients);
        for (int client = 0; client < kStormClients; ++client) {
            clients.emplace_back([&] { machine.deliver(sampleEvent("http://host.example/storm")); });
        }
        for (std::thread& client : clients) {
            client.join();
        }
    }
    const auto arrived = static_cast<double>(newestId(machine) - before);
    row(fmt::format("{} storms of {} clients: events stored", rounds, kStormClients), fmt::format("{:.0f}", arrived),
        fmt::format("{}", rounds * kStormClients), arrived / (rounds * kStormClients));
}

void measureGrowth(Machine& machine, const Sizes& sizes) {
    sendRecords(machine.eventSocket(), sizes.early);
    const long early = processKilobytes(machine.daemon().pid());
    sendRecords(machine.eventSocket(), sizes.late - sizes.early);
    const long late = processKilobytes(machine.daemon().pid());
    row(fmt::format("resident memory after {} events beyond that after {}", sizes.late, sizes.early),
        fmt::format("{} KiB ({} KiB in all)", late - early, late), "1024 KiB",
        static_cast<double>(late - early) / 1024);
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::strcmp(argv[1], "--brief") == 0;
    if (argc > 1 && !brief) {
        std::fputs("usage: event_path [--brief]\n", stderr);
        return 2;
    }
    const Sizes& sizes = brief ? kBrief : kFull;
    try {
        Machine machine;
        machine.setTraceLevels(0);
        machine.startHub();
        fmt::print("| figure | measured | limit | ratio |\n|---|---|---|---|\n");
        measureStart(machine);
        measureRates(machine, sizes);
        measureStorm(machine, sizes.storms);
        measureGrowth(machine, sizes);
        return machine.stopDaemon();
    } catch (const HVB::HVBException& exception) {
        fmt::print(stderr, "event_path: {}\n", exception.message());
    } catch (const std::exception& exception) {
        fmt::print(stderr, "event_path: {}\n", exception.what());
    }
    return 1;
}
