// One browser decision becomes one log record. Real: records, carriers, archives, URL rules, trace. Not real: the hub
// (recorded), the machine's name and address, who sits at the console.
#pragma once

#include "events/EventReporter.h"
#include "events/ReportRecords.h"
#include "tests/support/ArchiveValue.h"
#include "tests/support/RecordingBroker.h"
#include "tests/unit/events/ConsoleUserDouble.h"
#include "tests/unit/events/SystemDouble.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace testing_support {

template <std::size_t Size>
void put(char (&field)[Size], std::string_view text) {
    ASSERT_LE(text.size(), Size);
    std::memset(field, 0, Size);
    std::memcpy(field, text.data(), text.size());
}

/// A blocked page of a high risk, seen by a browser.
inline STEventData redPage() {
    STEventData event{};
    put(event.eventId, "1");
    put(event.url, "http://shop.example/pay?x=1");
    put(event.browserProcessName, "browser");
    event.urlRating = 60;
    event.action = 3;
    event.isRpxReachable = 1;
    event.count = 4;
    return event;
}

inline STEventData withUrl(std::string_view url) {
    STEventData event = redPage();
    put(event.url, url);
    return event;
}

/// One wide character a byte, sign-extended.
inline std::wstring wide(std::string_view bytes) {
    std::wstring text;
    for (const char byte : bytes) {
        const int value = static_cast<unsigned char>(byte);
        text += static_cast<wchar_t>(value < 128 ? value : value - 256);
    }
    return text;
}

inline std::wstring now() {
    const std::time_t seconds = std::time(nullptr);
    const std::tm utc = *std::gmtime(&seconds);
    wchar_t text[64] = L"";
    EXPECT_NE(std::wcsftime(text, std::size(text), L"%Y-%m-%dT%H:%M:%SZ", &utc), 0U);
    return text;
}

/// A reporter on the machine "unit.example", 192.0.2.17, where mara sits at the console.
class AnEventReporter : public testing::Test {
protected:
    AnEventReporter() {
        SystemDouble::instance() = {};
        SystemDouble::instance().hostName = machineNamed("unit.example");
        SystemDouble::instance().lookUp = resolverWith({"192.0.2.17"});
        ConsoleUserDouble::instance() = {};
        ConsoleUserDouble::instance().user = "mara";
    }
    ~AnEventReporter() override {
        SystemDouble::instance() = {};
        ConsoleUserDouble::instance() = {};
        Recording::instance().before = nullptr;
    }

    void send(STEventData event) { reporter.sendSTEvent(event); }

    /// The records that sending @p event hands to the hub.
    std::vector<SentLog> sentFor(const STEventData& event) {
        Recording::instance().logs.clear();
        send(event);
        return Recording::instance().logs;
    }
    bool reports(const STEventData& event) { return !sentFor(event).empty(); }

    ReportData reportOf(const STEventData& event) {
        const auto logs = sentFor(event);
        EXPECT_EQ(logs.size(), 1U);
        return logs.empty() ? ReportData() : valueIn<ReportData>(logs.front().text);
    }
    DetailReportData detailOf(const STEventData& event) {
        const auto logs = sentFor(event);
        EXPECT_EQ(logs.size(), 1U);
        return logs.empty() ? DetailReportData() : valueIn<DetailReportData>(logs.front().detailText);
    }
    /// The text under @p key, "(none)" when there is no such key.
    std::wstring attribute(const STEventData& event, const wchar_t* key) {
        const auto attributes = detailOf(event).attributes;
        const auto found = attributes.find(key);
        return found == attributes.end() ? L"(none)" : found->second;
    }
    std::wstring information(const STEventData& event, const wchar_t* key) {
        const auto info = detailOf(event).info;
        EXPECT_LE(info.count(key), 1U);
        const auto found = info.find(key);
        return found == info.end() ? L"(none)" : found->second;
    }

    /// What the hub was asked for in this test.
    std::vector<std::string> calls() {
        const auto all = Recording::instance().calls();
        return {all.begin() + static_cast<std::ptrdiff_t>(earlierCalls), all.end()};
    }

    EventReporter& reporter = *EventReporter::getInstance();
    const std::size_t earlierCalls = Recording::instance().calls().size();
};

} // namespace testing_support
