// What the daemon says of itself, as people and as programs read it.
#include "apps/sentrelctl/verbs/StatusLayout.h"
#include "apps/sentrelctl/terminal/Json.h"

#include <gtest/gtest.h>
#include <tuple>
#include <vector>

namespace Sentrel::ctl {
namespace {

const KnownHealth kWell{"well", "2023-11-14T22:13:20Z", ""};
const KnownReports kNoneWait{};
const ratings::RatingStatus kNoLists{true, "no rating list was imported"};
constexpr const char* kNoListsRow =
    "ratings            none: only your own lists and categories act; 'sentrelctl ratings import' brings a list in\n";

KnownBesides besides(const KnownHealth& health = kWell, const KnownReports& reports = kNoneWait,
                     const ratings::RatingStatus& lists = kNoLists) {
    return {health, reports, lists};
}

DashBoardDispalyContents line(int status, const wchar_t* token = L"ENABLED_STRING") {
    DashBoardDispalyContents contents;
    contents.m_status = static_cast<DashBoardStatus>(status);
    contents.m_displayText = token;
    return contents;
}

AboutBoxData about(const std::map<std::wstring, std::wstring>& items) {
    AboutBoxData data;
    data.m_moduleId = 7;
    data.m_versionItems = items;
    return data;
}

TEST(AStatus, IsToldInWordsWithItsReason) {
    const std::vector<std::tuple<int, std::string>> all{
        {0, "status             enabled\nmanaged            no\nprotection         on\n"
            "reason             the preference says on\n"},
        {2, "status             disabled\nmanaged            no\nprotection         off\n"
            "reason             the preference says off\n"},
        {3, "status             enabled\nmanaged            yes\nprotection         on\n"
            "reason             the preference says on\n"},
        {4, "status             disabled\nmanaged            yes\nprotection         off\n"
            "reason             the preference says off, and no policy says on\n"},
        {5, "status             at risk\nmanaged            yes\nprotection         off\n"
            "reason             the policy says on, the preference says off\n"},
    };
    for (const auto& [status, text] : all) {
        EXPECT_EQ(statusText(line(status), besides(), Palette()),
                  text + kNoListsRow +
                      "health             well since 2023-11-14T22:13:20Z\n"
                      "reports            0 waiting for the hub, 0 refused\n");
    }
}

TEST(AStatus, IsToldToPrograms) {
    EXPECT_EQ(jsonText(statusJson(line(5, L"DISABLED_STRING"), besides()), JsonMode::Short),
              R"({"status":"at risk","code":5,"token":"DISABLED_STRING","managed":true,"protection":false,)"
              R"("reason":"the policy says on, the preference says off",)"
              R"("rating_lists":0,"rated_hosts":0,"ratings_error":null,"health":"well",)"
              R"("health_since":"2023-11-14T22:13:20Z","health_error":null,)"
              R"("reports_waiting":0,"reports_refused":0,"reports_damaged":0,"reports_error":null})"
              "\n");
}

TEST(AStatus, ThatIsNotKnownIsShownAsItCame) {
    EXPECT_EQ(statusText(line(8, L"\x1b[2J"), besides(), Palette()),
              "status             8 (\\x1b[2J)\n"
              "reason             this sentrelctl does not know that status\n" +
                  std::string(kNoListsRow) +
                  "health             well since 2023-11-14T22:13:20Z\n"
                  "reports            0 waiting for the hub, 0 refused\n");
    EXPECT_EQ(
        jsonText(statusJson(line(1), besides()), JsonMode::Short),
        R"({"status":"unknown","code":1,"token":"ENABLED_STRING","managed":null,"protection":null,)"
        R"("reason":null,"rating_lists":0,"rated_hosts":0,"ratings_error":null,"health":"well","health_since":"2023-11-14T22:13:20Z","health_error":null,)"
        R"("reports_waiting":0,"reports_refused":0,"reports_damaged":0,"reports_error":null})"
        "\n");
}

TEST(AStatus, SaysWhyTheHealthIsNotKnown) {
    const KnownHealth unknown{"unknown", "", "hvbd is not running"};
    EXPECT_TRUE(
        statusText(line(0), besides(unknown), Palette()).find("\nhealth             unknown: hvbd is not running\n") !=
        std::string::npos);
    Json json = statusJson(line(0), besides(unknown));
    EXPECT_EQ(json["health"], "unknown");
    EXPECT_EQ(json["health_since"], nullptr);
    EXPECT_EQ(json["health_error"], "hvbd is not running");
}

TEST(AStatus, TellsWhatBecameOfTheReports) {
    const KnownReports some{.waiting = 3, .refused = 2, .damaged = 1, .error = ""};
    EXPECT_TRUE(statusText(line(0), besides(kWell, some), Palette())
                    .ends_with("\nreports            3 waiting for the hub, 2 refused, 1 damaged\n"));
    Json told = statusJson(line(0), besides(kWell, some));
    EXPECT_EQ(told["reports_waiting"], std::uint64_t{3});
    EXPECT_EQ(told["reports_refused"], std::uint64_t{2});
    EXPECT_EQ(told["reports_damaged"], std::uint64_t{1});
    const KnownReports unknown{.error = "no\nspool"};
    EXPECT_TRUE(statusText(line(0), besides(kWell, unknown), Palette())
                    .ends_with("\nreports            unknown: no\\x0aspool\n"));
    Json untold = statusJson(line(0), besides(kWell, unknown));
    EXPECT_EQ(untold["reports_waiting"], nullptr);
    EXPECT_EQ(untold["reports_error"], "no\nspool");
}

TEST(AStatus, CountsTheRatingListsAndTheirHosts) {
    const ratings::RatingStatus two{true,
                                    "",
                                    {{.name = "bad", .source = "", .licence = "", .count = 3},
                                     {.name = "ads", .source = "", .licence = "", .count = 4}}};
    EXPECT_NE(statusText(line(0), besides(kWell, kNoneWait, two), Palette())
                  .find("\nratings            2 lists with 7 hosts\n"),
              std::string::npos);
    Json told = statusJson(line(0), besides(kWell, kNoneWait, two));
    EXPECT_EQ(told["rating_lists"], std::uint64_t{2});
    EXPECT_EQ(told["rated_hosts"], std::uint64_t{7});
    EXPECT_EQ(told["ratings_error"], nullptr);
}

TEST(AStatus, SaysWhyTheRatingsAreOutOfUse) {
    const ratings::RatingStatus old{false, "the newest\nlist is old"};
    EXPECT_NE(statusText(line(0), besides(kWell, kNoneWait, old), Palette())
                  .find("\nratings            out of use: the newest\\x0alist is old\n"),
              std::string::npos);
    EXPECT_EQ(statusJson(line(0), besides(kWell, kNoneWait, old))["ratings_error"], "the newest\nlist is old");
}

TEST(AStatus, CatchesTheEyeWhenTheMachineIsNotProtectedOrNotWell) {
    const Palette palette = Palette::of(true);
    const std::string alarm = palette.alarm;
    EXPECT_NE(statusText(line(5), besides(), palette).find(alarm + "at risk"), std::string::npos);
    EXPECT_NE(statusText(line(0), besides({"silent", "then", ""}), palette).find(alarm + "silent"), std::string::npos);
    EXPECT_EQ(statusText(line(0), besides(), palette).find(alarm), std::string::npos);
}

TEST(ADashboard, HasNoStatusLineUnderAnotherKey) {
    DashBoardData data;
    data.m_statusItems[L"SOMETHING_ELSE"] = line(0);
    EXPECT_FALSE(statusLine(data));
    data.m_statusItems[L"ST_DASHBOARD_STATUS_KEY"] = line(3);
    EXPECT_EQ(statusLine(data)->m_status, DASHBOARD_MANAGED_ENABLED);
}

TEST(TheVersions, AreARowEach) {
    EXPECT_EQ(
        aboutText(
            about({{L"Sentrel_Version", L"1.2 3 (456)"}, {L"Sentrel_SPVersion", L"SP2"}, {L"Sentrel_HF", L"HF7 HF8"}}),
            Palette()),
        "version            1.2 3 (456)\n"
        "service-pack       SP2\n"
        "hotfixes           HF7 HF8\n");
}

TEST(TheVersions, AreNoneWhereThereIsNoTextOrABlankOne) {
    EXPECT_EQ(aboutText(about({{L"Sentrel_Version", L"1.2 (456)"}, {L"Sentrel_SPVersion", L"  "}}), Palette()),
              "version            1.2 (456)\n"
              "service-pack       none\n"
              "hotfixes           none\n");
}

TEST(TheVersions, AreGivenToProgramsAsTheyCame) {
    EXPECT_EQ(jsonText(aboutJson(about({{L"Sentrel_Version", L"\xe9 (1)"}, {L"Sentrel_HF", L""}})), JsonMode::Short),
              R"json({"module":7,"version":"\u00e9 (1)","service_pack":null,"hotfixes":""})json"
              "\n");
}

} // namespace
} // namespace Sentrel::ctl
