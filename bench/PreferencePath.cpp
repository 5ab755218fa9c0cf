// How fast is the way of a preference, from a client's command through the hub to the settings file and back?
//
// Baselines, in the same run and on the same file system: a bare call through the same bus to a process that answers
// texts of the same size and does nothing else, and bare SQLite without a daemon (open, twelve prepares, one write in
// autocommit, close; or writes on one connection). What is compared is measured one after the other in each of three
// rounds; the medians are compared. Under load, a reply that another client's command should have got would show: each
// client reads what it alone writes, or what names its own question.
//
// Usage: preference_path [--brief]      SENTRELD_ROOTED names the program.
#include "bench/BareFile.h"
#include "bench/Rounds.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/Machine.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Preferences.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace bench;
using namespace testing_support;
using namespace Sentrel;
using Clock = std::chrono::steady_clock;

struct Sizes {
    int calls;       // gets of a round
    int sets;        // of a round
    int listRows;    // of the list that is replaced
    int loadRows;    // of the list that is loaded
    int loadSeconds; // of eight clients at once
};
constexpr Sizes kFull{5000, 500, 1000, 10'000, 30};
constexpr Sizes kBrief{20, 6, 20, 100, 1};

void row(const std::string& figure, const std::string& measured, const std::string& baseline, double ratio,
         const std::string& limit) {
    fmt::print("| {} | {} | {} | {:.2f} | {} |\n", figure, measured, baseline, ratio, limit);
    std::fflush(stdout);
}

std::string shown(double microseconds) {
    constexpr double ofAMillisecond = 1000;
    return microseconds < 10 * ofAMillisecond ? fmt::format("{:.0f} us", microseconds)
                                              : fmt::format("{:.1f} ms", microseconds / ofAMillisecond);
}

Urls urlList(int count) {
    Urls urls;
    for (int number = 0; number < count; ++number) {
        urls.emplace_back(fmt::format("http://host{}.example/path", number), number % 2);
    }
    return urls;
}

// The bare call.

/// Answers a command with a text of as many characters as its sequence number says.
int answerThatMuch(sd_bus_message* message, void* text, sd_bus_error*) {
    std::int32_t size = 0;
    HVB::bus::check(sd_bus_message_skip(message, "tiib"), "skip");
    HVB::bus::check(sd_bus_message_read(message, "ib", &size, nullptr), "read");
    static_cast<void>(HVB::bus::readText(*message));
    sd_bus_message* raw = nullptr;
    HVB::bus::check(sd_bus_message_new_method_return(message, &raw), "new");
    const HVB::bus::MessagePtr reply(raw);
    HVB::bus::check(sd_bus_message_append(raw, "bbb", 1, 1, 1), "append");
    const std::wstring_view whole = *static_cast<const std::wstring*>(text);
    HVB::bus::appendText(*reply, whole.substr(0, static_cast<std::size_t>(size)));
    return sd_bus_send(nullptr, raw, nullptr);
}

/// Stands in for a module that does nothing, under the name of the hub's own, until its process ends.
void serveBareCalls(const std::string& socketPath, const std::function<void()>& ready) {
    constexpr std::size_t longest = 1'000'000;
    std::wstring text(longest, L'x');
    const HVB::bus::BusPtr bus = HVB::bus::openBus(socketPath, patience());
    HVB::bus::check(sd_bus_add_fallback(bus.get(), nullptr, "/", &answerThatMuch, &text), "add object");
    HVB::bus::check(sd_bus_request_name(bus.get(), HVB::bus::moduleName(HVB::MODULE_HUB).c_str(), 0), "name");
    ready();
    while (sd_bus_process(bus.get(), nullptr) >= 0) {
        static_cast<void>(HVB::bus::sleepUntilReady(HVB::bus::busWait(*bus), HVB::bus::Deadline::max(), -1));
    }
}

/// Sends what a command with this payload sends, and reads what its reply would be.
void bareCall(sd_bus& bus, const std::wstring& payload, std::size_t replyCharacters) {
    const auto request =
        HVB::bus::newCall(bus, HVB::bus::moduleName(HVB::MODULE_HUB), HVB::bus::modulePath(HVB::MODULE_HUB),
                          HVB::bus::kModuleInterface, HVB::bus::commandMember(ST_GET_PREFS));
    HVB::bus::check(sd_bus_message_append(request.get(), "tiibib", std::uint64_t{1}, -1, HVB::MODULE_HUB, 1,
                                          static_cast<int>(replyCharacters), payload.empty() ? 0 : 1),
                    "append");
    HVB::bus::appendText(*request, payload);
    const auto reply = HVB::bus::call(bus, *request, patience());
    HVB::bus::check(sd_bus_message_skip(reply.get(), "bbb"), "skip");
    if (HVB::bus::readText(*reply).size() != replyCharacters) {
        throw std::runtime_error("the bare call's reply has another size");
    }
}

// Bare SQLite.

/// Opens, prepares twelve statements, writes one setting, closes.
void bareWrite(const std::string& path, int value) {
    BareFile(path).run(kSetSetting, {"Enabled", sizeof "Enabled"}, value);
}

/// Writes a list row by row, each in a transaction of its own, on one connection.
void bareRows(const std::string& path, const Urls& urls) {
    constexpr std::array insert{kTwelveStatements[kSetUrl]};
    BareFile file(path, insert);
    for (const auto& [url, value] : urls) {
        file.run(0, url, value);
    }
}

/// Reads all rows of the list. @return how many.
int bareLoad(const std::string& path) {
    constexpr std::array everything{"select * from allowblocksettings order by value desc"};
    Urls urls;
    BareFile(path, everything).ask(0, [&](sqlite3_stmt* row) {
        urls.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(row, 0)), sqlite3_column_int(row, 1));
    });
    return static_cast<int>(urls.size());
}

