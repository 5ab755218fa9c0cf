// What do rating lists of a million and of ten million hosts cost?
//
// For each length in one run: bringing the list in (read, put in order, kept, compiled), the sizes of both files, and a
// look-up of a page's site: of one that is named, of one below it, and of one that no list names. A process of its own
// looks up, so that its memory is that of a reader alone. Each look-up's page is another, so that the machine's caches
// help as little as they can, and each is timed by itself: the limit of two microseconds is for the median, and the
// 99th percentile has what the first touch of a page of the file costs. The clock's own cost is in all of them, and is
// told beside reading a page's address, which comes before each look-up. Memory: the process's own, and what is
// resident of the file once the look-ups are done, which all readers share.
//
// Usage: rating_look_ups [--brief]
#include "browser/ratings/ListStore.h"
#include "browser/ratings/RatingDatabase.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace Sentrel;
using Clock = std::chrono::steady_clock;

constexpr double kLimitMicroseconds = 2;
constexpr std::uint64_t kStride = 7'368'787; // a prime, so that look-ups jump through the file

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string hostNumber(std::uint64_t number) {
    return fmt::format("host-{:x}.site{}.example", number * 0x9E3779B97F4A7C15U, number % 1000);
}

/// KiB of this process: its own, and of files that it has mapped.
std::pair<std::size_t, std::size_t> residentKibibytes() {
    std::ifstream status("/proc/self/status");
    std::pair<std::size_t, std::size_t> result;
    for (std::string word; status >> word;) {
        if (word == "RssAnon:") {
            status >> result.first;
        } else if (word == "RssFile:") {
            status >> result.second;
        }
    }
    return result;
}

std::vector<browsing::WebUrl> pages(std::uint64_t hosts, std::size_t rounds, const char* before, const char* behind) {
    std::vector<browsing::WebUrl> result;
    for (std::size_t round = 0; round < rounds; ++round) {
        const std::string host = before + hostNumber(round * kStride % hosts) + behind;
        result.push_back(std::get<0>(browsing::parseWebUrl("https://" + host + "/page")));
    }
    return result;
}

/// Of many times: the one in the middle, and the one that a hundredth is above, in microseconds.
struct Spread {
    double median;
    double late;
};

Spread spreadOf(std::vector<double> all) {
    std::sort(all.begin(), all.end());
    return {all[all.size() / 2], all[all.size() * 99 / 100]};
}

/// Times each @p work by itself.
template <class Work>
Spread timeEach(std::size_t rounds, const Work& work) {
    std::vector<double> all;
    all.reserve(rounds);
    for (std::size_t round = 0; round < rounds; ++round) {
        const Clock::time_point begin = Clock::now();
        work(round);
        all.push_back(secondsSince(begin) * 1e6);
    }
    return spreadOf(std::move(all));
}

Spread lookUp(const ratings::RatingDatabase& database, const std::vector<browsing::WebUrl>& all, int rating) {
    std::size_t wrong = 0;
    const Spread spread = timeEach(all.size(), [&](std::size_t round) {
        const ratings::SiteRating* const found = database.find(all[round]);
        wrong += found == nullptr || found->standing.rating != rating ? 1U : 0U;
    });
    if (wrong != 0) {
        throw std::runtime_error(fmt::format("{} of {} look-ups gave something else", wrong, all.size()));
    }
    return spread;
}

/// What a reader does, in a process that has done nothing else.
void lookUpIn(const std::string& path, std::uint64_t hosts, std::size_t rounds) {
    const std::vector<std::vector<browsing::WebUrl>> kinds{
        pages(hosts, rounds, "", ""), pages(hosts, rounds, "www.a.", ""), pages(hosts, rounds, "", ".other")};
    const auto before = residentKibibytes();
    const ratings::RatingDatabase database(path);
    const auto opened = residentKibibytes();
    const char* const names[] = {"a host of the list", "a name two below one", "a site of no list"};
    for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
        const Spread cost = lookUp(database, kinds[kind], kind == 2 ? browsing::kNoRating : 60);
        fmt::print("| {} | {:.2f} us | {:.2f} us | {:.0f} us | {:.2f} |\n", names[kind], cost.median, cost.late,
                   kLimitMicroseconds, cost.median / kLimitMicroseconds);
    }
    fmt::print("| memory: the reader's own; of the file | {} KiB; {} MiB | - | - | - |\n",
               opened.first - std::min(opened.first, before.first),
               (residentKibibytes().second - before.second) >> 10U);
}

