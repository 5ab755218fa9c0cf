// The strict reader of JSON alone.
#include "platform/hvbagent/StrictJson.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

namespace {

using HVBEnterprise::agent::DocumentError;
using HVBEnterprise::agent::JsonBounds;
using HVBEnterprise::agent::memberPlace;
using HVBEnterprise::agent::readStrictJson;

constexpr JsonBounds kBounds{.bytes = 1000, .depth = 3, .values = 10};

std::string errorOf(std::string_view text, const JsonBounds& bounds = kBounds) {
    try {
        (void)readStrictJson(text, bounds);
    } catch (const DocumentError& error) {
        return error.what();
    }
    return "";
}

bool startsWith(const std::string& text, const std::string& begin) {
    return text.rfind(begin, 0) == 0;
}

TEST(TheStrictReader, GivesWhatAWellFormedTextSays) {
    const nlohmann::json value = readStrictJson(R"({"a": [1, -2, true, null, 1.5], "b": {"c": "é\n"}})", kBounds);
    EXPECT_EQ(value, nlohmann::json({{"a", {1, -2, true, nullptr, 1.5}}, {"b", {{"c", "é\n"}}}}));
}

TEST(TheStrictReader, SaysTheLineAndTheColumnOfWhatIsNotWellFormed) {
    EXPECT_TRUE(startsWith(errorOf(""), "line 1, column 1: ")) << errorOf("");
    EXPECT_TRUE(startsWith(errorOf("{\n  \"a\": x\n}"), "line 2, column 8: ")) << errorOf("{\n  \"a\": x\n}");
    EXPECT_TRUE(startsWith(errorOf("{} {}"), "line 1, column 4: ")) << errorOf("{} {}");
}

TEST(TheStrictReader, RefusesWhatAppearsTwiceWithItsPlace) {
    EXPECT_EQ(errorOf(R"({"a": {"x/y": 1, "b~": 2, "x/y": 3}})"), "/a/x~1y: is there twice");
    EXPECT_EQ(errorOf(R"([{"a": 1}, {"a": 1, "\u0061": 2}])"), "/1/a: is there twice");
}

TEST(TheStrictReader, RefusesNulCharactersWithTheirPlace) {
    EXPECT_EQ(errorOf(R"({"a": ["b", "\u0000"]})"), "/a/1: holds a NUL character");
    EXPECT_EQ(errorOf(R"({"a": {"b\u0000c": 1}})"), "/a: holds a NUL character");
    EXPECT_EQ(errorOf(std::string_view("\"a\0\"", 4)), "line 1, column 3: a NUL byte");
    EXPECT_EQ(errorOf(std::string_view("{}\n\0{}", 6)), "line 2, column 1: a NUL byte");
}

TEST(TheStrictReader, RefusesWhatIsNotUtf8) {
    for (const char* bad : {"\"\xFF\"", "\"\xC3\"", "\"\xED\xA0\x80\"", "\"\xF4\x90\x80\x80\"", "\"\xC0\x80\"",
                            R"("\ud800")", R"("\udc00\ud800")"}) {
        EXPECT_NE(errorOf(bad), "") << bad;
    }
}

TEST(TheStrictReader, KeepsToItsBounds) {
    EXPECT_EQ(errorOf("[[[1]]]"), "");
    EXPECT_EQ(errorOf("[[[[]]]]"), "/0/0/0: is nested too deeply");
    EXPECT_EQ(errorOf("[1,2,3,4,5,6,7,8,9]"), "");
    EXPECT_EQ(errorOf("[1,2,3,4,5,6,7,8,9,0]"), "the document: has more than 10 values");
    EXPECT_EQ(errorOf(std::string(998, ' ') + "{}"), "");
    EXPECT_EQ(errorOf(std::string(999, ' ') + "{}"), "the document: is larger than 1000 bytes");
}

TEST(TheStrictReader, IsNotBroughtDownByDepthOrByHugeNumbers) {
    constexpr std::size_t many = 4 << 20U;
    const JsonBounds wide{.bytes = many, .depth = 4, .values = 100};
    EXPECT_EQ(errorOf(std::string(many, '['), wide), "/0/0/0/0: is nested too deeply");
    std::string objects;
    while (objects.size() + 5 <= many) {
        objects += "{\"\":";
    }
    EXPECT_EQ(errorOf(objects, wide), "////: is nested too deeply");
    EXPECT_EQ(errorOf("1e400", wide), "line 1, column 5: a number is out of range");
    EXPECT_EQ(errorOf(std::string(many, '9'), wide).substr(0, 5), "line ");
    EXPECT_EQ(errorOf("123456789012345678901234567890", wide), ""); // a floating-point number then
}

/// Its place was once put together for each value: a name of a megabyte above a hundred thousand values took minutes.
TEST(TheStrictReader, IsNotHeldUpByALongNameAboveManyValues) {
    constexpr std::size_t longName = 1'000'000;
    constexpr int many = 100'000;
    std::string text = "{\"" + std::string(longName, 'n') + "\": {";
    for (int i = 0; i < many; ++i) {
        text += (i == 0 ? "\"" : ", \"") + std::to_string(i) + "\": \"v\"";
    }
    text += "}}";
    const nlohmann::json value = readStrictJson(text, {.bytes = text.size(), .depth = 2, .values = many + 2});
    EXPECT_EQ(value.begin()->size(), static_cast<std::size_t>(many));
}

TEST(TheStrictReader, QuotesNothingUnboundedOrUnprintable) {
    const std::string error = errorOf("{\"" + std::string(900, 'n') + "\\n\": 1, \"a\" 1}");
    EXPECT_LE(error.size(), 300U);
    EXPECT_EQ(error.find('\n'), std::string::npos);
    const std::string twice = errorOf(R"({"a\nb": 1, "a\nb": 1})");
    EXPECT_EQ(twice, R"(/a\x0ab: is there twice)");
}

TEST(APlace, IsAJsonPointer) {
    EXPECT_EQ(memberPlace("", "a"), "/a");
    EXPECT_EQ(memberPlace("/a", "b/c~d"), "/a/b~1c~0d");
}

} // namespace
