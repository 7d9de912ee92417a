#include <gtest/gtest.h>

#include <string>

#include "common/json/shape.h"

namespace {

size_t json_nesting(std::string_view text) {
    return nuvio::json_shape(text).nesting;
}

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

TEST(JsonShape, CountsNoFewerValuesThanThereAre) {
    EXPECT_EQ(nuvio::json_shape(R"([1,"a,b,[",{"x":[]},2])").values, 7U);
    EXPECT_EQ(nuvio::json_shape("7").values, 1U);
}

}  // namespace
