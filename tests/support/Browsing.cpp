#include "tests/support/Browsing.h"

#include "events/ReportRecords.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "tests/support/ArchiveValue.h"
#include "tests/support/Eventually.h"

#include <algorithm>
#include <map>
#include <ostream>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

namespace testing_support {

using std::chrono::microseconds;
using std::chrono::steady_clock;

Browsing::Browsing(Machine& machine, std::string name, int eventsPerSecond)
    : m_machine(machine), m_name(std::move(name)) {
    const microseconds pause = std::chrono::duration_cast<microseconds>(std::chrono::seconds(1)) / eventsPerSecond;
    m_thread = std::thread([this, pause] { run(pause); });
}

Browsing::~Browsing() {
    stop();
}

void Browsing::stop() {
    m_stop.wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void Browsing::run(microseconds pause) {
    auto next = steady_clock::now();
    for (int number = 0; !m_stop.waitUntil(next); ++number) {
        const auto begin = steady_clock::now();
        try {
            m_machine.deliver(sampleEvent("http://" + m_name + ".example/" + std::to_string(number)));
            ++m_sent;
            const auto took = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin).count();
            m_slowest = std::max<std::int64_t>(m_slowest, took);
        } catch (const std::system_error&) {
            // No daemon: a browser drops the event.
        }
        next = std::max(next + pause, begin);
    }
}

std::ostream& operator<<(std::ostream& out, const Account& account) {
    return out << account.taken << " taken, " << account.stored << " stored, " << account.lost << " lost, "
               << account.twice << " twice, " << account.outOfOrder << " out of order";
}

std::vector<std::string> takenUrls(const Machine& machine) {
    constexpr std::string_view urlLine = "EventReporter::sendBlockEventToHVB - URL - ";
    constexpr std::string_view takenLine = "HVBLogWrapper::sendMgsEvent";
    std::vector<std::string> taken;
    std::string url;
    for (const std::string& line : machine.traceLines()) {
        if (const std::size_t at = line.find(urlLine); at != std::string::npos) {
            url = line.substr(at + urlLine.size());
            url.erase(url.find_last_not_of(' ') + 1);
        } else if (line.ends_with(takenLine)) {
            taken.push_back(url);
        }
    }
    return taken;
}

std::vector<std::string> storedUrls(Machine& machine) {
    std::vector<std::string> urls;
    for (const Machine::Stored& record : machine.stored()) {
        const auto detail = valueIn<DetailReportData>(record.detail);
        const std::wstring url = detail.attributes.at(L"SourceURL");
        urls.emplace_back(url.begin(), url.end());
    }
    return urls;
}

Account accountOf(const std::vector<std::string>& taken, const std::vector<std::string>& stored) {
    Account account{.taken = taken.size(), .stored = stored.size()};
    std::map<std::string, std::size_t> places;
    for (std::size_t place = 0; place < stored.size(); ++place) {
        account.twice += places.emplace(stored[place], place).second ? 0U : 1U;
    }
    std::size_t last = 0;
    for (const std::string& url : taken) {
        const auto found = places.find(url);
        if (found == places.end()) {
            ++account.lost;
            continue;
        }
        account.outOfOrder += found->second < last ? 1U : 0U;
        last = std::max(last, found->second);
    }
    return account;
}

Account settledAccount(Machine& machine) {
    Account account;
    static_cast<void>(eventually([&] {
        try {
            account = accountOf(takenUrls(machine), storedUrls(machine));
            return account.lost == 0;
        } catch (const HVB::HVBException&) {
            return false; // the hub is not back yet
        }
    }));
    return account;
}

} // namespace testing_support
