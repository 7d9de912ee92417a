// JSON by cJSON, for everybody but the service's own endpoints: owning handles, checked reading,
// short building. Pure functions, any thread; what is read may come from anyone on the network. All
// that makes something throws std::bad_alloc when memory has run out.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/json/shape.h"
#include "common/released_by.h"

namespace nuvio {

using JsonPtr = std::unique_ptr<cJSON, ReleasedBy<cJSON_Delete>>;

inline constexpr int64_t kMaxJsonNumber = 9007199254740991;  // what a JSON number holds exactly

// ---- Reading

// Null for what is no JSON, nests too deep, holds more values or a NUL in a text (it would cut that
// short), or has anything behind its end. Bytes that are no UTF-8 are read as U+FFFD.
JsonPtr parse_json(std::string_view text, size_t max_values = kMaxJsonValues);

// Members of an object; null and wrong types count as absent.
const cJSON* member(const cJSON* object, const char* key);
std::optional<std::string> text_member(const cJSON* object, const char* key);
// A whole number of at most kMaxJsonNumber either way; anything else is none.
std::optional<int64_t> number_of(const cJSON* value);
std::optional<int64_t> number_member(const cJSON* object, const char* key);
std::optional<bool> bool_member(const cJSON* object, const char* key);

// ---- Building

JsonPtr new_object();
JsonPtr new_array();
// Bytes that are no UTF-8, and NUL, go out as U+FFFD, numbers beyond kMaxJsonNumber as that.
void add(cJSON* object, const char* key, std::string_view text);
void add(cJSON* object, const char* key, const char* text);
void add(cJSON* object, const char* key, int64_t number);
void add(cJSON* object, const char* key, uint64_t number);
void add(cJSON* object, const char* key, int number);
void add(cJSON* object, const char* key, unsigned number);
void add(cJSON* object, const char* key, double number);
void add(cJSON* object, const char* key, bool value);
void add(cJSON* object, const char* key, std::nullptr_t);
void add(cJSON* object, const char* key, JsonPtr value);
template <typename Value>
void add(cJSON* object, const char* key, const std::optional<Value>& value) {
    value ? add(object, key, *value) : add(object, key, nullptr);
}
// A new object under the key, the parent's.
cJSON* add_object(cJSON* parent, const char* key);
void append(cJSON* array, JsonPtr value);
void append(cJSON* array, std::string_view text);

// Compact.
std::string print_json(const cJSON* document);

}  // namespace nuvio
