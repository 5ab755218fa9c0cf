// Payloads between this tree and programs that share no code with it. Real: the other programs (tests/peers), what
// the libraries of Debian 12 and 13 wrote (tests/data/archives), the carriers, the bounded reader. No bus.
#include "hub/Payloads.h"
#include "hub/STPreferences.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/unit/hub/FilledPreferences.h"
#include "tests/unit/hub/PayloadText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <limits>
#include <locale>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Sentrel::STPreferences;
using testing::StartsWith;
using DebugMap = std::map<int, bool>;
using Proxies = std::vector<proxySettings>;

std::string programOf(const char* variable) {
    const char* path = std::getenv(variable);
    if (path == nullptr) {
        throw std::runtime_error(std::string(variable) + " does not name the other program");
    }
    return path;
}

/// The text of a file in UTF-8.
std::wstring textIn(const std::string& path) {
    std::wifstream file(path, std::ios::binary);
    file.imbue(std::locale("C.UTF-8"));
    std::wostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// What the other program writes on stdout, with @p input on its stdin.
class PeerRun {
public:
    PeerRun(const char* variable, const char* verb, const char* kind, const std::wstring& input = {}) {
        std::wofstream file(m_folder.file("in"), std::ios::binary);
        file.imbue(std::locale("C.UTF-8"));
        file << input;
        file.close();
        testing_support::ChildOptions options;
        options.arguments = {
            "-c", R"(exec "$0" "$1" "$2" <"$3" >"$4")", programOf(variable), verb, kind, m_folder.file("in"), output()};
        options.outputFile = m_folder.file("errors");
        testing_support::ChildProcess process("/bin/sh", options);
        EXPECT_EQ(process.waitUntil(testing_support::patience()), 0) << process.output();
    }

    std::string output() const { return m_folder.file("out"); }

private:
    testing_support::TemporaryDirectory m_folder;
};

// What others write.

/// Where the text of each kind of payload comes from.
struct Source {
    const char* name;
    std::wstring start; ///< of each text with a class in it
    std::wstring (*text)(const char* kind);
};

std::wstring recorded(const char* folder, const char* kind) {
    const std::string path = std::string(SENTREL_SOURCE_DIR "/tests/data/archives/") + folder + "/" + kind;
    EXPECT_TRUE(std::filesystem::exists(path)) << path;
    return textIn(path);
}

const Source kSources[] = {
    {"AProgramOfThisDebian", kHeader + L" 0 0 ",
     [](const char* kind) { return textIn(PeerRun("ARCHIVE_PEER", "write", kind).output()); }},
    {"AProgramOfThisDebianThatTracks", kHeader + L" 1 0\n0 ",
     [](const char* kind) { return textIn(PeerRun("ARCHIVE_PEER_TRACKED", "write", kind).output()); }},
    {"AProgramOfDebian12", L"22 serialization::archive 18 0 0 ",
     [](const char* kind) { return recorded("debian-12", kind); }},
    {"AProgramOfDebian12ThatTracks", L"22 serialization::archive 18 1 0\n0 ",
     [](const char* kind) { return recorded("debian-12-tracked", kind); }},
    {"AProgramOfDebian13", L"22 serialization::archive 19 0 0 ",
     [](const char* kind) { return recorded("debian-13", kind); }},
    {"AProgramOfDebian13ThatTracks", L"22 serialization::archive 19 1 0\n0 ",
     [](const char* kind) { return recorded("debian-13-tracked", kind); }},
};

class WhatIsWrittenBy : public testing::TestWithParam<Source> {
protected:
    /// The value in the other program's text, which begins as that program's texts do.
    template <class Value>
    static Value read(const char* kind) {
        const std::wstring text = GetParam().text(kind);
        EXPECT_THAT(text, StartsWith(GetParam().start)) << "the test would show nothing";
        return payloadIn<Value>(text);
    }
};

INSTANTIATE_TEST_SUITE_P(Each, WhatIsWrittenBy, testing::ValuesIn(kSources),
                         [](const auto& test) { return test.param.name; });

using Entries = std::vector<std::pair<std::string, int>>;

TEST_P(WhatIsWrittenBy, HoldsThePreferences) {
    const auto preferences = read<STPreferences>("preferences");
    EXPECT_FALSE(preferences.m_bEnable);
    EXPECT_TRUE(preferences.m_bSafeSearch);
    EXPECT_EQ(preferences.m_redSiteAction, 21);
    EXPECT_EQ(preferences.m_yellowSiteAction, -22);
    EXPECT_EQ(preferences.m_unratedSiteAction, std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(preferences.m_prefType, Sentrel::ST_ALLOW_BLOCK_LIST);
    EXPECT_TRUE(preferences.m_bIndividual);
    EXPECT_TRUE(preferences.m_bCategoryBlocking);
    EXPECT_FALSE(preferences.m_bUnused);
    EXPECT_TRUE(preferences.m_bAllowOverBlock);
    EXPECT_EQ(preferences.m_unverifiedAction, std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(preferences.m_categoryBlockDetails,
              (Sentrel::CategoryBlockDetails{{"", 9}, {"Online Gambling", 1}, {"Zoo", 0}}));
    const Sentrel::AllowBlockDetails urls = preferences.getAllowBlockDetails();
    EXPECT_EQ(Entries(urls.begin(), urls.end()), (Entries{{"b.example", 0}, {"a.example", 1}, {"b.example", 7}}));
}

TEST_P(WhatIsWrittenBy, HoldsThePreferencesAtTheirDefaults) {
    EXPECT_EQ(payloadOf(read<STPreferences>("default-preferences")), payloadOf(STPreferences()));
}

TEST_P(WhatIsWrittenBy, HoldsTheAboutBox) {
    const auto about = read<AboutBoxData>("about-box");
    EXPECT_EQ(about.m_moduleId, 7);
    EXPECT_EQ(about.m_versionItems,
              (std::map<std::wstring, std::wstring>{{L"Sentrel_HF", L""}, {L"Sentrel_Version", L"1.2 \u20AC (3)"}}));
}

TEST_P(WhatIsWrittenBy, HoldsTheDashBoard) {
    const auto board = read<DashBoardData>("dash-board");
    EXPECT_EQ(board.m_moduleId, 7);
    ASSERT_EQ(board.m_statusItems.size(), 2U);
    EXPECT_EQ(board.m_statusItems.at(L"a").m_displayText, L"ENABLED_STRING");
    EXPECT_EQ(board.m_statusItems.at(L"a").m_status, DASHBOARD_MANAGED_AT_RISK);
    EXPECT_EQ(board.m_statusItems.at(L"\u00FC").m_displayText, L"");
    EXPECT_EQ(board.m_statusItems.at(L"\u00FC").m_status, DASHBOARD_LOCAL_DISABLED);
}

TEST_P(WhatIsWrittenBy, HoldsTheProxies) {
    const auto proxies = read<Proxies>("proxies");
    ASSERT_EQ(proxies.size(), 3U);
    const auto words = [](const proxySettings& proxy) {
        return std::vector<std::string>{proxy.host, proxy.uname, proxy.pass};
    };
    const auto numbers = [](const proxySettings& proxy) {
        return std::vector<int>{proxy.httpAuth, proxy.port, proxy.type};
    };
    EXPECT_EQ(words(proxies[0]), (std::vector<std::string>{"proxy.example", "user name", "p"}));
    EXPECT_EQ(numbers(proxies[0]), (std::vector<int>{1, 8080, -2}));
    EXPECT_EQ(words(proxies[1]), (std::vector<std::string>{"", "", ""}));
    EXPECT_EQ(numbers(proxies[1]), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(words(proxies[2]), (std::vector<std::string>{"b", "", " "}));
    EXPECT_EQ(numbers(proxies[2]), (std::vector<int>{0, 3128, 4}));
}

TEST_P(WhatIsWrittenBy, HoldsTheDebugMap) {
    EXPECT_EQ(read<DebugMap>("debug-map"), (DebugMap{{-3, true}, {7, false}, {9, true}}));
}

TEST_P(WhatIsWrittenBy, HoldsANumberAndATruth) {
    EXPECT_EQ(payloadIn<int>(GetParam().text("int")), -180004);
    EXPECT_TRUE(payloadIn<bool>(GetParam().text("bool")));
}

// What this side writes.

class AProgramOfAnother : public testing::TestWithParam<const char*> {
protected:
    /// What the other program takes out of @p value's payload.
    template <class Value>
    static std::string seen(const char* kind, const Value& value) {
        return testing_support::readFile(PeerRun(GetParam(), "read", kind, payloadOf(value)).output());
    }
};

INSTANTIATE_TEST_SUITE_P(Each, AProgramOfAnother, testing::Values("ARCHIVE_PEER", "ARCHIVE_PEER_TRACKED"),
                         [](const auto& test) { return test.param; });

TEST_P(AProgramOfAnother, SeesThePreferences) {
    EXPECT_EQ(seen("preferences", STPreferences()), "1 0 3 2 1 10 0 0 0 0 1\n");
    EXPECT_EQ(seen("preferences", testing_support::filledPreferences()), "0 1 21 -22 2147483647 7 1 1 0 1 -2147483648\n"
                                                                         "category [] 9\n"
                                                                         "category [gambling] 1\n"
                                                                         "url [Yi5leGFtcGxl] 0\n"
                                                                         "url [YS5leGFtcGxl] 1\n"
                                                                         "url [Yi5leGFtcGxl] 7\n");
}

TEST_P(AProgramOfAnother, SeesTheAboutBox) {
    AboutBoxData about;
    about.m_moduleId = 7;
    about.m_versionItems = {{L"Sentrel_HF", L""}, {L"Sentrel_Version", L"1.2 \u20AC (3)"}};
    EXPECT_EQ(seen("about-box", about), "7\n[Sentrel_HF] []\n[Sentrel_Version] [1.2 \u20AC (3)]\n");
}

TEST_P(AProgramOfAnother, SeesTheDashBoard) {
    DashBoardData board;
    board.m_moduleId = 7;
    board.m_statusItems[L"ST_DASHBOARD_STATUS_KEY"] = {L"DISABLED_STRING", DASHBOARD_MANAGED_AT_RISK};
    board.m_statusItems[L"\u00FC"] = {L"", DASHBOARD_LOCAL_DISABLED};
    EXPECT_EQ(seen("dash-board", board), "7\n[ST_DASHBOARD_STATUS_KEY] [DISABLED_STRING] 5\n[\u00FC] [] 2\n");
}

TEST_P(AProgramOfAnother, SeesTheProxies) {
    proxySettings proxy;
    proxy.httpAuth = 1;
    proxy.port = 8080;
    proxy.type = -2;
    proxy.host = "proxy.example";
    proxy.uname = "user name";
    EXPECT_EQ(seen("proxies", Proxies{proxy, proxySettings()}),
              "1 8080 -2 [proxy.example] [user name] []\n0 0 0 [] [] []\n");
}

TEST_P(AProgramOfAnother, SeesTheDebugMapANumberAndATruth) {
    EXPECT_EQ(seen("debug-map", DebugMap{{7, false}, {-3, true}}), "-3 1\n7 0\n");
    EXPECT_EQ(seen("int", static_cast<int>(Sentrel::ST_ERROR_NONE)), "180000\n");
    EXPECT_EQ(seen("bool", true), "1\n");
    EXPECT_EQ(seen("bool", false), "0\n");
}

} // namespace
