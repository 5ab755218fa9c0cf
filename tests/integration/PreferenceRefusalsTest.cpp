// Preference commands that the daemon refuses: of no known type, with payloads that lie, or without the hub's
// configuration of the module.
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/integration/PreferenceStoreFixture.h"
#include "tests/support/Eventually.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace testing_support {
namespace {

using namespace Sentrel;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(APreferenceStore, AnswersAnUnknownTypeAsFailedWithoutAPayload) {
    for (const int type : {9, 10, -1, 2'000'000'000}) {
        HVB::CommandData command(ST_GET_PREFS_INDIVIDUAL, HVB::MODULE_SENTREL, true);
        command.writePayload(type);
        HVB::CommandResult result;
        client.send(command, result);
        EXPECT_FALSE(result.m_bSucceeded) << type;
        EXPECT_TRUE(result.m_bValid) << type;
        EXPECT_EQ(result.m_pInArchive, nullptr) << type;
    }
    const WireClient::Answer answer = WireClient(machine.bus().socketPath()).command(ST_GET_PREFS_INDIVIDUAL);
    EXPECT_EQ(answer.error, "") << "a request without a type gets the same reply";
    EXPECT_FALSE(answer.succeeded);
    EXPECT_TRUE(answer.valid);
    EXPECT_FALSE(answer.hasPayload);
}

TEST_F(APreferenceStore, RefusesASingleSnapshotThatNamesNoPreference) {
    client.listen();
    for (const int type : {9, 10, -1}) {
        EXPECT_EQ(client.setOne(individual(static_cast<STPrefType>(type))), ST_ERROR_INVALID_PREFERENCE) << type;
    }
    STPreferences unmarked = withSwitch(ST_CATEGORY_BLOCKING, false);
    unmarked.m_bIndividual = false;
    EXPECT_EQ(client.setOne(unmarked), ST_ERROR_INVALID_PREFERENCE);
    EXPECT_EQ(client.sendEmpty(ST_SET_PREFS_INDIVIDUAL), ST_ERROR_INVALID_PREFERENCE);
    EXPECT_EQ(allRows(), "");
    EXPECT_EQ(scalarsOf(client.getAll()), kFreshScalars);
    EXPECT_THAT(eventsToTheEnd(), IsEmpty());
}

TEST_F(APreferenceStore, RefusesAUrlThatIsNoBase64AndKeepsTheList) {
    client.listen();
    client.setOne(withUrls({{"kept.example", 1}}));
    STPreferences bad = withUrls({{"first.example", 1}});
    bad.m_allowBlockDetails.emplace("!", 1);
    EXPECT_EQ(client.setOne(bad), ST_ERROR_GENERIC);
    bad = individual(ST_ALLOW_BLOCK_LIST);
    bad.m_allowBlockDetails.emplace("\xff\xff", 1);
    EXPECT_EQ(client.setOne(bad), ST_ERROR_GENERIC);
    EXPECT_EQ(machine.sql("select name, value from allowblocksettings"), "kept.example|1\n");
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{"kept.example", 1}}));
    EXPECT_THAT(client.waitForEvents(1), ElementsAre(kPreferences)) << "of the list that was set";
    EXPECT_THAT(eventsToTheEnd(), ElementsAre(kPreferences)) << "and of nothing else";
}

TEST_F(APreferenceStore, RefusesACommandThatItDoesNotKnowAtOnce) {
    WireClient wire(machine.bus().socketPath());
    for (const int id : {100005, 1005, 1020, 0, 99999}) {
        EXPECT_EQ(wire.command(id).error, HVB::bus::kErrorUnknownCommand) << id;
    }
    EXPECT_EQ(scalarsOf(client.getAll()), kFreshScalars);
}

/// Payloads that lie. Each is an archive of a snapshot, cut or bent at one place.
struct Lie {
    const char* name;
    std::wstring payload;
};

std::wstring archiveHead() {
    const std::wstring number = payloadOf(5);
    return number.substr(0, number.size() - 1); // without the digit
}

std::wstring noise(std::size_t bytes) {
    std::wstring text(bytes / sizeof(wchar_t), L'\0');
    std::uint32_t state = 20261121; // a fixed seed: a failure can be run again
    for (wchar_t& character : text) {
        state = state * 1664525U + 1013904223U;
        character = static_cast<wchar_t>(state);
    }
    return text;
}

