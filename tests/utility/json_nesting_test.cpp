#include "common/json_nesting.h"

#include <gtest/gtest.h>

#include <string>

using nuvio::json_nesting;

namespace {

TEST(JsonNesting, CountsBracketsBehindTextsThatEndInEveryKindOfEscape) {
    const std::string deep(999, '[');
    for (const std::string end : {"", "a", R"(\")", R"(\\)", R"(\\\")", R"(\\\\)", R"(\/)",
                                  R"(\u005c)", R"(\u0022)", R"([\")", R"(}\\)"}) {
        EXPECT_EQ(json_nesting(R"({"a":")" + end + R"(","b":)" + deep), 1000U) << end;
        EXPECT_EQ(json_nesting(R"({"a":")" + end + deep + R"("})"), 1U) << end;
    }
    // No text ends there, and none is parsed behind it.
    EXPECT_EQ(json_nesting("[\"\\" + deep), 1U);
    EXPECT_EQ(json_nesting("[\"" + deep + "\\"), 1U);
}

TEST(JsonNesting, LooksAtTheFirstValueAlone) {
    EXPECT_EQ(json_nesting(""), 0U);
    EXPECT_EQ(json_nesting("\xEF\xBB\xBF \t\x01[[]]"), 2U);
    EXPECT_EQ(json_nesting("[{}][[[[["), 2U);
    EXPECT_EQ(json_nesting("\"[[[\" [["), 0U);
    EXPECT_EQ(json_nesting("]["), 0U);
}

}  // namespace
