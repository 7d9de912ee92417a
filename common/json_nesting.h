// How deeply a JSON text nests, before it is given to a parser that recurses. Pure; any thread.
#pragma once

#include <string_view>

namespace nuvio {

// Whether the outermost value has more than so many levels of arrays and objects; what follows that
// value does not count. Right for any bytes: where brackets and quotes could be taken wrongly, a
// parser has stopped already.
inline bool nests_deeper_than(std::string_view text, int levels) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    while (!text.empty() && static_cast<unsigned char>(text.front()) <= ' ') {
        text.remove_prefix(1);
    }
    if (!text.starts_with('[') && !text.starts_with('{')) {
        return false;
    }
    int depth = 0;
    bool in_string = false;
    for (size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (in_string && c == '\\') {
            ++at;
        } else if (c == '"') {
            in_string = !in_string;
        } else if (!in_string && (c == '[' || c == '{')) {
            if (++depth > levels) {
                return true;
            }
        } else if (!in_string && (c == ']' || c == '}')) {
            if (--depth <= 0) {
                return false;
            }
        }
    }
    return false;
}

}  // namespace nuvio