std::vector<Lie> lies() {
    const std::wstring whole = payloadOf([] {
        STPreferences preferences = allDifferent();
        preferences.m_bIndividual = true;
        preferences.m_prefType = ST_CATEGORY_BLOCK_LIST;
        preferences.m_categoryBlockDetails = {{"Games", 1}};
        return preferences;
    }());
    const std::wstring scalars = archiveHead() + L"0 0 0 1 1 3 2 8 1 0 0 0 3";
    const std::wstring huge = L" 1152921504606846976 ";
    return {
        {"a category list of 2^60 entries", scalars + L" 0 0" + huge + L"0 0 0 5 Games 1"},
        {"a URL list of 2^60 entries", scalars + L" 0 0 0 0 0 0" + huge + L"0 0 0 4 YQ== 1"},
        {"a name of two thousand million characters", scalars + L" 0 0 1 0 0 0 2000000000 Games 1"},
        {"a name of 2^64 - 1 characters", scalars + L" 0 0 1 0 0 0 18446744073709551615 Games 1"},
        {"a snapshot cut in the middle", whole.substr(0, whole.size() / 2)},
        {"a snapshot without its end", whole.substr(0, whole.size() - 8)},
        {"the head of an archive alone", archiveHead()},
        {"a word where a number belongs", archiveHead() + L"0 0 0 1 red 3 2 8 1 0 0 0 3"},
        {"a snapshot of the future", archiveHead() + L"0 7 0 1 1 3 2 8 1 0 0 0 3 0 0 0 0 0 0 0 0"},
        {"a tracked list of 2^60 entries", scalars + L" 0 0 0 0 1 0\n0" + huge + L"0 1 0\n1 4 YQ== 1"},
        {"a list of entries that are all the first", scalars + L" 0 0 0 0 0 0 4 0 1 0\n0 4 YQ== 1\n0\n0\n0"},
        {"noise behind the head", archiveHead() + noise(std::size_t{1} << 20U)},
        {"the head of something else", L"22 serialization::archivX 18 0 0"},
        {"an archive of the library's future", L"22 serialization::archive 9999 0 0"},
        {"no text", L""},
        {"noise", noise(std::size_t{1} << 20U)},
    };
}

/// Without its readers' limits the daemon would take some thousand MiB here.
constexpr long kMostKilobytesForLies = 128L * 1024;

class ALyingClient : public APreferenceStore {
protected:
    void SetUp() override {
        APreferenceStore::SetUp();
        client.listen();
        client.setOne(withUrls({{"kept.example", 1}}));
        client.setOne(withCategories({{"Kept", 1}}));
        before = allRows();
        peakBefore = machine.daemonPeakKilobytes();
        ASSERT_THAT(client.waitForEvents(2), ElementsAre(kPreferences, kPreferences)) << "of the two lists";
    }

    void expectNothingChanged(const char* name) {
        const STPreferences all = client.getAll();
        EXPECT_EQ(scalarsOf(all), kFreshScalars) << name;
        EXPECT_EQ(urlsOf(all), (Urls{{"kept.example", 1}})) << name;
        EXPECT_EQ(all.m_categoryBlockDetails, (CategoryBlockDetails{{"Kept", 1}})) << name;
        EXPECT_EQ(allRows(), before) << name;
    }

    void TearDown() override {
        EXPECT_LT(machine.daemonPeakKilobytes() - peakBefore, kMostKilobytesForLies);
        EXPECT_THAT(eventsToTheEnd(), ElementsAre(kPreferences, kPreferences))
            << "of what did not happen nobody is told";
    }

    std::string before;
    long peakBefore = 0;
    WireClient wire{machine.bus().socketPath()};
};

TEST_F(ALyingClient, IsRefusedAWholeSnapshotBeforeAnySetterRuns) {
    for (const Lie& lie : lies()) {
        EXPECT_EQ(wire.command(ST_SET_PREFS, lie.payload).error, HVB::bus::kErrorFailed) << lie.name;
        expectNothingChanged(lie.name);
    }
}

TEST_F(ALyingClient, GetsTheGenericErrorForASingleSnapshot) {
    for (const Lie& lie : lies()) {
        const WireClient::Answer answer = wire.command(ST_SET_PREFS_INDIVIDUAL, lie.payload);
        ASSERT_EQ(answer.error, "") << lie.name;
        EXPECT_TRUE(answer.succeeded && answer.valid && answer.hasPayload) << lie.name;
        EXPECT_EQ(valueIn<int>(answer.payload), ST_ERROR_GENERIC) << lie.name;
        expectNothingChanged(lie.name);
    }
}

