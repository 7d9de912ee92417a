#include "common/json_nesting.h"

#include <gtest/gtest.h>

#include <string>

using nuvio::json_nesting;

namespace {

TEST(JsonNesting, CountsBracketsBehindTextsThatEndInEveryKindOfEscape) {
    const std::string deep(999, '[');
    const auto behind = [&](const std::string& end) {
        return json_nesting(R"({"a":")" + end + R"(","b":)" + deep);
    };
    const auto within = [&](const std::string& end) {
        return json_nesting(R"({"a":")" + end + deep + R"("})");
    };
    for (const char* const end : {"", "a", R"(\")", R"(\\)", R"(\\\")", R"(\\\\)", R"(\/)",
                                  R"(\u005c)", R"(\u0022)", R"([\")", R"(}\\)"}) {
        EXPECT_EQ(behind(end), 1000U) << end;
        EXPECT_EQ(within(end), 1U) << end;
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
