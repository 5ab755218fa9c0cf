// Which event follows the change of which preference: the table of types, a row each.
#include "base/Paths.h"
#include "daemon/Trace.h"
#include "hub/Exceptions.h"
#include "tests/unit/store/PreferenceFixture.h"

namespace testing_support {
namespace {

struct Row {
    int type;
    std::vector<int> events;
    const char* line; ///< at level 3; null: none
};

class AChangedPreference : public PreferenceFixture, public testing::WithParamInterface<Row> {};

constexpr const char* kPreferences = "3 Sending EVT_PREFERENCES_CHANGE event";
constexpr const char* kDashboard = "3 Sending EVT_DASHBOARD_STATUS_CHANGE event";
constexpr const char* kBoth = "3 Sending EVT_PREFERENCES_CHANGE & EVT_DASHBOARD_STATUS_CHANGE event";

INSTANTIATE_TEST_SUITE_P(
    Each, AChangedPreference,
    testing::Values(Row{0, {1002}, kDashboard}, Row{1, {1003}, kPreferences}, Row{2, {1003}, kPreferences},
                    Row{3, {1003}, kPreferences}, Row{4, {1003}, kPreferences}, Row{5, {}, nullptr},
                    Row{6, {}, nullptr}, Row{7, {1003}, kPreferences}, Row{8, {1003}, kPreferences},
                    Row{9, {1003}, kPreferences}, Row{10, {1003, 1002}, kBoth}, Row{11, {}, nullptr},
                    Row{32 + 7, {}, nullptr}, Row{-1, {}, nullptr}, Row{2147483647, {}, nullptr}),
    [](const auto& row) {
        return row.param.type < 0 ? std::string("TypeMinusOne") : "Type" + std::to_string(row.param.type);
    });

TEST_P(AChangedPreference, IsToldByTheEventsOfItsType) {
    controller().signalPrefChange(static_cast<Sentrel::STPrefType>(GetParam().type));
    std::vector<SentEvent> expected;
    std::vector<std::string> calls;
    for (const int id : GetParam().events) {
        expected.push_back({id, false});
        calls.push_back("getInstance " + Sentrel::paths::hubSocket());
        calls.push_back("sendEventNotification " + std::to_string(id));
    }
    EXPECT_EQ(Recording::instance().events, expected);
    EXPECT_EQ(Recording::instance().calls(), calls);
}

TEST_P(AChangedPreference, IsTracedWithItsEvents) {
    const Lines lines = leveled(
        [] { controller(); }, [] { controller().signalPrefChange(static_cast<Sentrel::STPrefType>(GetParam().type)); });
    Lines expected{"2 STPreferenceController::signalPrefChange entered"};
    if (GetParam().line != nullptr) {
        expected.emplace_back(GetParam().line);
    }
    expected.emplace_back("5 STPreferenceController::signalPrefChange completed");
    EXPECT_EQ(lines, expected);
}

class ASignal : public PreferenceFixture {};

TEST_F(ASignal, PassesOnTheBrokersExceptionAndSendsNoFurtherEvent) {
    Recording::instance().before = [](const std::string& operation) {
        if (operation == "sendEventNotification") {
            throw HVB::HVBException(-1, "no hub");
        }
    };
    const TraceLog log;
    EXPECT_THROW(controller().signalPrefChange(Sentrel::ST_ALL_PREFERENCES), HVB::HVBException);
    EXPECT_EQ(Recording::instance().calls().back(), "sendEventNotification 1003");
    EXPECT_FALSE(log.has("STPreferenceController::signalPrefChange completed"));
}

} // namespace
} // namespace testing_support