// The figures.

void requireSuccess(int code) {
    if (code != ST_ERROR_NONE) {
        throw std::runtime_error(fmt::format("a change fails with {}", code));
    }
}

void measureGets(WireClient& client, int urls, int calls) {
    requireSuccess(client.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls(urlList(urls)))));
    const std::size_t size = client.command(ST_GET_PREFS).payload.size();
    Rounds bare{};
    Rounds whole{};
    for (std::size_t round = 0; round < kRounds; ++round) {
        bare[round] = microseconds(calls, [&](int) { bareCall(client.bus(), {}, size); });
        whole[round] = microseconds(calls, [&](int) {
            if (client.command(ST_GET_PREFS).payload.size() != size) {
                throw std::runtime_error("a get's reply has another size");
            }
        });
    }
    row(fmt::format("get all, {} URLs, {} bytes of payload", urls, size * sizeof(wchar_t)), shown(median(whole)),
        fmt::format("bare call {}", shown(median(bare))), median(whole) / median(bare), "at most 1.5");
}

void measureSets(WireClient& client, const std::string& barePath, int sets) {
    const std::array payloads{payloadOf(withSwitch(ST_ENABLE, false)), payloadOf(withSwitch(ST_ENABLE, true))};
    const std::size_t replySize = payloadOf<int>(ST_ERROR_NONE).size();
    Rounds calls{};
    Rounds writes{};
    Rounds whole{};
    for (std::size_t round = 0; round < kRounds; ++round) {
        calls[round] = microseconds(sets, [&](int) { bareCall(client.bus(), payloads[0], replySize); });
        writes[round] = microseconds(sets, [&](int set) { bareWrite(barePath, set % 2); });
        whole[round] = microseconds(sets, [&](int set) {
            requireSuccess(client.code(ST_SET_PREFS_INDIVIDUAL, payloads[static_cast<std::size_t>(set % 2)]));
        });
    }
    const double bare = median(calls) + median(writes);
    row("set one switch", shown(median(whole)),
        fmt::format("bare call {} + bare write {}", shown(median(calls)), shown(median(writes))), median(whole) / bare,
        "at most 1.3");
}

void measureLists(WireClient& client, const std::string& barePath, int rows) {
    const Urls urls = urlList(rows);
    const std::wstring payload = payloadOf(withUrls(urls));
    Rounds bare{};
    Rounds whole{};
    for (std::size_t round = 0; round < kRounds; ++round) {
        BareFile(barePath).run(kNoUrls);
        bare[round] = microseconds(1, [&](int) { bareRows(barePath, urls); });
        whole[round] = microseconds(1, [&](int) { requireSuccess(client.code(ST_SET_PREFS_INDIVIDUAL, payload)); });
    }
    row(fmt::format("replace a list of {} rows", rows), shown(median(whole)),
        fmt::format("as many bare writes {}", shown(median(bare))), median(whole) / median(bare), "at most 1.2");
}

void measureLoad(Machine& machine, const std::string& barePath, int rows) {
    const std::string fill = fmt::format(
        "delete from allowblocksettings; with recursive n(i) as (select 0 union all select i+1 from n where i < {}) "
        "insert into allowblocksettings select 'http://host' || i || '.example/path', i % 2 from n",
        rows - 1);
    machine.sql(fill);
    machine.sql(fmt::format("attach '{}' as bare; delete from bare.allowblocksettings; "
                            "insert into bare.allowblocksettings select * from main.allowblocksettings",
                            barePath));
    const std::wstring question = payloadOf<int>(ST_ENABLE);
    Rounds bare{};
    Rounds whole{};
    for (std::size_t round = 0; round < kRounds; ++round) {
        static_cast<void>(machine.stopDaemon());
        if (!machine.startDaemon()) {
            throw std::runtime_error("the daemon does not start again");
        }
        WireClient client(machine.bus().socketPath());
        int loaded = 0;
        bare[round] = microseconds(1, [&](int) { loaded = bareLoad(barePath); });
        const auto get = [&](int) { client.snapshot(ST_GET_PREFS_INDIVIDUAL, question); };
        const double first = microseconds(1, get);
        whole[round] = first - microseconds(1, get);
        if (loaded != rows || urlsOf(client.snapshot(ST_GET_PREFS)).size() != static_cast<std::size_t>(rows)) {
            throw std::runtime_error("not all rows were loaded");
        }
    }
    row(fmt::format("load {} rows: the first get beyond a later one", rows), shown(median(whole)),
        fmt::format("bare open and select {}", shown(median(bare))), median(whole) / median(bare), "-");
}

