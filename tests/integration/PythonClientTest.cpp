// A client in another language, written from the documents alone (tests/peers/hub_client.py), against a real daemon and
// hub. What it cannot do, the documents do not say.
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/Machine.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace testing_support {
namespace {

using json = nlohmann::json;

const std::string kSources = SENTREL_SOURCE_DIR;

/// What the client says; it must succeed.
std::string said(const PrivateRoot& root, const std::vector<std::string>& arguments) {
    const std::string file = root.file("client.out");
    std::ofstream(file, std::ios::trunc).close();
    ChildOptions options;
    options.arguments = arguments;
    options.outputFile = file;
    ChildProcess client(kSources + "/tests/peers/hub_client.py", options);
    EXPECT_EQ(client.waitUntil(patience()), 0) << readFile(file);
    return readFile(file);
}

class APythonClient : public testing::Test {
protected:
    void SetUp() override {
        machine.initSettings();
        machine.startHub();
        ASSERT_TRUE(machine.startDaemon()) << machine.daemon().output();
    }

    std::string use(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), machine.bus().socketPath());
        return said(machine.root(), arguments);
    }
    json preferences() { return json::parse(use({"get"})); }

    Machine machine;
};

TEST_F(APythonClient, GetsThePreferences) {
    const json first = preferences();
    EXPECT_EQ(first.at("enabled"), 1);
    EXPECT_EQ(first.at("red"), 3);
    EXPECT_EQ(first.at("yellow"), 2);
    EXPECT_EQ(first.at("urls"), json::array());
}

TEST_F(APythonClient, SetsAPreference) {
    EXPECT_EQ(use({"set", "2", "red", "1"}), "180000\n");
    EXPECT_EQ(preferences().at("red"), 1);
    EXPECT_EQ(use({"set", "77", "red", "1"}), "180004\n") << "no such preference";
}

TEST_F(APythonClient, ReplacesAList) {
    EXPECT_EQ(use({"replace", "http://old.example", "1"}), "180000\n");
    EXPECT_EQ(use({"replace", "http://b.example", "1", "http://caf\xC3\xA9.example", "0"}), "180000\n");
    const json expected = json::parse(R"([["http://b.example", 1], ["http://caf\u00e9.example", 0]])");
    EXPECT_EQ(preferences().at("urls"), expected);
}

TEST_F(APythonClient, HasItsUrlsStoredAsTheyAreAndEachOnce) {
    const std::string isLong(2000, 'x');
    EXPECT_EQ(use({"replace", " a blank ", "7", isLong, "0", "twice.example", "1", "twice.example", "0"}), "180000\n");
    const json urls = preferences().at("urls");
    EXPECT_EQ(urls.size(), 3U);
    for (const json& entry :
         {json::array({" a blank ", 7}), json::array({isLong, 0}), json::array({"twice.example", 0})}) {
        EXPECT_NE(std::find(urls.begin(), urls.end(), entry), urls.end()) << entry;
    }
}

TEST_F(APythonClient, SetsAndGetsAListThatTravelsInAFile) {
    EXPECT_EQ(use({"fill", "5000"}), "180000\n");
    EXPECT_EQ(preferences().at("urls").size(), 5000U);
}

TEST_F(APythonClient, SendsAnEventAndReadsItsReport) {
    said(machine.root(), {machine.eventSocket(), "event", "http://caf\xC3\xA9.example/menu"});
    const json record = json::parse(use({"reports", "0"}));
    EXPECT_EQ(record.at("kind"), 8);
    EXPECT_EQ(record.at("report").at("name"), "STBlockEvent");
    const json& detail = record.at("detail");
    EXPECT_EQ(detail.at("attributes").at("SourceURL"), "http://caf\xC3\xA9.example/menu");
    EXPECT_EQ(detail.at("attributes").at("SourceProcessName"), "python");
    const json information = json::parse(R"([["ActionID", "4"], ["ContentID", "42"], ["Count", "1"],
        ["DomainName", "caf\u00e9.example"], ["EventTypeId", "18600"], ["ListID", "1"], ["RatingID", "3"],
        ["ReasonID", "5"], ["URL", "http://caf\u00e9.example/menu"], ["target", "ST_EventInfoMT"]])");
    EXPECT_EQ(detail.at("information"), information) << "in the order of the keys";
}

TEST(APythonReader, WritesAndReadsTheExamplesOfTheDocument) {
    const PrivateRoot root;
    std::istringstream lines(said(root, {"-", "examples"}));
    const std::string document = readFile(kSources + "/docs/formats.md");
    std::vector<json> values;
    for (std::string archive, value; std::getline(lines, archive) && std::getline(lines, value);) {
        EXPECT_NE(document.find("\n    " + archive + "\n"), std::string::npos) << archive;
        values.push_back(json::parse(value));
    }
    ASSERT_EQ(values.size(), 3U);
    EXPECT_EQ(values[0], json::parse("[[3, 0], [7, 1]]"));
    EXPECT_EQ(values[1], (json::array({json::array({"name", "two words"})})));
    EXPECT_EQ(values[2].at("categories"), json{"Zoo"});
    EXPECT_EQ(values[2].at("urls"), (json::array({json::array({"b.example", 1})})));
}

TEST(APythonReader, ReadsAnArchiveOfALaterLibraryAndOneThatIsTracked) {
    const PrivateRoot root;
    for (const char* kind : {"debian-13", "debian-13-tracked"}) {
        const json snapshot =
            json::parse(said(root, {kSources + "/tests/data/archives/" + kind + "/preferences", "read"}));
        EXPECT_EQ(snapshot.at("unverified"), INT32_MIN) << kind;
        EXPECT_EQ(snapshot.at("categories"), json({"", "Online Gambling", "Zoo"})) << kind;
        EXPECT_EQ(snapshot.at("urls"), json::parse(R"([["b.example", 0], ["a.example", 1], ["b.example", 7]])"))
            << kind;
    }
}

} // namespace
} // namespace testing_support
