// The trace facility. Real: files, threads, the clock.
#include "daemon/Trace.h"

#include "tests/support/Eventually.h"
#include "tests/support/Lines.h"
#include "tests/support/TraceLog.h"
#include "tests/unit/daemon/DaemonRoot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <ctime>
#include <thread>

using testing_support::DaemonRoot;
using testing_support::Lines;
using testing_support::readFile;
using testing_support::TraceLog;
using testing_support::writeFile;

namespace {

// What holds before main, when no test has run.
const std::vector<std::int32_t> kLevelsAtStart{stDaemonFlowvalue,     configFlowvalue, loggerFlowvalue,
                                               stCmdFlowvalue,        hcFlowvalue,     mgsFlowvalue,
                                               safariPluginFlowvalue, ipcFlowvalue};
const std::int32_t kFlagAtStart = traceInited;
const std::FILE* const kStreamAtStart = logFilePtr;

TEST(AFreshProcess, HasEveryLevelTheFlagAndTheStreamAtZero) {
    EXPECT_EQ(kLevelsAtStart, std::vector<std::int32_t>(8, 0));
    EXPECT_EQ(kFlagAtStart, 0);
    EXPECT_EQ(kStreamAtStart, nullptr);
}

/// In a process that runs nothing but this: another test may have opened the log of this one.
TEST(AFreshProcess, SurvivesClosingALogThatWasNeverOpened) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Sentrel::trace::closeTraceLog();
            Sentrel::trace::closeTraceLog();
            _exit(traceInited);
        },
        testing::ExitedWithCode(0), "");
}

struct ATraceLog : testing::Test {
    TraceLog log;
    int evaluated = 0;
    int evaluate() { return ++evaluated; }
};

struct AFlowLevel : ATraceLog, testing::WithParamInterface<int> {};

TEST_P(AFlowLevel, LetsExactlyTheLinesUpToItThrough) {
    ipcFlowvalue = GetParam();
    ST_TRACE(ipcFlow, 1, L"one\n");
    ST_TRACE(ipcFlow, 2, L"two\n");
    ST_TRACE(ipcFlow, 3, L"three\n");
    ST_TRACE(ipcFlow, 4, L"four\n");
    ST_TRACE(ipcFlow, 5, L"five\n");
    Lines expected{"one", "two", "three", "four", "five"};
    expected.resize(static_cast<std::size_t>(std::clamp(GetParam(), 0, 5)));
    EXPECT_EQ(log.lines(), expected);
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, AFlowLevel, testing::Values(-1, 0, 1, 2, 3, 4, 5, 6, 2147483647));

TEST_F(ATraceLog, IsNotWrittenByAFlowAtLevelZeroWhateverTheOthersAre) {
    hcFlowvalue = 0;
    ST_TRACE(hcFlow, 1, L"silent %d\n", evaluate());
    ST_TRACE(mgsFlow, 1, L"heard\n");
    EXPECT_EQ(log.lines(), (Lines{"heard"}));
    EXPECT_EQ(evaluated, 0);
}

TEST_F(ATraceLog, EvaluatesTheArgumentsOfAWrittenLineOnce) {
    ST_TRACE(ipcFlow, 5, L"value %d\n", evaluate());
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(log.lines(), (Lines{"value 1"}));
}

TEST_F(ATraceLog, EvaluatesNoArgumentsWhileTheFlagIsZero) {
    traceInited = 0;
    ST_TRACE(ipcFlow, 1, L"%d\n", evaluate());
    traceInited = 1;
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ATraceLog, EvaluatesNoArgumentsWithoutAStream) {
    std::FILE* const stream = logFilePtr;
    logFilePtr = nullptr;
    ST_TRACE(ipcFlow, 1, L"%d\n", evaluate());
    logFilePtr = stream;
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(log.lines().empty());
}

std::string stampNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[80] = "";
    return {text, std::strftime(text, sizeof text, "%B %d, %Y %T", &local)};
}

