// When a silent module is marked, and when its mark goes. The directory is real.
#include "apps/hvbd/SilenceMarks.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace HVB::hub;

namespace {

class ASilentModule : public testing::Test {
protected:
    void miss(int checks) {
        for (int i = 0; i < checks; ++i) {
            marks.note(7, Health::Silent);
        }
    }
    bool isMarked() const { return std::filesystem::exists(m_directory.path() / "module-7"); }
    void someoneTakesTheMark() { std::filesystem::remove(m_directory.path() / "module-7"); }
    std::filesystem::path directory() const { return m_directory.path(); }

private:
    testing_support::TemporaryDirectory m_directory;
    SystemLog m_log{SystemLog::Echo::None};

protected:
    SilenceMarks marks{m_directory.path().string(), m_log};
};

TEST_F(ASilentModule, IsMarkedAfterThreeMissedChecks) {
    miss(2);
    EXPECT_FALSE(isMarked());
    miss(1);
    EXPECT_TRUE(isMarked());
}

TEST_F(ASilentModule, IsNotMarkedWhenItAnswersInBetween) {
    miss(2);
    marks.note(7, Health::Well);
    miss(2);
    EXPECT_FALSE(isMarked());
}

TEST_F(ASilentModule, LosesItsMarkWhenItIsWellAgain) {
    miss(3);
    marks.note(7, Health::Well);
    EXPECT_FALSE(isMarked());
}

TEST_F(ASilentModule, IsMarkedAnewWhenARestartDidNotHelp) {
    miss(3);
    someoneTakesTheMark();
    miss(2);
    EXPECT_FALSE(isMarked());
    miss(1);
    EXPECT_TRUE(isMarked());
}

TEST_F(ASilentModule, HasNoPartInAnothersMark) {
    miss(2);
    marks.note(8, Health::Silent);
    EXPECT_FALSE(isMarked());
    EXPECT_FALSE(std::filesystem::exists(directory() / "module-8"));
}

TEST_F(ASilentModule, IsNoTroubleWhereItsMarkCannotBeMade) {
    std::filesystem::remove_all(directory());
    miss(3);
    EXPECT_FALSE(isMarked());
    marks.note(7, Health::Well);
}

} // namespace
