// What does it bring that the settings file is in write-ahead mode and has a keeper, and what does the keeper cost?
//
// Two machines side by side: one whose file has a rollback journal and no keeper, and one whose file is in write-ahead
// mode and kept. What is compared is measured one after the other in each of three rounds; the medians are compared.
// Baselines in the same run and on the same file system: bare SQLite without a daemon (open, twelve prepares, one write
// in autocommit, close) in either mode, in write-ahead mode with a second connection that only stays open; and for
// reading, the bus's own answer to a ping of hvbd.
//
// Usage: kept_settings [--brief]      SENTRELD_ROOTED, HVBD_ROOTED and SENTREL_SETTINGS_KEEPER_ROOTED name the
// programs.
#include "bench/BareFile.h"
#include "bench/Rounds.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/Preferences.h"
#include "tests/support/ProcessMemory.h"
#include "tests/support/ServedSettings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace bench;
using namespace testing_support;
using namespace Sentrel;

struct Sizes {
    int sets;        // of a round
    int listRows;    // of the list that is replaced
    int reads;       // of a round
    int idleSeconds; // in which the keeper's time is counted
};
constexpr Sizes kFull{400, 1000, 200, 20};
constexpr Sizes kBrief{6, 20, 3, 1};
constexpr int kTurns = 6; // of what is compared, in a round

std::string shown(double microseconds) {
    constexpr double ofAMillisecond = 1000;
    return microseconds < 10 * ofAMillisecond ? fmt::format("{:.0f} us", microseconds)
                                              : fmt::format("{:.1f} ms", microseconds / ofAMillisecond);
}

void row(const std::string& figure, double measured, const std::string& baseline, double base,
         const std::string& limit) {
    fmt::print("| {} | {} | {} {} | {:.2f} | {} |\n", figure, shown(measured), baseline, shown(base), measured / base,
               limit);
    std::fflush(stdout);
}

void requireSuccess(int code) {
    if (code != ST_ERROR_NONE) {
        throw std::runtime_error(fmt::format("a change fails with {}", code));
    }
}

/// A machine with its client, and a settings file beside it that no daemon knows.
/// Threads: plain, single access. Owner: the bench.
class Side {
public:
    explicit Side(bool isKept) : m_barePath(m_machine.root().sharedDirectory() + "/bare.db") {
        m_machine.setTraceLevels(0);
        m_machine.initSettings();
        if (!isKept) {
            m_machine.sql("pragma journal_mode=delete");
        }
        makeBareFile(m_barePath);
        if (isKept) {
            const std::array mode{"PRAGMA journal_mode=wal"};
            BareFile(m_barePath, mode).ask(0, [](sqlite3_stmt*) {});
            const std::array look{"select count(*) from vxsetting"};
            m_bareKeeper.emplace(m_barePath, look);
            m_bareKeeper->ask(0, [](sqlite3_stmt*) {});
        }
        m_machine.startHub();
        if (!m_machine.startDaemon()) {
            throw std::runtime_error("the daemon does not start");
        }
        if (isKept) {
            m_machine.startKeeper();
            static_cast<void>(awaitSettings(socketPath()));
        }
        m_client.emplace(socketPath());
    }

    Machine& machine() { return m_machine; }
    std::string socketPath() { return m_machine.bus().socketPath(); }