TEST_F(ATraceLog, PutsTheLocalTimeAndOneBlankInFrontOfTheMessage) {
    setenv("TZ", "Asia/Kathmandu", 1);
    tzset();
    const std::string before = stampNow();
    ST_TRACE(ipcFlow, 1, L"message\n");
    const std::string after = stampNow();
    const std::string written = readFile(log.path());
    EXPECT_TRUE(written == before + " message\n" || written == after + " message\n") << written;
}

TEST_F(ATraceLog, TakesNarrowAndWideTextsAndNumbers) {
    ST_TRACE(ipcFlow, 1, L"%s|%ls|%d|%u|%lu\n", "narrow Caf\xC3\xA9", L"wide Caf\u00E9", -1, 2u, 3ul);
    EXPECT_EQ(log.lines(), (Lines{"narrow Caf\xC3\xA9|wide Caf\xC3\xA9|-1|2|3"}));
}

TEST_F(ATraceLog, KeepsBothNewlinesOfAFormatThatEndsInTwo) {
    ST_TRACE(ipcFlow, 1, L"first\n\n");
    ST_TRACE(ipcFlow, 1, L"second\n");
    EXPECT_EQ(log.lines(), (Lines{"first", "", "second"}));
}

TEST_F(ATraceLog, IsCompleteAfterEachLineThoughItIsStillOpen) {
    ST_TRACE(ipcFlow, 1, L"flushed\n");
    EXPECT_EQ(log.lines(), (Lines{"flushed"})); // the stream was neither closed nor flushed by the test
}

