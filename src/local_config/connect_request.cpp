#include "local_config/connect_request.h"

#include <array>
#include <limits>
#include <string_view>

#include "common/json/shape.h"
#include "utility/check.h"

namespace {

constexpr const char* kInvalidJson = "connect-to-nconnect: Invalid JSON";

enum class member_kind { Text, Object, Number, Boolean };

// One member, in the order of checking. An Object row also leads into the object: the rows below it
// that have it as their parent are looked up there.
struct member_rule {
    const char* parent;  // null: the document itself
    const char* name;
    member_kind kind;
    const char* missing;
    const char* wrong_type;  // null: any type will do
};

constexpr std::array kRules{
    member_rule{nullptr, "session_id", member_kind::Text,
                "connect-to-nconnect: Request does not contain \"session_id\"",
                "connect-to-nconnect: session_id is not a string"},
    member_rule{nullptr, "jwt_api", member_kind::Object,
                "connect-to-nconnect: Request does not contain \"jwt_api\"",
                "connect-to-nconnect: jwt_api is not an object"},
    member_rule{"jwt_api", "endpoint", member_kind::Text,
                "connect-to-nconnect: jwt_api does not have \"endpoint\" field",
                "connect-to-nconnect: jwt_api's \"endpoint\" field is not a string"},
    member_rule{"jwt_api", "jwt", member_kind::Text,
                "connect-to-nconnect: jwt_api does not have \"jwt\" field",
                "connect-to-nconnect: jwt_api's \"jwt\" field is not a string"},
    member_rule{"jwt_api", "exp", member_kind::Number,
                "connect-to-nconnect: jwt_api does not have \"exp\" field", nullptr},
    member_rule{nullptr, "jwt_nconnect", member_kind::Object,
                "connect-to-nconnect: Request does not contain \"jwt_nconnect\"",
                "connect-to-nconnect: jwt_nconnect is not an object"},
    member_rule{"jwt_nconnect", "endpoint", member_kind::Text,
                "connect-to-nconnect: jwt_nconnect does not have \"endpoint\" field",
                "connect-to-nconnect: jwt_nconnect's \"endpoint\" field is not a string"},
    member_rule{"jwt_nconnect", "jwt", member_kind::Text,
                "connect-to-nconnect: jwt_nconnect does not have \"jwt\" field",
                "connect-to-nconnect: jwt_nconnect's \"jwt\" field is not a string"},
    member_rule{"jwt_nconnect", "exp", member_kind::Number,
                "connect-to-nconnect: jwt_nconnect does not have \"exp\" field", nullptr},
    member_rule{nullptr, "become_active", member_kind::Boolean,
                "connect-to-nconnect: Request does not contain \"become_active\"",
                "connect-to-nconnect: become_active is not a boolean value"},
};

bool has_kind(const cJSON* member, member_kind kind) {
    switch (kind) {
        case member_kind::Text:
            return cJSON_GetStringValue(member) != nullptr;
        case member_kind::Object:
            return cJSON_IsObject(member) != 0;
        case member_kind::Boolean:
            return cJSON_IsBool(member) != 0;
        case member_kind::Number:
            return true;
    }
    return false;
}

// Text of the first rule that the document breaks, or null.
const char* broken_rule(const cJSON* document) {
    for (const member_rule& rule : kRules) {
        const cJSON* parent =
            rule.parent == nullptr ? document : cJSON_GetObjectItem(document, rule.parent);
        const cJSON* member = cJSON_GetObjectItem(parent, rule.name);
        if (member == nullptr) {
            return rule.missing;
        }
        if (rule.wrong_type != nullptr && !has_kind(member, rule.kind)) {
            return rule.wrong_type;
        }
    }
    return nullptr;
}

// Truncates toward zero; what the type can't hold becomes its nearest value.
uint64_t to_seconds(double value) {
    constexpr double kTooLarge = 18446744073709551616.0;  // 2^64
    if (!(value > 0)) {                                   // NaN too
        return 0;
    }
    return value >= kTooLarge ? std::numeric_limits<uint64_t>::max() : static_cast<uint64_t>(value);
}

connect_token read_token(const cJSON* document, const char* name) {
    const cJSON* token = cJSON_GetObjectItem(document, name);
    return {
        .endpoint = cJSON_GetStringValue(cJSON_GetObjectItem(token, "endpoint")),
        .jwt = cJSON_GetStringValue(cJSON_GetObjectItem(token, "jwt")),
        .exp = to_seconds(cJSON_GetNumberValue(cJSON_GetObjectItem(token, "exp"))),
    };
}

connect_request read_request(const cJSON* document) {
    return {
        .session_id = cJSON_GetStringValue(cJSON_GetObjectItem(document, "session_id")),
        .jwt_api = read_token(document, "jwt_api"),
        .jwt_nconnect = read_token(document, "jwt_nconnect"),
        .become_active = cJSON_IsTrue(cJSON_GetObjectItem(document, "become_active")) != 0,
    };
}

}  // namespace

parsed_connect_request parse_connect_request(const char* body) {
    NUV_CHECK(body != NULL);
    parsed_connect_request parsed{};
    if (!nuvio::nests_too_deep(body)) {
        parsed.document.reset(cJSON_Parse(body));
    }
    parsed.error = parsed.document == nullptr ? kInvalidJson : broken_rule(parsed.document.get());
    if (parsed.error == nullptr) {
        parsed.request = read_request(parsed.document.get());
    }
    return parsed;
}