    double sets(int count) {
        return microseconds(count, [this](int) { setOne(); });
    }
    void setOne() {
        ++m_set; // never the value that is there
        requireSuccess(m_client->code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withAction(ST_RED_SITE_ACTION, m_set))));
    }
    double list(int rows) {
        Urls urls;
        ++m_set; // never the list that is there
        for (int number = 0; number < rows; ++number) {
            urls.emplace_back(fmt::format("http://host{}.example/{}", number, m_set), number % 2);
        }
        const std::wstring payload = payloadOf(withUrls(urls));
        return microseconds(1, [&](int) { requireSuccess(m_client->code(ST_SET_PREFS_INDIVIDUAL, payload)); });
    }
    double bareSets(int count) const {
        return microseconds(count, [this](int set) {
            BareFile(m_barePath).run(kSetSetting, {"Enabled", sizeof "Enabled"}, set);
        });
    }
    /// As bareSets, each after a rest, as in a set there is one: the caches are others' meanwhile.
    double restedBareSets(int count) const {
        constexpr std::chrono::microseconds rest{300};
        double sum = 0;
        for (int set = 0; set < count; ++set) {
            std::this_thread::sleep_for(rest);
            sum += bareSets(1);
        }
        return sum / count;
    }
    double bareList(int rows) const {
        constexpr std::array insert{kTwelveStatements[kSetUrl]};
        BareFile(m_barePath).run(kNoUrls);
        BareFile file(m_barePath, insert);
        return microseconds(1, [&](int) {
            for (int number = 0; number < rows; ++number) {
                file.run(0, fmt::format("http://host{}.example/path", number), number % 2);
            }
        });
    }
    std::uintmax_t logBytes() const { return std::filesystem::file_size(m_machine.settingsFile() + "-wal"); }

private:
    Machine m_machine;
    std::string m_barePath;
    std::optional<BareFile> m_bareKeeper;
    std::optional<WireClient> m_client;
    int m_set = 1000;
};

void measureSets(Side& plain, Side& kept, int sets) {
    Rounds rollback{};
    Rounds bareRollback{};
    Rounds ahead{};
    Rounds bareAhead{};
    Rounds rested{};
    Rounds killed{};
    Rounds back{};
    for (std::size_t round = 0; round < kRounds; ++round) {
        for (int turn = 0; turn < kTurns; ++turn) { // so that a disk that is slow for a while is slow for all
            bareRollback[round] += plain.bareSets(sets / kTurns) / kTurns;
            rollback[round] += plain.sets(sets / kTurns) / kTurns;
            bareAhead[round] += kept.bareSets(sets / kTurns) / kTurns;
            ahead[round] += kept.sets(sets / kTurns) / kTurns;
            rested[round] += kept.restedBareSets(sets / kTurns) / kTurns;
        }
        kept.machine().kill9Keeper();
        killed[round] = kept.sets(sets);
        kept.machine().startKeeper();
        back[round] = kept.sets(sets);
    }
    row("set one value, rollback journal", median(rollback), "bare write", median(bareRollback), "-");
    row("set one value, kept", median(ahead), "bare write, a connection stays open", median(bareAhead), "-");
    row("bare write after a rest, a connection stays open", median(rested), "without a rest", median(bareAhead), "-");
    row("set one value: kept beside not kept", median(ahead), "rollback journal", median(rollback), "below 0.5");
    row("set one value, keeper killed", median(killed), "rollback journal", median(rollback), "-");
    row("set one value, keeper back", median(back), "rollback journal", median(rollback), "below 0.5");
}

void measureLists(Side& plain, Side& kept, int rows) {
    Rounds rollback{};
    Rounds bareRollback{};
    Rounds ahead{};
    Rounds bareAhead{};
    std::uintmax_t log = 0;
    for (std::size_t round = 0; round < kRounds; ++round) {
        bareRollback[round] = plain.bareList(rows);
        rollback[round] = plain.list(rows);
        bareAhead[round] = kept.bareList(rows);
        ahead[round] = kept.list(rows);
        log = std::max(log, kept.logBytes());
    }
    const std::string what = fmt::format("replace a list of {} rows", rows);
    row(what + ", rollback journal", median(rollback), "as many bare writes", median(bareRollback), "-");
    row(what + ", kept", median(ahead), "as many bare writes, a connection stays open", median(bareAhead), "-");
    row(what + ": kept beside not kept", median(ahead), "rollback journal", median(rollback), "-");
    constexpr double mebibyte = 1 << 20;
    fmt::print("| largest write-ahead log | {:.1f} MiB | 1000 pages 3.9 MiB | {:.2f} | - |\n",
               static_cast<double>(log) / mebibyte, static_cast<double>(log) / (1000.0 * 4096));
}