TEST_F(ATraceLog, StaysSilentForTheSettingsDatabasesOwnTriple) {
    EXPECT_EQ(dbSettingsLog::traceInited, 0);
    EXPECT_EQ(dbSettingsLog::logFilePtr, nullptr);
    EXPECT_EQ(dbSettingsLog::safariPluginFlowvalue, 0);
    {
        using namespace dbSettingsLog;
        using dbSettingsLog::logFilePtr;
        using dbSettingsLog::safariPluginFlowvalue;
        using dbSettingsLog::traceInited;
        ST_TRACE(safariPluginFlow, 1, L"Exception in CVXDBSettings::Close\n");
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ATraceLog, WritesNothingOnceItIsClosed) {
    ST_TRACE(ipcFlow, 1, L"before\n");
    Sentrel::trace::closeTraceLog();
    EXPECT_EQ(traceInited, 0);
    ST_TRACE(ipcFlow, 1, L"after %d\n", evaluate());
    EXPECT_EQ(log.lines(), (Lines{"before"}));
    EXPECT_EQ(evaluated, 0);
}

TEST_F(ATraceLog, MayBeClosedTwice) {
    Sentrel::trace::closeTraceLog();
    Sentrel::trace::closeTraceLog();
    EXPECT_EQ(traceInited, 0);
}

TEST_F(ATraceLog, WritesNoLineThatCameAsItWasClosed) {
    Sentrel::trace::closeTraceLog();
    Sentrel::trace::detail::line(traceInited, logFilePtr, L"late\n");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ATraceLog, IsClosedUnderWritersWithoutBreakingALine) {
    std::atomic<int> started{0};
    std::atomic<bool> stop{false};
    constexpr int count = 4;
    std::vector<std::thread> writers;
    writers.reserve(count);
    for (int writer = 0; writer < count; ++writer) {
        writers.emplace_back([&] {
            ++started;
            while (!stop) {
                ST_TRACE(ipcFlow, 1, L"writer\n");
            }
        });
    }
    EXPECT_TRUE(testing_support::eventually([&] {
        return started == 4 && std::filesystem::file_size(log.path()) >= 10000;
    })) << "the four writers wrote too little";
    Sentrel::trace::closeTraceLog();
    const std::string atClose = readFile(log.path());
    stop = true;
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(readFile(log.path()), atClose);
    EXPECT_EQ(atClose.back(), '\n');
}

struct APathForTheLog : testing::Test {
    DaemonRoot root;
    ~APathForTheLog() override { Sentrel::trace::closeTraceLog(); }
};

TEST_F(APathForTheLog, GetsAFileWithMode0744WhateverTheUmask) {
    umask(077);
    Sentrel::trace::openTraceLog(root.traceLog());
    struct stat status {};
    ASSERT_EQ(stat(root.traceLog().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0744u);
    EXPECT_EQ(traceInited, 1);
    EXPECT_NE(logFilePtr, nullptr);
}

TEST_F(APathForTheLog, IsAppendedToWhenItIsThereAlready) {
    writeFile(root.traceLog(), "from an earlier run\n");
    Sentrel::trace::openTraceLog(root.traceLog());
    ipcFlowvalue = 1;
    ST_TRACE(ipcFlow, 1, L"from this run\n");
    EXPECT_EQ(root.traceLines(), (Lines{"from an earlier run", "from this run"}));
}

TEST_F(APathForTheLog, LeavesTheStreamNullWhenItCannotBeOpened) {
    Sentrel::trace::openTraceLog(root.path() + "/nowhere/STTrace.log");
    EXPECT_EQ(traceInited, 1);
    EXPECT_EQ(logFilePtr, nullptr);
    ipcFlowvalue = 5;
    ST_TRACE(ipcFlow, 1, L"silent\n");
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/nowhere"));
}

struct TextFromOutside {
    const char* what;
    std::string text;
    std::string printable;
};

struct AText : testing::TestWithParam<TextFromOutside> {};

TEST_P(AText, BecomesPrintable) {
    EXPECT_EQ(Sentrel::trace::printable(GetParam().text), GetParam().printable);
}

INSTANTIATE_TEST_SUITE_P(
    FromOutside, AText,
    testing::Values(TextFromOutside{"Empty", "", ""}, TextFromOutside{"Plain", "a b~", "a b~"},
                    TextFromOutside{"Newline", "a\nb", "a\\x0ab"}, TextFromOutside{"Escape", "\x1B[2J", "\\x1b[2J"},
                    TextFromOutside{"Nul", std::string("a\0b", 3), "a\\x00b"}, TextFromOutside{"Del", "\x7F", "\\x7f"},
                    TextFromOutside{"C1Control", "\xC2\x9B", "\\u{009b}"},
                    TextFromOutside{"FirstAfterC1", "\xC2\xA0", "\xC2\xA0"},
                    TextFromOutside{"TwoBytes", "Caf\xC3\xA9", "Caf\xC3\xA9"},
                    TextFromOutside{"ThreeBytes", "\xE2\x82\xAC", "\xE2\x82\xAC"},
                    TextFromOutside{"FourBytes", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
                    TextFromOutside{"LoneContinuation", "\x80z", "\\x80z"},
                    TextFromOutside{"OverlongSlash", "\xC0\xAF", "\\xc0\\xaf"},
                    TextFromOutside{"OverlongThreeBytes", "\xE0\x80\xAF", "\\xe0\\x80\\xaf"},
                    TextFromOutside{"Surrogate", "\xED\xA0\x80", "\\xed\\xa0\\x80"},
                    TextFromOutside{"AboveTheLastCodePoint", "\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
                    TextFromOutside{"CutSequence", "\xE2\x82", "\\xe2\\x82"},
                    TextFromOutside{"CutByAscii", "\xE2\x82z", "\\xe2\\x82z"},
                    TextFromOutside{"Latin1", "Caf\xE9!", "Caf\\xe9!"}, TextFromOutside{"FF", "\xFF", "\\xff"}),
    [](const auto& test) { return test.param.what; });

TEST_F(ATraceLog, IsNeverCutByPrintableText) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        ST_TRACE(ipcFlow, 1, L"[%s]\n", Sentrel::trace::printable(text + "x").c_str());
    }
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 256u);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.front(), '[');
        EXPECT_EQ(line.substr(line.size() - 2), "x]");
    }
}

} // namespace
