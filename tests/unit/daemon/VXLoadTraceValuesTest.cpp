// The level file and its reader. Real: the file, the XML library, stderr.
#include "daemon/VXLoadTraceValues.h"

#include "daemon/Trace.h"
#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/support/Lines.h"
#include "tests/support/TraceLog.h"
#include "tests/unit/daemon/DaemonRoot.h"

#include <gtest/gtest.h>

using namespace testing_support;
using Sentrel::VXLoadTraceValues;

namespace {

struct NamedFlow {
    const char* name;
    std::int32_t& level;
};

const std::vector<NamedFlow>& flowsInOrder() {
    static const std::vector<NamedFlow> flows{
        {"stDaemonFlow", stDaemonFlowvalue},
        {"configFlow", configFlowvalue},
        {"loggerFlow", loggerFlowvalue},
        {"stCmdFlow", stCmdFlowvalue},
        {"hcFlow", hcFlowvalue},
        {"cmdHelperFlow", cmdHelperFlowvalue},
        {"regHelperFlow", regHelperFlowvalue},
        {"hvInitFlow", hvInitFlowvalue},
        {"hvCommFlow", hvCommFlowvalue},
        {"mgsFlow", mgsFlowvalue},
        {"safariPluginFlow", safariPluginFlowvalue},
        {"ipcFlow", ipcFlowvalue},
    };
    return flows;
}

std::string element(const std::string& name, const std::string& text) {
    return "<" + name + ">" + text + "</" + name + ">";
}

std::string allFlowsAt(int level) {
    std::string document;
    for (const NamedFlow& flow : flowsInOrder()) {
        document += element(flow.name, std::to_string(level));
    }
    return element("TraceValues", document);
}

struct ALevelFile : testing::Test {
    DaemonRoot root;

