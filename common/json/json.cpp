#include "common/json/json.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

#include "common/text.h"
#include "common/utf8.h"

namespace nuvio {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

std::string well_formed(std::string_view text) {
    if (is_utf8(text) && text.find('\0') == std::string_view::npos) {
        return std::string(text);
    }
    std::string out;
    out.reserve(kReplacement.size() * text.size());  // once: who reads may not allocate at will
    while (!text.empty()) {
        const size_t length = text.front() == '\0' ? 0 : character_length(text);
        out += length == 0 ? kReplacement : text.substr(0, length);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return out;
}

// As a byte or as an escape.
bool has_nul(std::string_view text) {
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\0' || text.substr(at).starts_with("\\u0000")) {
            return true;
        }
        at += text[at] == '\\' ? 1 : 0;
    }
    return false;
}

JsonPtr made(cJSON* value) {
    if (value == nullptr) {
        throw std::bad_alloc();
    }
    return JsonPtr(value);
}

JsonPtr made(std::string_view text) {
    return made(cJSON_CreateString(well_formed(text).c_str()));
}

JsonPtr made(double number) {
    constexpr auto kMost = static_cast<double>(kMaxJsonNumber);
    return made(cJSON_CreateNumber(std::clamp(number, -kMost, kMost)));
}

}  // namespace

// ---- Reading

JsonPtr parse_json(std::string_view text, size_t max_values) {
    const JsonShape shape = json_shape(text);
    if (shape.nesting > kMaxJsonNesting || shape.values > max_values || has_nul(text)) {
        return nullptr;
    }
    std::string mended;
    if (!is_utf8(text)) {
        mended = well_formed(text);
        text = mended;
    }
    const char* end = nullptr;
    JsonPtr document(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, 0));
    if (document == nullptr || !trim(text.substr(static_cast<size_t>(end - text.data()))).empty()) {
        return nullptr;
    }
    return document;
}

const cJSON* member(const cJSON* object, const char* key) {
    return cJSON_IsObject(object) != 0 ? cJSON_GetObjectItemCaseSensitive(object, key) : nullptr;
}

std::optional<std::string> text_member(const cJSON* object, const char* key) {
    const char* const text = cJSON_GetStringValue(member(object, key));
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

std::optional<int64_t> number_of(const cJSON* value) {
    if (cJSON_IsNumber(value) == 0 ||
        !(std::abs(value->valuedouble) <= static_cast<double>(kMaxJsonNumber)) ||
        std::floor(value->valuedouble) != value->valuedouble) {
        return std::nullopt;
    }
    return static_cast<int64_t>(value->valuedouble);
}

std::optional<int64_t> number_member(const cJSON* object, const char* key) {
    return number_of(member(object, key));
}

std::optional<bool> bool_member(const cJSON* object, const char* key) {
    const cJSON* found = member(object, key);
    return cJSON_IsBool(found) != 0 ? std::optional(cJSON_IsTrue(found) != 0) : std::nullopt;
}

// ---- Building

JsonPtr new_object() {
    return made(cJSON_CreateObject());
}

JsonPtr new_array() {
    return made(cJSON_CreateArray());
}

void add(cJSON* object, const char* key, std::string_view text) {
    add(object, key, made(text));
}

void add(cJSON* object, const char* key, const char* text) {
    add(object, key, std::string_view(text));
}

void add(cJSON* object, const char* key, double number) {
    add(object, key, made(number));
}

void add(cJSON* object, const char* key, int64_t number) {
    add(object, key, static_cast<double>(number));
}

void add(cJSON* object, const char* key, uint64_t number) {
    add(object, key, static_cast<double>(number));
}

void add(cJSON* object, const char* key, int number) {
    add(object, key, int64_t{number});
}

void add(cJSON* object, const char* key, unsigned number) {
    add(object, key, uint64_t{number});
}

void add(cJSON* object, const char* key, bool value) {
    add(object, key, made(cJSON_CreateBool(value ? 1 : 0)));
}

void add(cJSON* object, const char* key, std::nullptr_t) {
    add(object, key, made(cJSON_CreateNull()));
}

void add(cJSON* object, const char* key, JsonPtr value) {
    if (cJSON_AddItemToObject(object, key, value.get()) == 0) {
        throw std::bad_alloc();
    }
    static_cast<void>(value.release());
}

cJSON* add_object(cJSON* parent, const char* key) {
    JsonPtr object = new_object();
    cJSON* const added = object.get();
    add(parent, key, std::move(object));
    return added;
}

void append(cJSON* array, JsonPtr value) {
    cJSON_AddItemToArray(array, value.release());
}

void append(cJSON* array, std::string_view text) {
    append(array, made(text));
}

std::string print_json(const cJSON* document) {
    const std::unique_ptr<char, ReleasedBy<cJSON_free>> text(cJSON_PrintUnformatted(document));
    if (text == nullptr) {
        throw std::bad_alloc();
    }
    return text.get();
}

}  // namespace nuvio
