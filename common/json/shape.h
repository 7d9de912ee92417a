// How deep a JSON text nests and how much is in it, asked before a parser has it that recurses once
// a level and allocates for each value: cJSON goes 1000 deep, and a web server's worker may have a
// stack of 100 KiB. Pure functions, any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace nuvio {

// What nobody who means well goes beyond.
inline constexpr size_t kMaxJsonNesting = 32;
inline constexpr size_t kMaxJsonValues = 65'536;  // up to 150 bytes each in cJSON's hands

struct JsonShape {
    size_t nesting = 0;  // arrays and objects within each other
    size_t values = 0;   // at most; what they are in counts too
};

// Of the first value of `text`; what follows that is not looked at. Any bytes: of what is no JSON
// at least as many levels as cJSON enters before it gives up, which is never later than where the
// counts could differ.
inline JsonShape json_shape(std::string_view text) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    const auto* const first = std::ranges::find_if(
        text, [](char c) { return static_cast<unsigned char>(c) > ' '; });  // as cJSON sees blanks
    JsonShape shape{.nesting = 0, .values = 1};
    size_t depth = 0;
    bool in_text = false;
    for (const auto* at = first; at != text.end(); ++at) {
        if (in_text) {
            if (*at == '\\' && at + 1 != text.end()) {
                ++at;
            } else {
                in_text = *at != '"';
            }
        } else if (*at == '"') {
            in_text = true;
        } else if (*at == '[' || *at == '{') {
            shape.nesting = std::max(shape.nesting, ++depth);
            ++shape.values;
        } else if (*at == ',') {
            ++shape.values;
        } else if (*at == ']' || *at == '}') {
            depth -= std::min<size_t>(depth, 1);
        }
        if (depth == 0) {
            break;  // the value is over, or is neither an array nor an object
        }
    }
    return shape;
}

inline bool nests_too_deep(std::string_view json) {
    return json_shape(json).nesting > kMaxJsonNesting;
}

}  // namespace nuvio