TEST_F(ALyingClient, IsAnsweredWhereNothingIsRead) {
    for (const Lie& lie : lies()) {
        const WireClient::Answer all = wire.command(ST_GET_PREFS, lie.payload);
        if (HVB::bus::asBytes(lie.payload).size() > HVB::bus::kMaxTextBytes) {
            EXPECT_EQ(all.error, HVB::bus::kErrorBadMessage) << lie.name << ": takes no file";
            continue;
        }
        EXPECT_EQ(all.error, "") << lie.name;
        EXPECT_TRUE(all.succeeded && all.valid && all.hasPayload) << lie.name;
        EXPECT_EQ(wire.command(100005, lie.payload).error, HVB::bus::kErrorUnknownCommand) << lie.name;
    }
    expectNothingChanged("get all");
}

TEST_F(ALyingClient, IsRefusedATypeThatIsNoNumber) {
    const std::wstring noNumber = noise(std::size_t{60'000});
    for (const std::wstring& payload :
         {archiveHead(), archiveHead() + L"x", archiveHead() + L"99999999999", archiveHead() + noNumber, noNumber,
          std::wstring(L"22 serialization::archivX 18 0"), std::wstring()}) {
        EXPECT_EQ(wire.command(ST_GET_PREFS_INDIVIDUAL, payload).error, HVB::bus::kErrorFailed);
        expectNothingChanged("get");
    }
}

TEST_F(ALyingClient, IsToldSoWhenAMessageIsNoCommand) {
    const HVB::bus::MessagePtr request =
        HVB::bus::newCall(wire.bus(), HVB::bus::moduleName(7), HVB::bus::modulePath(7), HVB::bus::kModuleInterface,
                          HVB::bus::commandMember(ST_SET_PREFS));
    HVB::bus::check(sd_bus_message_append(request.get(), "s", "all of them"), "append");
    try {
        HVB::bus::call(wire.bus(), *request, patience());
        ADD_FAILURE() << "a string was taken for a command";
    } catch (const HVB::bus::CallError& error) {
        EXPECT_EQ(error.name(), HVB::bus::kErrorBadMessage);
    }
    expectNothingChanged("string");
}

class ADaemonWithoutTheHubsConfiguration : public APreferenceStore {
protected:
    void expectFailureThenRecovery() {
        WireClient wire(machine.bus().socketPath());
        const std::string before = allRows();
        EXPECT_EQ(wire.command(ST_GET_PREFS).error, HVB::bus::kErrorFailed);
        EXPECT_EQ(wire.code(ST_RESET_PREFS), ST_ERROR_GENERIC);
        EXPECT_EQ(wire.code(ST_SET_PREFS, payloadOf(allDifferent())), ST_ERROR_GENERIC);
        EXPECT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withSwitch(ST_ENABLE, false))), ST_ERROR_GENERIC);
        EXPECT_EQ(wire.command(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(ST_ENABLE)).error, HVB::bus::kErrorFailed);
        EXPECT_EQ(allRows(), before);
        ASSERT_TRUE(machine.daemon().isRunning()) << machine.daemon().output();
        const pid_t pid = machine.daemon().pid();
        machine.installConfiguration();
        EXPECT_EQ(scalarsOf(client.getAll()), kFreshScalars);
        EXPECT_EQ(client.setOne(withSwitch(ST_ENABLE, false)), ST_ERROR_NONE);
        EXPECT_EQ(stored("Enabled"), "00000000");
        EXPECT_EQ(machine.daemon().pid(), pid);
    }
};

TEST_F(ADaemonWithoutTheHubsConfiguration, ServesOnceTheFileIsThere) {
    std::filesystem::remove(machine.configurationFile());
    expectFailureThenRecovery();
}

TEST_F(ADaemonWithoutTheHubsConfiguration, ServesOnceTheFileIsWellFormed) {
    std::ofstream(machine.configurationFile()) << "<HVConfiguration><SyslogEnable>true</SyslogEnable>";
    expectFailureThenRecovery();
}

TEST_F(ADaemonWithoutTheHubsConfiguration, ServesOnceTheElementIsThere) {
    std::ofstream(machine.configurationFile()) << "<HVConfiguration><LogLevel>debug</LogLevel></HVConfiguration>";
    expectFailureThenRecovery();
}

} // namespace
} // namespace testing_support
