// Do the reports of the hour before stay readable while four processes flood the log?
//
// Twenty honest reports are made an hour old. Then four processes send events of random URLs as fast as the daemon
// takes them, on random sites and on one site, with hvbd's usual limit and with one that the flood exceeds many times.
// Afterwards the honest reports are looked for through the hub. Beside it: what a report takes of the store, and what
// it takes as it arrives.
//
// Usage: log_flood [--brief]      SENTRELD_ROOTED and HVBD_ROOTED name the programs.
#include "tests/support/Browsing.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"

#include <fmt/format.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace testing_support;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr int kHonest = 20;
constexpr int kProcesses = 4;

std::string honestUrl(int number) {
    return "http://honest" + std::to_string(number) + ".example/page";
}

void flood(Machine& machine, bool hasOneSite, Clock::time_point until) {
    std::mt19937_64 random(std::random_device{}());
    while (Clock::now() < until) {
        const std::string site = hasOneSite ? "flood" : fmt::format("{:x}", random());
        machine.deliver(sampleEvent(fmt::format("http://{}.example/{:x}", site, random())));
    }
}

/// Floods from processes of their own, and returns when they have ended.
void floodFromProcesses(Machine& machine, bool hasOneSite, seconds time) {
    const auto until = Clock::now() + time;
    std::array<pid_t, kProcesses> children{};
    for (pid_t& child : children) {
        child = fork();
        if (child == 0) {
            flood(machine, hasOneSite, until);
            _exit(0);
        }
    }
    for (const pid_t child : children) {
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
            throw std::runtime_error("a flooding process failed");
        }
    }
}

std::string sqlite(Machine& machine, const std::string& sql) {
    const std::string output = machine.root().file("sqlite3.out");
    unlink(output.c_str());
    ChildProcess program("sqlite3",
                         {.arguments = {"-bail", machine.root().hubVarDirectory() + "/hvblog.db", ".timeout 5000", sql},
                          .environment = {},
                          .outputFile = output,
                          .uid = {},
                          .gid = {}});
    if (program.waitUntil(patience()) != 0) {
        throw std::runtime_error("sqlite3 fails: " + program.output());
    }
    return program.output();
}

bool run(const char* name, const char* limitMib, bool hasOneSite, seconds time) {
    Machine machine;
    machine.startHub({"--log-limit-mib", limitMib});
    if (!machine.startDaemon()) {
        throw std::runtime_error("the daemon does not start");
    }
    for (int i = 0; i < kHonest; ++i) {
        machine.deliver(sampleEvent(honestUrl(i)));
    }
    sqlite(machine, "UPDATE log SET stored_at = stored_at - 3600000000 + id * 60000000");
    floodFromProcesses(machine, hasOneSite, time);
    const std::vector<std::string> stored = storedUrls(machine);
    int found = 0;
    for (int i = 0; i < kHonest; ++i) {
        found += std::find(stored.begin(), stored.end(), honestUrl(i)) != stored.end() ? 1 : 0;
    }
    const std::string facts = sqlite(
        machine, "SELECT max(id), count(*), sum(count), CAST(avg(length(text) + length(detail)) AS INTEGER) FROM log");
    std::size_t arrived = 0;
    const auto records = machine.stored();
    for (const Machine::Stored& record : records) {
        arrived += (record.text.size() + record.detail.size()) * sizeof(wchar_t);
    }
    fmt::print(
        "{:34} {:>4} MiB   {:>2} of {} honest reports; sent | kept | counted | bytes: {} ({} bytes as they arrive)\n",
        name, limitMib, found, kHonest, facts.substr(0, facts.find('\n')), arrived / records.size());
    std::fflush(stdout);
    return found == kHonest;
}

} // namespace

int main(int argc, char** argv) {
    const bool isBrief = argc > 1 && std::string_view(argv[1]) == "--brief";
    const seconds time(isBrief ? 1 : 60);
    try {
        bool isRight = run("random URLs on random sites", "64", false, time);
        isRight = run("random URLs on random sites", "2", false, time) && isRight;
        isRight = run("random URLs on one site", "2", true, time) && isRight;
        return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        fmt::print(stderr, "log_flood: {}\n", error.what());
    } catch (const HVB::HVBException& error) {
        fmt::print(stderr, "log_flood: {}\n", error.message());
    }
    return EXIT_FAILURE;
}
