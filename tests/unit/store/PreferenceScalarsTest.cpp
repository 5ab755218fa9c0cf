// The fifteen scalar setters, a row each: every text, every level, every line of standard output, and what is in the
// file as the sqlite3 program sees it.
#include "store/PreferencesException.h"
#include "tests/support/Eventually.h"
#include "tests/unit/store/PreferenceFixture.h"

#include <stdexcept>

namespace testing_support {
namespace {

using Sentrel::preferences;
using Sentrel::PreferencesException;
using Sentrel::STPreferenceController;

enum class Shape { A, A2, B, C, D };

/// A setter with two values that are not its default, in the file and in the trace.
struct Setter {
    const char* name; ///< in the trace lines
    const char* key;
    Shape shape;
    int (*set)(int value);
    int byDefault;
    int other;
    const char* otherText;   ///< in the line about the entry
    const char* otherStored; ///< in the file
    int (*get)();            ///< null: nothing reads it
};

#define BOOL_SETTER(call) [](int value) { return preferences().call(value != 0); }
#define INT_SETTER(call) [](int value) { return preferences().call(value); }
#define BYTE_SETTER(call) [](int value) { return preferences().call(static_cast<unsigned char>(value)); }
#define GETTER(call) [] { return static_cast<int>(preferences().call()); }

constexpr const char* kOn = "blob 01000000";
constexpr const char* kOff = "blob 00000000";

const Setter kSetters[] = {
    {"setEnableSentrel", "Enabled", Shape::A, BOOL_SETTER(setEnableSentrel), 1, 0, "false", kOff,
     GETTER(getEnableSentrel)},
    {"setGREENSitesStatus", "GenPolicyLogGreenSiteAction", Shape::A2, BOOL_SETTER(setLogGREENSitesStatus), 0, 1, "true",
     kOn, nullptr},
    {"setLogAllowSiteStatus", "GenPolicyLogAllowSiteAction", Shape::A2, BOOL_SETTER(setLogAllowSiteStatus), 0, 1,
     "true", kOn, nullptr},
    {"setBlockPhishingStatus", "GenPolicyBlockPhishingAction", Shape::A2, BOOL_SETTER(setBlockPhishingStatus), 1, 0,
     "false", kOff, GETTER(getBlockPhishingStatus)},
    {"setRPXUnReachableAction", "GenPolicyRPXUnReachableAction", Shape::A2, BOOL_SETTER(setRPXUnReachableAction), 0, 1,
     "true", kOn, GETTER(getRPXUnReachableAction)},
    {"setPrivateIpChecksum", "PrivateIPRangeChecksum", Shape::A2, BYTE_SETTER(setPrivateIpChecksum), 48, 200, "200",
     "blob C8000000", GETTER(getPrivateIpChecksum)},
    {"setAllowBlockListChecksum", "AllowBlockListChecksum", Shape::A2, BYTE_SETTER(setAllowBlockListChecksum), 48, 0,
     "0", "blob 00000000", GETTER(getAllowBlockListChecksum)},
    {"setCategoryBlockListChecksum", "CategoryBlockListChecksum", Shape::A2, BYTE_SETTER(setCategoryBlockListChecksum),
     48, 255, "255", "blob FF000000", GETTER(getCategoryBlockListChecksum)},
    {"setEnableCategoryBlocking", "CAT_Enabled", Shape::A, BOOL_SETTER(setEnableCategoryBlocking), 1, 0, "false", kOff,
     GETTER(getEnableCategoryBlocking)},
    {"setAllowOverBlockPrecedenceStatus", "ALLOW_OVER_Block", Shape::A, BOOL_SETTER(setAllowOverBlockPrecedenceStatus),
     0, 1, "true", kOn, GETTER(getAllowOverBlockPrecedenceStatus)},
    {"setSTUnVerifiedAction", "GenPolicyUnverifiedAction", Shape::B, INT_SETTER(setSTUnVerifiedAction), 1, 3, "3",
     "blob 03000000", GETTER(getSTUnVerifiedAction)},
    {"setEnableSafeSearch", "SSOn", Shape::C, BOOL_SETTER(setEnableSafeSearch), 0, 1, "true", kOn,
     GETTER(getEnableSafeSearch)},
    {"setRedSiteAction", "RedSiteAction", Shape::D, INT_SETTER(setRedSiteAction), 3, 2, "2", "blob 02000000",
     GETTER(getRedSiteAction)},
    {"setYellowSiteAction", "YellowSiteAction", Shape::D, INT_SETTER(setYellowSiteAction), 2, -7, "-7", "blob F9FFFFFF",
     GETTER(getYellowSiteAction)},
    {"setUnratedSiteAction", "UnverifiedSiteAction", Shape::D, INT_SETTER(setUnratedSiteAction), 1, 3, "3",
     "blob 03000000", GETTER(getUnratedSiteAction)},
};

class AScalarSetter : public PreferenceFixture, public testing::WithParamInterface<Setter> {
protected:
    Shape shape() const { return GetParam().shape; }
    int setOther() const { return GetParam().set(GetParam().other); }
    std::string classLine(const std::string& rest) const {
        return std::string("STPreferenceController::") + GetParam().name + rest;
    }
    std::string entry(const std::string& value) const { return "2 " + classLine(" - entered with value " + value); }
    std::string defaultText() const {
        const bool isSwitch =
            GetParam().otherText == std::string("true") || GetParam().otherText == std::string("false");
        if (isSwitch) {
            return GetParam().byDefault != 0 ? "true" : "false";
        }
        return std::to_string(GetParam().byDefault);
    }
    Lines setOtherLines() const {
        return leveled([] { preferences(); }, [this] { setOther(); });
    }
    /// The lines of a set of another value up to the point where the file is opened.
    Lines beforeTheFile() const {
        Lines lines{entry(GetParam().otherText)};
        if (shape() == Shape::C) {
            lines.push_back("5 " + classLine(" - entered"));
        }
        return lines;
    }
    int current() const { return GetParam().get != nullptr ? GetParam().get() : -1; }
};

INSTANTIATE_TEST_SUITE_P(Each, AScalarSetter, testing::ValuesIn(kSetters),
                         [](const auto& setter) { return std::string(setter.param.name); });

TEST_P(AScalarSetter, StoresFourBytesUnderItsKeyWithTheTerminator) {
    makeTables();
    EXPECT_EQ(setOther(), Sentrel::ST_ERROR_NONE);
    EXPECT_EQ(stored(GetParam().key), GetParam().otherStored);
    EXPECT_EQ(sql("select count(*) from vxsetting"), "1");
}

TEST_P(AScalarSetter, IsReadBackAfterARestart) {
    makeTables();
    setOther();
    restarted();
    if (GetParam().get != nullptr) {
        EXPECT_EQ(current(), GetParam().other);
    }
    // For those that nobody reads, the test for a duplicate tells: it leaves the file alone.
    std::filesystem::remove(file());
    EXPECT_EQ(setOther(), Sentrel::ST_ERROR_NONE);
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_P(AScalarSetter, SaysWhatItDidWhenItSucceeds) {
    const Lines lines = leveled(
        [this] {
            std::filesystem::remove(file());
            makeTables();
            preferences();
        },
        [this] { setOther(); });
    Lines expected = beforeTheFile();
    const std::string level = shape() == Shape::C || shape() == Shape::D ? "5 " : "3 ";
    if (shape() != Shape::D) {
        expected.push_back(level + classLine(" - Successfully updated value in DB"));
    }
    if (shape() != Shape::B) {
        expected.push_back(level + classLine(" - returning success"));
    }
    EXPECT_EQ(lines, expected);
}

TEST_P(AScalarSetter, SaysThatAValueIsTheCurrentOne) {
    const Lines lines = leveled([] { preferences(); }, [] { GetParam().set(GetParam().byDefault); });
    Lines expected{entry(defaultText())};
    switch (shape()) {
    case Shape::A:
    case Shape::B:
        expected.push_back("5 " + classLine(" - Duplicate Preference Value so returning "));
        break;
    case Shape::A2:
        expected.push_back("5 " + classLine(" - Same Preference Value so returning "));
        break;
    default:
        expected.push_back(GetParam().name == std::string("setRedSiteAction")
                               ? "5 STPreferenceController::setEnableSentrel - Preference Already Set"
                               : "5 " + classLine(" - Preference Already Set"));
    }
    if (shape() != Shape::B) {
        const std::string level = shape() == Shape::C || shape() == Shape::D ? "5 " : "3 ";
        expected.push_back(level + classLine(" - returning success"));
    }
    EXPECT_EQ(lines, expected);
}

TEST_P(AScalarSetter, LeavesTheFileAloneWhenTheValueIsTheCurrentOne) {
    preferences();
    EXPECT_EQ(GetParam().set(GetParam().byDefault), Sentrel::ST_ERROR_NONE);
    std::filesystem::remove(file()); // the load made an empty one
    EXPECT_EQ(GetParam().set(GetParam().byDefault), Sentrel::ST_ERROR_NONE);
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_P(AScalarSetter, PrintsNothingOnSuccess) {
    makeTables();
    preferences();
    EXPECT_EQ(printed([this] { setOther(); }), "");
    EXPECT_EQ(printed([this] { setOther(); }), ""); // now a duplicate
}

TEST_P(AScalarSetter, FailsWithoutAPathInItsOwnWords) {
    const auto noPath = [](std::string&) { return false; };
    const auto path = settingsPath();
    const Lines lines = leveled(
        [&] {
            settingsPath() = path;
            preferences();
            settingsPath() = noPath;
        },
        [this] { EXPECT_EQ(setOther(), Sentrel::ST_ERROR_DATABASE); });
    Lines expected = beforeTheFile();
    expected.push_back(shape() == Shape::C   ? "1 " + classLine(":: Error while getting DB Path")
                       : shape() == Shape::D ? "1 " + classLine(" - Error while getting user DB Path")
                                             : "1 Error while getting DB Path");
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(printed([this] { setOther(); }), shape() == Shape::B ? ""
                                               : shape() == Shape::C || shape() == Shape::D
                                                   ? "Preferences error while getting DB path \n"
                                                   : "Error while getting DB Path\n");
}

TEST_P(AScalarSetter, FailsInItsOwnWordsWhenTheFileCannotBeOpened) {
    const auto path = settingsPath();
    const Lines lines = leveled(
        [&] {
            settingsPath() = path;
            preferences();
            settingsPath() = [this](std::string& elsewhere) {
                elsewhere = file() + ".d/no/such"; // one level of directories would be made
                return true;
            };
        },
        [this] { EXPECT_EQ(setOther(), Sentrel::ST_ERROR_DATABASE); });
    Lines expected = beforeTheFile();
    expected.push_back("1 " + classLine(" - Error while getting DB handle"));
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(printed([this] { setOther(); }), shape() == Shape::B ? ""
                                               : shape() == Shape::C || shape() == Shape::D
                                                   ? "Preferences error while getting DB handle \n"
                                                   : "Preference error while getting DB handle\n");
}

TEST_P(AScalarSetter, KeepsTheOldValueWhenTheWriteFailsUnlessItIsASiteAction) {
    preferences(); // a file without tables
    if (shape() == Shape::D) {
        EXPECT_EQ(setOther(), Sentrel::ST_ERROR_NONE);
        EXPECT_EQ(current(), GetParam().other);
        restarted();
        EXPECT_EQ(current(), GetParam().byDefault);
        return;
    }
    EXPECT_EQ(setOther(), Sentrel::ST_ERROR_DATABASE);
    EXPECT_EQ(setOther(), Sentrel::ST_ERROR_DATABASE) << "the test for a duplicate must not hide the write";
    if (GetParam().get != nullptr) {
        EXPECT_EQ(current(), GetParam().byDefault);
    }
}

TEST_P(AScalarSetter, SaysThatTheWriteFailedUnlessItIsASiteAction) {
    Lines expected = beforeTheFile();
    expected.push_back(shape() == Shape::D ? "5 " + classLine(" - returning success")
                                           : "1 " + classLine(" - Error while updating value in DB"));
    EXPECT_EQ(setOtherLines(), expected);
    EXPECT_EQ(printed([this] { setOther(); }), "");
}

TEST_P(AScalarSetter, TurnsAPreferencesExceptionIntoItsCodeAndALine) {
    const auto path = settingsPath();
    const Lines lines = leveled(
        [&] {
            settingsPath() = path;
            preferences();
            settingsPath() = [](std::string&) -> bool { throw PreferencesException("the store is\non fire"); };
        },
        [this] { EXPECT_EQ(setOther(), Sentrel::ST_ERROR_PREFERENCES_EXCEPTION); });
    Lines expected = beforeTheFile();
    expected.push_back("1 " + classLine(" - Caught Preferences exception the store is\\x0aon fire"));
    EXPECT_EQ(lines, expected);
}

TEST_P(AScalarSetter, TurnsAnyOtherExceptionIntoTheGenericCodeAndALine) {
    const auto path = settingsPath();
    const Lines lines = leveled(
        [&] {
            settingsPath() = path;
            preferences();
            settingsPath() = [](std::string&) -> bool { throw std::runtime_error("unknown"); };
        },
        [this] { EXPECT_EQ(setOther(), Sentrel::ST_ERROR_GENERIC); });
    Lines expected = beforeTheFile();
    expected.push_back("1 " + classLine(" - Caught generic exception "));
    EXPECT_EQ(lines, expected);
}

TEST_P(AScalarSetter, SignalsNothing) {
    makeTables();
    preferences();
    setOther();
    EXPECT_THAT(Recording::instance().calls(), testing::IsEmpty());
}

class APreferenceController : public PreferenceFixture {};

TEST_F(APreferenceController, ReportsSuccessForAWriteThatALockedFileRefusedAtItsLastStep) {
    makeTables();
    preferences();
    // A writer that has not written yet lets the statements be prepared and refuses our write.
    std::FILE* writer = popen(("sqlite3 '" + file() + "'").c_str(), "w");
    ASSERT_NE(writer, nullptr);
    std::fputs("begin immediate;\n", writer);
    std::fflush(writer);
    ASSERT_TRUE(eventually([&] { return !sql("begin immediate; rollback; select 'free'").starts_with("free"); }));
    EXPECT_EQ(preferences().setEnableSentrel(false), Sentrel::ST_ERROR_NONE);
    EXPECT_FALSE(preferences().getEnableSentrel());
    pclose(writer);
    EXPECT_EQ(stored("Enabled"), "");
}

TEST_F(APreferenceController, TracesItsGettersWithTheirValues) {
    const Lines lines = leveled([] { preferences(); },
                                [] {
                                    preferences().getEnableSentrel();
                                    preferences().getBlockPhishingStatus();
                                    preferences().getRPXUnReachableAction();
                                    preferences().getEnableSafeSearch();
                                    preferences().getSTUnVerifiedAction();
                                    preferences().getRedSiteAction();
                                    preferences().getYellowSiteAction();
                                    preferences().getUnratedSiteAction();
                                    preferences().getEnableCategoryBlocking();
                                    preferences().getAllowOverBlockPrecedenceStatus();
                                    preferences().getDebugLoggingStatus();
                                    preferences().getPrivateIpChecksum();
                                });
    const std::string name = "STPreferenceController::";
    EXPECT_EQ(
        lines,
        (Lines{"2 " + name + "getEnableSentrel - entered", "3 " + name + "getEnableSentrel - Returning true",
               "2 " + name + "getBlockPhishingStatus - entered",
               "3 " + name + "getBlockPhishingStatus - Returning true",
               "2 " + name + "getRPXUnReachableAction - entered",
               "3 " + name + "getRPXUnReachableAction - Returning false", "2 " + name + "getEnableSafeSearch - entered",
               "3 " + name + "getEnableSafeSearch - Returning false", "2 " + name + "getSTUnVerifiedAction - entered",
               "2 " + name + "getRedSiteAction - Returning 3", "2 " + name + "getYellowSiteAction - Returning 2",
               "2 " + name + "getUnratedSiteAction - Returning 1",
               "3 " + name + "getEnableCategoryBlocking - Returning true",
               "3 " + name + "getAllowOverBlockPrecedenceStatus - Returning false",
               "2 " + name + "getDebugLoggingStatus - Returning OFF"}));
}

} // namespace
} // namespace testing_support
