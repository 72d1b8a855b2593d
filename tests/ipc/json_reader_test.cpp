#include "ipc/json_reader.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>
#include <string>
#include <utility>

#include "ipc/json.h"
#include "tests/support/failing_allocations.h"

namespace {

constexpr std::string_view kText =
    "{\"status\":\"ok\",\"n\":[1,-2,3.25,1e3,18446744073709551616,true,null],"
    "\"s\":\"a\\n\\u00e9\\ud83d\\ude00 \303\251\"}";

std::string written(const std::optional<boost::json::value>& value) {
    return value ? boost::json::serialize(*value) : "none";
}

std::string readWhole(std::string_view text) {
    return written(readJson(text, {}));
}

std::string readInTwo(std::string_view text, size_t first) {
    JsonReader reader;
    reader.begin({});
    reader.add(text.substr(0, first));
    reader.add(text.substr(first));
    return written(reader.finish());
}

TEST(JsonReader, ReadsATextThatIsCutAnywhereAsItReadsItWhole) {
    ASSERT_NE(readWhole(kText), "none");
    for (size_t first = 0; first <= kText.size(); ++first)
        EXPECT_EQ(readInTwo(kText, first), readWhole(kText)) << first;
}

TEST(JsonReader, ReadsATextThatComesByteByByte) {
    JsonReader reader;
    reader.begin({});
    for (size_t i = 0; i < kText.size(); ++i)
        reader.add(kText.substr(i, 1));
    EXPECT_EQ(written(reader.finish()), readWhole(kText));
}

TEST(JsonReader, RefusesWhereverItIsCutWhatIsRefusedWhole) {
    for (const std::string_view text : {"", " ", "1", "\"a\"", "{", "[1,]", "[1] x", "[1][2]",
                                        "[\"\303\"]", "[\"\\ud83d\"]", "nul", "[01]"}) {
        EXPECT_EQ(readWhole(text), "none") << text;
        for (size_t first = 0; first <= text.size(); ++first)
            EXPECT_EQ(readInTwo(text, first), "none") << text << " " << first;
    }
}

TEST(JsonReader, RefusesATextThatHasBecomeWrongWhateverFollows) {
    JsonReader reader;
    reader.begin({});
    reader.add("[x");
    reader.add("[1]");
    EXPECT_EQ(written(reader.finish()), "none");
}

TEST(JsonReader, ReadsTheNextTextWhateverBecameOfTheLast) {
    JsonReader reader;
    for (const std::string_view before : {"[1,", "[1]", "{]", "[1] 2", "\"a"}) {
        reader.begin({});
        reader.add(before);
        reader.begin({});
        reader.add("[tr");
        reader.add("ue]");
        EXPECT_EQ(written(reader.finish()), "[true]");
    }
}

TEST(JsonReader, PieceEndsBeforeACharacterOrAnEscapeThatIsNotThereAsAWhole) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"a", "a"},
        {"a\303", "a"},
        {"a\303\251", "a\303\251"},
        {"a\342\202", "a"},
        {"a\342\202\254", "a\342\202\254"},
        {"a\360\237\230", "a"},
        {"a\360\237\230\200", "a\360\237\230\200"},
        {"\251\251\251\251", "\251\251\251\251"},
        {"a\\", "a\\"},
        {"a\\n", "a\\n"},
        {"a\\u", "a"},
        {"a\\u00e", "a"},
        {"a\\u00e9", "a\\u00e9"},
        {"\\ud83d\\ude0", "\\ud83d"},
        {"\\ud83d\\ude00", "\\ud83d\\ude00"},
    };
    for (const auto& [text, whole] : cases)
        EXPECT_EQ(std::string_view(text).substr(0, wholeCharacters(text)), whole) << text;
}

TEST(JsonReader, NestingIsCountedAcrossThePieces) {
    for (const size_t depth : {kMaxJsonDepth, kMaxJsonDepth + 1}) {
        JsonReader reader;
        reader.begin({});
        for (size_t i = 0; i < depth; ++i)
            reader.add("[");
        for (size_t i = 0; i < depth; ++i)
            reader.add("]");
        EXPECT_EQ(reader.finish().has_value(), depth == kMaxJsonDepth);
    }
}

TEST(JsonReader, WithoutMemoryATextCannotBeRead) {
    for (uint64_t nth = 1;; ++nth) {
        FailingAllocations failing(nth);
        JsonReader reader;
        reader.begin({});
        reader.add(kText.substr(0, 40));
        reader.add(kText.substr(40));
        const auto value = reader.finish();
        failing.end();
        EXPECT_EQ(value.has_value(), !failing.happened()) << nth;
        if (!failing.happened()) {
            EXPECT_GT(nth, 3U);
            return;
        }
    }
}

}  // namespace
