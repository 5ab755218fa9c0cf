// sentrelctl ratings, and what check makes of the lists. Real: the program, its files, and for check the bus, hvbd and
// the settings keeper.
#include "tests/integration/ClientAlone.h"
#include "tests/support/Files.h"

#include <filesystem>
#include <nlohmann/json.hpp>

namespace testing_support {
namespace {

constexpr uid_t kNobody = 65534;

/// A machine with a file of each test's own to import.
class AMachineWithRatings : public AClientAlone {
protected:
    std::string fileWith(const std::string& content, const std::string& name = "list.txt") {
        const std::string path = m_machine.root().file(name);
        writeFile(path, content);
        return path;
    }

    nlohmann::json json(std::vector<std::string> arguments) {
        arguments.emplace_back("--json=short");
        return nlohmann::json::parse(does(arguments));
    }
};

TEST_F(AMachineWithRatings, ImportsAListAndShowsIt) {
    const std::string file = fileWith("0.0.0.0 bad.example\n0.0.0.0 worse.example\n192.0.2.1 nas.example\n");
    EXPECT_EQ(does({"ratings", "list"}), "Nobody rates sites here: no rating list was imported.\n");
    EXPECT_EQ(does({"ratings", "import", "bad", file, "--format", "hosts", "--rating", "60", "--category", "Games",
                    "--category", "Fun", "--phishing", "--source", "https://lists.example/", "--licence", "CC0"}),
              "Imported bad: 2 hosts, rating 60 RED; 1 lines passed over, 0 bad.\n");
    const nlohmann::json list = json({"ratings", "list"});
    EXPECT_EQ(list["reachable"], true);
    ASSERT_EQ(list["lists"].size(), 1U);
    EXPECT_EQ(list["lists"][0]["count"], 2);
    EXPECT_EQ(list["lists"][0]["source"], "https://lists.example/");
    EXPECT_EQ(list["lists"][0]["licence"], "CC0");
    EXPECT_EQ(list["lists"][0]["categories"], nlohmann::json({"Games", "Fun"}));
    EXPECT_EQ(does({"ratings", "show", "https://Bad.example/page"}),
              "bad.example\n  rating         60 RED, by bad\n  categories     Games, Fun\n  phishing       yes\n"
              "  lists          bad\n  reachable      yes\n");
    EXPECT_EQ(json({"ratings", "show", "other.example"})["rated_by"], nullptr);
}

TEST_F(AMachineWithRatings, TellsBadLinesByTheirNumbersAlone) {
    std::string content = "good.example\n";
    for (int line = 0; line < 12; ++line) {
        content += "secret words\n";
    }
    const CtlResult result =
        use({"ratings", "import", "a", fileWith(content), "--format", "domains", "--rating", "40"});
    EXPECT_EQ(result.code, 0);
    EXPECT_NE(result.err.find("line 2 is no name that a host can have.\n"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("and 2 bad lines more.\n"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("secret"), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "Imported a: 1 hosts, rating 40 YELLOW; 0 lines passed over, 12 bad.\n");
}

TEST_F(AMachineWithRatings, UpdatesListsFromTheirFiles) {
    fileWith("old.example\n");
    const std::string other = fileWith("kept.example\n", "other.txt");
    does({"ratings", "import", "a", m_machine.root().file("list.txt"), "--format", "domains", "--rating", "60"});
    does({"ratings", "import", "b", other, "--format", "domains", "--rating", "30"});
    fileWith("new.example\n");
    EXPECT_EQ(does({"ratings", "update", "a"}), "Updated a: 1 hosts, rating 60 RED; 0 lines passed over, 0 bad.\n");
    EXPECT_EQ(json({"ratings", "show", "new.example"})["rating"], 60);
    std::filesystem::remove(other);
    const CtlResult result = use({"ratings", "update"});
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.out.find("b stays as it was: "), std::string::npos) << result.out;
    EXPECT_EQ(result.err, "sentrelctl: not every rating list was updated: 1 of 2 failed. The others are in force.\n");
    EXPECT_EQ(json({"ratings", "show", "kept.example"})["rating"], 30);
}

TEST_F(AMachineWithRatings, RemovesAList) {
    does({"ratings", "import", "a", fileWith("a.example\n"), "--format", "domains", "--rating", "60"});
    EXPECT_EQ(does({"ratings", "remove", "a"}), "Removed a.\nNobody rates sites here: no rating list was imported.\n");
    const CtlResult again = use({"ratings", "remove", "a"});
    EXPECT_EQ(again.code, 1);
    EXPECT_EQ(again.err, "sentrelctl: nothing was removed: a: there is no such list. 'sentrelctl ratings list' shows "
                         "what is there.\n");
}

TEST_F(AMachineWithRatings, RefusesWhatCannotBeMeant) {
    const std::string file = fileWith("a.example\n");
    const auto import = [&](const std::string& name, const std::string& format, const std::string& rating) {
        return use({"ratings", "import", name, file, "--format", format, "--rating", rating}).code;
    };
    EXPECT_EQ(import("../a", "domains", "60"), 2);
    EXPECT_EQ(import("a", "csv", "60"), 2);
    EXPECT_EQ(import("a", "domains", "101"), 2);
    EXPECT_EQ(use({"ratings", "import", "a", file, "--format", "domains"}).code, 2);
    EXPECT_EQ(use({"ratings", "show", "about:blank"}).code, 2);
    EXPECT_EQ(import("a", "hosts", "60"), 1);
    EXPECT_EQ(does({"ratings", "list"}), "Nobody rates sites here: no rating list was imported.\n");
}

TEST_F(AMachineWithRatings, LetsEverybodyAskAndRootAloneChange) {
    const std::string file = fileWith("a.example\n");
    does({"ratings", "import", "a", file, "--format", "domains", "--rating", "60"});
    const CtlResult shown = use({"ratings", "show", "a.example", "--json=short"}, "", kNobody);
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_EQ(nlohmann::json::parse(shown.out)["rated_by"], "a");
    EXPECT_EQ(use({"ratings", "remove", "a"}, "", kNobody).code, 4);
    EXPECT_EQ(use({"ratings", "import", "b", file, "--format", "domains", "--rating", "60"}, "", kNobody).code, 4);
    EXPECT_EQ(json({"ratings", "list"})["lists"].size(), 1U);
}

TEST_F(AMachineWithRatings, ChecksAPageByItsLists) {
    m_machine.initSettings();
    m_machine.startHub();
    m_machine.startKeeper();
    const std::string page = "https://www.bad.example/";
    EXPECT_EQ(json({"check", page})["action"], "allow");
    EXPECT_NE(does({"check", page}).find("reachability   ratings can be had"), std::string::npos);
    does({"ratings", "import", "bad", fileWith("bad.example\n"), "--format", "domains", "--rating", "60"});
    const nlohmann::json checked = json({"check", page});
    EXPECT_EQ(checked["action"], "block");
    EXPECT_EQ(checked["rated_by"], "bad");
    EXPECT_NE(does({"check", page}).find("> rating         60 is RED by the list bad, and red-sites is block"),
              std::string::npos);
    EXPECT_EQ(json({"check", page, "--rating", "0"})["action"], "allow");
    EXPECT_EQ(json({"check", page, "--rating", "0"})["rated_by"], nullptr);
    EXPECT_EQ(json({"check", "https://notbad.example/"})["rating"], -100);
}

} // namespace
} // namespace testing_support
