// What the doctor makes of what it finds. That it finds it is tested on real machines.
#include "apps/sentrelctl/doctor/Doctor.h"
#include "apps/sentrelctl/terminal/Json.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"
#include "platform/hvbhelpers/BusConfiguration.h"
#include "tests/support/Files.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <pwd.h>
#include <set>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace Sentrel::ctl {
namespace {

TEST(ADiagnosis, IsARowWithTheAdviceBelow) {
    EXPECT_EQ(diagnosisText("hvbd", healthy("hvbd answers"), Palette()), "hvbd                   ok       hvbd "
                                                                         "answers\n");
    EXPECT_EQ(diagnosisText("management-agent", {Verdict::Failed, "enrolment-wrong", "\x1b[2J", "Mend it"}, Palette()),
              "management-agent       FAILED   \\x1b[2J\n"
              "                                -> Mend it\n"
              "                                (enrolment-wrong)\n");
    EXPECT_EQ(diagnosisText("a", {Verdict::Warning, {}, "b", ""}, Palette()), "a                      warning  b\n");
    EXPECT_EQ(diagnosisText("a", unseen("b"), Palette()), "a                      unseen   b\n");
}

TEST(ADiagnosis, IsAnObjectForPrograms) {
    EXPECT_EQ(jsonText(diagnosisJson("hvbd", healthy("\xff")), JsonMode::Short),
              R"({"check":"hvbd","result":"ok","id":null,"what":"\\xff","advice":null})"
              "\n");
    EXPECT_EQ(jsonText(diagnosisJson("hvbd", failed("hvbd-absent", "down", "Start it")), JsonMode::Short),
              R"({"check":"hvbd","result":"failed","id":"hvbd-absent","what":"down","advice":"Start it"})"
              "\n");
}

TEST(Diagnoses, AreCounted) {
    EXPECT_EQ(summaryText({healthy(""), {Verdict::Warning, {}, "", ""}, {Verdict::Failed, {}, "", ""}, unseen("")}),
              "4 checks: 1 ok, 1 warning, 1 failed, 1 unseen.\n");
    EXPECT_EQ(summaryText({}), "0 checks: 0 ok, 0 warnings, 0 failed, 0 unseen.\n");
}

TEST(ACheck, ThatCannotSeeDoesNotFail) {
    const Diagnosis diagnosis = examined({"x", [](double) -> Diagnosis { throw CannotSee("closed"); }}, 1);
    EXPECT_EQ(diagnosis.verdict, Verdict::Unseen);
    EXPECT_EQ(diagnosis.what, "closed");
    const Diagnosis refused =
        examined({"x", [](double) -> Diagnosis { throw Failure(ExitCode::NoAccess, "a", "b", "no right", "c"); }}, 1);
    EXPECT_EQ(refused.verdict, Verdict::Unseen);
    EXPECT_EQ(refused.what, "cannot be seen as this user: no right");
}

TEST(ACheck, ThatThrowsFailsWithTheReasonAndTheNextStep) {
    const Diagnosis diagnosis = examined(
        {"x", [](double) -> Diagnosis { throw Failure(ExitCode::Failed, "a", "b", "it is damaged", "Mend it"); }}, 1);
    EXPECT_EQ(diagnosis.verdict, Verdict::Failed);
    EXPECT_EQ(diagnosis.what, "it is damaged");
    EXPECT_EQ(diagnosis.advice, "Mend it");
    EXPECT_EQ(examined({"x", [](double) -> Diagnosis { throw std::runtime_error("odd"); }}, 1).what, "odd");
}

TEST(TheChecks, HaveNamesOfTheirOwn) {
    std::set<std::string> names;
    for (const Check& check : allChecks(true)) {
        EXPECT_TRUE(names.insert(check.name).second) << check.name;
    }
    EXPECT_EQ(names.size(), 31U);
    EXPECT_EQ(allChecks(false).size(), 29U);
}

/// The names under which docs/troubleshooting.md has sections, in its order.
std::vector<std::string> sectionsOfTroubleshooting() {
    constexpr std::string_view heading = "### ";
    std::ifstream page(SENTREL_SOURCE_DIR "/docs/troubleshooting.md");
    std::vector<std::string> names;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with(heading)) {
            names.push_back(line.substr(heading.size()));
        }
    }
    return names;
}

TEST(TheFindings, HaveASectionEachInTroubleshootingWhichHasNoOther) {
    EXPECT_EQ(sectionsOfTroubleshooting(), (std::vector<std::string>{kFindings.begin(), kFindings.end()}));
    EXPECT_EQ(std::set<std::string_view>(kFindings.begin(), kFindings.end()).size(), kFindings.size());
}

TEST(TheFindings, AreAllFoundSomewhere) {
    std::string sources;
    for (const auto& file : std::filesystem::directory_iterator(SENTREL_SOURCE_DIR "/apps/sentrelctl/doctor")) {
        if (file.path().extension() == ".cpp") {
            sources += testing_support::readFile(file.path());
        }
    }
    for (const std::string_view name : kFindings) {
        EXPECT_NE(sources.find("\"" + std::string(name) + "\""), std::string::npos) << name;
    }
}

TEST(AQuestionInAChild, IsAnswered) {
    EXPECT_EQ(inChild(std::nullopt, 30, [] { return 3; }), 3);
}

TEST(AQuestionInAChild, IsAskedAsAnotherUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can act as others";
    }
    constexpr uid_t nobody = 65534;
    EXPECT_EQ(inChild(nobody, 30, [] { return ::geteuid() == nobody && ::getegid() == nobody ? 1 : 0; }), 1);
}

