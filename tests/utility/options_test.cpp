#include "common/options/options.h"

#include <gtest/gtest.h>

using nuvio::GivenOptions;
using nuvio::Option;
using nuvio::read_options;
using nuvio::Words;

namespace {

constexpr Option kTable[] = {{"port", "PORT", "where"}, {"port-check", nullptr, "one\ntwo"}};

std::string failure_of(const std::vector<std::string>& arguments) {
    return read_options(kTable, arguments, Words::refused).failure;
}

TEST(Options, AreTakenInEveryFormAndWordsWhereTheyMayStand) {
    const GivenOptions given =
        read_options(kTable, {"a", "--port=1", "--port-check", "--port", "-2", "b", "--", "--port"},
                     Words::taken);
    EXPECT_EQ(given.failure, "");
    EXPECT_EQ(given.words, (std::vector<std::string>{"a", "b", "--port"}));
    EXPECT_EQ(given.options.size(), 3U);
    EXPECT_EQ(given.value_of("port", "3"), "-2");
    EXPECT_TRUE(given.has("port-check"));
    EXPECT_EQ(read_options(kTable, {}, Words::refused).value_of("port", "3"), "3");
}

TEST(Options, WhatIsWrongIsNamed) {
    EXPECT_EQ(failure_of({"--por", "1"}), "unknown option '--por'");
    EXPECT_EQ(failure_of({"--port", "1", "-x"}), "unknown option '-x'");
    EXPECT_EQ(failure_of({"--port-check", "--port"}), "--port needs a PORT");
    EXPECT_EQ(failure_of({"--port-check=1"}), "--port-check takes no value");
    EXPECT_EQ(failure_of({"--port=1", "word"}), "unknown word 'word'");
}

TEST(Options, AreDescribedInLinesBesideTheirNames) {
    EXPECT_EQ(nuvio::describe_options(kTable),
              "  --port PORT   where\n  --port-check  one\n                two\n");
}

}  // namespace
