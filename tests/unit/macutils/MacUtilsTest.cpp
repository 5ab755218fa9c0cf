// The user interface's language. Real is the process's environment.
#include "platform/macutils/MacUtils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>

namespace {

using MacUtils::CFHelper;

/// A process whose environment names no locale yet.
class ALocale : public ::testing::Test {
protected:
    ALocale() {
        for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG", "LANGUAGE"}) {
            unsetenv(variable);
        }
    }
    static void set(const char* variable, const std::string& value) { setenv(variable, value.c_str(), 1); }
};

TEST_F(ALocale, GivesItsLanguageAndTerritory) {
    for (const auto& [name, language] : {std::pair{"de", L"de"},
                                         {"de_AT.UTF-8", L"de-AT"},
                                         {"pt_BR", L"pt-BR"},
                                         {"ca_ES.UTF-8@valencia", L"ca-ES"},
                                         {"sr@latin", L"sr"}}) {
        set("LANG", name);
        EXPECT_EQ(CFHelper::GetLanguage(), language) << name;
    }
}

TEST_F(ALocale, IsEnglishWhenItNamesNone) {
    EXPECT_EQ(CFHelper::GetLanguage(), L"en");
    for (const char* name : {"", "C", "POSIX", "C.UTF-8", ".UTF-8", "@euro"}) {
        set("LANG", name);
        EXPECT_EQ(CFHelper::GetLanguage(), L"en") << name;
    }
}

TEST_F(ALocale, IsEnglishWhenItsNameIsNoLanguage) {
    for (const std::string& name : {std::string("de DE"), std::string("../../etc"), std::string("d\xC3\xA9"),
                                    std::string("de\n"), std::string(17, 'd')}) {
        set("LANG", name);
        EXPECT_EQ(CFHelper::GetLanguage(), L"en") << name;
    }
}

TEST_F(ALocale, IsThatOfTheStrongestVariableThatIsSet) {
    set("LANG", "de_DE.UTF-8");
    set("LC_MESSAGES", "fr_FR.UTF-8");
    EXPECT_EQ(CFHelper::GetLanguage(), L"fr-FR");
    set("LC_ALL", "it_IT.UTF-8");
    EXPECT_EQ(CFHelper::GetLanguage(), L"it-IT");
    set("LC_ALL", "");
    EXPECT_EQ(CFHelper::GetLanguage(), L"fr-FR");
}

} // namespace
