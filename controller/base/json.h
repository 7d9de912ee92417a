// JSON by cJSON: owning handles, checked reading, short building. Pure functions, any thread; the
// documents that are read come from anyone on the network.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/released_by.h"

namespace nuvio::controller {

using JsonPtr = std::unique_ptr<cJSON, ReleasedBy<cJSON_Delete>>;

// Null for what is no JSON, nests too deep (common/json_nesting.h) or has anything behind its end.
JsonPtr parse_json(std::string_view text);

// Compact. Empty when memory ran out.
std::string print_json(const cJSON* document);

// Members of an object; null and wrong types count as absent.
const cJSON* member(const cJSON* object, const char* key);
std::optional<std::string> text_member(const cJSON* object, const char* key);
// A whole number, as far as a double holds them; anything else is none.
std::optional<int64_t> number_member(const cJSON* object, const char* key);
std::optional<bool> bool_member(const cJSON* object, const char* key);

// Building. Texts that are no UTF-8 go out with U+FFFD where they are not. `add` returns the new
// member, owned by `object`.
JsonPtr new_object();
JsonPtr new_array();
void add(cJSON* object, const char* key, std::string_view text);
void add(cJSON* object, const char* key, const char* text);
void add(cJSON* object, const char* key, int64_t number);
void add(cJSON* object, const char* key, int number);
void add(cJSON* object, const char* key, bool value);
void add(cJSON* object, const char* key, JsonPtr value);
void append(cJSON* array, JsonPtr value);
void append(cJSON* array, std::string_view text);

}  // namespace nuvio::controller
