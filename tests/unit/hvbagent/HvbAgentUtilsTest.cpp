// The agent library's text helper.
#include "platform/hvbagent/MsgBusEnterpriseAgent.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using HVBEnterprise::HvbAgentUtils;

TEST(TheAgentsNarrowText, IsUtf8) {
    EXPECT_EQ(HvbAgentUtils::wstringToString(L""), "");
    EXPECT_EQ(HvbAgentUtils::wstringToString(L"1 \x7F"), "1 \x7F");
    EXPECT_EQ(HvbAgentUtils::wstringToString(L"\u0080\u00E9\u07FF"), "\xC2\x80\xC3\xA9\xDF\xBF");
    EXPECT_EQ(HvbAgentUtils::wstringToString(L"\u0800\u20AC\uFFFF"), "\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF");
    EXPECT_EQ(HvbAgentUtils::wstringToString(L"\U00010000\U0010FFFF"), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
}

TEST(TheAgentsNarrowText, KeepsANullCharacter) {
    EXPECT_EQ(HvbAgentUtils::wstringToString(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
}

TEST(TheAgentsNarrowText, ReplacesWhatIsNoCharacter) {
    for (const wchar_t none : {wchar_t{0xD800}, wchar_t{0xDFFF}, wchar_t{0x110000}, wchar_t{0x7FFFFFFF}, wchar_t{-1}}) {
        EXPECT_EQ(HvbAgentUtils::wstringToString({L'a', none, L'b'}), "a\xEF\xBF\xBD"
                                                                      "b")
            << static_cast<long>(none);
    }
}

} // namespace