    /// Loads @p content and gives what the load wrote to stderr.
    std::string load(const std::string& content) {
        writeFile(root.traceLevels(), content);
        return loadWhatIsThere();
    }
    std::string loadWhatIsThere() {
        testing::internal::CaptureStderr();
        VXLoadTraceValues::getInstance()->loadTraceValues(root.traceLevels());
        return testing::internal::GetCapturedStderr();
    }
    std::string complaint() const { return "Error: unable to parse file \"" + root.traceLevels() + "\"\n"; }
    static void setEveryLevel(std::int32_t level) {
        for (const NamedFlow& flow : flowsInOrder()) {
            flow.level = level;
        }
    }
    static void expectEveryLevel(std::int32_t level) {
        for (const NamedFlow& flow : flowsInOrder()) {
            EXPECT_EQ(flow.level, level) << flow.name;
        }
    }
};

TEST_F(ALevelFile, LeavesEveryLevelWhenItIsMissing) {
    EXPECT_EQ(loadWhatIsThere(), complaint());
    expectEveryLevel(0);
    setEveryLevel(3);
    EXPECT_EQ(loadWhatIsThere(), complaint());
    expectEveryLevel(3);
}

TEST_F(ALevelFile, LeavesEveryLevelWhenItIsNotWellFormed) {
    setEveryLevel(2);
    for (const char* content :
         {"", "no xml", "<TraceValues><ipcFlow>5</TraceValues>", "<TraceValues><ipcFlow>5</ipcFlow>",
          "<TraceValues>\xFF</TraceValues>", "<TraceValues/><TraceValues/>"}) {
        EXPECT_EQ(load(content), complaint()) << content;
        expectEveryLevel(2);
    }
}

TEST_F(ALevelFile, ThatIsADirectoryGivesOneLineOnStderr) {
    std::filesystem::create_directory(root.traceLevels());
    EXPECT_EQ(loadWhatIsThere(), complaint());
    expectEveryLevel(0);
}

struct AFlow : ALevelFile, testing::WithParamInterface<std::size_t> {
    const NamedFlow& flow() const { return flowsInOrder()[GetParam()]; }
};

TEST_P(AFlow, IsSetByItsOwnElementAloneAndTheOthersKeepTheirs) {
    setEveryLevel(1);
    EXPECT_EQ(load(element("TraceValues", element(flow().name, "4"))), "");
    EXPECT_EQ(flow().level, 4);
    flow().level = 1;
    expectEveryLevel(1);
}

TEST_P(AFlow, KeepsItsLevelWhenItsElementIsMissingAndTheOthersLoad) {
    setEveryLevel(1);
    std::string document;
    for (const NamedFlow& other : flowsInOrder()) {
        document += std::string(other.name) == flow().name ? "" : element(other.name, "5");
    }
    EXPECT_EQ(load(element("TraceValues", document)), "");
    EXPECT_EQ(flow().level, 1);
    flow().level = 5;
    expectEveryLevel(5);
}

TEST_P(AFlow, ThatStandsTwiceCountsAsMissing) {
    setEveryLevel(1);
    EXPECT_EQ(load(element("TraceValues", element(flow().name, "4") + element(flow().name, "4"))), "");
    expectEveryLevel(1);
}

INSTANTIATE_TEST_SUITE_P(OfTheTwelve, AFlow, testing::Range(std::size_t{0}, std::size_t{12}),
                         [](const auto& test) { return std::string(flowsInOrder()[test.param].name); });

struct LevelText {
    const char* what;
    const char* text;
    std::int32_t level; ///< 77 is what was there before
};

struct ALevelText : ALevelFile, testing::WithParamInterface<LevelText> {};

TEST_P(ALevelText, GivesTheLevel) {
    ipcFlowvalue = 77;
    EXPECT_EQ(load(element("TraceValues", element("ipcFlow", GetParam().text))), "");
    EXPECT_EQ(ipcFlowvalue, GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(
    OfEveryKind, ALevelText,
    testing::Values(LevelText{"Zero", "0", 0}, LevelText{"Five", "5", 5}, LevelText{"AboveFive", "12", 12},
                    LevelText{"TrailingTextIsIgnored", "3x", 3}, LevelText{"LeadingBlanks", "\n  3\n", 3},
                    LevelText{"NoNumberIsZero", "high", 0}, LevelText{"DecimalOnly", "0x10", 0},
                    LevelText{"Octal", "010", 10}, LevelText{"EmptyElementCountsAsMissing", "", 77},
                    LevelText{"AnElementInsideCountsAsMissing", "<b>3</b>", 77},
                    LevelText{"TheFirstChildCounts", "3<b>4</b>", 3}, LevelText{"CharacterData", "<![CDATA[4]]>", 4},
                    LevelText{"NarrowedTo32Bits", "4294967298", 2},
                    LevelText{"TheLargestNarrowsToMinusOne", "18446744073709551615", -1},
                    LevelText{"OutOfRangeKeepsTheOldLevel", "18446744073709551616", 77},
                    LevelText{"Negative", "-2", -2}),
    [](const auto& test) { return test.param.what; });

TEST_F(ALevelFile, LikeTheExampleSetsEveryFlowToFailuresOnly) {
    load(readFile(SENTREL_SOURCE_DIR "/packaging/traceValues.example.xml"));
    expectEveryLevel(1);
}

TEST_F(ALevelFile, WithAnotherRootSetsNothing) {
    EXPECT_EQ(load(element("Values", element("ipcFlow", "5"))), "");
    expectEveryLevel(0);
}

TEST_F(ALevelFile, WithAnElementDeeperDownSetsNothing) {
    EXPECT_EQ(load("<TraceValues><more><ipcFlow>5</ipcFlow></more></TraceValues>"), "");
    expectEveryLevel(0);
}

TEST_F(ALevelFile, MayNotReachOtherFilesThroughAnEntity) {
    writeFile(root.var() + "/five", "5");
    ipcFlowvalue = 77;
    EXPECT_EQ(load("<!DOCTYPE TraceValues [<!ENTITY five SYSTEM \"" + root.var() +
                   "/five\">]><TraceValues><ipcFlow>&five;</ipcFlow></TraceValues>"),
              "");
    EXPECT_EQ(ipcFlowvalue, 77);
}

TEST_F(ALevelFile, IsReportedFlowByFlowInOrderWhenTheLogIsOpen) {
    const TraceLog log;
    load(allFlowsAt(2));
    Lines expected;
    for (const NamedFlow& flow : flowsInOrder()) {
        expected.push_back("Trace value of " + std::string(flow.name) + " = 2");
    }
    EXPECT_EQ(log.lines(), expected);
}

TEST_F(ALevelFile, ReportsAFlowThatKeptItsLevelToo) {
    const TraceLog log;
    setEveryLevel(0);
    hvInitFlowvalue = 4;
    load("<TraceValues/>");
    EXPECT_EQ(log.lines(), (Lines{"Trace value of hvInitFlow = 4"}));
}

TEST_F(ALevelFile, IsNotReportedByFlowsBelowLevelTwo) {
    const TraceLog log;
    load(allFlowsAt(1));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ALevelFile, IsNotReportedWhileTheLogIsClosed) {
    const TraceLog log;
    Sentrel::trace::closeTraceLog();
    load(allFlowsAt(5));
    EXPECT_TRUE(log.lines().empty());
    expectEveryLevel(5);
}

TEST_F(ALevelFile, KeepsTheDocumentLastParsed) {
    load(allFlowsAt(2));
    xmlDoc* const first = Sentrel::xmlDocRef;
    EXPECT_NE(first, nullptr);
    load(allFlowsAt(3));
    EXPECT_NE(Sentrel::xmlDocRef, first); // the earlier one was not freed, so its place is taken
    EXPECT_NE(Sentrel::xmlDocRef, nullptr);
}

struct AQuestionToTheLevelFile : ALevelFile {
    VXLoadTraceValues* loader = VXLoadTraceValues::getInstance();
};

TEST_F(AQuestionToTheLevelFile, GivesTheTextOfTheOneElement) {
    load("<TraceValues><ipcFlow> 3x </ipcFlow></TraceValues>");
    EXPECT_EQ(loader->getXPathElement("/TraceValues/ipcFlow"), " 3x ");
    EXPECT_EQ(loader->getXPathUnsignedLongValue("/TraceValues/ipcFlow"), 3ul);
}

TEST_F(AQuestionToTheLevelFile, IsEmptyAndThrowsForNoElementAndForTwo) {
    load("<TraceValues><hcFlow>1</hcFlow><hcFlow>1</hcFlow></TraceValues>");
    for (const char* xpath : {"/TraceValues/ipcFlow", "/TraceValues/hcFlow"}) {
        EXPECT_EQ(loader->getXPathElement(xpath), "");
        EXPECT_THROW(loader->getXPathUnsignedLongValue(xpath), std::exception);
    }
}

TEST_F(AQuestionToTheLevelFile, IsEmptyForAnExpressionThatIsNone) {
    load("<TraceValues/>");
    testing::internal::CaptureStderr();
    EXPECT_EQ(loader->getXPathElement("///["), "");
    testing::internal::GetCapturedStderr(); // the library's own words
}

TEST_F(AQuestionToTheLevelFile, ComplainsOnStderrWhenTheExpressionGivesNoNodes) {
    load("<TraceValues/>");
    testing::internal::CaptureStderr();
    EXPECT_EQ(loader->getXPathElement("1+1"), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: unable to evaluate xpath expression \"1+1\"\n");
}

TEST_F(AQuestionToTheLevelFile, ThrowsForANumberOutOfRange) {
    load("<TraceValues><ipcFlow>99999999999999999999</ipcFlow></TraceValues>");
    EXPECT_THROW(loader->getXPathUnsignedLongValue("/TraceValues/ipcFlow"), std::exception);
}

TEST_F(AQuestionToTheLevelFile, IsAnsweredByTheSameLoaderUntilItIsReleased) {
    EXPECT_EQ(VXLoadTraceValues::getInstance(), loader);
    VXLoadTraceValues::releaseInstance();
    VXLoadTraceValues::releaseInstance();
    load(allFlowsAt(1));
    expectEveryLevel(1);
}

} // namespace