struct LoadCounts {
    std::atomic<long> sent{0};
    std::atomic<long> answered{0};
    std::atomic<long> mixedUp{0};
};

/// A client that asks until the end. The first three also write, each an action of its own.
void ask(const std::string& socketPath, int number, Clock::time_point end, LoadCounts& counts) {
    constexpr std::array own{ST_RED_SITE_ACTION, ST_YELLOW_SITE_ACTION, ST_UNRATED_SITE_ACTION};
    constexpr std::array asked{ST_ENABLE, ST_SAFE_SEARCH, ST_UNVERIFIED_ACTION, ST_CATEGORY_BLOCKING,
                               ST_ALLOW_BLOCK_LIST};
    const bool writes = number < static_cast<int>(own.size());
    const auto at = static_cast<std::size_t>(number);
    const STPrefType type = writes ? own.at(at) : asked.at(at - own.size());
    WireClient client(socketPath);
    for (int value = 0; Clock::now() < end; ++value) {
        if (writes) {
            ++counts.sent;
            requireSuccess(client.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withAction(type, 1000 + value))));
            ++counts.answered;
        }
        ++counts.sent;
        const STPreferences answer = client.snapshot(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(type));
        ++counts.answered;
        const int action = std::max({answer.m_redSiteAction, answer.m_yellowSiteAction, answer.m_unratedSiteAction});
        counts.mixedUp += answer.m_prefType != type || (writes && action != 1000 + value) ? 1 : 0;
    }
}

void measureManyClients(Machine& machine, int seconds) {
    constexpr int clients = 8;
    LoadCounts counts;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    threads.reserve(clients);
    for (int number = 0; number < clients; ++number) {
        threads.emplace_back([&, number] {
            try {
                ask(machine.bus().socketPath(), number, end, counts);
            } catch (const HVB::HVBException& exception) {
                fmt::print(stderr, "client {}: {}\n", number, exception.message());
            } catch (const std::exception& exception) {
                fmt::print(stderr, "client {}: {}\n", number, exception.what());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto answered = static_cast<double>(counts.answered);
    row(fmt::format("{} clients at once for {} s: replies", clients, seconds),
        fmt::format("{:.0f} ({:.0f}/s), {} mixed up", answered, answered / seconds, counts.mixedUp.load()),
        fmt::format("{} commands", counts.sent.load()), answered / static_cast<double>(counts.sent),
        "1.00, 0 mixed up");
    if (counts.answered != counts.sent || counts.mixedUp != 0) {
        throw std::runtime_error("replies were lost or mixed up");
    }
}

int measure(const Sizes& sizes) {
    Machine machine;
    machine.setTraceLevels(0);
    machine.initSettings();
    machine.sql("pragma journal_mode=delete"); // as the bare file; kept_settings shows the other mode
    const std::string socketPath = machine.bus().socketPath();
    const OtherProcess bareModule(::geteuid(), ::getegid(), {},
                                  [&](const auto& ready) { serveBareCalls(socketPath, ready); });
    if (!machine.startDaemon()) {
        throw std::runtime_error("the daemon does not start");
    }
    const std::string barePath = machine.root().sharedDirectory() + "/bare.db";
    makeBareFile(barePath);
    fmt::print("| figure | measured | baseline | ratio | limit |\n|---|---|---|---|---|\n");
    {
        WireClient client(socketPath);
        measureGets(client, 0, sizes.calls);
        measureGets(client, 20, sizes.calls);
        measureSets(client, barePath, sizes.sets);
        measureLists(client, barePath, sizes.listRows);
    }
    measureLoad(machine, barePath, sizes.loadRows);
    measureManyClients(machine, sizes.loadSeconds);
    return machine.stopDaemon();
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::strcmp(argv[1], "--brief") == 0;
    if (argc > 1 && !brief) {
        std::fputs("usage: preference_path [--brief]\n", stderr);
        return 2;
    }
    try {
        return measure(brief ? kBrief : kFull);
    } catch (const HVB::HVBException& exception) {
        fmt::print(stderr, "preference_path: {}\n", exception.message());
    } catch (const std::exception& exception) {
        fmt::print(stderr, "preference_path: {}\n", exception.what());
    }
    return 1;
}
