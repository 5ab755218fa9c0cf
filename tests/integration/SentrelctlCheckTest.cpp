// sentrelctl check with the settings of a running machine. All of it is real: the program, the bus with the shipped
// policy, hvbd, the settings keeper, sentreld and the file.
#include "tests/integration/PreferenceClientFixture.h"

#include <filesystem>
#include <nlohmann/json.hpp>

namespace testing_support {
namespace {

constexpr uid_t kNobody = 65534;

TEST_F(APreferenceClient, ChecksAPageByTheSettingsOfTheMachine) {
    const std::vector<std::string> check{"check", "https://site.example/page", "--rating", "60"};
    EXPECT_TRUE(does(check).starts_with("block  https://site.example/page\n"));
    does({"prefs", "set", "red-sites", "warn"});
    const std::string warned = does(check);
    EXPECT_TRUE(warned.starts_with("warn  https://site.example/page\n")) << warned;
    EXPECT_NE(warned.find("> rating         60 is RED, and red-sites is warn\n"), std::string::npos) << warned;
    does({"list", "allow", "*.example"});
    const auto json = nlohmann::json::parse(does({"check", "https://site.example/page", "--json=short"}));
    EXPECT_EQ(json["action"], "allow");
    EXPECT_EQ(json["decided_by"], "list");
    EXPECT_EQ(json["entry"]["url"], "*.example");
    does({"prefs", "set", "protection", "off"});
    EXPECT_NE(does(check).find("> protection     off\n"), std::string::npos);
}

TEST_F(APreferenceClient, ChecksAPageWithWhatIsSaidOfItsSite) {
    does({"categories", "set", "Games"});
    const auto decidedBy = [this](std::vector<std::string> options) {
        options.insert(options.begin(), {"check", "--json=short"});
        options.emplace_back("https://site.example/");
        return nlohmann::json::parse(does(options))["decided_by"].get<std::string>();
    };
    EXPECT_EQ(decidedBy({}), "rating");
    EXPECT_EQ(decidedBy({"--rating", "-100"}), "rating");
    EXPECT_EQ(decidedBy({"--category", "News", "--category", "Games"}), "category");
    EXPECT_EQ(decidedBy({"--category", "Games"}), "category") << "the address is no category";
    EXPECT_EQ(decidedBy({"--phishing"}), "phishing");
    EXPECT_EQ(decidedBy({"--unreachable"}), "rating");
}

TEST_F(APreferenceClient, ChecksTheAddressesInAFileOneALine) {
    does({"list", "block", "bad.example"});
    const CtlResult result =
        use({"check", "--from", "-"}, "https://bad.example/a\n\nabout:blank\nhttps://Good.example");
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "block  list           https://bad.example/a\n"
                          "allow  address        about:blank\n"
                          "allow  rating         https://good.example/\n");
    const CtlResult json = use({"check", "--from", "-", "--json=short"}, "https://bad.example/a\n");
    EXPECT_EQ(nlohmann::json::parse(json.out).at(0)["decided_by"], "list");
    const CtlResult wrong = use({"check", "--from", "-"}, "https://bad.example/a\nsite.example\n");
    EXPECT_EQ(wrong.code, 2);
    EXPECT_EQ(wrong.out, "");
    EXPECT_NE(wrong.err.find("-, line 2: site.example: it does not begin"), std::string::npos) << wrong.err;
}

TEST_F(APreferenceClient, ChecksAPageForEveryUser) {
    const CtlResult result = use({"check", "https://site.example/"}, "", kNobody);
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_TRUE(result.out.starts_with("allow  https://site.example/\n")) << result.out;
}

TEST_F(APreferenceClient, SaysWhetherThePolicyRulesWhatDecidesOnAPage) {
    const std::vector<std::string> check{"check", "https://site.example/", "--phishing"};
    const auto policyLine = [&](std::optional<uid_t> uid) {
        const std::string out = use(check, "", uid).out;
        return out.substr(out.find("  policy "));
    };
    EXPECT_EQ(policyLine({}), "  policy         this machine is not managed\n");
    std::ofstream(m_machine.root().hubConfigDirectory() + "/agent.json") << "{}";
    EXPECT_EQ(policyLine({}), "  policy         this machine is managed, and no policy has come yet\n");
    const std::string saved = m_machine.root().varDirectory() + "/policy.json";
    std::ofstream(saved) << R"({"version": 3, "id": "a", "sections": {}, "features": {"KPF_General":)"
                         << R"( {"ActionEnforcement": {"bPhishingBlock": "1"}}}})";
    std::filesystem::permissions(saved, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(policyLine({}), "  policy         the policy in force, version 3, sets it (bPhishingBlock)\n");
    EXPECT_EQ(policyLine(kNobody), policyLine({})) << "what it rules is no secret, unlike the policy itself";
}

TEST_F(AClientAlone, RefusesToCheckWhatIsNoWholeAddress) {
    expectFailure(
        use({"check", "site.example"}), 2,
        "not an address: site.example: it does not begin with http:// or https://. Give it whole, as a browser "
        "shows it");
    EXPECT_EQ(use({"check"}).code, 2);
    EXPECT_EQ(use({"check", "https://site.example/", "--from", "-"}).code, 2);
}

TEST_F(AClientAlone, SaysThatThereAreNoSettingsToCheckAPageWith) {
    const CtlResult result = use({"check", "https://site.example/"});
    EXPECT_EQ(result.code, 8);
    EXPECT_TRUE(result.err.starts_with("sentrelctl: cannot check the page: ")) << result.err;
    m_machine.startHub();
    m_machine.startKeeper();
    const CtlResult noFile = use({"check", "https://site.example/"});
    EXPECT_EQ(noFile.code, 1) << noFile.out;
    EXPECT_NE(noFile.err.find("product.db"), std::string::npos) << noFile.err;
}

} // namespace
} // namespace testing_support
