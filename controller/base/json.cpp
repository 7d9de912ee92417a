#include "controller/base/json.h"

#include <algorithm>
#include <cmath>

#include "common/json_nesting.h"
#include "common/text.h"
#include "common/utf8.h"

namespace nuvio::controller {

namespace {

constexpr int kMaxNesting = 32;

std::string well_formed(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const size_t length = character_length(text);
        if (length == 0 || text[0] == '\0') {
            out += "\xEF\xBF\xBD";
            text.remove_prefix(1);
        } else {
            out += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return out;
}

}  // namespace

JsonPtr parse_json(std::string_view text) {
    if (nests_deeper_than(text, kMaxNesting)) {
        return nullptr;
    }
    const char* end = nullptr;
    JsonPtr document(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, 0));
    if (document == nullptr || !trim(text.substr(static_cast<size_t>(end - text.data()))).empty()) {
        return nullptr;
    }
    return document;
}

std::string print_json(const cJSON* document) {
    const std::unique_ptr<char, ReleasedBy<cJSON_free>> text(cJSON_PrintUnformatted(document));
    return text == nullptr ? std::string() : std::string(text.get());
}

const cJSON* member(const cJSON* object, const char* key) {
    return cJSON_IsObject(object) != 0 ? cJSON_GetObjectItemCaseSensitive(object, key) : nullptr;
}

std::optional<std::string> text_member(const cJSON* object, const char* key) {
    const cJSON* found = member(object, key);
    if (cJSON_IsString(found) == 0 || !is_utf8(found->valuestring)) {
        return std::nullopt;
    }
    return found->valuestring;
}

std::optional<int64_t> number_member(const cJSON* object, const char* key) {
    constexpr double kLargest = 9007199254740992.0;  // 2^53
    const cJSON* found = member(object, key);
    if (cJSON_IsNumber(found) == 0 || !(std::abs(found->valuedouble) <= kLargest) ||
        std::floor(found->valuedouble) != found->valuedouble) {
        return std::nullopt;
    }
    return static_cast<int64_t>(found->valuedouble);
}

std::optional<bool> bool_member(const cJSON* object, const char* key) {
    const cJSON* found = member(object, key);
    return cJSON_IsBool(found) != 0 ? std::optional(cJSON_IsTrue(found) != 0) : std::nullopt;
}

JsonPtr new_object() {
    return JsonPtr(cJSON_CreateObject());
}

JsonPtr new_array() {
    return JsonPtr(cJSON_CreateArray());
}

void add(cJSON* object, const char* key, std::string_view text) {
    cJSON_AddStringToObject(object, key, well_formed(text).c_str());
}

void add(cJSON* object, const char* key, const char* text) {
    add(object, key, std::string_view(text));
}

void add(cJSON* object, const char* key, int64_t number) {
    cJSON_AddNumberToObject(object, key, static_cast<double>(number));
}

void add(cJSON* object, const char* key, int number) {
    add(object, key, int64_t{number});
}

void add(cJSON* object, const char* key, bool value) {
    cJSON_AddBoolToObject(object, key, value ? 1 : 0);
}

void add(cJSON* object, const char* key, JsonPtr value) {
    cJSON_AddItemToObject(object, key, value.release());
}

void append(cJSON* array, JsonPtr value) {
    cJSON_AddItemToArray(array, value.release());
}

void append(cJSON* array, std::string_view text) {
    append(array, JsonPtr(cJSON_CreateString(well_formed(text).c_str())));
}

}  // namespace nuvio::controller
