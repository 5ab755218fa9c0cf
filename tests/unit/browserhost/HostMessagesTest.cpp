#include "browser/host/HostMessages.h"
#include "browser/host/Framing.h"

#include <gtest/gtest.h>

#include <string>

namespace Sentrel::host {
namespace {

/// The code of the error that a message is answered with, and its id; "fatal" when it ends the host, "" when it is
/// taken.
std::string refusalOf(const std::string& message) {
    try {
        readRequest(message);
        return "";
    } catch (const RequestError& error) {
        EXPECT_STRNE(error.what(), "");
        return error.code() + (error.id() ? " " + std::to_string(*error.id()) : "");
    } catch (const FramingError& error) {
        EXPECT_STRNE(error.what(), "");
        return "fatal";
    }
}

std::string decideWith(const std::string& members) {
    return R"({"type": "decide", "url": "http://a.example/", "frame": "main")" + members + "}";
}

TEST(AHostMessage, IsReadWithItsMembers) {
    const auto hello = std::get<Hello>(
        readRequest(R"({"type": "hello", "version": 1, "browser": "chromium", "rules": true, "ratings": false})"));
    EXPECT_EQ(hello.browser, "chromium");
    EXPECT_TRUE(hello.wantsRules);
    EXPECT_FALSE(hello.wantsRatings);
    const auto decide = std::get<DecideRequest>(readRequest(decideWith(R"(, "id": 9007199254740991, "new": [1])")));
    EXPECT_EQ(decide.id, 9007199254740991U);
    EXPECT_EQ(decide.url, "http://a.example/");
    const auto report =
        std::get<ReportRequest>(readRequest(R"({"type": "report", "id": 0, "url": "", "answer": "turned-back"})"));
    EXPECT_EQ(report.answer, WarningAnswer::TurnedBack);
    const auto request = std::get<AccessMessage>(
        readRequest(R"({"type": "request", "id": 3, "url": "http://a.example/", "reason": "for work"})"));
    EXPECT_EQ(request.reason, "for work");
    EXPECT_TRUE(request.isAsking);
    const auto look =
        std::get<AccessMessage>(readRequest(R"({"type": "requests", "id": 4, "url": "http://a.example/"})"));
    EXPECT_EQ(look.id, 4U);
    EXPECT_FALSE(look.isAsking);
}

TEST(AHostMessage, EndsTheHostWhenItIsNoJsonObject) {
    for (const char* message : {"", "no", "[]", "3", "null", "{", R"({"type": "decide")", R"({"type": "hello"}x)",
                                "{\"type\": \"\xC3\"}", "[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]"}) {
        EXPECT_EQ(refusalOf(message), "fatal") << message;
    }
    EXPECT_EQ(refusalOf(std::string(kMaxFrameBytes, '[')), "fatal");
    EXPECT_EQ(refusalOf("{\"a\":" + std::string(kMaxFrameBytes / 2, '[')), "fatal");
}

TEST(AHostMessage, IsRefusedAloneWhenItIsTooDeepOrAmbiguous) {
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    EXPECT_EQ(refusalOf(decideWith(R"(, "id": 1, "more": )" + deep)), "member");
    EXPECT_EQ(refusalOf(decideWith(R"(, "id": 1, "id": 2)")), "member");
    EXPECT_EQ(refusalOf(R"({"type": "decide", "id": 1, "url": "http://a\u0000b/", "frame": "main"})"), "member");
    EXPECT_EQ(refusalOf(decideWith(R"(, "id": 1, "more": [0)" +
                                   [] {
                                       std::string zeros;
                                       for (int count = 0; count < 5000; ++count) {
                                           zeros += ",0";
                                       }
                                       return zeros + "]";
                                   }())),
              "member");
}

TEST(AHostMessage, HasAnIdThatANumberOfTheBrowserHolds) {
    for (const char* id : {"-1", "9007199254740992", "18446744073709551616", "1.5", "1e3", "\"1\"", "null", "[1]"}) {
        EXPECT_EQ(refusalOf(decideWith(std::string(R"(, "id": )") + id)), "member") << id;
    }
    EXPECT_EQ(refusalOf(decideWith("")), "member");
    EXPECT_EQ(refusalOf(decideWith(R"(, "id": 0)")), "");
}

TEST(AHostMessage, IsToldWhatIsWrongWithItsId) {
    EXPECT_EQ(refusalOf(R"({"type": "decide", "id": 7, "url": 3, "frame": "main"})"), "member 7");
    EXPECT_EQ(refusalOf(R"({"type": "decide", "id": 7, "url": "", "frame": "top"})"), "member 7");
    EXPECT_EQ(refusalOf(R"({"type": "decide", "id": 7, "url": ""})"), "member 7");
    EXPECT_EQ(refusalOf(R"({"type": "report", "id": 7, "url": "", "answer": "maybe"})"), "member 7");
    EXPECT_EQ(refusalOf(R"({"type": "request", "id": 7, "url": ""})"), "member 7");
    EXPECT_EQ(refusalOf(R"({"type": "request", "id": 7, "url": "", "reason": null})"), "member 7");
    EXPECT_EQ(refusalOf(R"({"type": "requests", "id": 7})"), "member 7");
    EXPECT_EQ(refusalOf(R"({"type": "dance", "id": 7})"), "type 7");
    EXPECT_EQ(refusalOf(R"({"id": 7})"), "member 7");
}

TEST(AHello, NeedsItsVersionAndItsMembers) {
    const auto with = [](const std::string& version, const std::string& rest) {
        return refusalOf(R"({"type": "hello", "version": )" + version + rest + "}");
    };
    const std::string rest = R"(, "browser": "firefox", "rules": false, "ratings": false)";
    EXPECT_EQ(with("1", rest), "");
    EXPECT_EQ(with("2", rest), "version");
    EXPECT_EQ(with("0", ""), "version") << "another version may have other members";
    EXPECT_EQ(with("18446744073709551615", rest), "version");
    EXPECT_EQ(with("\"1\"", rest), "member");
    EXPECT_EQ(with("1", R"(, "browser": "lynx", "rules": false, "ratings": false)"), "member");
    EXPECT_EQ(with("1", R"(, "browser": "firefox", "rules": 0, "ratings": false)"), "member");
    EXPECT_EQ(with("1", R"(, "browser": "firefox", "rules": true)"), "member");
}

} // namespace
} // namespace Sentrel::host
