// What is known of the policy in store. Real: the files, and the reading of a policy.
#include "apps/settings-keeper/PolicyWatch.h"

#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace {

using Sentrel::keeper::PolicyWatch;
using Sentrel::settings::MachinePolicy;
using ::testing::HasSubstr;

class APolicyWatch : public ::testing::Test {
    testing_support::TemporaryDirectory m_directory;

protected:
    std::string m_enrolment = m_directory.path().string() + "/agent.json";
    std::string m_policy = m_directory.path().string() + "/policy.json";
    PolicyWatch m_watch{m_enrolment, m_policy};

    void save(const std::string& document) {
        testing_support::writeFile(m_policy + ".new", document);
        std::filesystem::rename(m_policy + ".new", m_policy);
    }
};

constexpr const char* kDocument =
    R"({"version": 7, "id": "a", "sections": {}, "features": {"KPF_General": {"ActionEnforcement": {"bPhishingBlock": 1}},)"
    R"( "KPF_ContentFiltering": {"RatingActions": {"uiOverall": 0}}}})";

TEST_F(APolicyWatch, KnowsAMachineWithoutEnrolmentAsNotManaged) {
    save(kDocument);
    EXPECT_TRUE(m_watch.look());
    EXPECT_EQ(m_watch.policy(), MachinePolicy()) << "a policy that was left behind rules nothing";
    EXPECT_FALSE(m_watch.look()) << "nothing changed";
}

TEST_F(APolicyWatch, NamesTheSettingsThatThePolicySets) {
    testing_support::writeFile(m_enrolment, "{}");
    EXPECT_TRUE(m_watch.look());
    EXPECT_EQ(m_watch.policy(), (MachinePolicy{true, std::nullopt, "", {}}));
    save(kDocument);
    EXPECT_TRUE(m_watch.look());
    EXPECT_EQ(m_watch.policy(), (MachinePolicy{true, 7, "", {"GenPolicyBlockPhishingAction"}}))
        << "0 leaves the ratings' actions as they are";
}

TEST_F(APolicyWatch, NamesNoneOfAPolicyThatIsNotEnforced) {
    testing_support::writeFile(m_enrolment, "{}");
    save(R"({"version": 8, "id": "a", "sections": {"NODE_ST_1070UNIX": {"EnforcePolicy": 0}},)"
         R"( "features": {"KPF_General": {"ActionEnforcement": {"bPhishingBlock": 1}}}})");
    m_watch.look();
    EXPECT_EQ(m_watch.policy(), (MachinePolicy{true, 8, "", {}}));
}

TEST_F(APolicyWatch, TellsWhetherTheEnrolmentLeavesGrantsToTheMachine) {
    const std::string enrolment = R"({"broker": {"host": "hub.example", "port": 1883}, "site": "a", "machine": "m")";
    testing_support::writeFile(m_enrolment, enrolment + "}");
    m_watch.look();
    EXPECT_FALSE(m_watch.policy()->allowsLocalGrants);
    testing_support::writeFile(m_enrolment, enrolment + R"(, "local_grants": true})");
    EXPECT_TRUE(m_watch.look());
    EXPECT_EQ(m_watch.policy(), (MachinePolicy{true, std::nullopt, "", {}, true}));
}

TEST_F(APolicyWatch, SaysWhyAPolicyCannotBeRead) {
    testing_support::writeFile(m_enrolment, "{}");
    save("no policy");
    m_watch.look();
    ASSERT_TRUE(m_watch.policy());
    EXPECT_THAT(m_watch.policy()->trouble, HasSubstr("line 1"));
    EXPECT_TRUE(m_watch.policy()->rules.empty());
}

TEST_F(APolicyWatch, KnowsNothingWhereItCannotLook) {
    PolicyWatch watch(m_policy + "/not-a-directory/agent.json", m_policy);
    testing_support::writeFile(m_policy, "");
    EXPECT_TRUE(watch.policy() == std::nullopt);
    watch.look();
    EXPECT_EQ(watch.policy(), std::nullopt);
}

} // namespace
