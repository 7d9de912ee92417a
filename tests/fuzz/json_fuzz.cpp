// What is asked before cJSON parses against what cJSON does: the depth of what it has read, and of
// any bytes how far it went down its stack before it gave up.
#include <cjson/cJSON.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "common/json/shape.h"
#include "fuzz/expect.h"

namespace {

// A level takes 96 bytes, what is around them 512.
constexpr size_t kLevelBytes = 128;
constexpr size_t kOtherBytes = 1024;

const char* g_lowest = nullptr;

// cJSON makes each value on the level that it is read on.
void* allocate(size_t size) {
    g_lowest = std::min(g_lowest, static_cast<const char*>(__builtin_frame_address(0)));
    return std::malloc(size);
}

size_t depth_of(const cJSON* value) {
    size_t deepest = 0;
    for (const cJSON* child = value->child; child != nullptr; child = child->next) {
        deepest = std::max(deepest, depth_of(child));
    }
    return deepest + (cJSON_IsArray(value) != 0 || cJSON_IsObject(value) != 0 ? 1 : 0);
}

size_t count_of(const cJSON* value) {
    size_t count = 1;
    for (const cJSON* child = value->child; child != nullptr; child = child->next) {
        count += count_of(child);
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    cJSON_Hooks hooks{allocate, std::free};
    cJSON_InitHooks(&hooks);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const char* const here = static_cast<const char*>(__builtin_frame_address(0));
    g_lowest = here;
    cJSON* const document = cJSON_ParseWithLength(text.data(), text.size());
    const nuvio::JsonShape shape = nuvio::json_shape(text);
    FUZZ_EXPECT(static_cast<size_t>(here - g_lowest) <= shape.nesting * kLevelBytes + kOtherBytes);
    if (document != nullptr) {
        FUZZ_EXPECT(depth_of(document) == shape.nesting);
        FUZZ_EXPECT(count_of(document) <= shape.values);
    }
    cJSON_Delete(document);
    return 0;
}
