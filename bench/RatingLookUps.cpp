// What do rating lists of a million and of ten million hosts cost?
//
// For each length in one run: bringing the list in (read, put in order, kept, compiled), the sizes of both files, and a
// look-up of a page's site: of one that is named, of one below it, and of one that no list names. Each look-up's
// page is another, so that the machine's caches help as little as they can. The limit of a look-up is two microseconds;
// the baseline is reading a page's address, which comes before it. Memory: what the reader holds of its own, and what
// is resident once the look-ups are done, which is the file's and shared by all readers.
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
#include <stdexcept>
#include <string>
#include <string_view>
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

/// Microseconds a look-up.
double lookUp(const ratings::RatingDatabase& database, const std::vector<browsing::WebUrl>& all, int rating) {
    const Clock::time_point begin = Clock::now();
    std::size_t wrong = 0;
    for (const browsing::WebUrl& page : all) {
        const ratings::SiteRating* const found = database.find(page);
        wrong += found == nullptr || found->standing.rating != rating ? 1U : 0U;
    }
    const double seconds = secondsSince(begin);
    if (wrong != 0) {
        throw std::runtime_error(fmt::format("{} of {} look-ups gave something else", wrong, all.size()));
    }
    return seconds * 1e6 / static_cast<double>(all.size());
}

double baseline(std::size_t rounds) {
    const Clock::time_point begin = Clock::now();
    std::size_t bytes = 0;
    for (std::size_t round = 0; round < rounds; ++round) {
        bytes += std::get<0>(browsing::parseWebUrl("https://" + hostNumber(round) + "/page")).host.size();
    }
    return bytes == 0 ? 0 : secondsSince(begin) * 1e6 / static_cast<double>(rounds);
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
    fmt::print("| {} hosts: bringing in | {:.1f} s | - | - |\n", hosts, secondsSince(begin));
    const auto mebibytes = [&directory](const char* name) {
        return static_cast<double>(std::filesystem::file_size(directory.path() / "ratings" / name)) / (1U << 20U);
    };
    fmt::print("| database; kept list | {:.0f} MiB; {:.0f} MiB | - | - |\n", mebibytes("ratings.cdb"),
               mebibytes("list.list"));
    const std::vector<std::vector<browsing::WebUrl>> kinds{
        pages(hosts, rounds, "", ""), pages(hosts, rounds, "www.a.", ""), pages(hosts, rounds, "", ".other")};
    const auto before = residentKibibytes();
    const ratings::RatingDatabase database(directory.file("ratings/ratings.cdb"));
    const char* const names[] = {"a host of the list", "a name two below one", "a site of no list"};
    for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
        const double cost = lookUp(database, kinds[kind], kind == 2 ? browsing::kNoRating : 60);
        fmt::print("| {} | {:.2f} us | {:.0f} us | {:.2f} |\n", names[kind], cost, kLimitMicroseconds,
                   cost / kLimitMicroseconds);
    }
    const auto after = residentKibibytes();
    fmt::print("| memory: the reader's own; of the file | {} KiB; {} MiB | - | - |\n",
               after.first - std::min(after.first, before.first),
               (after.second - std::min(after.second, before.second)) >> 10U);
}

void run(bool brief) {
    const std::size_t rounds = brief ? 1000 : 500'000;
    fmt::print(
        "| figure | measured | limit | ratio |\n|---|---|---|---|\n| reading the address alone | {:.2f} us | - | - |\n",
        baseline(rounds));
    for (const std::uint64_t hosts :
         brief ? std::vector<std::uint64_t>{10'000} : std::vector<std::uint64_t>{1'000'000, 10'000'000}) {
        measure(hosts, rounds);
    }
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::string_view(argv[1]) == "--brief";
    if (argc > 1 && !brief) {
        std::fputs("usage: rating_look_ups [--brief]\n", stderr);
        return 2;
    }
    try {
        run(brief);
        return 0;
    } catch (const std::exception& exception) {
        fmt::print(stderr, "rating_look_ups: {}\n", exception.what());
        return 1;
    }
}
