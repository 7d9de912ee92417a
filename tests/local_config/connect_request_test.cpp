#include "local_config/connect_request.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "common/json/shape.h"

namespace {

const std::string kComplete =
    R"({"session_id":"s","jwt_api":{"endpoint":"e1","jwt":"t1","exp":11},)"
    R"("jwt_nconnect":{"endpoint":"e2","jwt":"t2","exp":12},"become_active":true})";

std::string replaced(const std::string& from, const std::string& to) {
    std::string body = kComplete;
    return body.replace(body.find(from), from.size(), to);
}

std::string error_of(const std::string& body) {
    const parsed_connect_request parsed = parse_connect_request(body.c_str());
    return parsed.error == nullptr ? "none" : parsed.error;
}

TEST(ConnectRequest, ForgivesKeyCaseExtraMembersAndTrailingBytes) {
    EXPECT_EQ(error_of(replaced("session_id", "SESSION_ID")), "none");
    EXPECT_EQ(error_of(replaced("{\"session_id", "{\"other\":[{}],\"session_id")), "none");
    EXPECT_EQ(error_of(kComplete + "]]] trailing" + std::string(100, '[')), "none");
    const auto twice = replaced("true", "false,\"Become_Active\":true");
    EXPECT_FALSE(parse_connect_request(twice.c_str()).request.become_active) << "the first counts";
}

TEST(ConnectRequest, FirstBrokenRuleIsNamed) {
    const struct {
        std::string body;
        const char* error;
    } cases[] = {
        {"", "Invalid JSON"},
        {"\xEF\xBB\xBF 1 " + std::string(500, '['), "Request does not contain \"session_id\""},
        {replaced("\"s\"", "null"), "session_id is not a string"},
        {R"({"session_id":"s","jwt_api":[]})", "jwt_api is not an object"},
        {replaced("\"e1\"", "1"), "jwt_api's \"endpoint\" field is not a string"},
        {replaced(",\"exp\":12", ""), "jwt_nconnect does not have \"exp\" field"},
        {replaced("true", "1"), "become_active is not a boolean value"},
        // Of several faults the first in order is told.
        {R"({"become_active":1,"jwt_api":1,"session_id":1})", "session_id is not a string"},
    };
    for (const auto& [body, error] : cases) {
        EXPECT_EQ(error_of(body), std::string("connect-to-nconnect: ") + error) << body;
    }
}

TEST(ConnectRequest, AnyExpiryBecomesANumberOfSeconds) {
    constexpr uint64_t kMaximum = std::numeric_limits<uint64_t>::max();
    const std::pair<const char*, uint64_t> cases[] = {
        {"1.9", 1},
        {"-1e300", 0},
        {"[1]", 0},
        {"1e19", 10000000000000000000U},
        {"18446744073709551616", kMaximum},
        {"1e999", kMaximum},
    };
    for (const auto& [exp, seconds] : cases) {
        const std::string body = replaced("11", exp);
        const parsed_connect_request parsed = parse_connect_request(body.c_str());
        ASSERT_EQ(parsed.error, nullptr) << exp;
        EXPECT_EQ(parsed.request.jwt_api.exp, seconds) << exp;
    }
}

TEST(ConnectRequest, DeepNestingIsRefused) {
    const auto nested = [](size_t depth) {
        return replaced("{\"session_id", "{\"x\":" + std::string(depth, '[') +
                                             std::string(depth, ']') + ",\"session_id");
    };
    EXPECT_EQ(error_of(nested(nuvio::kMaxJsonNesting - 1)), "none");
    EXPECT_EQ(error_of(nested(nuvio::kMaxJsonNesting)), "connect-to-nconnect: Invalid JSON");
}

}  // namespace
