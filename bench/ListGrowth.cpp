// What does a long list cost, from a thousand entries to the most that there may be?
//
// For each length: the start's load (the first get beyond a later one), a get of everything by a client on the bus, the
// memory of the daemon and of the bus after it, and the replacement of the whole list by another one. Each cost also
// stands for one entry: what grows faster than the list would show there.
//
// Usage: list_growth [--brief]      SENTRELD_ROOTED names the program.
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/Preferences.h"
#include "tests/support/ProcessMemory.h"

#include <fmt/format.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace testing_support;
using namespace Sentrel;
using Clock = std::chrono::steady_clock;

double milliseconds(const std::function<void()>& work) {
    const Clock::time_point begin = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

void fill(Machine& machine, int rows) {
    machine.sql(
        fmt::format("delete from allowblocksettings; with recursive n(i) as (select 0 union all select i+1 from n "
                    "where i < {}) insert into allowblocksettings select 'http://host' || i || "
                    "'.example/some/path/of/a/page', i % 2 from n",
                    rows - 1));
}

Urls otherList(int rows) {
    Urls urls;
    for (int number = 0; number < rows; ++number) {
        urls.emplace_back(fmt::format("http://other{}.example/some/path/of/a/page", number), number % 2);
    }
    return urls;
}

/// Returns when the new list is in memory and in the file. A long one takes longer than the bus waits for a reply.
void replaceList(Machine& machine, WireClient& client, int rows) {
    const WireClient::Answer answer = client.command(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls(otherList(rows))));
    const std::string stored = fmt::format("{}\n", rows);
    constexpr std::chrono::minutes tenMinutes{10};
    const bool isDone =
        answer.error.empty() || eventually(
                                    [&] {
                                        return machine.sql("select count(*) from allowblocksettings where "
                                                           "name like 'http://other%'") == stored;
                                    },
                                    Clock::now() + tenMinutes);
    if (!isDone) {
        throw std::runtime_error("the list is not replaced");
    }
}

void measure(Machine& machine, int rows) {
    fill(machine, rows);
    if (!machine.startDaemon()) {
        throw std::runtime_error("the daemon does not start");
    }
    WireClient client(machine.bus().socketPath());
    const std::wstring question = payloadOf<int>(ST_ENABLE);
    const auto getOne = [&] { client.snapshot(ST_GET_PREFS_INDIVIDUAL, question); };
    const double load = milliseconds(getOne) - milliseconds(getOne);
    std::size_t bytes = 0;
    const double get = milliseconds([&] { bytes = client.command(ST_GET_PREFS).payload.size(); });
    if (urlsOf(client.snapshot(ST_GET_PREFS)).size() != static_cast<std::size_t>(rows)) {
        throw std::runtime_error("not all entries came");
    }
    const double daemonAtRest = processMebibytes(machine.daemon().pid());
    const double replace = milliseconds([&] { replaceList(machine, client, rows); });
    constexpr double thousand = 1000;
    fmt::print("| {} | {:.1f} MB | {:.1f} ms | {:.1f} ms | {:.0f} us | {:.1f} s | {:.2f} ms | {:.1f} MiB | {:.1f} MiB "
               "| {:.1f} "
               "MiB |\n",
               rows, static_cast<double>(bytes) / thousand / thousand, load, get, get * thousand / rows,
               replace / thousand, replace / rows, daemonAtRest, processMebibytes(machine.daemon().pid(), "VmHWM:"),
               processMebibytes(machine.bus().pid(), "VmHWM:"));
    std::fflush(stdout);
    static_cast<void>(machine.stopDaemon());
}

void run(const std::vector<int>& lengths) {
    fmt::print("| entries | payload | load | get | get, an entry | replace | replace, an entry | daemon after a get | "
               "daemon at "
               "most | bus at most |\n|---|---|---|---|---|---|---|---|---|---|\n");
    for (const int rows : lengths) {
        Machine machine;
        machine.setTraceLevels(0);
        machine.initSettings();
        measure(machine, rows);
    }
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::string_view(argv[1]) == "--brief";
    if (argc > 1 && !brief) {
        std::fputs("usage: list_growth [--brief]\n", stderr);
        return 2;
    }
    try {
        run(brief ? std::vector{100, 1000} : std::vector{1000, 10'000, 100'000});
        return 0;
    } catch (const HVB::HVBException& exception) {
        fmt::print(stderr, "list_growth: {}\n", exception.message());
    } catch (const std::exception& exception) {
        fmt::print(stderr, "list_growth: {}\n", exception.what());
    }
    return 1;
}
