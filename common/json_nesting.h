// How deep a JSON text nests, asked before a parser that recurses once a level has it: cJSON goes
// 1000 deep, and a web server's worker may have a stack of 100 KiB. Pure functions, any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace nuvio {

// What nobody who means well goes beyond.
inline constexpr size_t kMaxJsonNesting = 32;

// Arrays and objects within each other in the first value of `text`; what follows that is not
// looked at. Any bytes: of what is no JSON at least as many as cJSON enters before it gives up,
// which is never later than where the counts could differ.
inline size_t json_nesting(std::string_view text) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    const auto* const first = std::ranges::find_if(
        text, [](char c) { return static_cast<unsigned char>(c) > ' '; });  // as cJSON sees blanks
    size_t depth = 0;
    size_t deepest = 0;
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
            deepest = std::max(deepest, ++depth);
        } else if (*at == ']' || *at == '}') {
            depth -= std::min<size_t>(depth, 1);
        }
        if (depth == 0) {
            break;  // the value is over, or is neither an array nor an object
        }
    }
    return deepest;
}

inline bool nests_too_deep(std::string_view json) {
    return json_nesting(json) > kMaxJsonNesting;
}

}  // namespace nuvio