void printBaseline(std::size_t rounds) {
    const Spread clock = timeEach(rounds, [](std::size_t) {});
    fmt::print("| the clock alone | {:.2f} us | {:.2f} us | - | - |\n", clock.median, clock.late);
    std::size_t bytes = 0;
    std::vector<std::string> addresses;
    for (std::size_t round = 0; round < rounds; ++round) {
        addresses.push_back("https://" + hostNumber(round) + "/page");
    }
    const Spread reading = timeEach(
        rounds, [&](std::size_t round) { bytes += std::get<0>(browsing::parseWebUrl(addresses[round])).host.size(); });
    if (bytes == 0) {
        throw std::runtime_error("no address was read");
    }
    fmt::print("| reading the address alone | {:.2f} us | {:.2f} us | - | - |\n", reading.median, reading.late);
}

void lookUpElsewhere(const std::string& path, std::uint64_t hosts, std::size_t rounds) {
    std::fflush(stdout);
    const std::vector<std::string> words{"rating_look_ups", "--read", path, std::to_string(hosts),
                                         std::to_string(rounds)};
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    pid_t child = 0;
    if (::posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments.data(), environ) != 0) {
        throw std::runtime_error("the reader cannot be started");
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (status != 0) {
        throw std::runtime_error("the reader failed");
    }
}

void measure(std::uint64_t hosts, std::size_t rounds) {
    const testing_support::TemporaryDirectory directory;
    {
        std::ofstream file(directory.file("list.txt"));
        for (std::uint64_t number = 0; number < hosts; ++number) {
            file << hostNumber(number) << '\n';
        }
    }
    ratings::ListHead head;
    head.facts.name = "list";
    head.facts.rating = 60;
    head.file = directory.file("list.txt");
    ratings::ListStore store(directory.file("ratings"));
    const Clock::time_point begin = Clock::now();
    store.import(head, -1);
    fmt::print("| {} hosts: bringing in | {:.1f} s | - | - | - |\n", hosts, secondsSince(begin));
    const auto mebibytes = [&directory](const char* name) {
        return static_cast<double>(std::filesystem::file_size(directory.path() / "ratings" / name)) / (1U << 20U);
    };
    fmt::print("| database; kept list | {:.0f} MiB; {:.0f} MiB | - | - | - |\n", mebibytes("ratings.cdb"),
               mebibytes("list.list"));
    lookUpElsewhere(directory.file("ratings/ratings.cdb"), hosts, rounds);
}

void run(bool brief) {
    const std::size_t rounds = brief ? 1000 : 500'000;
    fmt::print("| figure | median | p99 | limit of the median | ratio |\n|---|---|---|---|---|\n");
    printBaseline(rounds);
    for (const std::uint64_t hosts :
         brief ? std::vector<std::uint64_t>{10'000} : std::vector<std::uint64_t>{1'000'000, 10'000'000}) {
        measure(hosts, rounds);
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const bool brief = words == std::vector<std::string>{"--brief"};
    const bool reads = words.size() == 4 && words[0] == "--read";
    if (!words.empty() && !brief && !reads) {
        std::fputs("usage: rating_look_ups [--brief]\n", stderr);
        return 2;
    }
    try {
        if (reads) {
            lookUpIn(words[1], std::stoull(words[2]), std::stoull(words[3]));
        } else {
            run(brief);
        }
        return 0;
    } catch (const std::exception& exception) {
        fmt::print(stderr, "rating_look_ups: {}\n", exception.what());
        return 1;
    }
}
