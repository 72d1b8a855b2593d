#include "ipc/json.h"

#include <gtest/gtest.h>

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <string>

namespace {

using namespace std::string_literals;

// The text as it is read and written again, or "none".
std::string readBack(std::string_view text) {
    boost::json::monotonic_resource arena;
    const auto value = readJson(text, &arena);
    return value ? boost::json::serialize(*value) : "none";
}

std::string nested(size_t depth, std::string_view open, std::string_view middle,
                   std::string_view close) {
    std::string text;
    for (size_t i = 0; i < depth; ++i)
        text += open;
    text += middle;
    for (size_t i = 0; i < depth; ++i)
        text += close;
    return text;
}

std::string arrays(size_t depth) {
    return nested(depth, "[", "", "]");
}

std::string objects(size_t depth) {
    return nested(depth, "{\"a\":", "1", "}");
}

uint32_t narrow32(std::string_view number) {
    const auto value = readJson("[" + std::string(number) + "]", {});
    return toUnsigned32(value->as_array().at(0));
}

uint16_t narrow16(std::string_view number) {
    const auto value = readJson("[" + std::string(number) + "]", {});
    return toUnsigned16(value->as_array().at(0));
}

class RefusedJson : public testing::TestWithParam<std::string> {};

TEST_P(RefusedJson, IsNotRead) {
    EXPECT_EQ(readBack(GetParam()), "none");
}

INSTANTIATE_TEST_SUITE_P(BareScalar, RefusedJson,
                         testing::Values("1", "-1.5", "\"text\"", "true", "null"));
INSTANTIATE_TEST_SUITE_P(NoJson, RefusedJson,
                         testing::Values("", " ", "{", "[", "}", "{]", "hello", "[1", "[1,]",
                                         "{\"a\":1,}", "{'a':1}", "{a:1}", "[01]", "[+1]", "[.5]",
                                         "[NaN]", "[Infinity]", "[tru]", "[1]// comment",
                                         "/* comment */[1]", "[\"\t\"]", "[\"\\x\"]", "\0[1]"s));
INSTANTIATE_TEST_SUITE_P(TrailingText, RefusedJson,
                         testing::Values("{} {}", "[1]x", "[1],", "[]\0"s));
INSTANTIATE_TEST_SUITE_P(NotUtf8, RefusedJson,
                         testing::Values("[\"\xff\"]", "[\"\xc3\"]", "[\"\xc0\x80\"]",
                                         "[\"\xed\xa0\x80\"]", "[\"\xf4\x90\x80\x80\"]",
                                         "{\"\xe2\x82\":1}", "\xef\xbb\xbf[]"));
INSTANTIATE_TEST_SUITE_P(LoneSurrogate, RefusedJson,
                         testing::Values("[\"\\ud800\"]", "[\"\\udc00\"]", "[\"\\ud800x\"]"));

TEST(ReadJson, ArraysAndObjectsAreRead) {
    EXPECT_EQ(readBack("[]"), "[]");
    EXPECT_EQ(readBack(" { \"a\" : [ 1, true, null, \"b\" ] }\r\n"), "{\"a\":[1,true,null,\"b\"]}");
}

TEST(ReadJson, EscapesAndUtf8AreKept) {
    EXPECT_EQ(readBack("[\"\\u00e9\\ud83d\\ude00\\n\"]"), "[\"\xc3\xa9\xf0\x9f\x98\x80\\n\"]");
    EXPECT_EQ(readBack("[\"\xf0\x9f\x98\x80\"]"), "[\"\xf0\x9f\x98\x80\"]");
    EXPECT_EQ(readBack("[\"a\\u0000b\"]"), "[\"a\\u0000b\"]");
}

TEST(ReadJson, ADepthOf512IsRead) {
    EXPECT_EQ(readBack(arrays(512)), arrays(512));
    EXPECT_EQ(readBack(objects(512)), objects(512));
}

TEST(ReadJson, ADepthOf513IsRefused) {
    EXPECT_EQ(readBack(arrays(513)), "none");
    EXPECT_EQ(readBack(objects(513)), "none");
}

TEST(ReadJson, NestingThatNeverEndsIsRefused) {
    EXPECT_EQ(readBack(std::string(10'000'000, '[')), "none");
}

TEST(ReadJson, ManyContainersSideBySideAreNotDeep) {
    std::string text = "[";
    for (int i = 0; i < 2000; ++i)
        text += "[],{},";
    text += "0]";
    EXPECT_EQ(readBack(text), text);
}

TEST(ReadJson, TheValueLivesInTheGivenStorage) {
    boost::json::monotonic_resource arena;
    const auto value =
        readJson("{\"a\":[\"a text that is too long for any value itself\"]}", &arena);
    ASSERT_TRUE(value);
    EXPECT_EQ(value->storage().get(), &arena);
    EXPECT_EQ(value->as_object().at("a").as_array().at(0).storage().get(), &arena);
}

TEST(JsonMember, IsFoundByNameAndType) {
    const auto value =
        readJson("{\"s\":\"x\",\"a\":[],\"n\":5,\"b\":true,\"o\":{},\"z\":null}", {});
    const boost::json::object& object = value->as_object();
    EXPECT_EQ(*stringMember(object, "s"), "x");
    EXPECT_TRUE(arrayMember(object, "a")->empty());
    EXPECT_EQ(toUnsigned32(*numberMember(object, "n")), 5U);
    EXPECT_EQ(toUnsigned32(*numberMember(object, "b")), 1U);
    for (const char* other : {"a", "n", "b", "o", "z", "absent", "S", "s "})
        EXPECT_EQ(stringMember(object, other), nullptr) << other;
    for (const char* other : {"s", "n", "b", "o", "z", "absent"})
        EXPECT_EQ(arrayMember(object, other), nullptr) << other;
    for (const char* other : {"s", "a", "o", "z", "absent"})
        EXPECT_EQ(numberMember(object, other), nullptr) << other;
}

TEST(JsonNumber, TrueAndFalseCountAsOneAndZero) {
    EXPECT_EQ(narrow32("true"), 1U);
    EXPECT_EQ(narrow32("false"), 0U);
}

TEST(JsonNumber, KeepsItsLowOrderBits) {
    EXPECT_EQ(narrow32("4294967295"), 4294967295U);
    EXPECT_EQ(narrow32("4294967296"), 0U);
    EXPECT_EQ(narrow32("4294967303"), 7U);
    EXPECT_EQ(narrow32("18446744073709551615"), 4294967295U);
    EXPECT_EQ(narrow32("-1"), 4294967295U);
    EXPECT_EQ(narrow32("-9223372036854775808"), 0U);
    EXPECT_EQ(narrow16("65535"), 65535U);
    EXPECT_EQ(narrow16("65536"), 0U);
    EXPECT_EQ(narrow16("70000"), 4464U);
    EXPECT_EQ(narrow16("-1"), 65535U);
}

TEST(JsonNumber, LosesItsFractionTowardZero) {
    EXPECT_EQ(narrow32("1.9"), 1U);
    EXPECT_EQ(narrow32("-1.9"), 4294967295U);
    EXPECT_EQ(narrow32("-0.5"), 0U);
    EXPECT_EQ(narrow32("1e3"), 1000U);
    EXPECT_EQ(narrow16("65537.5"), 1U);
}

TEST(JsonNumber, BeyondSixtyFourBitsCountsAsZero) {
    EXPECT_EQ(narrow32("18446744073709551616"), 0U);
    EXPECT_EQ(narrow32("-9223372036854775809"), 0U);
    EXPECT_EQ(narrow32("123456789012345678901234567890"), 0U);
    EXPECT_EQ(narrow32("1e30"), 0U);
    EXPECT_EQ(narrow32("-1e30"), 0U);
    EXPECT_EQ(narrow32("1e308"), 0U);
    EXPECT_EQ(narrow16("1e400"), 0U);
}

TEST(IsUtf8, TakesWellFormedText) {
    for (const auto& text :
         {""s, "box"s, "\"\\\n\x7f"s, "a\0b"s, "\xc2\x80"s, "\xe2\x82\xac"s, "\xed\x9f\xbf"s,
          "\xef\xbf\xbf"s, "\xf0\x90\x80\x80"s, "\xf4\x8f\xbf\xbf"s})
        EXPECT_TRUE(isUtf8(text)) << text;
}

TEST(IsUtf8, RefusesEverythingElse) {
    for (const auto& text : {"\x80"s, "\xff"s, "\xc3"s, "\xc3("s, "\xc0\xaf"s, "\xe0\x9f\xbf"s,
                             "\xe2\x82"s, "\xed\xa0\x80"s, "\xf0\x8f\xbf\xbf"s, "\xf0\x90\x80"s,
                             "\xf4\x90\x80\x80"s, "\xf8\x88\x80\x80\x80"s, "a\xe9"s})
        EXPECT_FALSE(isUtf8(text)) << testing::PrintToString(text);
}

}  // namespace