void ping(sd_bus& bus) {
    const auto request =
        HVB::bus::newCall(bus, HVB::bus::kHubName, HVB::bus::kHubPath, "org.freedesktop.DBus.Peer", "Ping");
    static_cast<void>(HVB::bus::call(bus, *request, patience()));
}

/// Reads the settings without taking their text apart.
void read(sd_bus& bus, bool fresh) {
    const auto request = HVB::bus::newCall(bus, HVB::bus::kHubName, HVB::bus::kHubPath, HVB::bus::kHubInterface,
                                           HVB::bus::kSettingsMember);
    HVB::bus::check(sd_bus_message_append(request.get(), "b", fresh ? 1 : 0), "append");
    static_cast<void>(HVB::bus::call(bus, *request, patience()));
}

void measureReads(Side& kept, int reads) {
    const HVB::bus::BusPtr bus = HVB::bus::openBus(kept.socketPath(), patience());
    Rounds pings{};
    Rounds last{};
    Rounds fresh{};
    Rounds afterSet{};
    Rounds afterList{};
    for (std::size_t round = 0; round < kRounds; ++round) {
        pings[round] = microseconds(reads, [&](int) { ping(*bus); });
        last[round] = microseconds(reads, [&](int) { read(*bus, false); });
        fresh[round] = microseconds(reads, [&](int) { read(*bus, true); });
        afterSet[round] = 0;
        for (int i = 0; i < reads; ++i) {
            kept.setOne();
            afterSet[round] += microseconds(1, [&](int) { read(*bus, true); }) / reads;
        }
        static_cast<void>(kept.list(20));
        afterList[round] = microseconds(1, [&](int) { read(*bus, true); });
    }
    row("Settings", median(last), "ping of hvbd", median(pings), "-");
    row("Settings(fresh), nothing changed", median(fresh), "ping of hvbd", median(pings), "-");
    row("Settings(fresh) after a set", median(afterSet), "ping of hvbd", median(pings), "-");
    row("Settings(fresh) after a list", median(afterList), "its wait for rest", 50'000, "-");
}

/// Nanoseconds that a process has had of the processors.
double processorTime(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
    double nanoseconds = 0;
    if (!(file >> nanoseconds)) {
        throw std::runtime_error("the system does not tell the keeper's time");
    }
    return nanoseconds;
}

void measureIdleKeeper(Side& kept, int seconds) {
    const pid_t pid = kept.machine().keeper().pid();
    const double before = processorTime(pid);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    constexpr double ofAMicrosecond = 1000;
    fmt::print("| keeper's processor time of an idle second | {:.0f} us | 1000000 us | {:.6f} | - |\n",
               (processorTime(pid) - before) / ofAMicrosecond / seconds,
               (processorTime(pid) - before) / ofAMicrosecond / seconds / 1e6);
    fmt::print("| keeper's resident memory | {:.1f} MiB | - | - | - |\n", processMebibytes(pid));
}

void measure(const Sizes& sizes) {
    Side plain(false);
    Side kept(true);
    fmt::print("| figure | measured | baseline | ratio | limit |\n|---|---|---|---|---|\n");
    measureSets(plain, kept, sizes.sets);
    measureLists(plain, kept, sizes.listRows);
    measureReads(kept, sizes.reads);
    measureIdleKeeper(kept, sizes.idleSeconds);
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::strcmp(argv[1], "--brief") == 0;
    if (argc > 1 && !brief) {
        std::fputs("usage: kept_settings [--brief]\n", stderr);
        return 2;
    }
    try {
        measure(brief ? kBrief : kFull);
        return 0;
    } catch (const HVB::HVBException& exception) {
        fmt::print(stderr, "kept_settings: {}\n", exception.message());
    } catch (const std::exception& exception) {
        fmt::print(stderr, "kept_settings: {}\n", exception.what());
    }
    return 1;
}