/// What a child makes beside a file would otherwise be readable for a group that happens to have the user's number.
TEST(AQuestionInAChild, IsAskedWithTheUsersOwnGroup) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can act as others";
    }
    const passwd* other = nullptr;
    ::setpwent();
    while ((other = ::getpwent()) != nullptr && other->pw_uid == other->pw_gid) {
    }
    if (other == nullptr) {
        GTEST_SKIP() << "each user here has the number of its group";
    }
    const uid_t user = other->pw_uid;
    const gid_t group = other->pw_gid;
    ::endpwent();
    EXPECT_EQ(inChild(user, 30, [=] { return ::geteuid() == user && ::getegid() == group ? 1 : 0; }), 1);
}

TEST(AQuestionInAChild, HasNoAnswerWhenItThrowsDiesOrTakesTooLong) {
    EXPECT_EQ(inChild(std::nullopt, 30, []() -> int { throw std::runtime_error(""); }), std::nullopt);
    EXPECT_EQ(inChild(std::nullopt, 30, []() -> int { return ::raise(SIGKILL); }), std::nullopt);
    EXPECT_EQ(inChild(std::nullopt, 0.01, []() -> int { return ::pause(); }), std::nullopt);
}

TEST(TheHostName, IsAWarningUnlessItResolvesAtOnce) {
    EXPECT_EQ(hostNameDiagnosis("desk", 0).verdict, Verdict::Ok);
    EXPECT_EQ(hostNameDiagnosis("desk", 1).what, "the host's own name desk does not resolve: reports lack the address");
    EXPECT_EQ(hostNameDiagnosis("desk", std::nullopt).what,
              "nobody answers for the host's own name desk: every browser event waits for that");
    EXPECT_EQ(hostNameDiagnosis("desk", 1).advice, "Put the name into /etc/hosts, or install libnss-myhostname");
}

TEST(TheBusPolicy, FailsWhenItLetsAnOrdinaryUserDoMore) {
    EXPECT_EQ(busPolicyDiagnosis(PolicyRefuses).verdict, Verdict::Ok);
    EXPECT_EQ(busPolicyDiagnosis(PolicyLetsAsk).what, "the bus lets an ordinary user ask for the health");
    EXPECT_EQ(busPolicyDiagnosis(PolicyLetsSignal).what, "the bus lets an ordinary user send events");
    EXPECT_EQ(busPolicyDiagnosis(PolicyUnreachable).what, "an ordinary user cannot connect to the bus");
    EXPECT_THROW(busPolicyDiagnosis(std::nullopt), CannotSee);
}

/// The bus's configuration as hvbd makes it.
class ABusConfiguration : public testing::Test {
protected:
    Diagnosis diagnosis(const std::string& text) const {
        return busConfigurationDiagnosis("hub-bus.conf", text,
                                         [this](const std::string& group) { return group == m_group; });
    }

    HVB::bus::BusConfigurationOptions m_options{paths::hubSocket(), "sentrel", "hvb", "sentrel-admin"};
    std::string m_group = "sentrel-admin";
};

TEST_F(ABusConfiguration, IsFineAsItIsMade) {
    const Diagnosis fine = diagnosis(HVB::bus::busConfiguration(m_options));
    EXPECT_EQ(fine.verdict, Verdict::Ok);
    EXPECT_EQ(fine.what, "hub-bus.conf: sentreld runs as sentrel, hvbd as hvb, administrators are sentrel-admin");
    m_options.adminGroup.clear();
    EXPECT_EQ(diagnosis(HVB::bus::busConfiguration(m_options)).what,
              "hub-bus.conf: sentreld runs as sentrel, hvbd as hvb, administrators are root alone");
}

TEST_F(ABusConfiguration, TellsTheAdministratorsGroup) {
    EXPECT_EQ(administratorsIn(HVB::bus::busConfiguration(m_options)), "sentrel-admin");
    m_options.adminGroup.clear();
    EXPECT_EQ(administratorsIn(HVB::bus::busConfiguration(m_options)), "");
    EXPECT_EQ(administratorsIn("no configuration"), "");
}

TEST_F(ABusConfiguration, FailsWithAGroupThatThereIsNot) {
    m_group = "another";
    const Diagnosis missing = diagnosis(HVB::bus::busConfiguration(m_options));
    EXPECT_EQ(missing.verdict, Verdict::Failed);
    EXPECT_EQ(missing.what, "hub-bus.conf names the group sentrel-admin, which there is not on this machine");
    EXPECT_EQ(missing.advice, "addgroup --system sentrel-admin, then restart the bus and all on it");
}

TEST_F(ABusConfiguration, IsAWarningWhenItWasChanged) {
    std::string text = HVB::bus::busConfiguration(m_options);
    text.insert(text.find("</policy>"), "<allow send_destination=\"*\"/>");
    EXPECT_EQ(diagnosis(text).verdict, Verdict::Warning);
    m_options.socketPath = "/elsewhere";
    EXPECT_EQ(diagnosis(HVB::bus::busConfiguration(m_options)).verdict, Verdict::Warning);
}

TEST_F(ABusConfiguration, FailsWhenItIsSomethingElse) {
    for (const char* text : {"", "<busconfig></busconfig>", "\xff"}) {
        EXPECT_EQ(diagnosis(text).verdict, Verdict::Failed);
        EXPECT_EQ(diagnosis(text).what, "hub-bus.conf is no configuration of this hub's bus");
    }
}

} // namespace
} // namespace Sentrel::ctl
