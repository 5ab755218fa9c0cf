// What does a decision on a page cost, with a list of ten entries and of a hundred thousand?
//
// Each length in one run: building the rules of a snapshot, and what they take of memory; a decision on a page that no
// entry names, on one that an entry names, and on one of a host with five thousand entries. The baseline is reading the
// address alone, which no decision can do without. Times are of the processor. The limit of a decision is ten
// microseconds, whatever the list has.
//
// Usage: page_decisions [--brief]
#include "browser/decision/PageDecision.h"
#include "tests/support/ProcessMemory.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fmt/format.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using namespace Sentrel;

/// Processor time of this process; nothing here waits, and what others do is no cost of a decision.
struct Clock {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<Clock, duration>;
    static time_point now() {
        timespec time{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
    }
};

constexpr double kLimitMicroseconds = 10;
constexpr int kOfOneHost = 5000;

/// Microseconds for one round of @p work, as the median of three.
template <class Work>
double microseconds(int rounds, const Work& work) {
    std::vector<double> each;
    for (int turn = 0; turn < 3; ++turn) {
        const Clock::time_point begin = Clock::now();
        for (int round = 0; round < rounds; ++round) {
            work(round);
        }
        each.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / rounds);
    }
    std::sort(each.begin(), each.end());
    return each[1];
}

settings::SettingsSnapshot settingsWith(int entries) {
    settings::SettingsSnapshot snapshot;
    snapshot.state = settings::SnapshotState::Whole;
    for (int number = 0; number < entries; ++number) {
        const bool isOfOneHost = number % 20 == 0 && number < 20 * kOfOneHost;
        snapshot.allowBlock.push_back(
            {isOfOneHost ? fmt::format("https://many.example/folder/{}/page", number)
                         : fmt::format("{}host{}.example/some/path", number % 3 == 0 ? "*." : "", number),
             number % 2});
    }
    snapshot.privateRanges = {"10.0.0.0/8", "172.16.0.0/12", "192.168.0.0/16"};
    snapshot.categories = {{"Games", 3}, {"Gambling", 3}};
    return snapshot;
}

void measure(int entries, int rounds) {
    const settings::SettingsSnapshot snapshot = settingsWith(entries);
    const double before = testing_support::processMebibytes(::getpid());
    const Clock::time_point begin = Clock::now();
    const browsing::PageRules rules(snapshot);
    const double build = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    const double memory = testing_support::processMebibytes(::getpid()) - before;
    const browsing::SiteStanding standing{
        .rating = 40, .categories = {{"News", 1}}, .isPhishing = false, .isReachable = true};
    fmt::print("| {} entries | built in {:.1f} ms | {:.1f} MiB | |\n", entries, build, memory);
    const auto row = [&](const char* name, const std::string& url, bool isNamed) {
        const double cost = microseconds(rounds, [&](int) {
            if ((rules.decide(url, standing).entry != browsing::SiteList::kNone) != isNamed) {
                throw std::runtime_error("the wrong decision on " + url);
            }
        });
        fmt::print("| {} | {:.2f} us | {:.0f} us | {:.2f} |\n", name, cost, kLimitMicroseconds,
                   cost / kLimitMicroseconds);
    };
    row("a page in no entry", "https://www.news.site.example/a/path/of/some/page.html?id=12345&from=here", false);
    row("a page in an entry", "https://www.host3.example/some/path/and/more?id=12345", true);
    row("a page of a host with many entries", "https://many.example/folder/0/page/x?id=12345", true);
}

void run(bool brief) {
    const int rounds = brief ? 100 : 100'000;
    const std::string url = "https://www.news.site.example/a/path/of/some/page.html?id=12345&from=here";
    std::size_t bytes = 0;
    const double baseline =
        microseconds(rounds, [&](int) { bytes += std::get<0>(browsing::parseWebUrl(url)).target.size(); });
    fmt::print(
        "| figure | measured | limit | ratio |\n|---|---|---|---|\n| reading the address alone | {:.2f} us | - | - |\n",
        baseline);
    for (const int entries : brief ? std::vector{10, 1000} : std::vector{10, 100'000}) {
        measure(entries, rounds);
    }
    if (bytes == 0) {
        throw std::runtime_error("no address was read");
    }
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::string_view(argv[1]) == "--brief";
    if (argc > 1 && !brief) {
        std::fputs("usage: page_decisions [--brief]\n", stderr);
        return 2;
    }
    try {
        run(brief);
        return 0;
    } catch (const std::exception& exception) {
        fmt::print(stderr, "page_decisions: {}\n", exception.what());
        return 1;
    }
}
